// Fixed-width integer types of the vkt library.
//
// Every number in an image is one of these widths; lengths and positions are
// 32 bits wide, so an image and a stream are smaller than 4 GiB.
#ifndef VKT_VKTTYPES_H_
#define VKT_VKTTYPES_H_

#include <cstdint>

typedef std::uint8_t vkt_u8;
typedef std::int8_t vkt_s8;
typedef std::uint32_t vkt_u32;
typedef std::int32_t vkt_s32;
typedef std::uint64_t vkt_u64;
typedef std::int64_t vkt_s64;

// A length in bytes.
typedef vkt_u32 vkt_size;
// A position in bytes, counted from the first byte of an image or stream.
typedef vkt_u32 vkt_offset;

#endif  // VKT_VKTTYPES_H_
