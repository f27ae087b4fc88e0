// The byte layout of an image, written down once for reader and writer: the
// header constants, the id byte of every encoded value with its two tables,
// the width-named byte helpers, the value parsers and generators, and the
// header checksum.
//
// Everything here has internal linkage (static inline, or constants), so a
// program's own read_24bit_unsigned can never clash with ours at link time.
//
// Every multi-byte number of an image is little-endian and is assembled byte
// by byte with shifts: nothing depends on the machine or on alignment.
#ifndef VKT_FORMAT_H_
#define VKT_FORMAT_H_

#include <cstring>  // memcpy, strcmp

#include "vkt.h"

// ---------------------------------------------------------------------------
// Header.
//
//  0  magic "VKT\0"            | 4  version (16) | 6  flags (16, from v3)
//  8  key offset array         | 12 key entity
// 16  string offset array      | 20 string entity
// 24  stream offset array      | 28 stream size array | 32 stream entity
// 36  root value               | 40 checksum (v3+)
// 44  bstream offset array     | 48 bstream size array | 52 bstream entity (v4)
//
// The offsets count from the image's first byte. The file order of sections
// is: header, key table, root value, string offset array, string entity,
// [v4: bstream offset array, bstream size array, padding, bstream entity],
// stream offset array, stream size array, padding, stream entity.
// ---------------------------------------------------------------------------

static const char MAGIC_NUMBER[] = "VKT";
const vkt_u32 MAGIC_NUMBER_LENGTH = sizeof(MAGIC_NUMBER);  // with its NUL
const vkt_u32 CURRENT_VERSION = 4;

const vkt_u32 HEADER_OFST_MAGICNUMBER = 0;
const vkt_u32 HEADER_OFST_VERSION = HEADER_OFST_MAGICNUMBER + 4;
const vkt_u32 HEADER_OFST_FLAGS = HEADER_OFST_VERSION + 2;
const vkt_u32 HEADER_OFST_KEY_OFFSET_ARRAY = HEADER_OFST_FLAGS + 2;
const vkt_u32 HEADER_OFST_KEY_ENTITY = HEADER_OFST_KEY_OFFSET_ARRAY + 4;
const vkt_u32 HEADER_OFST_STRING_OFFSET_ARRAY = HEADER_OFST_KEY_ENTITY + 4;
const vkt_u32 HEADER_OFST_STRING_ENTITY = HEADER_OFST_STRING_OFFSET_ARRAY + 4;
const vkt_u32 HEADER_OFST_STREAM_OFFSET_ARRAY = HEADER_OFST_STRING_ENTITY + 4;
const vkt_u32 HEADER_OFST_STREAM_SIZE_ARRAY =
    HEADER_OFST_STREAM_OFFSET_ARRAY + 4;
const vkt_u32 HEADER_OFST_STREAM_ENTITY = HEADER_OFST_STREAM_SIZE_ARRAY + 4;
const vkt_u32 HEADER_OFST_ROOT_VALUE = HEADER_OFST_STREAM_ENTITY + 4;
const vkt_u32 HEADER_OFST_CHECKSUM = HEADER_OFST_ROOT_VALUE + 4;
const vkt_u32 HEADER_OFST_BSTREAM_OFFSET_ARRAY = HEADER_OFST_CHECKSUM + 4;
const vkt_u32 HEADER_OFST_BSTREAM_SIZE_ARRAY =
    HEADER_OFST_BSTREAM_OFFSET_ARRAY + 4;
const vkt_u32 HEADER_OFST_BSTREAM_ENTITY = HEADER_OFST_BSTREAM_SIZE_ARRAY + 4;

const vkt_u32 HEADER_SIZE_VER2 = HEADER_OFST_CHECKSUM;      // versions 1, 2
const vkt_u32 HEADER_SIZE_VER3 = HEADER_OFST_CHECKSUM + 4;  // checksum ends v3
const vkt_u32 HEADER_SIZE_VER4 = HEADER_OFST_BSTREAM_ENTITY + 4;
const vkt_u32 HEADER_SIZE = HEADER_SIZE_VER4;  // the largest header

// Ranges the filter scrambles (the checksum field among them) and ranges the
// checksum covers (without its own field; version and flags unprotected).
const vkt_u32 HEADER_FILTER_BEGIN = HEADER_OFST_KEY_OFFSET_ARRAY;
const vkt_u32 HEADER_FILTER_END = HEADER_SIZE_VER3;
const vkt_u32 HEADER_FILTER_BEGIN_VER4 = HEADER_SIZE_VER3;
const vkt_u32 HEADER_FILTER_END_VER4 = HEADER_SIZE_VER4;
const vkt_u32 HEADER_CHECKSUM_BEGIN = HEADER_OFST_KEY_OFFSET_ARRAY;
const vkt_u32 HEADER_CHECKSUM_END = HEADER_OFST_CHECKSUM;
const vkt_u32 HEADER_CHECKSUM_BEGIN_VER4 = HEADER_SIZE_VER3;
const vkt_u32 HEADER_CHECKSUM_END_VER4 = HEADER_SIZE_VER4;

static_assert(HEADER_SIZE_VER2 == 40 && HEADER_SIZE_VER3 == 44 &&
                  HEADER_SIZE_VER4 == 56,
              "header sizes of versions 2, 3 and 4");
static_assert(HEADER_FILTER_END - HEADER_FILTER_BEGIN == 36 &&
                  HEADER_FILTER_END_VER4 - HEADER_FILTER_BEGIN_VER4 == 12,
              "the filter sees 36 header bytes, and 12 more in version 4");

// The bits that ask for a filter; decode clears them once it has run it.
const vkt_u32 FLAGS_FILTER_BITS =
    VKT_FLAGS_FILTER_HEADER | VKT_FLAGS_FILTER_INFO;

// Header size of a version, as the reader takes it: anything above 4 reads
// like 4, anything below 3 like 2.
static inline vkt_u32 header_size_of_version(vkt_u32 version) {
  return version < 3 ? HEADER_SIZE_VER2
                     : (version == 3 ? HEADER_SIZE_VER3 : HEADER_SIZE_VER4);
}

// ---------------------------------------------------------------------------
// Section layout: the sections a header names, in file order. Writer,
// decodeInfo and verifier all read this one table.
//
// `field` is the header field that holds the section's offset, `fromVersion`
// the first version whose header has it (0: every version; a version above 4
// reads like 4),
// and `filtered` tells whether the section lies in the filtered info range,
// which runs from the first filtered section up to the next present section
// that is not filtered. A section ends where the next present one begins;
// the stream entity runs to the end of the image. Between the two size
// arrays and their entities the writer puts zero bytes as alignment asks.
// ---------------------------------------------------------------------------

// The public section ids, under the names the library's files use.
enum {
  SECTION_KEY_OFFSET_ARRAY = VKT_SECTION_KEY_OFFSET_ARRAY,
  SECTION_KEY_ENTITY = VKT_SECTION_KEY_ENTITY,
  SECTION_ROOT_VALUE = VKT_SECTION_ROOT_VALUE,
  SECTION_STRING_OFFSET_ARRAY = VKT_SECTION_STRING_OFFSET_ARRAY,
  SECTION_STRING_ENTITY = VKT_SECTION_STRING_ENTITY,
  SECTION_BSTREAM_OFFSET_ARRAY = VKT_SECTION_BSTREAM_OFFSET_ARRAY,
  SECTION_BSTREAM_SIZE_ARRAY = VKT_SECTION_BSTREAM_SIZE_ARRAY,
  SECTION_BSTREAM_ENTITY = VKT_SECTION_BSTREAM_ENTITY,
  SECTION_STREAM_OFFSET_ARRAY = VKT_SECTION_STREAM_OFFSET_ARRAY,
  SECTION_STREAM_SIZE_ARRAY = VKT_SECTION_STREAM_SIZE_ARRAY,
  SECTION_STREAM_ENTITY = VKT_SECTION_STREAM_ENTITY,
  SECTION_COUNT,
};

struct section_layout {
  vkt_u32 field;
  vkt_u32 fromVersion;
  bool filtered;
  const char* name;  // as VKTObject::sections reports it
};

static const section_layout sSectionTable[] = {
    {HEADER_OFST_KEY_OFFSET_ARRAY, 0, true, "key offset array"},
    {HEADER_OFST_KEY_ENTITY, 0, true, "key entity"},
    {HEADER_OFST_ROOT_VALUE, 0, true, "root value"},
    {HEADER_OFST_STRING_OFFSET_ARRAY, 0, true, "string offset array"},
    {HEADER_OFST_STRING_ENTITY, 0, true, "string entity"},
    {HEADER_OFST_BSTREAM_OFFSET_ARRAY, 4, false, "bstream offset array"},
    {HEADER_OFST_BSTREAM_SIZE_ARRAY, 4, false, "bstream size array"},
    {HEADER_OFST_BSTREAM_ENTITY, 4, false, "bstream entity"},
    {HEADER_OFST_STREAM_OFFSET_ARRAY, 0, false, "stream offset array"},
    {HEADER_OFST_STREAM_SIZE_ARRAY, 0, false, "stream size array"},
    {HEADER_OFST_STREAM_ENTITY, 0, false, "stream entity"},
};
static_assert(sizeof(sSectionTable) / sizeof(sSectionTable[0]) == SECTION_COUNT,
              "one layout entry per section");

static inline bool section_present(vkt_u32 section, vkt_u32 version) {
  return version >= sSectionTable[section].fromVersion;
}

// The section that ends the filtered info range of a version.
static inline vkt_u32 info_range_end_section(vkt_u32 version) {
  vkt_u32 s = SECTION_KEY_OFFSET_ARRAY;
  while (!section_present(s, version) || sSectionTable[s].filtered) ++s;
  return s;
}

// The one overflow-safe bounds gate: `length` bytes at `offset` lie inside
// `size` bytes. No sum is formed, so nothing can wrap.
static inline bool in_image(vkt_u64 offset, vkt_u64 length, vkt_u64 size) {
  return length <= size && offset <= size - length;
}

// The one way to add up sizes read from an image (name lengths, counts times
// widths, offsets plus lengths): *total += count * width, in 64 bits, and
// refused (false, *total unchanged) when the result would pass `limit`. No
// product or sum is formed that could wrap, so a caller that sizes a block or
// a 32-bit index from the total never sees a small number stand for a huge
// one. Bare `+` and `*` on image fields are for bounds already checked.
static inline bool checked_mul_add(vkt_u64 count, vkt_u64 width, vkt_u64 limit,
                                   vkt_u64* total) {
  if (*total > limit) return false;
  const vkt_u64 room = limit - *total;
  if (width != 0 && count > room / width) return false;
  *total += count * width;
  return true;
}

// ---------------------------------------------------------------------------
// Value encoding: one id byte, then a payload whose width the id fixes.
// ---------------------------------------------------------------------------

enum {
  ID_NULL = 1,
  ID_TRUE = 2,
  ID_FALSE = 3,
  ID_INTEGER0 = 4,
  ID_INTEGER8 = 5,
  ID_INTEGER16 = 6,
  ID_INTEGER24 = 7,
  ID_INTEGER32 = 8,
  ID_INTEGER40 = 9,
  ID_INTEGER48 = 10,
  ID_INTEGER56 = 11,
  ID_INTEGER64 = 12,
  ID_UNSIGNED8 = 13,
  ID_UNSIGNED16 = 14,
  ID_UNSIGNED24 = 15,
  ID_UNSIGNED32 = 16,
  ID_KEY_TAG8 = 17,
  ID_KEY_TAG16 = 18,
  ID_KEY_TAG24 = 19,
  ID_KEY_TAG32 = 20,
  ID_STRING_TAG8 = 21,
  ID_STRING_TAG16 = 22,
  ID_STRING_TAG24 = 23,
  ID_STRING_TAG32 = 24,
  ID_STREAM_TAG8 = 25,
  ID_STREAM_TAG16 = 26,
  ID_STREAM_TAG24 = 27,
  ID_STREAM_TAG32 = 28,
  ID_ZERO_FLOAT = 29,
  ID_SINGLE_FLOAT = 30,
  ID_DOUBLE_FLOAT = 31,
  ID_ARRAY = 32,
  ID_OBJECT = 33,
  ID_BSTREAM_TAG8 = 34,
  ID_BSTREAM_TAG16 = 35,
  ID_BSTREAM_TAG24 = 36,
  ID_BSTREAM_TAG32 = 37,
  ID_MAX = 38,
};

// Internal kinds; the writer's mType uses the same numbers.
enum {
  TYPE_NULL = 1,
  TYPE_BOOL = 2,
  TYPE_INTEGER = 3,
  TYPE_LONG_INTEGER = 4,
  TYPE_UNSIGNED = 5,
  TYPE_KEY = 6,
  TYPE_STRING = 7,
  TYPE_STREAM = 8,
  TYPE_BSTREAM = 9,
  TYPE_SINGLE = 10,
  TYPE_DOUBLE = 11,
  TYPE_ARRAY = 12,
  TYPE_OBJECT = 13,
  TYPE_MAX = 14,
};

// Indexed by id byte. The byte 0 is no id; both tables hold 0 for it.
static constexpr vkt_u32 sIdTypeTable[] = {
    0,  // (none)
    TYPE_NULL,
    TYPE_BOOL,
    TYPE_BOOL,  // 1-3
    TYPE_INTEGER,
    TYPE_INTEGER,
    TYPE_INTEGER,  // 4-6
    TYPE_INTEGER,
    TYPE_INTEGER,  // 7-8
    TYPE_LONG_INTEGER,
    TYPE_LONG_INTEGER,  // 9-10
    TYPE_LONG_INTEGER,
    TYPE_LONG_INTEGER,  // 11-12
    TYPE_UNSIGNED,
    TYPE_UNSIGNED,
    TYPE_UNSIGNED,  // 13-15
    TYPE_UNSIGNED,  // 16
    TYPE_KEY,
    TYPE_KEY,
    TYPE_KEY,  // 17-19
    TYPE_KEY,  // 20
    TYPE_STRING,
    TYPE_STRING,
    TYPE_STRING,  // 21-23
    TYPE_STRING,  // 24
    TYPE_STREAM,
    TYPE_STREAM,
    TYPE_STREAM,  // 25-27
    TYPE_STREAM,  // 28
    TYPE_SINGLE,
    TYPE_SINGLE,
    TYPE_DOUBLE,  // 29-31
    TYPE_ARRAY,
    TYPE_OBJECT,  // 32-33
    TYPE_BSTREAM,
    TYPE_BSTREAM,
    TYPE_BSTREAM,  // 34-36
    TYPE_BSTREAM,  // 37
};

// The whole encoded size, id byte included. Containers store no size and
// nothing asks for one, so they hold 0.
static constexpr vkt_u32 sIdValueSizeTable[] = {
    0,              // (none)
    1, 1, 1,        // null, true, false
    1, 2, 3, 4, 5,  // integer 0, 8, 16, 24, 32
    6, 7, 8, 9,     // integer 40, 48, 56, 64
    2, 3, 4, 5,     // unsigned 8-32
    2, 3, 4, 5,     // key tag 8-32
    2, 3, 4, 5,     // string tag 8-32
    2, 3, 4, 5,     // stream tag 8-32
    1, 5, 9,        // zero float, single, double
    0, 0,           // array, object
    2, 3, 4, 5,     // bstream tag 8-32
};

static_assert(sizeof(sIdTypeTable) / sizeof(sIdTypeTable[0]) == ID_MAX,
              "one type entry per id byte");
static_assert(sizeof(sIdValueSizeTable) / sizeof(sIdValueSizeTable[0]) ==
                  ID_MAX,
              "one size entry per id byte");

// ---------------------------------------------------------------------------
// Readers: a pointer to the first payload byte, little-endian.
// ---------------------------------------------------------------------------

static inline vkt_u32 read_8bit_unsigned(const vkt_u8* p) { return p[0]; }
static inline vkt_u32 read_16bit_unsigned(const vkt_u8* p) {
  return vkt_u32(p[0]) | vkt_u32(p[1]) << 8;
}
static inline vkt_u32 read_24bit_unsigned(const vkt_u8* p) {
  return vkt_u32(p[0]) | vkt_u32(p[1]) << 8 | vkt_u32(p[2]) << 16;
}
static inline vkt_u32 read_32bit_unsigned(const vkt_u8* p) {
  return vkt_u32(p[0]) | vkt_u32(p[1]) << 8 | vkt_u32(p[2]) << 16 |
         vkt_u32(p[3]) << 24;
}

// Sign extension without implementation-defined shifts: flipping the sign
// bit and subtracting its weight maps [0, 2^n) onto [-2^(n-1), 2^(n-1)).
static inline vkt_s32 read_8bit_integer(const vkt_u8* p) {
  return vkt_s32(p[0] ^ 0x80u) - 0x80;
}
static inline vkt_s32 read_16bit_integer(const vkt_u8* p) {
  return vkt_s32(read_16bit_unsigned(p) ^ 0x8000u) - 0x8000;
}
static inline vkt_s32 read_24bit_integer(const vkt_u8* p) {
  return vkt_s32(read_24bit_unsigned(p) ^ 0x800000u) - 0x800000;
}
static inline vkt_s32 read_32bit_integer(const vkt_u8* p) {
  return vkt_s32(read_32bit_unsigned(p));  // two's complement wrap
}
static inline vkt_s64 read_40bit_integer(const vkt_u8* p) {
  return vkt_s64(vkt_u64(vkt_s64(read_8bit_integer(p + 4))) << 32 |
                 read_32bit_unsigned(p));
}
static inline vkt_s64 read_48bit_integer(const vkt_u8* p) {
  return vkt_s64(vkt_u64(vkt_s64(read_16bit_integer(p + 4))) << 32 |
                 read_32bit_unsigned(p));
}
static inline vkt_s64 read_56bit_integer(const vkt_u8* p) {
  return vkt_s64(vkt_u64(vkt_s64(read_24bit_integer(p + 4))) << 32 |
                 read_32bit_unsigned(p));
}
static inline vkt_s64 read_64bit_integer(const vkt_u8* p) {
  return vkt_s64(vkt_u64(read_32bit_unsigned(p + 4)) << 32 |
                 read_32bit_unsigned(p));
}

// Bits reinterpreted, no arithmetic, so NaN payloads and -0.0 survive.
// memcpy is the defined way to move bits between an integer and a float.
static inline float read_single_float(const vkt_u8* p) {
  vkt_u32 bits = read_32bit_unsigned(p);
  float f;
  std::memcpy(&f, &bits, sizeof(f));
  return f;
}
static inline double read_double_float(const vkt_u8* p) {
  vkt_u64 bits =
      vkt_u64(read_32bit_unsigned(p + 4)) << 32 | read_32bit_unsigned(p);
  double d;
  std::memcpy(&d, &bits, sizeof(d));
  return d;
}

// ---------------------------------------------------------------------------
// Writers: store `value` at p, low byte first, and return the advanced
// pointer.
// ---------------------------------------------------------------------------

static inline vkt_u8* write_8bit_integer(vkt_u8* p, vkt_s32 value) {
  p[0] = vkt_u8(value);
  return p + 1;
}
static inline vkt_u8* write_16bit_integer(vkt_u8* p, vkt_s32 value) {
  vkt_u32 v = vkt_u32(value);
  p[0] = vkt_u8(v);
  p[1] = vkt_u8(v >> 8);
  return p + 2;
}
static inline vkt_u8* write_24bit_integer(vkt_u8* p, vkt_s32 value) {
  vkt_u32 v = vkt_u32(value);
  p[0] = vkt_u8(v);
  p[1] = vkt_u8(v >> 8);
  p[2] = vkt_u8(v >> 16);
  return p + 3;
}
static inline vkt_u8* write_32bit_integer(vkt_u8* p, vkt_s32 value) {
  vkt_u32 v = vkt_u32(value);
  p[0] = vkt_u8(v);
  p[1] = vkt_u8(v >> 8);
  p[2] = vkt_u8(v >> 16);
  p[3] = vkt_u8(v >> 24);
  return p + 4;
}
// The low `bytes` bytes of a 64-bit value.
// Spelt out byte by byte so that the compiler makes one store of it.
static inline vkt_u8* write_64bit_bytes(vkt_u8* p, vkt_u64 v, int bytes) {
  const vkt_u8 b[8] = {vkt_u8(v),       vkt_u8(v >> 8),  vkt_u8(v >> 16),
                       vkt_u8(v >> 24), vkt_u8(v >> 32), vkt_u8(v >> 40),
                       vkt_u8(v >> 48), vkt_u8(v >> 56)};
  std::memcpy(p, b, size_t(bytes));
  return p + bytes;
}
static inline vkt_u8* write_40bit_integer(vkt_u8* p, vkt_s64 value) {
  return write_64bit_bytes(p, vkt_u64(value), 5);
}
static inline vkt_u8* write_48bit_integer(vkt_u8* p, vkt_s64 value) {
  return write_64bit_bytes(p, vkt_u64(value), 6);
}
static inline vkt_u8* write_56bit_integer(vkt_u8* p, vkt_s64 value) {
  return write_64bit_bytes(p, vkt_u64(value), 7);
}
static inline vkt_u8* write_64bit_integer(vkt_u8* p, vkt_s64 value) {
  return write_64bit_bytes(p, vkt_u64(value), 8);
}
static inline vkt_u8* write_8bit_unsigned(vkt_u8* p, vkt_u32 value) {
  return write_8bit_integer(p, vkt_s32(value));
}
static inline vkt_u8* write_16bit_unsigned(vkt_u8* p, vkt_u32 value) {
  return write_16bit_integer(p, vkt_s32(value));
}
static inline vkt_u8* write_24bit_unsigned(vkt_u8* p, vkt_u32 value) {
  return write_24bit_integer(p, vkt_s32(value));
}
static inline vkt_u8* write_32bit_unsigned(vkt_u8* p, vkt_u32 value) {
  return write_32bit_integer(p, vkt_s32(value));
}
static inline vkt_u8* write_single_float(vkt_u8* p, float value) {
  vkt_u32 bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return write_32bit_unsigned(p, bits);
}
static inline vkt_u8* write_double_float(vkt_u8* p, double value) {
  vkt_u64 bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return write_64bit_bytes(p, bits, 8);
}

// ---------------------------------------------------------------------------
// Parsers: a pointer to the id byte. An id outside the format (38 and up)
// reads like the byte 0, which is no value.
// ---------------------------------------------------------------------------

static inline vkt_u32 id_of(const vkt_u8* p) { return *p < ID_MAX ? *p : 0; }
static inline vkt_u32 identify_value(const vkt_u8* p) {
  return sIdTypeTable[id_of(p)];
}
static inline vkt_u32 get_value_size(const vkt_u8* p) {
  return sIdValueSizeTable[id_of(p)];
}

static inline bool parse_bool(const vkt_u8* p) { return *p == ID_TRUE; }

static inline vkt_s32 parse_integer(const vkt_u8* p) {
  switch (*p) {
    case ID_INTEGER8:
      return read_8bit_integer(p + 1);
    case ID_INTEGER16:
      return read_16bit_integer(p + 1);
    case ID_INTEGER24:
      return read_24bit_integer(p + 1);
    case ID_INTEGER32:
      return read_32bit_integer(p + 1);
    default:
      return 0;
  }
}
static inline vkt_s64 parse_long_integer(const vkt_u8* p) {
  switch (*p) {
    case ID_INTEGER40:
      return read_40bit_integer(p + 1);
    case ID_INTEGER48:
      return read_48bit_integer(p + 1);
    case ID_INTEGER56:
      return read_56bit_integer(p + 1);
    case ID_INTEGER64:
      return read_64bit_integer(p + 1);
    default:
      return 0;
  }
}
static inline float parse_single(const vkt_u8* p) {
  return *p == ID_SINGLE_FLOAT ? read_single_float(p + 1) : 0.0f;
}
static inline double parse_double(const vkt_u8* p) {
  return *p == ID_DOUBLE_FLOAT ? read_double_float(p + 1) : 0.0;
}

// The four families of unsigned numbers and tags share one layout: ids
// `first` to `first + 3` carry 1 to 4 payload bytes.
static inline vkt_u32 parse_unsigned_family(const vkt_u8* p, vkt_u32 first) {
  switch (vkt_u32(*p) - first) {
    case 0:
      return read_8bit_unsigned(p + 1);
    case 1:
      return read_16bit_unsigned(p + 1);
    case 2:
      return read_24bit_unsigned(p + 1);
    case 3:
      return read_32bit_unsigned(p + 1);
    default:
      return 0;
  }
}
static inline vkt_u32 parse_unsigned(const vkt_u8* p) {
  return parse_unsigned_family(p, ID_UNSIGNED8);
}
static inline vkt_u32 parse_key(const vkt_u8* p) {
  return parse_unsigned_family(p, ID_KEY_TAG8);
}
static inline vkt_u32 parse_string(const vkt_u8* p) {
  return parse_unsigned_family(p, ID_STRING_TAG8);
}
static inline vkt_u32 parse_stream(const vkt_u8* p) {
  return parse_unsigned_family(p, ID_STREAM_TAG8);
}
static inline vkt_u32 parse_bstream(const vkt_u8* p) {
  return parse_unsigned_family(p, ID_BSTREAM_TAG8);
}

// ---------------------------------------------------------------------------
// Generators: write a whole value, id byte first, at p (at most 9 bytes).
// Each picks the smallest id that holds the value.
// ---------------------------------------------------------------------------

// Bounds of the integer widths: a value fits `bytes` bytes when it lies in
// [-2^(8*bytes-1), 2^(8*bytes-1)).
static inline bool fits_signed(vkt_s64 value, int bytes) {
  const vkt_s64 half = vkt_s64(1) << (8 * bytes - 1);
  return value >= -half && value < half;
}

static inline void generate_integer(vkt_u8* p, vkt_s32 value) {
  if (value == 0) {
    p[0] = ID_INTEGER0;
  } else if (fits_signed(value, 1)) {
    p[0] = ID_INTEGER8;
    write_8bit_integer(p + 1, value);
  } else if (fits_signed(value, 2)) {
    p[0] = ID_INTEGER16;
    write_16bit_integer(p + 1, value);
  } else if (fits_signed(value, 3)) {
    p[0] = ID_INTEGER24;
    write_24bit_integer(p + 1, value);
  } else {
    p[0] = ID_INTEGER32;
    write_32bit_integer(p + 1, value);
  }
}

static inline void generate_long_integer(vkt_u8* p, vkt_s64 value) {
  if (fits_signed(value, 4)) {
    generate_integer(p, vkt_s32(value));
  } else if (fits_signed(value, 5)) {
    p[0] = ID_INTEGER40;
    write_40bit_integer(p + 1, value);
  } else if (fits_signed(value, 6)) {
    p[0] = ID_INTEGER48;
    write_48bit_integer(p + 1, value);
  } else if (fits_signed(value, 7)) {
    p[0] = ID_INTEGER56;
    write_56bit_integer(p + 1, value);
  } else {
    p[0] = ID_INTEGER64;
    write_64bit_integer(p + 1, value);
  }
}

// Zero of either sign is the one-byte ID_ZERO_FLOAT; a NaN compares unequal
// to zero and keeps its bits.
static inline void generate_single(vkt_u8* p, float value) {
  if (value == 0.0f) {
    p[0] = ID_ZERO_FLOAT;
  } else {
    p[0] = ID_SINGLE_FLOAT;
    write_single_float(p + 1, value);
  }
}
static inline void generate_double(vkt_u8* p, double value) {
  if (value == 0.0) {
    p[0] = ID_ZERO_FLOAT;
  } else {
    p[0] = ID_DOUBLE_FLOAT;
    write_double_float(p + 1, value);
  }
}

// `id` is the first of a family of four: 1 to 4 payload bytes by the first
// of the bounds 2^8, 2^16 and 2^24 that the value lies under.
static inline void generate_unsigned(vkt_u8* p, vkt_u32 value, vkt_u8 id) {
  if (value < (1u << 8)) {
    p[0] = id;
    write_8bit_unsigned(p + 1, value);
  } else if (value < (1u << 16)) {
    p[0] = vkt_u8(id + 1);
    write_16bit_unsigned(p + 1, value);
  } else if (value < (1u << 24)) {
    p[0] = vkt_u8(id + 2);
    write_24bit_unsigned(p + 1, value);
  } else {
    p[0] = vkt_u8(id + 3);
    write_32bit_unsigned(p + 1, value);
  }
}
static inline void generate_string(vkt_u8* p, vkt_u32 value) {
  generate_unsigned(p, value, ID_STRING_TAG8);
}
static inline void generate_stream(vkt_u8* p, vkt_u32 value) {
  generate_unsigned(p, value, ID_STREAM_TAG8);
}
static inline void generate_bstream(vkt_u8* p, vkt_u32 value) {
  generate_unsigned(p, value, ID_BSTREAM_TAG8);
}

// Scratch room for one scalar; the largest takes 9 bytes.
const vkt_u32 SCALAR_BUFFER_SIZE = 16;

// Word forms of the generators, for a walk that then reads the buffer by
// words (to compare or copy it): the image is made in a register and stored
// as the buffer's two whole words, zero behind it, so each read finds one
// store of its own size; an id byte stored beside its payload would stall
// every such read.
static inline void write_64bit_word(vkt_u8* p, vkt_u64 v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  std::memcpy(p, &v, 8);  // one store, already in the image's order
#else
  write_64bit_bytes(p, v, 8);
#endif
}
// The `n` bytes (at most 16) of a scalar's image at `image`, which may be
// followed by other bytes, copied as words into the SCALAR_BUFFER_SIZE
// bytes at p, zero behind them. `image` must be readable for 16 bytes.
static inline void copy_scalar_words(vkt_u8* p, const vkt_u8* image,
                                     vkt_u32 n) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  vkt_u64 low, high;
  std::memcpy(&low, image, 8);
  std::memcpy(&high, image + 8, 8);
  if (n < 8) low &= (vkt_u64(1) << (8 * n)) - 1;
  high = n <= 8    ? 0
         : n >= 16 ? high
                   : high & ((vkt_u64(1) << (8 * (n - 8))) - 1);
  std::memcpy(p, &low, 8);
  std::memcpy(p + 8, &high, 8);
#else
  std::memset(p, 0, 16);
  std::memcpy(p, image, n);
#endif
}
// An image of at most 8 bytes, given as a little-endian word, into the
// SCALAR_BUFFER_SIZE bytes at p.
static inline void generate_words(vkt_u8* p, vkt_u64 low) {
  write_64bit_word(p, low);
  write_64bit_word(p + 8, 0);
}
static inline vkt_u64 integer_word(vkt_s32 value) {
  if (value == 0) return ID_INTEGER0;
  const int bytes = fits_signed(value, 1)   ? 1
                    : fits_signed(value, 2) ? 2
                    : fits_signed(value, 3) ? 3
                                            : 4;
  const vkt_u64 payload = vkt_u32(value) & (~vkt_u64(0) >> (64 - 8 * bytes));
  return vkt_u64(ID_INTEGER8 + bytes - 1) | payload << 8;
}
// `id` as for generate_unsigned.
static inline vkt_u64 unsigned_word(vkt_u32 value, vkt_u8 id) {
  const vkt_u32 bytes = value < (1u << 8)    ? 1
                        : value < (1u << 16) ? 2
                        : value < (1u << 24) ? 3
                                             : 4;
  return vkt_u64(id + bytes - 1) | vkt_u64(value) << 8;
}
static inline void generate_double_words(vkt_u8* p, double value) {
  if (value == 0.0) {
    generate_words(p, ID_ZERO_FLOAT);
    return;
  }
  vkt_u64 bits;
  std::memcpy(&bits, &value, sizeof(bits));
  write_64bit_word(p, ID_DOUBLE_FLOAT | bits << 8);
  write_64bit_word(p + 8, bits >> 56);
}

static inline void concat_binary(vkt_binary& b1, const vkt_binary& b2) {
  b1.insert(b1.end(), b2.begin(), b2.end());
}

// ---------------------------------------------------------------------------
// Header checksum: Adler-32 over bytes 8-39 and, in version 4, on over 44-55.
// ---------------------------------------------------------------------------

class adler32 {
 public:
  adler32(const vkt_u8* data, vkt_size len) : a(1), b(0) { calc(data, len); }
  void calc(const vkt_u8* data, vkt_size len) {
    for (vkt_size i = 0; i < len; ++i) {
      a = (a + data[i]) % kModulus;
      b = (b + a) % kModulus;
    }
  }
  operator unsigned int() const { return (b << 16) | a; }

  vkt_u32 a;
  vkt_u32 b;

 private:
  static const vkt_u32 kModulus = 65521;  // largest prime below 2^16
};

// The checksum of a plain header of the given version.
static inline vkt_u32 header_checksum(const vkt_u8* header, vkt_u32 version) {
  adler32 sum(header + HEADER_CHECKSUM_BEGIN,
              HEADER_CHECKSUM_END - HEADER_CHECKSUM_BEGIN);
  if (version > 3) {
    sum.calc(header + HEADER_CHECKSUM_BEGIN_VER4,
             HEADER_CHECKSUM_END_VER4 - HEADER_CHECKSUM_BEGIN_VER4);
  }
  return sum;
}

// Runs the filter over the header ranges of a version: 36 bytes, and in
// version 4 the 12 behind them. Reader and writer call it in this order.
static inline void filter_header(VKTFilter* filter, vkt_u8* header,
                                 vkt_u32 version) {
  filter->Filter(header + HEADER_FILTER_BEGIN,
                 HEADER_FILTER_END - HEADER_FILTER_BEGIN);
  if (version > 3) {
    filter->Filter(header + HEADER_FILTER_BEGIN_VER4,
                   HEADER_FILTER_END_VER4 - HEADER_FILTER_BEGIN_VER4);
  }
}

#endif  // VKT_FORMAT_H_
