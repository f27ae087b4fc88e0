// vkt: a tree of typed values stored as one self-contained image, read in
// place.
//
// A program builds a tree of VKTWriterValue nodes and turns it into an image
// with VKTWriterObject. Another program opens the image's bytes with
// VKTObject and walks it through VKTValue views that point into those bytes:
// opening copies the header and nothing else, and a value is parsed only when
// it is asked for.
//
// The library has no global state, no threads and no output of its own. It
// throws nothing: a failed lookup answers false or a null view, missing
// stream data answers null, and VKTObject::decode and VKTObject::verify answer
// false on a bad image. Everything else trusts its input. decode checks the
// header only; bytes that you did not write yourself go through decode, then
// verify, and are opened only when both answer true.
#ifndef VKT_VKT_H_
#define VKT_VKT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>  // memcpy, strcmp
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vkttypes.h"

// A walk's steps (setting up a range, one element or member, one packed
// number) are a few loads each; they are inlined into the caller's loops
// even where the compiler's size estimate would call them, as a call costs
// more than the step.
#if defined(__GNUC__) || defined(__clang__)
#define VKT_INLINE inline __attribute__((always_inline))
#define VKT_UNLIKELY(x) __builtin_expect(!!(x), 0)
#else
#define VKT_INLINE inline
#define VKT_UNLIKELY(x) (x)
#endif

// A growable run of bytes: an image, or a payload.
typedef std::vector<vkt_u8> vkt_binary;
// Member names, as VKTValue::getMemberNames fills them.
typedef std::vector<std::string> vkt_members;

// The kind of a value, as VKTValue::type answers it.
enum vkt_type {
  VKT_TYPE_NULL = 0,
  VKT_TYPE_BOOL = 1,
  VKT_TYPE_INTEGER = 2,
  VKT_TYPE_FLOAT = 3,
  VKT_TYPE_STRING = 4,
  VKT_TYPE_STREAM = 5,
  VKT_TYPE_ARRAY = 6,
  VKT_TYPE_OBJECT = 7,
};

// Who owns a buffer handed to VKTObject or VKTWriterValue::setStream.
//
// VKTObject(ptr, size, mode, filter):
//   DUPLICATE    the object copies all bytes; the caller's buffer is free
//                again once the constructor returns.
//   REFER        the object reads the caller's buffer in place; it must
//                outlive the object. An info filter writes into it.
//   OWN          the object takes the buffer, which must come from new[],
//                and releases it with delete[]. An info filter writes into it.
//   PURGE        as OWN, but the front part (everything in front of the stream
//                entity) is copied, so the stream payloads can be released on
//                their own by purgeStreamEntity. The caller's bytes are not
//                written.
//   PURGE_REFER  the front part is copied; stream payloads are read from the
//                caller's buffer, which must outlive every use of stream data.
//                It is never written and never released.
enum vkt_alloc_type {
  VKT_ALLOC_DUPLICATE = 0,
  VKT_ALLOC_REFER = 1,
  VKT_ALLOC_OWN = 2,
  VKT_ALLOC_PURGE = 3,
  VKT_ALLOC_PURGE_REFER = 4,
};

// What the offset of VKTReadStream::Seek counts from.
enum vkt_origin {
  VKT_ORIGIN_SET = 0,
  VKT_ORIGIN_CUR = 1,
  VKT_ORIGIN_END = 2,
};

// Byte order. An image is little-endian whatever this says: the writer only
// marks the order it was told in the image's flags (VKT_FLAGS_ENDIAN_BIG).
enum vkt_endian {
  VKT_ENDIAN_LITTLE = 0,
  VKT_ENDIAN_BIG = 1,
};

// Flags of VKTWriterValue::setStream.
enum vkt_stream_flags {
  // The payload is a bstream: it is stored in the front part of the image and
  // stays in memory when the stream entity is cut off or purged.
  VKT_STREAM_FLAG_BOUND = 1,
};

// Bits of the image's flags word, as passed to VKTWriterObject::writeImage.
// Bits 3 to 15 are stored as given and carry no meaning.
const vkt_u32 VKT_FLAGS_FILTER_HEADER = 1;  // header offsets are scrambled
const vkt_u32 VKT_FLAGS_FILTER_INFO = 2;    // keys, root, strings scrambled
const vkt_u32 VKT_FLAGS_FILTER_MASK = 2;    // kept for its historic value
const vkt_u32 VKT_FLAGS_ENDIAN_SHIFT = 2;
const vkt_u32 VKT_FLAGS_ENDIAN_LITTLE = 0;
const vkt_u32 VKT_FLAGS_ENDIAN_BIG = 1 << VKT_FLAGS_ENDIAN_SHIFT;
const vkt_u32 VKT_FLAGS_ENDIAN_MASK = 1 << VKT_FLAGS_ENDIAN_SHIFT;

class VKTObject;
class VKTMemberRange;
class VKTElementRange;
class VKTWriterObject;
// The writer's internal parts, defined in the implementation.
namespace vkt_internal {
struct WriterTables;
class ValueSource;
struct KeyState;
// What inline member walks and lookups read of a block of decoded key names:
// every name back to back, each closed by a NUL, where each begins (one extra
// entry for the end), and how many; with the name index, per key tag the
// member position where plain-name lookups last found it (see VKTKey), and
// by the bits of a name's address, the name last found there. The block
// behind it is the implementation's and owns all of it.
struct NameView {
  static const vkt_u32 kRecent = 256;
  const char* names = nullptr;
  const vkt_u32* starts = nullptr;
  vkt_u32 count = 0;
  std::atomic<vkt_u32>* guesses = nullptr;  // null without the index
  // Where the name begins (high half) and its key tag + 1 (low half), in one
  // word so that a lookup reads the name's text straight after the slot; 0
  // while no name was found at such an address.
  mutable std::atomic<vkt_u64> recent[kRecent] = {};
  std::atomic<vkt_u64>& recentSlot(const char* key) const {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(key);
    return recent[(address >> 3 ^ address >> 12) % kRecent];
  }
  // The key tag of `key` when it is the name last found at its address.
  bool recentTag(const char* key, vkt_u32* tag) const {
    const vkt_u64 seen = recentSlot(key).load(std::memory_order_relaxed);
    if (seen == 0 || std::strcmp(key, names + (seen >> 32)) != 0) return false;
    *tag = vkt_u32(seen) - 1;
    return true;
  }
};
struct NameBlock;
struct NameScratch;
// A member iterator's rebuild buffer for a copy of the iterator (the key
// table's arrays as in `scratch`, a name buffer of its own), and its end.
NameScratch* copy_scratch(const NameScratch* scratch);
void free_scratch(NameScratch* scratch);
}  // namespace vkt_internal
class VKTWriterValue;
// The implementation's accessor to the private parts below; not for users.
class VKTInternal;

// The deepest nesting of arrays and objects that an image may have: a root
// array holding scalars has depth 1. The writer refuses deeper trees and
// VKTVerifyLimits::maxDepth defaults to it, so every image the writer makes
// passes verify's default depth check.
const vkt_u32 VKT_MAX_DEPTH = 255;

// Bounds that VKTObject::verify holds an image to. A default-constructed
// object gives the defaults.
struct VKTVerifyLimits {
  // Deepest nesting of arrays and objects (see VKT_MAX_DEPTH), which it
  // also caps.
  vkt_u32 maxDepth = VKT_MAX_DEPTH;
  // Most values that a recursive walk from the root visits, counting an
  // encoding that several elements share once for every element; also the
  // most bytes that the names of all keys take together. 0 means
  // VKTVerifyLimits::defaultMaxValues: an image whose sharing expands far
  // beyond its size is refused, while any tree of up to 64 M values passes
  // however well it shares. The writer refuses to make an image that this
  // default would refuse.
  vkt_u64 maxValues = 0;
  static const vkt_u32 kValuesPerByte = 256;
  static const vkt_u64 kLeastMaxValues = vkt_u64(1) << 26;
  // kValuesPerByte times the image's size, or kLeastMaxValues if more.
  static vkt_u64 defaultMaxValues(vkt_u64 imageSize) {
    const vkt_u64 perByte = kValuesPerByte * imageSize;
    return perByte > kLeastMaxValues ? perByte : kLeastMaxValues;
  }
  // Largest image accepted, in bytes.
  vkt_size maxImageSize = 0xFFFFFFFF;
};

// The kind of fault that made a check refuse an image, for a program that
// tells its users what to do about it.
enum vkt_fault {
  VKT_FAULT_NONE = 0,
  VKT_FAULT_NOT_AN_IMAGE = 1,  // no vkt magic: some other file
  VKT_FAULT_VERSION = 2,       // a version this library does not read
  VKT_FAULT_FILTERED = 3,      // filter bits set: decode it with its filter
  VKT_FAULT_TRUNCATED = 4,     // shorter than its header says: cut short
  VKT_FAULT_CHECKSUM = 5,      // the header's checksum does not match
  VKT_FAULT_DAMAGED = 6,       // any other fault in the bytes
  VKT_FAULT_LIMIT = 7,         // sound as far as read, but past the limits
};

// Why VKTObject::verify refused an image. `reason` is a short fixed text with
// static lifetime ("" when the image passed); `offset` is the image byte at
// which the failing check looked (0 for checks of the whole image).
struct VKTVerifyReport {
  const char* reason = "";
  vkt_size offset = 0;
  vkt_fault fault = VKT_FAULT_NONE;
  // The version in the header, once the magic has been read (else 0).
  vkt_u32 version = 0;
  // Where the image ends: after a pass, the end of its last stream payload
  // (the stream entity's start when it has none), so that bytes from there
  // up to the size given belong to something else; for VKT_FAULT_TRUNCATED,
  // the byte the header names beyond the size given.
  vkt_u64 end = 0;

  // What the image holds, filled when verify answers true (zero otherwise):
  // the entries of the key, string, stream and bstream tables; the values a
  // walk from the root visits, the root included and an encoding that
  // several elements share counted once per element (the image's size in
  // values as if nothing were shared: what a whole-image print or copy
  // visits); and the deepest nesting (0 for a scalar root, 1 for a
  // container of scalars).
  vkt_u32 keys = 0;
  vkt_u32 strings = 0;
  vkt_u32 streams = 0;
  vkt_u32 bstreams = 0;
  vkt_u64 values = 0;
  vkt_u32 depth = 0;
  // Bytes of every key name with one NUL each: what decodeKeyNames
  // allocates for its block, and at most what getMemberNames copies.
  vkt_u64 keyNameBytes = 0;
};

// The sections of an image, in file order. Versions 1 to 3 have no bstream
// sections.
enum vkt_section {
  VKT_SECTION_KEY_OFFSET_ARRAY = 0,  // version 1: key offsets; else a marker
  VKT_SECTION_KEY_ENTITY = 1,        // version 1: key strings; else the trie
  VKT_SECTION_ROOT_VALUE = 2,
  VKT_SECTION_STRING_OFFSET_ARRAY = 3,
  VKT_SECTION_STRING_ENTITY = 4,
  VKT_SECTION_BSTREAM_OFFSET_ARRAY = 5,
  VKT_SECTION_BSTREAM_SIZE_ARRAY = 6,
  VKT_SECTION_BSTREAM_ENTITY = 7,
  VKT_SECTION_STREAM_OFFSET_ARRAY = 8,
  VKT_SECTION_STREAM_SIZE_ARRAY = 9,
  VKT_SECTION_STREAM_ENTITY = 10,
};

// One section of an image, as VKTObject::sections lists it.
struct VKTSection {
  vkt_section id;
  const char* name;  // "root value", "stream entity", ...: static text
  vkt_u32 offset;    // from the image's first byte, as the header says
  // Bytes up to the next section or the image's end, the zero bytes that
  // align an entity behind this section included.
  vkt_u32 size;
};

// Scrambles or unscrambles bytes in place; one operation serves both ways.
// The writer and every reader call it on the same bytes in the same order
// (header range, second header range, then the structural sections in file
// order), and a reader may cover in one call what the writer did in several.
// A stateful filter must therefore give the same result however the byte
// sequence is cut into calls, and each side must start with a fresh one.
// The library never keeps a pointer to a filter after the call that took it.
class VKTFilter {
 public:
  virtual ~VKTFilter() {}
  virtual void Filter(vkt_u8* ptr, vkt_size size) = 0;
};

// A byte source with a position. A program implements it to hand the library
// data that is not in memory: an image to open or a payload to store.
//
// Requirements: Read delivers from the current position, moves it by what it
// delivered and answers 0 only at the end; Seek(offset, VKT_ORIGIN_SET) works,
// also back to 0; Size is right whatever the position.
class VKTReadStream {
 public:
  virtual ~VKTReadStream() {}
  // Total number of bytes of the source.
  virtual vkt_size Size() const = 0;
  // Copies at most `size` bytes into `image`; answers how many, 0 at the end.
  virtual vkt_size Read(vkt_u8* image, vkt_size size) = 0;
  // Moves the position (32-bit arithmetic, wrapping) and answers it.
  virtual vkt_offset Seek(vkt_offset offset, vkt_origin origin) = 0;
  // The current position.
  vkt_offset Tell() { return Seek(0, VKT_ORIGIN_CUR); }
};

// An append-only byte sink that knows how many bytes it has taken.
// VKTWriterObject::writeImage computes all padding from Offset, so a sink
// handed to it must stand at 0 when the image begins.
//
// A derived class that overrides Write hides the two convenience overloads
// below; add `using VKTWriteStream::Write;` to keep them.
class VKTWriteStream {
 public:
  virtual ~VKTWriteStream() {}
  // Bytes taken so far: where the next byte will lie.
  virtual vkt_u32 Offset() const = 0;
  // Takes `size` bytes. There is no way to refuse them.
  virtual void Write(const vkt_u8* catImage, vkt_u32 size) = 0;

  // Writes the vector; an empty one makes no call of the virtual Write.
  void Write(const vkt_binary& image);
  // Seeks `reader` to 0 and copies it through an 8 KiB buffer until its Read
  // answers 0. A null reader writes nothing. The reader stays the caller's.
  void Write(VKTReadStream* reader);
};

// A key name resolved once against an image's key table by
// VKTObject::prepareKey, or taken from a member (VKTMember::key). It holds the
// key tag alone, so it is valid with the image it came from and with every
// image that shares its key table; with any other image it names an
// unrelated key. A name that the table lacks gives an absent key, which no
// object has as a member. Copied freely; owns nothing. Any number of threads
// may look up with one key at once.
class VKTKey {
 public:
  VKTKey() : mTag(kAbsent) {}
  explicit VKTKey(vkt_u32 keyTag) : mTag(keyTag) {}
  VKTKey(const VKTKey& r)
      : mTag(r.mTag), mGuess(r.mGuess.load(std::memory_order_relaxed)) {}
  VKTKey& operator=(const VKTKey& r) {
    mTag = r.mTag;
    mGuess.store(r.mGuess.load(std::memory_order_relaxed),
                 std::memory_order_relaxed);
    return *this;
  }
  bool isPresent() const { return mTag != kAbsent; }
  vkt_u32 tag() const { return mTag; }

 private:
  friend class VKTValue;
  static const vkt_u32 kAbsent = 0xFFFFFFFF;
  vkt_u32 mTag;
  // The member position where the key was last found. Objects of one shape
  // hold a name at one position, so a lookup tests that one first; a wrong
  // guess costs one compare and the usual search.
  mutable std::atomic<vkt_u32> mGuess{0};
};

// A view of one value in an opened image: two pointers, copied freely, owning
// nothing. It stays valid while its VKTObject lives and the bytes it points at
// stay in memory. The default view is the null view; a missed lookup gives it.
//
// Views only read. Any number of threads may use views of one image at once,
// except for lookups that pass a hint while the object's key cache is enabled
// (see VKTObject::setKeyHashEnabled).
//
// Kinds: the scalar accessors convert between bool, integer and float and give
// false/0/0.0 for every other kind, and for the null view. Container
// operations on a view that is no container, or on the null view, answer as for
// an empty container: 0, the null view, false, no names.
class VKTValue {
 public:
  VKTValue() : mObj(nullptr), mPtr(nullptr) {}

  vkt_type type() const {
    return mObj == nullptr ? VKT_TYPE_NULL : vkt_type(kTypeOfId.type[*mPtr]);
  }

  // Scalars. Integers narrowed by asInt keep their low 32 bits. A float or
  // double is truncated toward zero and saturates at the target's limits; a
  // NaN gives 0 (and true from asBool).
  bool asBool() const;        // a stored true or false inline, below VKTObject
  vkt_s32 asInt() const;      // integers of up to 4 bytes inline, below
  vkt_s64 asLongInt() const;  // VKTObject, as for asInt
  float asFloat() const;
  double asDouble() const;  // a stored double inline, below VKTObject

  // The string of a string value. On a value of another kind this is the
  // image's first string, or "" when the image has none or the view is null.
  // Valid while the VKTObject lives.
  const char* asString() const;  // inline, below VKTObject
  // The same string with its length, NULs inside it included: the bytes up to
  // the next string's offset, or for the last string up to the end of the
  // string table, less the closing NUL. Constant time on every image the
  // library writes. Where the table does not give a length ending on a NUL in
  // front of the next offset (an image not laid out by the library), the
  // string ends at its first NUL, as asString. Valid while the VKTObject
  // lives; on a checked image, after verifyStep of this value.
  std::string_view asStringView() const;
  // The payload of a stream or bstream value, or null when its bytes are not
  // in memory (purged, or the image was opened through a VKTReadStream) or
  // the value is no stream. A stream payload stays valid while its bytes do:
  // until purgeStreamEntity in VKT_ALLOC_PURGE, else while the object (or,
  // for REFER and PURGE_REFER, the caller's buffer) lives. A bstream payload
  // stays valid while the object lives.
  const vkt_u8* asStream() const;
  // Size of the payload in bytes, also when the bytes are gone; 0 for a value
  // that is no stream.
  vkt_u32 streamSize() const;
  // True for a bstream: a payload kept in the front part of the image, which
  // stays in memory through a purge. False for a stream and any other value.
  bool isBoundStream() const;
  // A new reader over the payload, or null when it is neither in memory nor
  // in the source. The caller owns it, deletes it, and must do so before the
  // bytes it reads go (before a purge, before the VKTObject dies).
  VKTReadStream* buildStreamReader() const;

  // The checks of an image read without a whole-image verify (see
  // VKTObject::verifyTables): verifyStep checks this value's own bytes (a
  // scalar's payload and tag, a container's arrays; constant time, except
  // for a version-1 object, whose member records are all checked);
  // verify checks this value and everything below it, with VKTObject::
  // verify's limits (null: the defaults), in time and memory that follow
  // what lies below it. Both answer true for the null view and fill
  // *report (when not null) as VKTObject::verify does.
  bool verifyStep(VKTVerifyReport* report = nullptr) const;
  bool verify(VKTVerifyReport* report = nullptr,
              const VKTVerifyLimits* limits = nullptr) const;

  // Containers.
  vkt_size size() const;
  vkt_size count() const { return size(); }
  // Element `index` of an array; the null view at or beyond size().
  // Always inline, with the lookups of prepared keys: called, the view goes
  // through memory, and GCC reloads the two halves it stored as one 16-byte
  // word, a load that waits for both stores.
  VKT_INLINE VKTValue operator[](vkt_u32 index) const { return at(index); }
  // Any other integer type, so that v[0] or v[i] with an int or size_t index
  // does not collide with the key form.
  template <typename T,
            typename std::enable_if<std::is_integral<T>::value, int>::type = 0>
  VKT_INLINE VKTValue operator[](T index) const {
    return at(static_cast<vkt_u32>(index));
  }
  VKT_INLINE VKTValue at(vkt_u32 index) const {
    // ID_ARRAY | offset array | elements
    if (mObj == nullptr || *mPtr != kArrayId) return VKTValue();
    vkt_u32 count, width;
    const vkt_u8* offsets = packedHead(mPtr + 1, &count, &width);
    if (index >= count) return VKTValue();
    return VKTValue(mObj, offsets + count * width +
                              readEntry(offsets + index * width, width));
  }

  // Member of an object by name; the null view when it is missing. A member
  // that holds null is found: its view has a non-null object().
  VKT_INLINE VKTValue operator[](const char* key) const { return atName(key); }
  VKT_INLINE VKTValue operator[](const std::string& key) const {
    return atName(key.c_str());
  }
  VKT_INLINE VKTValue at(const std::string& key) const {
    return atName(key.c_str());
  }
  // `hint`, when not null, takes part in the object's key cache: set it to 0
  // once and pass the same variable with the same key every time. While the
  // cache is enabled the cache keeps the `key` pointer, so the string must
  // stay alive and unchanged until the cache is disabled or the object dies,
  // and lookups with a hint on one object must not run concurrently with each
  // other or with setKeyHashEnabled. Without a hint nothing of this applies.
  VKTValue at(const char* key, vkt_u32* hint) const;

  bool isMember(const std::string& key) const {
    return isMember(key.c_str(), nullptr);
  }
  bool isMember(const char* key, vkt_u32* hint) const;
  // True and *value set when `key` is a member; false and *value untouched
  // otherwise. `value` must not be null. `hint` as for at.
  bool findMember(const std::string& key, VKTValue* value) const {
    return findMember(key.c_str(), value, nullptr);
  }
  bool findMember(const char* key, VKTValue* value, vkt_u32* hint) const;
  // The same lookups with a prepared key: a test of the position where the
  // key was last found, else a binary search of the object's key array, and
  // nothing else, so the fastest way to reach the same name in many objects.
  // Which form to use:
  //   - a name known ahead, looked up in many objects of one image (a field of
  //     every record): prepare it once with VKTObject::prepareKey;
  //   - a name looked up once or twice: the plain name;
  //   - hints only save the trie walk after the first lookup and put the
  //     caller under the key cache's rules; a prepared key is faster, needs
  //     no cache and is safe for concurrent readers.
  VKT_INLINE VKTValue operator[](const VKTKey& key) const { return at(key); }
  VKT_INLINE VKTValue at(const VKTKey& key) const;
  bool isMember(const VKTKey& key) const {
    VKTValue value;
    return findMember(key, &value);
  }
  bool findMember(const VKTKey& key, VKTValue* value) const;
  // Clears *result and fills it with the member names in stored order, which
  // is ascending byte order for images of this library's writer.
  void getMemberNames(vkt_members* result) const;

  // Walks by position, with no lookup per member:
  //   for (const VKTMember& m : v.members()) use(m.name, m.value);
  //   for (VKTValue e : v.elements()) use(e);
  // elements() never allocates; members() does not either once
  // VKTObject::decodeKeyNames has run (see VKTMemberIterator). Prefer them to
  // getMemberNames + at(name), which allocates every name and looks each one
  // up again.
  // members() gives an object's members in stored order (empty for any other
  // kind); elements() gives an array's elements, or an object's member values
  // in stored order (empty for any other kind). Both ranges hold views into
  // the image and are valid as long as this view is.
  VKT_INLINE VKTMemberRange members() const;
  VKTElementRange elements() const;

  // The root of the same image; the null view for a null view.
  VKTValue root() const;
  // The image this view belongs to; null for the null view.
  const VKTObject* object() const { return mObj; }

  // Identity, not content: views are equal when they point at the same bytes
  // of the same object. Elements that share one encoding compare equal.
  bool operator==(const VKTValue& r) const {
    return mObj == r.mObj && mPtr == r.mPtr;
  }
  bool operator!=(const VKTValue& r) const { return !(*this == r); }
  bool operator<(const VKTValue& r) const;
  size_t getHash() const;

 private:
  friend class VKTObject;
  friend class VKTMemberIterator;
  friend class VKTMemberRange;
  friend class VKTElementIterator;
  friend class VKTInternal;
  VKTValue(const VKTObject* obj, const vkt_u8* ptr) : mObj(obj), mPtr(ptr) {}
  // The public kind of each id byte (0, null, for a byte that is no id), so
  // that type() inlines.
  struct TypeTable {
    vkt_u8 type[256];
  };
  static const TypeTable kTypeOfId;
  // The array id, and what an unsigned id exceeds its width by (checked
  // against the library's id table in container.cc).
  static const vkt_u8 kArrayId = 32;
  static const vkt_u8 kObjectId = 33;
  static const vkt_u8 kStringTagId = 21;  // 1-byte tag; 22 to 24: 2 to 4
  static const vkt_u8 kDoubleId = 31;     // then 8 bytes, low byte first
  static const vkt_u8 kTrueId = 2;        // and kFalseId, 3: no payload
  static const vkt_u8 kInteger0Id = 4;    // 5 to 8: 1 to 4 bytes, signed
  static const vkt_u32 kUnsignedIdBias = 12;
  static constexpr TypeTable makeTypeTable();  // value.cc
  // Packed numbers are read as one 4-byte word, masked to their width, with
  // no branch on the width. Every packed number read here (container heads
  // and entries, key tags, string tags and the string offset array), and
  // every integer of up to 4 bytes that asInt and asLongInt read, lies in
  // front of the stream offset and size arrays, which are at least 3 bytes
  // each and in memory: verify and verifyTables check the section order and
  // both arrays (verifyStep a value's own bytes), and the library writes
  // them so. The up to 4 bytes read past a number's last byte are then
  // always the image's own. Open reads before any check, so it reads byte by
  // byte.
  static constexpr vkt_u32 kPackedMask[5] = {0, 0xFF, 0xFFFF, 0xFFFFFF,
                                             0xFFFFFFFF};
  // Four bytes at p, least significant first.
  VKT_INLINE static vkt_u32 loadWord(const vkt_u8* p) {
    vkt_u32 word;
    std::memcpy(&word, p, sizeof(word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = __builtin_bswap32(word);
#endif
    return word;
  }
  // One packed number of `width` bytes, least significant first, 0 for a
  // width outside 1 to 4; the one byte-level read kept in this header, so
  // that indexing and a walk's steps inline.
  VKT_INLINE static vkt_u32 readPacked(const vkt_u8* p, vkt_u32 width) {
    return width <= 4 ? loadWord(p) & kPackedMask[width] : 0;
  }
  // The same for a width of 0 to 4, as packedHead gives it.
  VKT_INLINE static vkt_u32 readEntry(const vkt_u8* p, vkt_u32 width) {
    return loadWord(p) & kPackedMask[width];
  }
  // asDouble for every value that is no stored double, asBool for every
  // value that is no stored true or false (value.cc).
  double numberAsDouble() const;
  bool numberAsBool() const;
  // asInt and asLongInt for every value that is no integer of up to 4
  // bytes (value.cc).
  vkt_s32 numberAsInt() const;
  vkt_s64 numberAsLongInt() const;
  // The signed integer of 0 to 4 bytes behind an integer id, read as one
  // word: shifted up to the top of 64 bits, dropping what lies past it, and
  // back down with its sign; two shifts of 32 or less, as one of 64 would
  // be undefined.
  VKT_INLINE static vkt_s64 shortInteger(const vkt_u8* p) {
    const vkt_u32 drop = 32 - 8 * (vkt_u32(*p) - kInteger0Id);
    const vkt_s64 top = vkt_s64(vkt_u64(loadWord(p + 1)) << 32 << drop);
    return top >> 32 >> drop;
  }
  // The head of the packed array at `p` (count id | count | width id |
  // entries): sets *count and *width and answers the first entry. A count id
  // outside the family gives count 0, a width id outside it width 0 (every
  // entry reads as 0), as the library's own array reader does.
  VKT_INLINE static const vkt_u8* packedHead(const vkt_u8* p, vkt_u32* count,
                                             vkt_u32* width) {
    const vkt_u32 countWidth = vkt_u32(p[0]) - kUnsignedIdBias;
    *count = readPacked(p + 1, countWidth);
    const vkt_u32 w = vkt_u32(p[1 + countWidth]) - kUnsignedIdBias;
    *width = w <= 4 ? w : 0;
    return p + 2 + countWidth;
  }
  // elements() and members() on a version-1 object, whose offsets name
  // (key tag, value) records.
  VKTElementRange recordElements() const;
  VKTMemberRange recordMembers() const;
  // The member with key tag `tag`; REQUIRES: an object view.
  // The member with key tag `tag`, into *value; false when there is none.
  // `guess` holds the position where the tag was last found: findTag tests
  // it first, and searchTag (which takes a null one too) updates it on a
  // find elsewhere. The result goes through *value rather than back as a
  // view: a view given back from a call and copied on is reloaded as one
  // 16-byte word that waits for the two stores of its halves.
  VKT_INLINE bool findTag(vkt_u32 tag, std::atomic<vkt_u32>* guess,
                          VKTValue* value) const;
  bool searchTag(vkt_u32 tag, std::atomic<vkt_u32>* guess,
                 VKTValue* value) const;
  // Member `position` of a version-2-and-up object whose key array has
  // `count` entries of `width` bytes from `keys`.
  VKT_INLINE VKTValue memberAt(const vkt_u8* keys, vkt_u32 count, vkt_u32 width,
                               vkt_u32 position) const {
    vkt_u32 offsetCount, offsetWidth;
    const vkt_u8* offsets =
        packedHead(keys + count * width, &offsetCount, &offsetWidth);
    return VKTValue(
        mObj, offsets + offsetCount * offsetWidth +
                  readEntry(offsets + position * offsetWidth, offsetWidth));
  }
  // The member named `key`, the name last found at its address tested
  // inline.
  VKT_INLINE VKTValue atName(const char* key) const;
  bool findRecordTag(vkt_u32 tag, VKTValue* value) const;  // version 1

  const VKTObject* mObj;
  const vkt_u8* mPtr;
};

// One member of an object, as VKTValue::members() hands it out.
struct VKTMember {
  vkt_u32 keyTag = 0;  // the name's key tag in the image's key table
  // The name. It points into a name block of the VKTObject when
  // VKTObject::decodeKeyNames has run or earlier walks decoded the names
  // (valid until the object dies), else into the iterator that produced it
  // (valid until that iterator moves on or dies). Not NUL-terminated in
  // general.
  std::string_view name;
  VKTValue value;
  // The prepared key of this member's name, for lookups in other objects.
  VKTKey key() const { return VKTKey(keyTag); }
};

// Position walks over a container. An iterator keeps the container's array
// pointers and widths, read once when the range is made, and reads one array
// entry per step. Input iterators: compare only iterators of one range.
class VKTElementIterator {
 public:
  typedef std::input_iterator_tag iterator_category;
  typedef VKTValue value_type;
  typedef std::ptrdiff_t difference_type;
  typedef const VKTValue* pointer;
  typedef VKTValue reference;

  VKT_INLINE VKTValue operator*() const { return VKTValue(mObj, valuePtr()); }
  VKTElementIterator& operator++() {
    ++mIndex;
    return *this;
  }
  bool operator==(const VKTElementIterator& r) const {
    return mIndex == r.mIndex;
  }
  bool operator!=(const VKTElementIterator& r) const {
    return mIndex != r.mIndex;
  }

 private:
  friend class VKTValue;
  friend class VKTElementRange;
  friend class VKTMemberIterator;
  friend class VKTMemberRange;
  VKTElementIterator() = default;
  // Where the current value lies. One test serves both rare cases: a width
  // above 4 only marks records. The walks build their views from this one
  // pointer: GCC merged two built views through the stack, and the reload
  // stalled on the store.
  VKT_INLINE const vkt_u8* valuePtr() const {
    if (VKT_UNLIKELY(mWidth > 4)) {
      return recordValue(mEntity, mOffsets, mWidth, mIndex);
    }
    return mEntity + VKTValue::readEntry(mOffsets + mIndex * mWidth, mWidth);
  }
  // Added to mWidth in a version-1 object, whose offsets name (key tag,
  // value) records.
  static const vkt_u32 kRecords = 8;
  bool records() const { return mWidth >= kRecords; }
  vkt_u32 entryWidth() const { return mWidth & (kRecords - 1); }
  // Where the value of a version-1 record lies, behind its key tag; takes
  // the fields, not the iterator, so that a walk keeps them in registers.
  static const vkt_u8* recordValue(const vkt_u8* entity, const vkt_u8* offsets,
                                   vkt_u32 width, vkt_u32 index);

  const VKTObject* mObj = nullptr;
  const vkt_u8* mOffsets = nullptr;  // first entry of the offset array
  const vkt_u8* mEntity = nullptr;   // what the offsets count from
  vkt_u32 mWidth = 1;                // bytes per offset (0 to 4), + kRecords
  vkt_u32 mIndex = 0;
};

class VKTElementRange {
 public:
  VKTElementIterator begin() const { return mBegin; }
  VKTElementIterator end() const {
    VKTElementIterator it = mBegin;
    it.mIndex = mCount;
    return it;
  }
  vkt_u32 size() const { return mCount; }
  bool empty() const { return mCount == 0; }

 private:
  friend class VKTValue;
  friend class VKTMemberRange;
  VKTElementRange() = default;
  VKTElementIterator mBegin;
  vkt_u32 mCount = 0;
};

// Members by position. Without VKTObject::decodeKeyNames each step rebuilds
// the name from the key table into a buffer that begin() allocates once (a
// copy of the iterator allocates its own); a name longer than any before it
// grows that buffer. Once walks and lookups by
// plain name on one object have resolved as many names through the key
// table as it holds, the one that passes that count decodes and indexes all
// names once, into a block the object keeps until it dies (what
// buildKeyIndex takes), and later walks and lookups, on any thread, use it;
// concurrent readers stay safe. With the names decoded nothing is allocated.
class VKTMemberIterator {
 public:
  typedef std::input_iterator_tag iterator_category;
  typedef VKTMember value_type;
  typedef std::ptrdiff_t difference_type;
  typedef const VKTMember* pointer;
  typedef const VKTMember& reference;

  const VKTMember& operator*() const { return mMember; }
  const VKTMember* operator->() const { return &mMember; }
  VKTMemberIterator& operator++() {
    ++mIndex;
    load();
    return *this;
  }
  bool operator==(const VKTMemberIterator& r) const {
    return mIndex == r.mIndex;
  }
  bool operator!=(const VKTMemberIterator& r) const {
    return mIndex != r.mIndex;
  }

 private:
  friend class VKTMemberRange;
  friend class VKTObject;
  VKTMemberIterator() = default;

  // The rebuild buffer, the iterator's own: a copy of the iterator makes
  // its own, so that copies step on independently, as iterators that held
  // their buffer inline did. Null while names come from a decoded block,
  // and in an iterator moved from, whose next step makes a new one.
  class Scratch {
   public:
    Scratch() = default;
    Scratch(const Scratch& r)
        : mPtr(r.mPtr ? vkt_internal::copy_scratch(r.mPtr) : nullptr) {}
    Scratch(Scratch&& r) noexcept : mPtr(r.mPtr) { r.mPtr = nullptr; }
    Scratch& operator=(Scratch r) noexcept {
      vkt_internal::NameScratch* p = mPtr;
      mPtr = r.mPtr;
      r.mPtr = p;
      return *this;
    }
    ~Scratch() {
      if (mPtr != nullptr) vkt_internal::free_scratch(mPtr);
    }
    void adopt(vkt_internal::NameScratch* p) { mPtr = p; }
    vkt_internal::NameScratch* get() const { return mPtr; }

   private:
    vkt_internal::NameScratch* mPtr = nullptr;
  };

  // Where begin() found the names: a decoded block, or else a new rebuild
  // buffer.
  struct NameSource {
    const vkt_internal::NameView* names;
    vkt_internal::NameScratch* scratch;
  };

  // Fills mMember for the current position, when there is one: inline for
  // decoded names, else through rebuilt. Both take the fields they need, not
  // the iterator, so that a walk keeps the iterator in registers.
  VKT_INLINE void load();
  static VKTMember rebuilt(VKTElementIterator values, const vkt_u8* keys,
                           vkt_u32 keyWidth,
                           vkt_internal::NameScratch* scratch);

  // The member values' offsets as a VKTElementIterator keeps them, without
  // its object: the member's value holds that, and a walk keeps one copy
  // fewer across its steps.
  const vkt_u8* mOffsets = nullptr;
  const vkt_u8* mEntity = nullptr;
  vkt_u32 mWidth = 1;
  vkt_u32 mIndex = 0;
  const vkt_u8* mKeys = nullptr;  // key tags (versions 2 and up)
  // The object's decoded names, when begin() found them (decodeKeyNames, or
  // the block that walks and lookups made); else names are rebuilt into
  // mScratch.
  const vkt_internal::NameView* mNames = nullptr;
  vkt_u32 mKeyWidth = 1;
  vkt_u32 mCount = 0;
  VKTMember mMember;
  Scratch mScratch;
};

class VKTMemberRange {
 public:
  VKT_INLINE VKTMemberIterator begin() const;
  VKTMemberIterator end() const {
    VKTMemberIterator it;
    it.mIndex = mValues.mCount;
    return it;
  }
  vkt_u32 size() const { return mValues.mCount; }
  bool empty() const { return mValues.mCount == 0; }

 private:
  friend class VKTValue;
  VKTMemberRange() = default;
  VKTElementRange mValues;
  const vkt_u8* mKeys = nullptr;
  vkt_u32 mKeyWidth = 1;
};

// An opened image.
//
// The memory constructors validate nothing: the bytes must be a whole image,
// opened with the filter if its flags ask for one. Bytes that you do not
// trust go through decode (header, filter) and then verify (everything else)
// before they are opened; only an image that passed both may be opened.
//
// Ownership: see vkt_alloc_type. The header copy is always the object's own
// and lives inside the object, so opening with VKT_ALLOC_REFER allocates
// nothing. A VKTObject owns memory and is not copied.
//
// Threads: any number of threads may read one object at once, except for
// lookups with a hint while the key cache is enabled, setKeyHashEnabled,
// decodeKeyNames and buildKeyIndex. Member walks and lookups are reads, also
// when one of them decodes and indexes the names that later ones share (see
// VKTMemberIterator).
class VKTObject {
 public:
  // Copies the image (VKT_ALLOC_DUPLICATE). `structFilter` may be null; it is
  // not kept.
  explicit VKTObject(const vkt_binary& image,
                     VKTFilter* structFilter = nullptr);
  // Opens `size` bytes at `ptr` in the given ownership mode. In VKT_ALLOC_REFER
  // and VKT_ALLOC_OWN an info filter unscrambles the buffer in place while its
  // header stays scrambled: do not open such a buffer a second time with a
  // filter (decode it first instead).
  VKTObject(const vkt_u8* ptr, vkt_u32 size, vkt_alloc_type allocType,
            VKTFilter* structFilter = nullptr);
  // Opens an image through `reader`, which must stand at the image's first
  // byte. Only the front part comes into memory; stream payloads are read
  // through windows on the reader. The object takes ownership of `reader` and
  // deletes it; a program must neither delete it nor rely on its position.
  explicit VKTObject(VKTReadStream* reader, VKTFilter* structFilter = nullptr);
  virtual ~VKTObject();

  VKTObject(const VKTObject&) = delete;
  VKTObject& operator=(const VKTObject&) = delete;
  // Moving hands the image, its ownership and the caches over; views and
  // readers taken from `other` die with the move. The moved-from object holds
  // no image (root() is the null view, image() null, size() 0, no sections)
  // and may be destroyed or assigned to.
  VKTObject(VKTObject&& other) noexcept;
  VKTObject& operator=(VKTObject&& other) noexcept;

  // Validates the header of the image at `p` and makes the image plain in
  // place: unscrambles it with `structFilter` and clears the filter bits of
  // its flags. Answers false for fewer than 56 bytes, a wrong magic, a version
  // other than 3 or 4, a checksum mismatch or an info range beyond `size`.
  // Once a call has cleared the bits, later calls run no filter.
  static bool decode(vkt_u8* p, vkt_size size,
                     VKTFilter* structFilter = nullptr);
  static bool decode(vkt_binary& image, VKTFilter* structFilter = nullptr);

  // Checks a whole plain image (run decode first on a filtered one: verify
  // answers false while a filter bit is set; a version-1 or -2 image has no
  // flags and is taken as plain, so open it without a filter, which would
  // scramble its info range again) against everything any reader
  // operation touches: magic, version 1 to 4, checksum (version 3 and up),
  // section offsets in file order inside the image, every packed array, the
  // key table, every value reachable from the root, strings, streams and
  // bstreams. `report` and `limits` may be null (null limits: the defaults).
  //
  // The promise: when verify answers true, no public operation on that image,
  // in any ownership mode, before or after a purge, through any view reached
  // from root, reads outside the image, loops, nests deeper than
  // limits->maxDepth, or allocates more than limits->maxValues allows
  // (getMemberNames allocates at most the names' total length).
  //
  // Costs time linear in the image size. Allocates 3 bits per byte of the
  // root value section and 4 bytes per key table position; an image in
  // which containers of containers are reached more than once also takes
  // 4 bytes per such container and 1 bit per section byte. Never recurses;
  // reads nothing outside [p, p + size).
  static bool verify(const vkt_u8* p, vkt_size size);
  static bool verify(const vkt_u8* p, vkt_size size, VKTVerifyReport* report,
                     const VKTVerifyLimits* limits = nullptr);
  static bool verify(const vkt_binary& image, VKTVerifyReport* report = nullptr,
                     const VKTVerifyLimits* limits = nullptr);
  // The same checks on an opened object, as it is now: the plain header copy
  // and the bytes in memory; stream payload ranges are checked against the
  // image size. This is the way to check an image opened through a
  // VKTReadStream, whose constructor reads only the header and at most
  // Size() bytes of front part and writes nothing outside them, whatever the
  // header says. Use only the object, and views from it, after a true answer.
  bool verify(VKTVerifyReport* report = nullptr,
              const VKTVerifyLimits* limits = nullptr) const;

  // Reading an image without checking all of it first, so that one value
  // costs what its path costs. verifyTables checks what every lookup reads
  // before it reaches a value: header, section offsets, the key table and
  // the string, stream and bstream tables, in time and memory that follow
  // those tables, not the values (as verify, run decode first on a filtered
  // image; each string's offset is checked when a string value that uses it
  // is). An image that passed it may be opened in any memory mode, and
  // then:
  //   - root() and every view that an operation hands out are unchecked:
  //     pass each to VKTValue::verifyStep or VKTValue::verify before any
  //     other call on it;
  //   - after verifyStep, the view's own operations (type, the as* and
  //     stream accessors, size, at, findMember, isMember, getMemberNames,
  //     elements, members) read inside the image; the views they give are
  //     unchecked again;
  //   - after VKTValue::verify, the view and every view reached from it are
  //     as safe as on an image that verify accepted, with the same limits.
  // verifyStep does not check that an object's key tags ascend (verify
  // does): on an object whose tags do not, a lookup may find a member or
  // miss it depending on where earlier lookups found their names, always
  // inside the image.
  // The report tells the table sizes and where the image ends; its values
  // and depth stay 0.
  static bool verifyTables(const vkt_u8* p, vkt_size size,
                           VKTVerifyReport* report = nullptr,
                           const VKTVerifyLimits* limits = nullptr);

  VKTValue root() const {
    return mRootValuePtr == nullptr ? VKTValue()
                                    : VKTValue(this, mRootValuePtr);
  }

  // Moves a VKT_ALLOC_DUPLICATE or VKT_ALLOC_OWN object to VKT_ALLOC_PURGE:
  // the front part is copied, so that purgeStreamEntity can release the
  // stream payloads. Views taken before the call die with the old bytes.
  // Does nothing in any other mode, nor on an image opened through a
  // VKTReadStream, whose payloads are not in memory.
  void preparePurge();
  // In VKT_ALLOC_PURGE, releases the buffer holding the stream payloads;
  // asStream and buildStreamReader on streams answer null from then on.
  // Does nothing in any other mode or a second time.
  void purgeStreamEntity();
  // True when the stream entity is not in memory: after a purge, and always
  // for an image opened through a VKTReadStream.
  bool isPurged() const { return mStreamEntity == nullptr; }

  vkt_u32 version() const { return mVersion; }
  vkt_endian endian() const {
    return static_cast<vkt_endian>((mFlags >> VKT_FLAGS_ENDIAN_SHIFT) & 1);
  }
  // The whole image's size, also when only its front part is in memory.
  vkt_size size() const { return mImageSize; }
  // The bytes in memory: the front part only in the purge modes and for an
  // image opened through a VKTReadStream. Header bytes are as stored.
  const vkt_u8* image() const { return mImage; }
  // Bytes of the stream entity: the payloads and the padding between them.
  vkt_u32 totalStreamEntitySize() const { return mTotalStreamEntitySize; }
  // The flags word as the header holds it (VKT_FLAGS_*). Versions 1 and 2
  // have none and answer VKT_FLAGS_FILTER_INFO: a filter given at open runs
  // over their info range.
  vkt_u32 flags() const { return mFlags; }
  // The sections this image's version has, in file order, read from the
  // header copy. Trustworthy on a verified image only.
  std::vector<VKTSection> sections() const;

  // Turns the key cache on or off. With it on, lookups that pass a hint
  // remember each key's verdict, so a repeated lookup skips the trie walk.
  // Turning it on again keeps the entries; turning it off frees them. The
  // first call that turns it on allocates one small block, which holds the
  // cache (and the names and index below) until the object dies. See
  // VKTValue::at for what a caller takes on by passing hints.
  void setKeyHashEnabled(bool state);

  // Resolves a name against the key table once, for VKTValue lookups with a
  // VKTKey; a name the table lacks gives an absent key. Reads only; safe
  // beside any other reader, and never touches the key cache.
  VKTKey prepareKey(const char* name) const;
  VKTKey prepareKey(const std::string& name) const {
    return prepareKey(name.c_str());
  }

  // Decodes every key name of the image once into one block that the object
  // owns, so that member walks hand out names without rebuilding them and
  // getMemberNames copies instead of decoding. The block takes the names'
  // bytes and one NUL per name (VKTVerifyReport::keyNameBytes, which a
  // program can weigh before the call) plus 4 bytes per name and 2 KiB (the
  // names that lookups found at their callers' addresses), and lives until
  // the object dies; a second call does nothing. Names that would pass
  // 4 GiB in all (verify refuses such a table) are left undecoded. It writes
  // to the object: no other call on the object may run at the same time.
  // Time is linear in the names' total length.
  void decodeKeyNames();
  bool hasKeyNames() const { return mDecodedNames != nullptr; }

  // Decodes the names (decodeKeyNames) and indexes them by a hash, so that
  // every lookup by a plain name (VKTValue::at, findMember, isMember,
  // prepareKey) hashes the name once instead of walking the key table byte
  // by byte; the answers stay the same. A lookup first tests the name last
  // found at the same address (a string the program keeps), with one
  // compare, and then the member position where it last found that name. Takes
  // 20 to 36 bytes per name on top of the names' block, and lives until the
  // object dies; a second call does nothing. A table whose names could not be
  // decoded, or that spells a name twice (verify refuses both), is left
  // unindexed. It writes to the object: no other call on the object may run at
  // the same time. Time is linear in the names' total length. Without the call,
  // lookups and walks make the same block themselves once they have resolved as
  // many names through the table as it holds (see VKTMemberIterator), unless
  // decodeKeyNames ran before: its names then serve without an index.
  void buildKeyIndex();
  bool hasKeyIndex() const;

 private:
  friend class VKTValue;
  friend class VKTMemberIterator;
  friend class VKTMemberRange;
  friend class VKTInternal;

  void loadHeader(const vkt_u8* header, VKTFilter* structFilter);
  void init(VKTFilter* structFilter);
  // The section pointers from the header fields at `header`: the plain
  // copy, or the image's own bytes when they are the same.
  void decodeInfo(const vkt_u8* header);
  void filterInfo(VKTFilter* structFilter);
  // Reads the string offset array's head into mStringOffsets, mStringCount
  // and mStringWidth; run once the info range is plain.
  void loadStringTable();
  // Bytes of mImage: the front part in the purge modes and for an image
  // opened through a VKTReadStream (never more than the image), else all.
  vkt_u32 frontPartSize() const;
  void releaseStreamBuffer();
  // Frees what the object owns (the destructor's work); release also leaves
  // it empty, for a move to fill.
  void freeOwned();
  void release();
  void makeEmpty();

  bool findKey(const char* key, vkt_u32* result, vkt_u32* hint) const {
    return findKey(key, result, hint, nullptr);
  }
  // The same, and where the name block keeps the guessed position of the
  // key tag found (null when there is no block).
  bool findKey(const char* key, vkt_u32* result, vkt_u32* hint,
               std::atomic<vkt_u32>** guess) const;
  // findKey's three ways: the name index of `block`, the sorted table of
  // version 1, the trie of every later version.
  bool findIndexedKey(const vkt_internal::NameBlock& block, const char* key,
                      vkt_u32* result) const;
  bool findSortedKey(const char* key, vkt_u32* result) const;
  bool walkTrie(const char* key, vkt_u32* result) const;
  std::string getKey(vkt_u32 keyTag) const;
  // Rebuilds the name of `keyTag` into *out, reusing its capacity.
  void getKeyInto(vkt_u32 keyTag, std::string* out) const;
  // The same for `count` key tags packed at `width` bytes from `tags`, into
  // out[0] to out[count - 1] (versions 2 and up: a key array).
  void getKeysInto(const vkt_u8* tags, vkt_u32 width, vkt_u32 count,
                   std::string* out) const;
  // Where a member walk of `count` members takes its names when begin()
  // found no block (version 1: `records`, which also comes here): the block
  // that this walk's count makes, else a new rebuild buffer with the key
  // table's arrays set up.
  VKTMemberIterator::NameSource memberNames(vkt_u32 count, bool records) const;
  // The shared name block, or null while there is none: `resolved` names
  // were just resolved through the table of `keys` names, and the call whose
  // count passes `keys` decodes and indexes them all (key_names.cc).
  const vkt_internal::NameBlock* sharedNames(vkt_u32 resolved,
                                             vkt_u32 keys) const;
  // Every key name into *block; false when they would pass 4 GiB.
  bool decodeNames(vkt_internal::NameBlock* block) const;
  // A member walk's rebuild buffer, with the key table's arrays set up
  // unless the walk is over version-1 records.
  vkt_internal::NameScratch* newScratch(bool records) const;
  // The name of `keyTag` rebuilt into `scratch`, which newScratch set up.
  std::string_view rebuildMemberName(vkt_internal::NameScratch* scratch,
                                     vkt_u32 keyTag) const;
  const char* sortedKey(vkt_u32 keyTag) const;
  // Name `keyTag` of `count` decoded names (their bytes, each NUL-closed,
  // and where each begins); "" for a tag beyond them, as a rebuild gives.
  static std::string_view decodedName(const char* names, const vkt_u32* starts,
                                      vkt_u32 count, vkt_u32 keyTag) {
    if (keyTag >= count) return std::string_view();
    const vkt_u32 begin = starts[keyTag];
    return std::string_view(names + begin, starts[keyTag + 1] - begin - 1);
  }
  // The decoded name of `keyTag`; REQUIRES: hasKeyNames().
  std::string_view keyName(vkt_u32 keyTag) const;
  vkt_u32 calcKeyHash(const char* key, vkt_u32* hint) const;
  // The key state, made on first use.
  vkt_internal::KeyState& keyState();
  bool findKeyTagFromHashTable(const char* key, vkt_u32* keyTag, bool* success,
                               vkt_u32* hint) const;
  void registerKeyTagToHashTable(const char* key, vkt_u32 keyTag, bool success,
                                 vkt_u32* hint) const;

  const vkt_u8* getStream(vkt_u32 streamTag) const;
  const vkt_u8* getBStream(vkt_u32 streamTag) const;
  vkt_u32 streamSize(vkt_u32 streamTag) const;
  vkt_u32 bstreamSize(vkt_u32 streamTag) const;
  VKTReadStream* buildStreamReader(vkt_u32 streamTag) const;
  VKTReadStream* buildBStreamReader(vkt_u32 streamTag) const;

  VKTReadStream* mReader = nullptr;  // owned; stream-backed images only
  vkt_offset mStreamOffset = 0;      // stream entity's offset in mReader
  const vkt_u8* mImage = nullptr;
  // Plain copy of the header (the largest is 56); loadHeader zeroes what a
  // shorter header leaves.
  vkt_u8 mHeader[56];
  vkt_u32 mImageSize = 0;
  vkt_alloc_type mAllocType = VKT_ALLOC_DUPLICATE;
  vkt_u32 mVersion = 0;
  vkt_u32 mFlags = 0;
  // Section pointers, null for a section the version lacks. Every
  // constructor sets all of them (decodeInfo) before anything reads one, so
  // they carry no initialiser: an open stores each once.
  const vkt_u8* mKeyOffsetArray;
  const vkt_u8* mKeyEntity;
  const vkt_u8* mStringOffsetArray;
  const vkt_u8* mStringEntity;
  const vkt_u8* mStreamOffsetArray;
  const vkt_u8* mStreamSizeArray;
  const vkt_u8* mStreamEntity;
  const vkt_u8* mBStreamOffsetArray;
  const vkt_u8* mBStreamSizeArray;
  const vkt_u8* mBStreamEntity;
  const vkt_u8* mRootValuePtr;
  vkt_u32 mTotalStreamEntitySize;
  // The string offset array's entries, count and width, read at open so
  // that a string read costs one entry (loadStringTable); count 0 when the
  // array's head does not lie in the bytes in memory.
  const vkt_u8* mStringOffsets;
  vkt_u32 mStringCount;
  vkt_u32 mStringWidth;
  // The decoded names and their index (key_names.cc): made by
  // decodeKeyNames or buildKeyIndex, or by the walk or lookup whose count of
  // names resolved through the table (mResolvedNames) passes the table's
  // size; published once, read by walks and lookups on any thread; owned.
  mutable std::atomic<const vkt_internal::NameView*> mNames{nullptr};
  mutable std::atomic<vkt_u64> mResolvedNames{0};
  // The key cache, made by the first call that enables it; owned.
  vkt_internal::KeyState* mKeyState = nullptr;
  // mNames once decodeKeyNames has made or adopted it; null before.
  const vkt_internal::NameView* mDecodedNames = nullptr;
};

// A string value is its string tag id and a tag of 1 to 4 bytes; the tag
// indexes the image's string offset array, whose entries count from the
// string entity, whose head the object reads once at open. Any other id
// reads as tag 0 (readPacked sees no width).
inline const char* VKTValue::asString() const {
  if (mObj == nullptr) return "";
  const vkt_u32 tag = readPacked(mPtr + 1, vkt_u32(*mPtr) - kStringTagId + 1);
  // An image without strings has no string 0 for a non-string value to name.
  if (tag >= mObj->mStringCount) return "";
  const vkt_u32 width = mObj->mStringWidth;
  return reinterpret_cast<const char*>(mObj->mStringEntity) +
         readEntry(mObj->mStringOffsets + tag * width, width);
}

// A stored true or false is read here; every other kind converts in the
// library.
inline bool VKTValue::asBool() const {
  if (mObj == nullptr || vkt_u32(*mPtr) - kTrueId > 1) return numberAsBool();
  return *mPtr == kTrueId;
}

// An integer of up to 4 bytes is read here; every other kind converts in
// the library.
inline vkt_s32 VKTValue::asInt() const {
  if (mObj == nullptr || vkt_u32(*mPtr) - kInteger0Id > 4) return numberAsInt();
  return vkt_s32(shortInteger(mPtr));
}
inline vkt_s64 VKTValue::asLongInt() const {
  if (mObj == nullptr || vkt_u32(*mPtr) - kInteger0Id > 4) {
    return numberAsLongInt();
  }
  return shortInteger(mPtr);
}

// A stored double is read here; every other kind converts in the library.
inline double VKTValue::asDouble() const {
  if (mObj == nullptr || *mPtr != kDoubleId) return numberAsDouble();
  // Bits reinterpreted, so NaN payloads and -0.0 survive.
  const vkt_u64 bits = vkt_u64(loadWord(mPtr + 5)) << 32 | loadWord(mPtr + 1);
  double d;
  std::memcpy(&d, &bits, sizeof(d));
  return d;
}

// Set up inline, as every walk takes it once per container:
//   array:              ID_ARRAY  | offset array | elements
//   object (v2 and up): ID_OBJECT | key array | offset array | member values
// Offsets count from the end of the offset array.
VKT_INLINE VKTElementRange VKTValue::elements() const {
  VKTElementRange range;
  if (mObj == nullptr) return range;
  const vkt_u8* p = mPtr + 1;
  if (*mPtr == kObjectId) {
    if (mObj->mVersion == 1) return recordElements();
    vkt_u32 keys, keyWidth;
    p = packedHead(p, &keys, &keyWidth) + keys * keyWidth;
  } else if (*mPtr != kArrayId) {
    return range;
  }
  VKTElementIterator& it = range.mBegin;
  it.mObj = mObj;
  it.mOffsets = packedHead(p, &range.mCount, &it.mWidth);
  it.mEntity = it.mOffsets + range.mCount * it.mWidth;
  return range;
}

// A guessed position is tested inline: objects of one shape hold a name at
// the same position, and a hit then costs the two array heads and two
// entries. The search and version 1 go out of line.
VKT_INLINE bool VKTValue::findTag(vkt_u32 tag, std::atomic<vkt_u32>* guess,
                                  VKTValue* value) const {
  if (mObj->mVersion != 1) {
    vkt_u32 count, width;
    const vkt_u8* keys = packedHead(mPtr + 1, &count, &width);
    const vkt_u32 found = guess->load(std::memory_order_relaxed);
    if (found < count && readEntry(keys + found * width, width) == tag) {
      *value = memberAt(keys, count, width, found);
      return true;
    }
  }
  return searchTag(tag, guess, value);
}

// An absent key's tag is no key tag, and may still match a 4-byte entry.
VKT_INLINE VKTValue VKTValue::at(const VKTKey& key) const {
  VKTValue value;
  if (mObj != nullptr && *mPtr == kObjectId && key.isPresent()) {
    findTag(key.mTag, &key.mGuess, &value);
  }
  return value;
}

// A program names members through a few strings it keeps, so the name at
// one address is likely the one found there last: with the name index, one
// strcmp with that name's text confirms it inline, and its guess follows.
// Any other name goes out of line to the index, the key cache or the table.
VKT_INLINE VKTValue VKTValue::atName(const char* key) const {
  if (mObj == nullptr || *mPtr != kObjectId) return VKTValue();
  const vkt_internal::NameView* names =
      mObj->mNames.load(std::memory_order_acquire);
  vkt_u32 tag;
  VKTValue value;
  if (names != nullptr && names->recentTag(key, &tag)) {
    findTag(tag, &names->guesses[tag], &value);
  } else {
    findMember(key, &value, nullptr);
  }
  return value;
}

// The members of an object (v2 and up): ID_OBJECT | key array | offset
// array | member values. Inline, as elements() is: set up out of line, the
// range came back through memory, and the walk's wide reloads of its
// narrower stores stalled.
VKT_INLINE VKTMemberRange VKTValue::members() const {
  VKTMemberRange range;
  if (mObj == nullptr || *mPtr != kObjectId) return range;
  if (mObj->mVersion == 1) return recordMembers();
  vkt_u32 keys;
  range.mKeys = packedHead(mPtr + 1, &keys, &range.mKeyWidth);
  VKTElementIterator& it = range.mValues.mBegin;
  it.mObj = mObj;
  it.mOffsets = packedHead(range.mKeys + keys * range.mKeyWidth,
                           &range.mValues.mCount, &it.mWidth);
  it.mEntity = it.mOffsets + range.mValues.mCount * it.mWidth;
  return range;
}

VKT_INLINE void VKTMemberIterator::load() {
  if (mIndex >= mCount) return;
  if (VKT_UNLIKELY(mNames == nullptr)) {
    if (VKT_UNLIKELY(mScratch.get() == nullptr)) {
      mScratch.adopt(mMember.value.mObj->newScratch(mWidth > 4));
    }
    VKTElementIterator values;
    values.mObj = mMember.value.mObj;
    values.mOffsets = mOffsets;
    values.mEntity = mEntity;
    values.mWidth = mWidth;
    values.mIndex = mIndex;
    mMember = rebuilt(values, mKeys, mKeyWidth, mScratch.get());
    return;
  }
  mMember.keyTag = VKTValue::readEntry(mKeys + mIndex * mKeyWidth, mKeyWidth);
  mMember.value.mPtr =  // begin() set its object; no records come here
      mEntity + VKTValue::readEntry(mOffsets + mIndex * mWidth, mWidth);
  mMember.name = VKTObject::decodedName(mNames->names, mNames->starts,
                                        mNames->count, mMember.keyTag);
}

// Inline, with one call out for the names, so that a walk builds the
// iterator in registers: built out of line, it came back through memory,
// where wide reloads of narrower stores stalled.
VKT_INLINE VKTMemberIterator VKTMemberRange::begin() const {
  VKTMemberIterator it;
  const VKTElementIterator& values = mValues.mBegin;
  it.mOffsets = values.mOffsets;
  it.mEntity = values.mEntity;
  it.mWidth = values.mWidth;
  it.mKeys = mKeys;
  it.mKeyWidth = mKeyWidth;
  it.mCount = mValues.mCount;
  const VKTObject* obj = values.mObj;
  if (obj == nullptr || it.mCount == 0) return it;
  const vkt_internal::NameView* names = obj->mDecodedNames;
  if (names == nullptr) names = obj->mNames.load(std::memory_order_acquire);
  if (names != nullptr && !values.records()) {
    it.mNames = names;
  } else {
    const VKTMemberIterator::NameSource source =
        obj->memberNames(it.mCount, values.records());
    it.mNames = source.names;
    it.mScratch.adopt(source.scratch);
  }
  it.mMember.value = VKTValue(obj, nullptr);
  it.load();
  return it;
}

// Turns a VKTWriterValue tree into an image. One object can write any number
// of images, one after the other; setOptimize and setEndian stay in force.
// While an image is being written the tree must not change. Not for use by
// two threads at once. Writing notes scratch numbers in the tree's blocks and
// puts object members in key order, so a tree (being one thread's at a time)
// is written by one writer at a time, although it is passed as const.
class VKTWriterObject {
 public:
  VKTWriterObject();

  // The whole image in a new vector, or an empty vector when the tree is
  // refused (see error()).
  vkt_binary createImage(const VKTWriterValue& root,
                         VKTFilter* structFilter = nullptr, vkt_u32 flags = 0);
  // Writes the image to `writer`, which must stand at Offset 0, and answers
  // true. Stream payloads go from their source to `writer` without being
  // held whole. `flags` combines VKT_FLAGS_*; the filter bits are dropped
  // when `structFilter` is null. Readers in the tree are left at their end.
  // Answers false, having written nothing, when the tree is refused.
  bool writeImage(const VKTWriterValue& root, VKTWriteStream& writer,
                  VKTFilter* structFilter = nullptr, vkt_u32 flags = 0);
  // Why the last createImage or writeImage refused its tree, as static text,
  // or "" when it succeeded. A tree is refused when it nests deeper than
  // VKT_MAX_DEPTH ("tree nests deeper than 255") or when its image would
  // pass what 32-bit offsets and sizes address: 4 GiB - 1 bytes, up to the
  // last byte as the sink counts it ("image larger than 4 GiB"), or when it
  // holds more values (each reference to a shared node counted) than
  // VKTVerifyLimits::defaultMaxValues allows for its image ("values shared
  // more often than verify accepts for the image's size"), so that every
  // image it makes passes verify's defaults. All are found before a byte is
  // written or a stream payload read.
  const char* error() const { return mError; }
  // Share equal element images within each container (on by default).
  void setOptimize(bool state) { mOptimize = state; }
  // Marks the byte order in the flags and forces a version-4 image.
  void setEndian(vkt_endian endian) {
    mEndian = endian;
    mEndianSet = true;
  }

 private:
  friend class VKTWriterValue;
  friend class VKTInternal;

  // The key, string and stream tables of one writeImage call, and the
  // scratch space of the value walk; defined in base/vkt/writer_tables.h.
  typedef vkt_internal::WriterTables Tables;

  // Builds the image's front (header, key table, root value) in *front from
  // what `source` walks (a tree, or text read twice), then writes front and
  // the rest to *sink or, when sink is null, appends the rest to *front,
  // which becomes the whole image.
  // Answers false, with mError set and nothing written, on a refusal.
  bool assemble(vkt_internal::ValueSource& source, VKTWriteStream* sink,
                VKTFilter* structFilter, vkt_u32 flags, vkt_binary* front);

  // Appends the double-array key table of `keys` to *image. The keys are
  // sorted as unsigned bytes (a prefix first), unique, free of NUL, and each
  // is followed by a NUL in memory (as std::string and member keys are).
  static void createDAImage(const std::vector<std::string_view>& keys,
                            vkt_binary* image);

  bool mOptimize;
  vkt_endian mEndian;
  bool mEndianSet;
  const char* mError = "";  // static text
};

// A node of a tree to be written.
//
// Scalars, and strings of up to ten bytes, live in the node. Longer
// strings, streams, arrays and objects live in a reference-counted payload
// block, and copying a node shares the block with no copy on write: after
// `b = a`, `b.append(x)` or `b["k"] = 1` change what `a` sees too, while
// `b.setInt(1)` only drops b's reference. Setters always make a new block,
// so shared strings and streams behave like values. Objects built with the
// same keys in the same order share one copy of the keys.
//
// A tree and every node sharing a block with it belong to one thread at a
// time. Never make a node hold itself. No walk of the tree, its destruction
// included, recurses along its depth, so a tree of any depth can be built
// and destroyed; the writer refuses one deeper than VKT_MAX_DEPTH.
class VKTWriterValue {
 public:
  VKTWriterValue() : mType(kNullType) {}
  VKTWriterValue(const VKTWriterValue& r) : mType(kNullType) { share(r); }
  VKTWriterValue(VKTWriterValue&& r) noexcept;
  ~VKTWriterValue() { clear(); }

  // Shares r's block. Safe when r lies inside this node's own payload
  // (`root = root["child"]`): r's block is held before the old one goes.
  VKTWriterValue& operator=(const VKTWriterValue& r);

  void setInt(vkt_s32 value);
  // Stored as a long integer; written with the smallest width that holds it.
  void setLongInt(vkt_s64 value);
  void setFloat(float value);
  void setDouble(double value);
  void setBool(bool value);
  // The node keeps its own copy; a NUL inside the string is kept.
  void setString(const std::string& value);

  // A stream payload from memory. With VKT_ALLOC_REFER (or size 0) the node
  // keeps the pointer: the bytes must stay valid and unchanged until the last
  // image using them is written. Every other mode copies the bytes now, and
  // the caller keeps its memory (OWN does not take it over).
  //
  // `alignment` (0 and 1 mean none) places the payload at a multiple of it
  // within its entity, and the entity at a multiple of the largest alignment
  // of its table. When every alignment of a table divides the largest (as
  // powers of two do), each payload is aligned from the image's first byte.
  // Other alignments are honoured within the entity only; the stored offsets
  // always point at the payloads.
  //
  // `flags` VKT_STREAM_FLAG_BOUND makes the payload a bstream.
  void setStream(const vkt_u8* stream, vkt_u32 size, vkt_u32 alignment,
                 vkt_alloc_type allocType, vkt_u32 flags = 0);
  // A stream payload read from `reader` when the image is written, from
  // position 0, as many times as the tree is written. The node owns the
  // reader and deletes it when the last node sharing it goes. Not null.
  void setStream(VKTReadStream* reader, vkt_u32 alignment, vkt_u32 flags = 0);

  // Makes the node an empty array, unless it is one already.
  void toArray();
  // Appends a copy of ref (sharing its block).
  void append(const VKTWriterValue& ref);
  // Element `index`, growing the array with nulls up to it. The reference
  // holds until the array grows again; a write through it after that
  // corrupts the array, as through any dangling reference.
  VKTWriterValue& operator[](vkt_u32 index);
  template <typename T,
            typename std::enable_if<std::is_integral<T>::value, int>::type = 0>
  VKTWriterValue& operator[](T index) {
    return (*this)[static_cast<vkt_u32>(index)];
  }

  // Makes the node an empty object, unless it is one already.
  void toObject();
  // Stores a copy of ref under key, replacing what was there.
  void append(const std::string& key, const VKTWriterValue& ref);
  // Member `key`, created as null if missing (so reading creates it). The
  // reference holds while the member exists. Keys must not contain NUL.
  VKTWriterValue& operator[](const std::string& key);
  VKTWriterValue& operator[](const char* key);

  void operator=(vkt_s32 value) { setInt(value); }
  void operator=(vkt_s64 value) { setLongInt(value); }
  void operator=(float value) { setFloat(value); }
  void operator=(double value) { setDouble(value); }
  void operator=(bool value) { setBool(value); }
  void operator=(const char* value) { setString(std::string(value)); }
  void operator=(const std::string& value) { setString(value); }
  // Other integer types (unsigned, long long, char...): a type whose every
  // value fits a vkt_s32 is stored as an integer, any other as a long
  // integer. The image holds the value in its smallest width either way.
  template <typename T>
  using IfSignedFits64 = typename std::enable_if<
      std::is_integral<T>::value && !std::is_same<T, bool>::value &&
          (std::is_signed<T>::value || sizeof(T) < sizeof(vkt_s64)),
      int>::type;
  template <typename T, IfSignedFits64<T> = 0>
  void operator=(T value) {
    if (std::is_signed<T>::value ? (sizeof(T) <= sizeof(vkt_s32))
                                 : (sizeof(T) < sizeof(vkt_s32))) {
      setInt(static_cast<vkt_s32>(value));
    } else {
      setLongInt(static_cast<vkt_s64>(value));
    }
  }
  // An unsigned 64-bit integer (vkt_u64, size_t, ...) may exceed the largest
  // integer an image holds, so it is not assigned: check that it is at most
  // INT64_MAX and call setLongInt(vkt_s64(value)).
  template <typename T,
            typename std::enable_if<std::is_integral<T>::value &&
                                        std::is_unsigned<T>::value &&
                                        sizeof(T) >= sizeof(vkt_s64),
                                    int>::type = 0>
  void operator=(T value) = delete;  // check the value, then call setLongInt

 private:
  friend class VKTWriterObject;

  static const vkt_u8 kNullType = 1;  // TYPE_NULL of the value encoding

  struct StringInfo;
  struct StreamInfo;
  struct ArrayInfo;
  struct Member;
  struct ObjectInfo;

  void clear();
  void toObject(std::string_view firstKey);
  // clear() for a node that holds a container: the last reference takes the
  // block, and every container that dies with it, down one at a time.
  void releaseContainer();
  // Adds a reference to r's block (if any) and takes r's type and payload;
  // this node must be null.
  void share(const VKTWriterValue& r);
  // Interns the tree's texts and streams into `tables`; false when the tree
  // nests deeper than VKT_MAX_DEPTH.
  bool prepare(VKTWriterObject::Tables& tables) const;
  void prepareNode(VKTWriterObject::Tables& tables) const;
  // Appends the node's encoded value to the tables' value buffer.
  void createImage(VKTWriterObject::Tables& tables) const;
  void createContainerImage(VKTWriterObject::Tables& tables) const;
  // Encodes a node that is no container into out (16 bytes, of which the
  // image takes at most 9); answers the size of its image.
  vkt_u32 encodeScalar(const VKTWriterObject::Tables& tables,
                       vkt_u8* out) const;

  // A string of a few bytes lives in the node itself, with no block:
  //   mType | size | its bytes (in mShortHead, then mShortTail) | tag
  // The text's own bytes go from the node's third byte on, unbroken.
  std::string_view shortText() const;
  vkt_u32 shortTag() const;
  void setShortTag(vkt_u32 tag) const;

  vkt_u8 mType;
  char mShortHead[7];  // a short string's size, then its first six bytes
  union {
    // A short string's last four bytes, then the tag, which the writer sets
    // in a tree passed as const.
    mutable char mShortTail[8];
    bool mBoolValue;
    vkt_s32 mIntegerValue;
    vkt_s64 mLongIntegerValue;
    float mFloatValue;
    double mDoubleValue;
    StringInfo* mStringInfo;
    StreamInfo* mStreamInfo;
    ArrayInfo* mArrayInfo;
    ObjectInfo* mObjectInfo;
  };
};

// The byte order of the machine running the code.
vkt_endian vkt_get_local_endian();

// Writes and reads back a fixed tree that touches every value kind, in 20
// configurations of streams, bstreams, filters and open modes. Prints nothing.
void vkt_test();
// The same, adding to *mismatches (when not null) the number of values that
// did not read back as written: 0 on a sound build.
void vkt_test(vkt_u32* mismatches);

// Walks the bytes of a finished image. Prints nothing: a program that wants a
// dump formats the bytes itself.
void vkt_dump_image(const vkt_binary& image);

#endif  // VKT_VKT_H_
