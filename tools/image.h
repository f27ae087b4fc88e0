// An image file, checked before anything reads it.
#ifndef VKT_TOOLS_IMAGE_H_
#define VKT_TOOLS_IMAGE_H_

#include <memory>
#include <string>

#include "files.h"
#include "vkt.h"

// Reads the file at `path` (mapped, or copied into memory with `copy`, see
// InputFile), checks it and opens it in place. Throws ToolError naming
// `path` with what is wrong in plain words: not an image at all, an unknown
// version, filtered, cut short, damaged, or past the tool's limits.
//
// kWhole verifies the whole image: every view of root() is safe to read.
// kTables checks only the header and tables (VKTObject::verifyTables): each
// view must pass VKTValue::verifyStep or verify before it is read, which
// checkValue does for a value about to be printed.
class CheckedImage {
 public:
  enum Check { kWhole, kTables };

  CheckedImage(const std::string& path, bool copy, Check check = kWhole);
  CheckedImage(const CheckedImage&) = delete;
  CheckedImage& operator=(const CheckedImage&) = delete;

  const std::string& name() const { return mFile.name(); }
  const VKTObject& object() const { return *mObject; }
  VKTValue root() const { return mObject->root(); }
  // Decodes every key name once, for walks over the whole image: printing
  // then hands out names without rebuilding each from the key table.
  void decodeKeyNames() { mObject->decodeKeyNames(); }
  // What the check counted in the image (values and depth: kWhole only).
  const VKTVerifyReport& report() const { return mReport; }
  // Bytes of the file behind the image's end.
  vkt_u64 trailingBytes() const { return mFile.size() - mReport.end; }
  // Checks `value` and everything below it with the library's default
  // limits (the tool's too); throws
  // as the constructor does when it fails.
  void checkValue(const VKTValue& value) const;
  // The same check, answering false with *report filled instead.
  bool verifyValue(const VKTValue& value, VKTVerifyReport* report) const {
    return value.verify(report, &mLimits);
  }
  // Throws the message for a refusal that `report` describes.
  [[noreturn]] void refuse(const VKTVerifyReport& report) const;

 private:
  InputFile mFile;
  VKTVerifyLimits mLimits;
  VKTVerifyReport mReport;
  std::unique_ptr<VKTObject> mObject;
};

#endif  // VKT_TOOLS_IMAGE_H_
