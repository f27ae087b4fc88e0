// Damage sweeps: images written from small trees and from cut-down sample
// documents, every byte flipped (x^0xFF and x^0x01, checksum re-sealed) and
// every length cut off. verify must never read outside the bytes, and every
// image it accepts must survive a full walk through the public API in every
// ownership mode. The sanitize preset is what makes this test bite.
#include <gtest/gtest.h>

#include <cstring>  // strcmp
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "full_walk.h"
#include "testutil.h"

namespace {

// Seed images, written by this library: sample documents cut to a few KB,
// and small trees with every kind of value, streams and bstreams among them.
std::vector<vkt_binary> seed_images() {
  std::vector<vkt_binary> images;
  for (const auto& entry : std::filesystem::directory_iterator(
           VKT_FUZZ_CORPUS_DIR "/verify_fuzzer")) {
    std::ifstream in(entry.path(), std::ios::binary);
    images.emplace_back(std::istreambuf_iterator<char>(in),
                        std::istreambuf_iterator<char>());
  }
  return images;
}

// The checked path on the same bytes, opened in `mode`: tables first, then
// each step as the walk takes it. It agrees with the whole-image check: on
// an image verify accepts every step passes, and the check of the root with
// everything below it answers as verify does, but for the offsets of
// strings that no value uses, which only verify checks. Where verify
// refuses, steps may still pass: the walk reads only what it reaches, and a
// fault off its way (keys out of order, a value past the limits) is not on
// it. `whole` and `reason` are verify's answer.
void check_path(const vkt_u8* p, size_t size, bool whole, const char* reason,
                int mode) {
  if (!VKTObject::verifyTables(p, vkt_size(size))) {
    EXPECT_FALSE(whole);
    return;
  }
  const bool owned = mode == VKT_ALLOC_OWN || mode == VKT_ALLOC_PURGE;
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size]);
  std::copy(p, p + size, copy.get());
  VKTObject object(owned ? copy.release() : copy.get(), vkt_u32(size),
                   vkt_alloc_type(mode));
  // Every other opening looks names up through the name index.
  if (mode % 2 == 1) object.buildKeyIndex();
  full_walk::WalkState state;
  vkt_u64 sum = 0;
  const bool steps = full_walk::walk_checked(object.root(), &state, 0, &sum);
  if (whole) {
    EXPECT_TRUE(steps);
  }
  if (std::strcmp(reason, "string offset outside the string entity") != 0) {
    EXPECT_EQ(object.root().verify(), whole);
  }
}

// Verifies a private, exactly sized copy, so that any read past the end is a
// heap overflow; walks it when accepted, in one way of opening it, a
// different one for each accepted variant.
bool verify_and_walk(const vkt_binary& image, size_t size) {
  static unsigned opening = 0;
  std::unique_ptr<vkt_u8[]> copy(new vkt_u8[size == 0 ? 1 : size]);
  std::copy(image.begin(), image.begin() + size, copy.get());
  VKTVerifyReport report;
  const bool whole = VKTObject::verify(copy.get(), vkt_size(size), &report);
  check_path(copy.get(), size, whole, report.reason, opening % 5);
  if (!whole) return false;
  full_walk::walk_image(copy.get(), vkt_size(size), 1u << (opening++ % 6));
  return true;
}

}  // namespace

// One test per seed image, so that ctest spreads the sweep over its jobs.
class Corruption : public ::testing::TestWithParam<size_t> {};

TEST_P(Corruption, FlippedBytesAndCutImagesNeverReadOutOfBounds) {
  static const std::vector<vkt_binary> images = seed_images();
  ASSERT_EQ(images.size(), 5u);
  const vkt_binary& image = images[GetParam()];
  ASSERT_TRUE(verify_and_walk(image, image.size()));
  size_t accepted = 0;
  for (size_t i = 0; i < image.size(); ++i) {
    for (vkt_u8 mask : {0xFF, 0x01}) {
      vkt_binary damaged = image;
      damaged[i] ^= mask;
      const bool checksumByte =
          i >= HEADER_OFST_CHECKSUM && i < HEADER_OFST_CHECKSUM + 4;
      if (!checksumByte) seal(&damaged);
      accepted += verify_and_walk(damaged, damaged.size());
    }
  }
  for (size_t cut = 0; cut < image.size(); ++cut) {
    accepted += verify_and_walk(image, cut);
  }
  // Flips in payloads, strings and numbers leave valid images.
  EXPECT_GT(accepted, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Corruption, ::testing::Range<size_t>(0, 5));
