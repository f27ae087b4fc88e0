// Writes a tiny image and reads it back through the installed or embedded
// library; exits non-zero when a value does not read back as written.
#include <cstdio>
#include <cstring>

#include "vkt.h"

int main() {
  VKTWriterValue root;
  root["name"] = "consumer";
  root["count"] = 300;
  root["scores"][1] = 2.5;
  vkt_binary image = VKTWriterObject().createImage(root);
  if (!VKTObject::decode(image)) return 1;

  VKTObject obj(image);
  const VKTValue r = obj.root();
  const bool ok = std::strcmp(r["name"].asString(), "consumer") == 0 &&
                  r["count"].asInt() == 300 &&
                  r["scores"][1].asDouble() == 2.5 &&
                  r["scores"][0].type() == VKT_TYPE_NULL &&
                  r["missing"].object() == nullptr;
  std::printf("%s: %zu-byte image\n", ok ? "ok" : "wrong value", image.size());
  return ok ? 0 : 1;
}
