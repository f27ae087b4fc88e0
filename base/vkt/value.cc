// VKTValue: the public kind of a value, the conversion matrix of the scalar
// accessors, strings and stream payloads reached through their tags, and the
// identity of a view.
//
// A view is trusted: nothing here tests that a pointer lies in the image. The
// null view (no object) answers like an ID_NULL value, at the price of one
// test of mObj.
#include <cmath>  // ldexp
#include <functional>
#include <limits>
#include <type_traits>

#include "vkt/format.h"

namespace {

// Internal kind to public kind, indexed by TYPE_*; the 0 of a non-id byte,
// unsigned numbers and key tags read as null.
constexpr vkt_type sPublicTypeTable[] = {
    VKT_TYPE_NULL,     // (none)
    VKT_TYPE_NULL,     // TYPE_NULL
    VKT_TYPE_BOOL,     // TYPE_BOOL
    VKT_TYPE_INTEGER,  // TYPE_INTEGER
    VKT_TYPE_INTEGER,  // TYPE_LONG_INTEGER
    VKT_TYPE_NULL,     // TYPE_UNSIGNED
    VKT_TYPE_NULL,     // TYPE_KEY
    VKT_TYPE_STRING,   // TYPE_STRING
    VKT_TYPE_STREAM,   // TYPE_STREAM
    VKT_TYPE_STREAM,   // TYPE_BSTREAM
    VKT_TYPE_FLOAT,    // TYPE_SINGLE
    VKT_TYPE_FLOAT,    // TYPE_DOUBLE
    VKT_TYPE_ARRAY,    // TYPE_ARRAY
    VKT_TYPE_OBJECT,   // TYPE_OBJECT
};
static_assert(sizeof(sPublicTypeTable) / sizeof(sPublicTypeTable[0]) ==
                  TYPE_MAX,
              "one public kind per internal kind");

// Truncation toward zero that saturates at the target's limits, with 0 for a
// NaN: a float outside the range of Int has no defined conversion.
template <typename Int, typename Float>
Int saturate_to(Float f) {
  if (f != f) return 0;
  const Float limit = std::ldexp(Float(1), std::numeric_limits<Int>::digits);
  if (f >= limit) return std::numeric_limits<Int>::max();
  if (f < -limit) return std::numeric_limits<Int>::min();
  return static_cast<Int>(f);
}

// A float to the target type: truncated and saturated for an integer, plain
// conversion (IEEE rounding, overflow to infinity) for a float.
template <typename T, typename Float>
T from_float(Float f) {
  if constexpr (std::is_integral<T>::value) {
    return saturate_to<T>(f);
  } else {
    return static_cast<T>(f);
  }
}

// The numeric reading of a value: booleans as 0 and 1, integers converted
// (a long integer narrowed to 32 bits keeps its low bits), floats by
// from_float, every other kind 0. One switch on the id byte picks kind and
// width together, and each case converts straight from the stored width to
// the target.
template <typename T>
T number(const VKTObject* obj, const vkt_u8* p) {
  if (obj == nullptr) return T(0);
  const auto longInteger = [](vkt_s64 v) {
    if constexpr (std::is_same<T, vkt_s32>::value) return vkt_s32(vkt_u32(v));
    return T(v);
  };
  switch (*p) {
    case ID_TRUE:
      return T(1);
    case ID_INTEGER8:
      return T(read_8bit_integer(p + 1));
    case ID_INTEGER16:
      return T(read_16bit_integer(p + 1));
    case ID_INTEGER24:
      return T(read_24bit_integer(p + 1));
    case ID_INTEGER32:
      return T(read_32bit_integer(p + 1));
    case ID_INTEGER40:
      return longInteger(read_40bit_integer(p + 1));
    case ID_INTEGER48:
      return longInteger(read_48bit_integer(p + 1));
    case ID_INTEGER56:
      return longInteger(read_56bit_integer(p + 1));
    case ID_INTEGER64:
      return longInteger(read_64bit_integer(p + 1));
    case ID_SINGLE_FLOAT:
      return from_float<T>(read_single_float(p + 1));
    case ID_DOUBLE_FLOAT:
      return from_float<T>(read_double_float(p + 1));
    default:  // false, integer 0, float 0, and every kind that is no number
      return T(0);
  }
}

}  // namespace

constexpr VKTValue::TypeTable VKTValue::makeTypeTable() {
  TypeTable table{};
  for (vkt_u32 id = 0; id < ID_MAX; ++id) {
    table.type[id] = vkt_u8(sPublicTypeTable[sIdTypeTable[id]]);
  }
  return table;
}

// Built while compiling, so no view can see it before it is filled.
const VKTValue::TypeTable VKTValue::kTypeOfId = makeTypeTable();

bool VKTValue::numberAsBool() const {
  if (mObj == nullptr) return false;
  switch (identify_value(mPtr)) {
    case TYPE_BOOL:
      return parse_bool(mPtr);
    case TYPE_INTEGER:
      return parse_integer(mPtr) != 0;
    case TYPE_LONG_INTEGER:
      return parse_long_integer(mPtr) != 0;
    case TYPE_SINGLE:
      return parse_single(mPtr) != 0.0f;  // unordered: a NaN is true
    case TYPE_DOUBLE:
      return parse_double(mPtr) != 0.0;
    default:
      return false;
  }
}

vkt_s32 VKTValue::numberAsInt() const { return number<vkt_s32>(mObj, mPtr); }
vkt_s64 VKTValue::numberAsLongInt() const {
  return number<vkt_s64>(mObj, mPtr);
}
float VKTValue::asFloat() const { return number<float>(mObj, mPtr); }
double VKTValue::numberAsDouble() const { return number<double>(mObj, mPtr); }

// The writer puts the strings back to back in tag order, each closed by a
// NUL, so the next offset (or the end of the table, where the next section
// begins) less one is where this string's NUL lies. Only when that byte is a
// NUL inside the table is the length taken from it; otherwise the first NUL
// ends the string, which a verified table always holds.
std::string_view VKTValue::asStringView() const {
  if (mObj == nullptr) return std::string_view();
  const vkt_u32 tag = readPacked(mPtr + 1, vkt_u32(*mPtr) - kStringTagId + 1);
  const vkt_u32 count = mObj->mStringCount;
  const vkt_u32 width = mObj->mStringWidth;
  const vkt_u8* offsets = mObj->mStringOffsets;
  if (tag >= count) return std::string_view();
  const vkt_u8* after = mObj->mVersion >= 4 ? mObj->mBStreamOffsetArray
                                            : mObj->mStreamOffsetArray;
  const vkt_u32 tableSize = vkt_u32(after - mObj->mStringEntity);
  const vkt_u32 begin = readPacked(offsets + tag * width, width);
  const vkt_u32 end = tag + 1 < count
                          ? readPacked(offsets + (tag + 1) * width, width)
                          : tableSize;
  const char* text = reinterpret_cast<const char*>(mObj->mStringEntity);
  if (begin < end && end <= tableSize && text[end - 1] == 0) {
    return std::string_view(text + begin, end - 1 - begin);
  }
  return std::string_view(text + begin);
}

const vkt_u8* VKTValue::asStream() const {
  if (mObj == nullptr) return nullptr;
  switch (identify_value(mPtr)) {
    case TYPE_STREAM:
      return mObj->getStream(parse_stream(mPtr));
    case TYPE_BSTREAM:
      return mObj->getBStream(parse_bstream(mPtr));
    default:
      return nullptr;
  }
}

bool VKTValue::isBoundStream() const {
  return mObj != nullptr && identify_value(mPtr) == TYPE_BSTREAM;
}

vkt_u32 VKTValue::streamSize() const {
  if (mObj == nullptr) return 0;
  switch (identify_value(mPtr)) {
    case TYPE_STREAM:
      return mObj->streamSize(parse_stream(mPtr));
    case TYPE_BSTREAM:
      return mObj->bstreamSize(parse_bstream(mPtr));
    default:
      return 0;
  }
}

VKTReadStream* VKTValue::buildStreamReader() const {
  if (mObj == nullptr) return nullptr;
  switch (identify_value(mPtr)) {
    case TYPE_STREAM:
      return mObj->buildStreamReader(parse_stream(mPtr));
    case TYPE_BSTREAM:
      return mObj->buildBStreamReader(parse_bstream(mPtr));
    default:
      return nullptr;
  }
}

VKTValue VKTValue::root() const {
  return mObj == nullptr ? VKTValue() : mObj->root();
}

bool VKTValue::operator<(const VKTValue& r) const {
  // std::less orders unrelated pointers too, as plain addresses.
  if (mObj != r.mObj) return std::less<const VKTObject*>()(mObj, r.mObj);
  return std::less<const vkt_u8*>()(mPtr, r.mPtr);
}

size_t VKTValue::getHash() const {
  return std::hash<const VKTObject*>()(mObj) + std::hash<const vkt_u8*>()(mPtr);
}

vkt_endian vkt_get_local_endian() {
  const vkt_u32 key = 0x12345678;
  vkt_u8 storage[sizeof(key)];
  std::memcpy(storage, &key, sizeof(key));
  return storage[0] == 0x78 ? VKT_ENDIAN_LITTLE : VKT_ENDIAN_BIG;
}
