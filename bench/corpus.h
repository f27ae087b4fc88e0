// The sample documents of ../shared/data as every benchmark sees them: parsed
// once with simdjson, then turned into a vkt writer tree, a FlexBuffer or a
// MessagePack buffer from the same parsed value, so that all formats encode
// exactly the same data. Parse outside the timed loop; build inside it.
#ifndef VKT_BENCH_CORPUS_H_
#define VKT_BENCH_CORPUS_H_

#include <simdjson.h>

#include <cstdint>
#include <string>
#include <vector>

#include "vkt.h"

#if VKT_BENCH_HAVE_FLEXBUFFERS
#include <flatbuffers/flexbuffers.h>
#endif
#if VKT_BENCH_HAVE_MSGPACK
#include <msgpack.hpp>
#endif

extern const char* const kCorpusNames[3];  // twitter, citm_catalog, canada

// The raw JSON text of a sample; aborts with a message when it is missing.
std::string corpus_text(const std::string& name);
// The sample parsed into `parser`; the element lives as long as the parser.
simdjson::dom::element load_corpus(const std::string& name,
                                   simdjson::dom::parser& parser);

// Integers that fit 32 bits by setInt, other integers by setLongInt (an
// unsigned one beyond the signed range by setDouble), other numbers by
// setDouble; objects' members by name.
void json_to_writer(simdjson::dom::element e, VKTWriterValue* out);
// The vkt image of a sample as the writer makes it with default settings.
vkt_binary corpus_image(const std::string& name);

#if VKT_BENCH_HAVE_FLEXBUFFERS
// Appends the value to `b`; the caller calls b.Finish().
void json_to_flexbuffers(simdjson::dom::element e, flexbuffers::Builder& b);
// The finished FlexBuffer of a sample, keys and strings shared when asked.
std::vector<uint8_t> corpus_flexbuffer(const std::string& name, bool shareAll);
#endif

#if VKT_BENCH_HAVE_MSGPACK
void json_to_msgpack(simdjson::dom::element e,
                     msgpack::packer<msgpack::sbuffer>& pk);
msgpack::sbuffer corpus_msgpack(const std::string& name);
#endif

#endif  // VKT_BENCH_CORPUS_H_
