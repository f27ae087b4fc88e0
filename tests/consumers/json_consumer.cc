// JSON text to an image and back through the installed vkt::json; exits
// non-zero when the text does not come back.
#include <cstdio>
#include <string>

#include "vkt.h"
#include "vkt_json.h"

int main() {
  const std::string text = R"({"name":"consumer","scores":[1,2.5,null]})";
  VKTWriterValue root;
  VKTJsonError error;
  if (!vkt_json_parse(text.data(), text.size(), text.size(), &root, &error)) {
    std::printf("parse: %s\n", error.message.c_str());
    return 1;
  }
  const vkt_binary image = VKTWriterObject().createImage(root);
  VKTObject obj(image);
  std::string back;
  const bool ok = VKTObject::verify(image) &&
                  vkt_json_print(obj.root(), &back, &error) && back == text;
  std::printf("%s: %s\n", ok ? "ok" : "wrong text", back.c_str());
  return ok ? 0 : 1;
}
