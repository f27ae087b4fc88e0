// Every command that reads an image comes through here. The library's
// checks say what kind of fault they found; this turns each kind into a
// message that says what is wrong in plain words.
#include "image.h"

#include "tool.h"

namespace {

const vkt_u32 kNewestVersion = 4;

std::string where(const VKTVerifyReport& r) {
  return std::string(r.reason) + " at byte " + std::to_string(r.offset);
}

}  // namespace

CheckedImage::CheckedImage(const std::string& path, bool copy, Check check)
    : mFile(path, copy) {
  if (mFile.size() > 0xFFFFFFFFu) fail(path, "too large for a vkt image");
  Progress progress(path, mFile.size());
  progress.stage("verifying");
  const vkt_size size = vkt_size(mFile.size());
  const bool ok =
      check == kWhole
          ? VKTObject::verify(mFile.data(), size, &mReport, &mLimits)
          : VKTObject::verifyTables(mFile.data(), size, &mReport, &mLimits);
  if (!ok) refuse(mReport);
  // The image alone: bytes behind its end are not part of it.
  mObject.reset(
      new VKTObject(mFile.data(), vkt_u32(mReport.end), VKT_ALLOC_REFER));
}

void CheckedImage::checkValue(const VKTValue& value) const {
  VKTVerifyReport report;
  if (!value.verify(&report, &mLimits)) refuse(report);
}

void CheckedImage::refuse(const VKTVerifyReport& r) const {
  const std::string& path = mFile.name();
  const std::string size = std::to_string(mFile.size());
  switch (r.fault) {
    case VKT_FAULT_NOT_AN_IMAGE:
      fail(path, mFile.size() == 0 ? "not a vkt image (empty file)"
                                   : "not a vkt image (wrong magic)");
    case VKT_FAULT_VERSION:
      fail(path, "unsupported version " + std::to_string(r.version) +
                     " (this tool reads 1 to " +
                     std::to_string(kNewestVersion) + ")");
    case VKT_FAULT_FILTERED:
      fail(path,
           "filtered image: it can be read only with the filter it was "
           "written with, which this tool does not have");
    case VKT_FAULT_TRUNCATED:
      if (r.offset == 0) fail(path, "truncated image: only " + size + " bytes");
      fail(path, "truncated image: " + size +
                     " bytes, but its header names byte " +
                     std::to_string(r.end));
    case VKT_FAULT_CHECKSUM:
      fail(path, "damaged image: header checksum does not match");
    case VKT_FAULT_LIMIT:
      fail(path, "image beyond what this tool reads: " + where(r));
    default:
      fail(path, "damaged image: " + where(r));
  }
}
