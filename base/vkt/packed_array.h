// Packed unsigned arrays: the image's one form of a list of numbers.
//
//   count id | count (count id - 12 bytes) | width id | n x width bytes
//
// The ids are ID_UNSIGNED8..ID_UNSIGNED32 (13..16); a width is the id minus
// 12. The count's width follows the count alone and the elements' width the
// largest element alone, so the same list always gives the same bytes. No
// padding; readers index an array in place and allocate nothing.
//
//   (no values)  0D 00 0D
//   0, 1, 300    0D 03 0E 00 00 01 00 2C 01
#ifndef VKT_PACKED_ARRAY_H_
#define VKT_PACKED_ARRAY_H_

#include <algorithm>
#include <type_traits>  // integral_constant

#include "vkt/format.h"

// The reader's view of one array, made on the stack; points into the image.
struct unsigned_array {
  vkt_u32 size;       // whole encoded size in bytes
  vkt_u32 valueNum;   // number of elements
  vkt_u32 valueSize;  // width of one element, 1 to 4
  const vkt_u8* values;
};

// Bytes that the id of an unsigned number adds to its payload width.
const vkt_u32 UNSIGNED_ID_BIAS = ID_UNSIGNED8 - 1;

static inline void setup_unsigned_array(unsigned_array* a, const vkt_u8* p) {
  // Count field with its id: 2 to 5 bytes, known from the id alone.
  const vkt_u32 valueNumSize = vkt_u32(p[0]) - (UNSIGNED_ID_BIAS - 1);
  a->valueNum = parse_unsigned(p);
  a->valueSize = vkt_u32(p[valueNumSize]) - UNSIGNED_ID_BIAS;
  a->values = p + valueNumSize + 1;
  a->size = valueNumSize + 1 + a->valueNum * a->valueSize;
}

// Element `index` of numbers packed at a width known when compiling; loops
// over one array pick the width once (with_width) and run without a switch.
// Width 0 stands for a width id outside the family and reads as 0.
template <vkt_u32 Width>
static inline vkt_u32 read_packed(const vkt_u8* values, vkt_u32 index) {
  const vkt_u8* p = values + index * Width;
  if (Width == 0) return 0;
  if (Width == 1) return read_8bit_unsigned(p);
  if (Width == 2) return read_16bit_unsigned(p);
  if (Width == 3) return read_24bit_unsigned(p);
  return read_32bit_unsigned(p);
}

template <vkt_u32 Width>
using packed_width = std::integral_constant<vkt_u32, Width>;

// Calls f(packed_width<width>()) and answers its result; a width outside 1
// to 4 (only a damaged array has one) becomes 0.
template <typename F>
static inline auto with_width(vkt_u32 width, F f) {
  switch (width) {
    case 1:
      return f(packed_width<1>());
    case 2:
      return f(packed_width<2>());
    case 3:
      return f(packed_width<3>());
    case 4:
      return f(packed_width<4>());
    default:
      return f(packed_width<0>());
  }
}

// Element `index` at a width known only at run time.
static inline vkt_u32 read_packed(const vkt_u8* values, vkt_u32 width,
                                  vkt_u32 index) {
  return with_width(width, [&](auto w) {
    return read_packed<decltype(w)::value>(values, index);
  });
}

static inline vkt_u32 get_unsigned_array(const unsigned_array* a,
                                         vkt_u32 index) {
  return read_packed(a->values, a->valueSize, index);
}

// Width in bytes of the smallest unsigned form that holds `value`.
static inline vkt_u32 unsigned_width(vkt_u32 value) {
  return value < (1u << 8)    ? 1
         : value < (1u << 16) ? 2
         : value < (1u << 24) ? 3
                              : 4;
}

static inline vkt_u32 max_of(const std::vector<vkt_u32>& values) {
  return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

// Encoded size of `count` elements of `width` bytes each.
static inline vkt_u32 unsigned_array_size(vkt_u32 count, vkt_u32 width) {
  return 1 + unsigned_width(count) + 1 + count * width;
}

static inline vkt_u32 unsigned_array_size(const std::vector<vkt_u32>& values) {
  return unsigned_array_size(vkt_u32(values.size()),
                             unsigned_width(max_of(values)));
}

// The caller provides unsigned_array_size(values) bytes at p.
static inline void generate_unsigned_array(vkt_u8* p,
                                           const std::vector<vkt_u32>& values) {
  const vkt_u32 valueSize = unsigned_width(max_of(values));
  const vkt_u32 count = vkt_u32(values.size());
  generate_unsigned(p, count, ID_UNSIGNED8);
  p += 1 + unsigned_width(count);  // the count's id and payload
  *p++ = vkt_u8(valueSize + UNSIGNED_ID_BIAS);
  switch (valueSize) {
    case 1:
      for (vkt_u32 v : values) p = write_8bit_unsigned(p, v);
      break;
    case 2:
      for (vkt_u32 v : values) p = write_16bit_unsigned(p, v);
      break;
    case 3:
      for (vkt_u32 v : values) p = write_24bit_unsigned(p, v);
      break;
    default:
      for (vkt_u32 v : values) p = write_32bit_unsigned(p, v);
      break;
  }
}

static inline void concat_unsigned_array(vkt_binary& image,
                                         const std::vector<vkt_u32>& values) {
  const size_t old = image.size();
  image.resize(old + unsigned_array_size(values));
  generate_unsigned_array(image.data() + old, values);
}

static inline vkt_binary create_unsigned_array(
    const std::vector<vkt_u32>& values) {
  vkt_binary image(unsigned_array_size(values));
  generate_unsigned_array(image.data(), values);
  return image;
}

#endif  // VKT_PACKED_ARRAY_H_
