// JSON text from the input bytes goes through the conversion library: parsed
// strictly and laxly; whatever is accepted is written, must pass verify, and
// must print. A strict parse of a document without streams must come back
// from its own printed text as the same image, byte for byte. Packing the
// text without a tree must give the tree's image, or fail with the parse's
// message at the same offset.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_common.h"
#include "vkt/streams.h"  // VKTBinaryWriteStream
#include "vkt_json.h"

namespace {

vkt_binary image_of(const char* text, size_t size, bool strict, bool* ok,
                    VKTJsonError* failure = nullptr) {
  VKTWriterValue root;
  VKTJsonError error;
  VKTJsonParseOptions options;
  options.strict = strict;
  *ok = vkt_json_parse(text, size, size, &root, &error, options);
  if (failure != nullptr) *failure = error;
  if (!*ok) return vkt_binary();
  // The parser's nesting limit is the writer's: what it accepts is written.
  VKTWriterObject writer;
  vkt_binary image = writer.createImage(root);
  if (image.empty()) std::abort();
  return image;
}

std::string printed(const vkt_binary& image, VKTVerifyReport* report) {
  if (!VKTObject::verify(image, report)) std::abort();
  const VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  std::string text;
  VKTJsonError error;
  VKTJsonPrintOptions options;
  options.strict = false;  // a lax parse may keep a NUL inside a string
  if (!vkt_json_print(object.root(), &text, &error, options)) std::abort();
  return text;
}

void check_pack(const char* text, size_t size, bool strict, bool ok,
                const vkt_binary& image, const VKTJsonError& error) {
  std::string padded(text, size);
  padded.resize(size + VKT_JSON_PADDING);
  VKTJsonParseOptions options;
  options.strict = strict;
  vkt_binary packed;
  VKTBinaryWriteStream sink(packed);
  VKTWriterObject writer;
  VKTJsonError packError;
  if (vkt_json_pack(padded.data(), size, padded.size(), writer, sink,
                    &packError, options) != ok ||
      packed != image || packError.message != error.message ||
      packError.offset != error.offset) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  for (bool strict : {false, true}) {
    bool ok;
    VKTJsonError error;
    const vkt_binary image = image_of(text, size, strict, &ok, &error);
    check_pack(text, size, strict, ok, image, error);
    if (!ok) continue;
    VKTVerifyReport report;
    const std::string again = printed(image, &report);
    if (!strict || report.streams + report.bstreams != 0) continue;
    const vkt_binary second = image_of(again.data(), again.size(), true, &ok);
    if (!ok || second != image) std::abort();
  }
  return 0;
}
