// vkt_json: JSON text to vkt images and back. An optional library beside the
// core (it needs simdjson); the `vkt` tool is built on it.
//
// JSON to tree (vkt_json_parse), so that results are predictable:
//   integer that fits 32 bits   -> setInt
//   any other integer           -> setLongInt; beyond the signed 64-bit
//                                  range: an error when strict, else setDouble
//   number with fraction or exponent -> setDouble
//   string                      -> setString (invalid UTF-8 is always an
//                                  error; a NUL inside is an error when strict,
//                                  since asString ends a string at its NUL)
//   object                      -> members by name; a duplicate name is an
//                                  error when strict, else the last one wins
//   {"$stream": "<base64>", "align": N, "bound": true|false}
//                               -> setStream of the decoded bytes with that
//                                  alignment (0 when absent), a bstream when
//                                  bound; "$stream" alone is enough. Members
//                                  of the wrong kind are an error. An object
//                                  with any other member is an ordinary
//                                  object, and so is every object when
//                                  VKTJsonParseOptions::streams is false.
//
// Value to JSON (vkt_json_print), the other way round:
//   integers as integers; floats and doubles in the shortest form that reads
//   back to the same double, always with a '.' or an exponent so that they
//   read back as doubles; strings escaped as JSON needs; streams and bstreams
//   as the "$stream" object above, with "align" the largest power of two up to
//   65536 that divides the payload's offset in the image (omitted when 1) and
//   "bound" true for a bstream (omitted for a stream). So packing the printed
//   text again gives every payload back, aligned at least as before.
//   Non-finite floats and strings that are not valid UTF-8 are errors when
//   strict; lax prints null and replaces each invalid byte with U+FFFD.
//
// Nothing here keeps a pointer to its arguments after a call returns. The
// functions throw nothing: failures answer false and fill *error.
#ifndef VKT_JSON_H_
#define VKT_JSON_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "vkt.h"

// VKTJsonError::offset when the parser cannot tell where the fault lies.
const size_t VKT_JSON_NO_OFFSET = static_cast<size_t>(-1);

// Why a conversion failed.
struct VKTJsonError {
  std::string message;  // e.g. "duplicate member name \"id\""
  // Parse: the byte offset in the JSON text where the fault lies (as close
  // as the parser tells), or VKT_JSON_NO_OFFSET when it cannot tell (a
  // structural fault found by the parser's first pass, such as an unclosed
  // string or bracket). Print: 0.
  size_t offset = 0;
  // Print: the path of the offending value, as `vkt get` takes it (e.g.
  // statuses[3].geo); empty for the root and for parse errors.
  std::string path;
  // Print: the text passed VKTJsonPrintOptions::maxExpansion.
  bool tooLarge = false;
};

struct VKTJsonParseOptions {
  bool strict = true;
  // An object whose members are exactly "$stream" and optionally "align" and
  // "bound" becomes a stream; false reads every object as an object.
  bool streams = true;
};

// Bytes the parser may read past the end of the text. A caller whose buffer
// has this many readable bytes behind `size` (their values do not matter)
// passes the larger `capacity` and saves a copy of the whole text.
const size_t VKT_JSON_PADDING = 64;

// Deepest nesting of arrays and objects that vkt_json_parse accepts, counted
// as VKTVerifyLimits::maxDepth counts it (a root array of scalars is 1; a
// "$stream" object is a leaf): the library's own VKT_MAX_DEPTH, so that
// everything parse accepts can be written and passes verify's defaults.
const vkt_u32 VKT_JSON_MAX_DEPTH = VKT_MAX_DEPTH;

// Parses `size` bytes of JSON text at `text` into *root (replacing it).
// `capacity` is how many bytes from `text` may be read; less than
// size + VKT_JSON_PADDING makes the parser work on a copy. On failure *root
// is left null and *error says why.
bool vkt_json_parse(const char* text, size_t size, size_t capacity,
                    VKTWriterValue* root, VKTJsonError* error,
                    const VKTJsonParseOptions& options = VKTJsonParseOptions());

// JSON text straight to an image on `sink` (standing at Offset 0): the
// bytes writer.writeImage makes of the tree vkt_json_parse builds, without
// that tree. The text is read twice, and memory holds the text, one copy of
// each distinct key and string, a few bytes per container and string, and
// the image's root value; a tree costs tens of bytes per value more. Texts
// that parse into more than a plain tree (options.strict off, or a
// "$stream" object to make) go through the tree, as does a text with a
// fault, so that every result and message is the parse's. On failure
// answers false with nothing written: a parse failure as vkt_json_parse
// reports it, or the writer's refusal (writer.error(), no offset).
bool vkt_json_pack(const char* text, size_t size, size_t capacity,
                   VKTWriterObject& writer, VKTWriteStream& sink,
                   VKTJsonError* error,
                   const VKTJsonParseOptions& options = VKTJsonParseOptions());

struct VKTJsonPrintOptions {
  bool pretty = false;  // two-space indent, one member or element per line
  bool strict = true;
  // Sharing lets a small image stand for a huge text (one string referred to
  // a million times). Once the text passes `expansionAllowance` bytes, print
  // fails when it passes `maxExpansion` times the image's size; 0 lifts the
  // bound. The text may run past the bound by one value before print stops.
  vkt_u64 maxExpansion = 100;
  vkt_u64 expansionAllowance = vkt_u64(8) << 20;
};

// Appends `value` as JSON text to *out. The value's VKTObject must have been
// verified (VKTObject::verify) and hold its whole image in memory: stream
// payloads are read in place and their alignment is measured from
// object()->image(). On failure *out holds a partial text and *error says
// why. For a whole image, call VKTObject::decodeKeyNames first: members then
// come with their names ready instead of each rebuilt from the key table,
// which makes printing about a third faster. VKTVerifyReport::values tells
// how many values a whole print visits.
bool vkt_json_print(const VKTValue& value, std::string* out,
                    VKTJsonError* error,
                    const VKTJsonPrintOptions& options = VKTJsonPrintOptions());

// The same text handed to `sink` in pieces of about 1 MiB as it is made,
// so that a whole image prints in memory that does not grow with its text.
// On failure the sink holds a partial text. Whatever the sink's Write
// throws passes through.
bool vkt_json_print(const VKTValue& value, VKTWriteStream* sink,
                    VKTJsonError* error,
                    const VKTJsonPrintOptions& options = VKTJsonPrintOptions());

// The "align" that print gives a stream or bstream value: the largest power
// of two up to 65536 that divides its payload's offset in the image; 1 for
// any other value or when the payload is not in memory.
vkt_u32 vkt_json_stream_alignment(const VKTValue& stream);

// Appends `text` as a JSON string, quotes included, escaping '"', '\\' and
// control characters. Bytes that are not valid UTF-8 are copied as they are:
// this is for names and messages whose text is known to be UTF-8.
void vkt_json_quote(std::string_view text, std::string* out);

#endif  // VKT_JSON_H_
