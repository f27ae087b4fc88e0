// vkt info IN.vkt: what an image holds and how it is laid out, as aligned
// text or (--json) as one JSON object.
#include <cstdio>
#include <string>
#include <vector>

#include "image.h"
#include "tool.h"
#include "tree_from_image.h"
#include "vkt_json.h"

namespace {

// Counts what a writer produces without keeping the bytes.
class CountingSink : public VKTWriteStream {
 public:
  using VKTWriteStream::Write;
  vkt_u32 Offset() const override { return mSize; }
  void Write(const vkt_u8*, vkt_u32 size) override { mSize += size; }

 private:
  vkt_u32 mSize = 0;
};

struct Sharing {
  bool asked;  // --sharing
  bool measured;
  vkt_u64 shared;
  vkt_u64 unshared;
};

// Rewriting costs time and memory in the values a walk visits, which
// sharing can make far more than the image's bytes (verify allows 256 per
// byte): beyond this the figure is left out rather than the tool stalling.
bool worth_measuring(const CheckedImage& image, vkt_u64 values) {
  const vkt_u64 kMaxValues = 100000000;
  return values <= kMaxValues &&
         values <= 2 * vkt_u64(image.object().size()) + 1000000;
}

// Writes the image's tree again with and without sibling sharing, in the
// same version as the image (an endian mark forces version 4).
Sharing measure_sharing(const CheckedImage& image, vkt_u64 values) {
  Sharing result{true, false, 0, 0};
  if (!worth_measuring(image, values)) return result;
  // The strings the tree copies stay within a few times the image.
  vkt_u64 budget = 2 * vkt_u64(image.object().size()) + (vkt_u64(64) << 20);
  VKTWriterValue tree;
  if (!tree_from_image(image.root(), &budget, &tree)) return result;
  result.measured = true;
  for (bool optimize : {true, false}) {
    VKTWriterObject writer;
    writer.setOptimize(optimize);
    if (image.object().version() >= 4)
      writer.setEndian(image.object().endian());
    CountingSink sink;
    // A refusal (the unshared tree past 4 GiB) leaves the figure out.
    if (!writer.writeImage(tree, sink)) return Sharing{true, false, 0, 0};
    (optimize ? result.shared : result.unshared) = sink.Offset();
  }
  return result;
}

// What each bit of the flags word means; bits 3 to 15 mean nothing.
const char* const sFlagNames[] = {"header filter", "info filter",
                                  "big-endian mark"};

std::string flags_text(vkt_u32 flags) {
  std::string text;
  for (vkt_u32 bit = 0; bit < 16; ++bit) {
    if (!(flags >> bit & 1)) continue;
    if (!text.empty()) text += ", ";
    text += bit < 3 ? sFlagNames[bit] : "bit " + std::to_string(bit);
  }
  return text.empty() ? "none" : text;
}

// A stretch of the image as info lists it: the header, then each section.
struct Part {
  const char* name;
  vkt_u32 offset, size;
};

struct Info {
  std::string file;
  vkt_u32 size, version, flags;
  bool bigEndian;
  std::vector<Part> sections;
  VKTVerifyReport report;  // tables
  VKTVerifyReport values;  // the walk from the root: values and depth
  bool valuesOk;
  Sharing sharing;
  vkt_u64 trailing;
};

Info gather(const CheckedImage& image, bool sharing) {
  const VKTObject& obj = image.object();
  Info info{image.name(),
            obj.size(),
            obj.version(),
            obj.version() >= 3 ? obj.flags() : 0,
            obj.endian() == VKT_ENDIAN_BIG,
            {},
            image.report(),
            {},
            false,
            {false, false, 0, 0},
            0};
  info.trailing = image.trailingBytes();
  // The header and tables were checked; the values are checked here, so
  // that a damaged image still shows its layout before the fault.
  info.valuesOk = image.verifyValue(image.root(), &info.values);
  if (sharing && info.valuesOk) {
    Progress progress(image.name(), image.object().size());
    progress.stage("measuring sharing");
    info.sharing = measure_sharing(image, info.values.values);
  }
  const std::vector<VKTSection> sections = obj.sections();
  info.sections.push_back({"header", 0, sections.front().offset});
  for (const VKTSection& s : sections) {
    info.sections.push_back({s.name, s.offset, s.size});
  }
  return info;
}

double percent(vkt_u64 part, vkt_u64 whole) {
  return whole == 0 ? 0.0 : 100.0 * double(part) / double(whole);
}

void print_text(const Info& in) {
  const VKTVerifyReport& r = in.report;
  std::printf("%-12s %s\n", "file", in.file.c_str());
  std::printf("%-12s %u bytes\n", "size", in.size);
  std::printf("%-12s %u\n", "version", in.version);
  std::printf("%-12s 0x%04x (%s)\n", "flags", in.flags,
              flags_text(in.flags).c_str());
  std::printf("%-12s %s (a mark only: the bytes are little-endian)\n",
              "byte order", in.bigEndian ? "big" : "little");
  std::printf("%-12s %-22s %10s %10s\n", "sections", "", "offset", "size");
  for (const Part& s : in.sections) {
    std::printf("%-12s %-22s %10u %10u\n", "", s.name, s.offset, s.size);
  }
  std::printf("%-12s %u\n%-12s %u\n%-12s %u\n%-12s %u\n", "keys", r.keys,
              "strings", r.strings, "streams", r.streams, "bstreams",
              r.bstreams);
  if (!in.valuesOk) {
    std::printf("%-12s damaged: %s at byte %u\n", "values", in.values.reason,
                in.values.offset);
  } else {
    std::printf("%-12s %llu\n%-12s %u\n", "values",
                static_cast<unsigned long long>(in.values.values), "depth",
                in.values.depth);
  }
  if (in.trailing != 0) {
    std::printf("%-12s %llu bytes after the image's end\n", "trailing",
                static_cast<unsigned long long>(in.trailing));
  }
  if (!in.sharing.measured) {
    std::printf("%-12s not measured: %s\n", "sharing",
                in.sharing.asked ? "the values expand far beyond the image"
                                 : "--sharing measures it");
    return;
  }
  const vkt_u64 saved = in.sharing.unshared > in.sharing.shared
                            ? in.sharing.unshared - in.sharing.shared
                            : 0;
  std::printf("%-12s saves %llu bytes (%.1f%%)\n", "sharing",
              static_cast<unsigned long long>(saved),
              percent(saved, in.sharing.unshared));
}

// Section names are plain ASCII; the file name is escaped as JSON needs.
std::string quoted(const std::string& s) {
  std::string out;
  vkt_json_quote(s, &out);
  return out;
}

void print_json(const Info& in) {
  const VKTVerifyReport& r = in.report;
  std::printf(
      "{\"file\":%s,\"size\":%u,\"version\":%u,\"flags\":%u,"
      "\"byte_order\":\"%s\",\"sections\":[",
      quoted(in.file).c_str(), in.size, in.version, in.flags,
      in.bigEndian ? "big" : "little");
  for (size_t i = 0; i < in.sections.size(); ++i) {
    const Part& s = in.sections[i];
    std::printf("%s{\"name\":\"%s\",\"offset\":%u,\"size\":%u}",
                i == 0 ? "" : ",", s.name, s.offset, s.size);
  }
  std::printf(
      "],\"keys\":%u,\"strings\":%u,\"streams\":%u,\"bstreams\":%u,"
      "\"values\":%s,\"depth\":%s,\"trailing_bytes\":%llu,",
      r.keys, r.strings, r.streams, r.bstreams,
      in.valuesOk ? std::to_string(in.values.values).c_str() : "null",
      in.valuesOk ? std::to_string(in.values.depth).c_str() : "null",
      static_cast<unsigned long long>(in.trailing));
  if (in.sharing.measured) {
    std::printf("\"size_shared\":%llu,\"size_unshared\":%llu}\n",
                static_cast<unsigned long long>(in.sharing.shared),
                static_cast<unsigned long long>(in.sharing.unshared));
  } else {
    std::printf("\"size_shared\":null,\"size_unshared\":null}\n");
  }
}

}  // namespace

int cmd_info(const Args& args) {
  const CheckedImage image(args.positional[0], args.has("copy"),
                           CheckedImage::kTables);
  const Info info = gather(image, args.has("sharing"));
  if (args.has("json")) {
    print_json(info);
  } else {
    print_text(info);
  }
  if (!info.valuesOk) image.refuse(info.values);
  return 0;
}
