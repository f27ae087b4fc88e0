// VKTInternal: the implementation's one accessor to private parts of the
// public classes. Library files use it where one concern needs another's
// internals; the tests and benchmarks use it to check and measure them. Users
// of the library never see it: it is not installed.
#ifndef VKT_INTERNAL_H_
#define VKT_INTERNAL_H_

#include <string>
#include <string_view>
#include <vector>

#include "vkt.h"
#include "vkt/key_state.h"

class VKTInternal {
 public:
  // A view of the value whose encoding starts at `p` in `o`'s image.
  static VKTValue view(const VKTObject* o, const vkt_u8* p) {
    return VKTValue(o, p);
  }
  // Where a view's encoding starts; null for the null view.
  static const vkt_u8* ptr(const VKTValue& v) { return v.mPtr; }

  // The key table: name to key tag through the key cache, and back.
  static bool findKey(const VKTObject& o, const char* key, vkt_u32* result,
                      vkt_u32* hint) {
    return o.findKey(key, result, hint);
  }
  static std::string getKey(const VKTObject& o, vkt_u32 keyTag) {
    return o.getKey(keyTag);
  }
  // Entries the key cache holds.
  static size_t keyHashEntries(const VKTObject& o) {
    return o.mKeyState == nullptr ? 0 : o.mKeyState->hashEntries.size();
  }
  // The stream entity in memory, null when it is not.
  static const vkt_u8* streamEntity(const VKTObject& o) {
    return o.mStreamEntity;
  }

  // Writes to `sink` the image of what `source` walks, as writeImage writes
  // a tree's; false, with writer.error() set and nothing written, on a
  // refusal.
  static bool writeImage(VKTWriterObject& writer,
                         vkt_internal::ValueSource& source,
                         VKTWriteStream& sink) {
    vkt_binary front;
    return writer.assemble(source, &sink, nullptr, 0, &front);
  }

  // The double-array key table of `keys` (sorted, unique, NUL-free, each
  // followed by a NUL in memory), appended to *image.
  static void keyTable(const std::vector<std::string_view>& keys,
                       vkt_binary* image) {
    VKTWriterObject::createDAImage(keys, image);
  }
};

#endif  // VKT_INTERNAL_H_
