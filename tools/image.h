// An image file, checked before anything reads it.
#ifndef VKT_TOOLS_IMAGE_H_
#define VKT_TOOLS_IMAGE_H_

#include <memory>
#include <string>

#include "files.h"
#include "vkt.h"

// Reads the file at `path`, tells apart the ways it can fail to be an image
// (not one at all, an unknown version, filtered, cut short, damaged), then
// decodes and verifies it and opens it in place. Throws ToolError naming
// `path`. Once constructed every view of root() is safe to read. `copy`
// reads the file into memory instead of mapping it (see InputFile).
class CheckedImage {
 public:
  explicit CheckedImage(const std::string& path, bool copy = false);
  CheckedImage(const CheckedImage&) = delete;
  CheckedImage& operator=(const CheckedImage&) = delete;

  const std::string& name() const { return mFile.name(); }
  const VKTObject& object() const { return *mObject; }
  VKTValue root() const { return mObject->root(); }
  // Decodes every key name once, for walks over the whole image: printing
  // then hands out names without rebuilding each from the key table.
  void decodeKeyNames() { mObject->decodeKeyNames(); }
  // What verify counted in the image.
  const VKTVerifyReport& report() const { return mReport; }
  // The flags word as stored (0 below version 3).
  vkt_u32 storedFlags() const { return mFlags; }

 private:
  void checkHeader();
  void checkSectionsInFile();

  InputFile mFile;
  vkt_u32 mVersion = 0;
  vkt_u32 mFlags = 0;
  VKTVerifyReport mReport;
  std::unique_ptr<VKTObject> mObject;
};

#endif  // VKT_TOOLS_IMAGE_H_
