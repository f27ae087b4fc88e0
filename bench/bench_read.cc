// Reader benchmarks on the three sample documents, with FlexBuffers and
// MessagePack side by side when their packages were found. Every format
// holds the same parsed JSON (corpus.h).
//
//   open        vkt: open the bytes in place (VKT_ALLOC_REFER);
//               FlexBuffers: GetRoot; MessagePack: unpack (its only way in)
//   paths       lookups from the root, one path per leaf read:
//               twitter  statuses[i].id, .user.screen_name,
//                        .user.followers_count
//               citm     performances[i].venueCode, topicNames[k] for every k
//               canada   features[0].geometry.coordinates[i][j][0]
//               vkt by plain names, with hints and the key cache, and with
//               prepared keys (prepared once per image, outside the loop).
//               MessagePack is unpacked outside the loop; maps are searched
//               in order, as that format offers nothing else.
//   walk        every value and every member name: vkt through
//               getMemberNames + at(name), through members() rebuilding
//               names, and through members() after decodeKeyNames (run
//               inside the loop, and once outside it); FlexBuffers maps by
//               index (Keys/Values);
//               MessagePack unpack + walk.
//   values      every value, no names.
//
// Each walk and path set sums what it reads, so nothing is optimised away.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "corpus.h"
#include "vkt.h"

namespace {

struct Sample {
  vkt_binary image;
#if VKT_BENCH_HAVE_FLEXBUFFERS
  std::vector<uint8_t> flex;
#endif
#if VKT_BENCH_HAVE_MSGPACK
  msgpack::sbuffer msgpack;
#endif
  std::vector<std::string> topicKeys;  // citm_catalog: names of topicNames
};

const Sample& sample(int corpus) {
  static std::unique_ptr<Sample> samples[3];
  if (!samples[corpus]) {
    auto s = std::make_unique<Sample>();
    const std::string name = kCorpusNames[corpus];
    s->image = corpus_image(name);
#if VKT_BENCH_HAVE_FLEXBUFFERS
    s->flex = corpus_flexbuffer(name, false);
#endif
#if VKT_BENCH_HAVE_MSGPACK
    s->msgpack = corpus_msgpack(name);
#endif
    if (corpus == 1) {
      simdjson::dom::parser parser;
      for (auto field : load_corpus(name, parser)["topicNames"].get_object()) {
        s->topicKeys.emplace_back(field.key);
      }
    }
    samples[corpus] = std::move(s);
  }
  return *samples[corpus];
}

// Names of each path set; citm_catalog appends its topic keys.
std::vector<std::string> path_names(int corpus) {
  static const std::vector<std::string> kNames[3] = {
      {"statuses", "id", "user", "screen_name", "followers_count"},
      {"performances", "venueCode", "topicNames"},
      {"features", "geometry", "coordinates"}};
  std::vector<std::string> names = kNames[corpus];
  for (const std::string& k : sample(corpus).topicKeys) names.push_back(k);
  return names;
}

// ---------------------------------------------------------------------------
// Path sets, written once over a format adapter: member(v, n) looks up name
// n of path_names, index(v, i), size(v), and three reads.
// ---------------------------------------------------------------------------

template <typename F>
double twitter_paths(F& f) {
  double sum = 0;
  const auto count = f.size(f.member(f.root(), 0));
  for (size_t i = 0; i < count; ++i) {
    sum += f.integer(f.member(f.index(f.member(f.root(), 0), i), 1));
    sum += f.first_char(
        f.member(f.member(f.index(f.member(f.root(), 0), i), 2), 3));
    sum +=
        f.integer(f.member(f.member(f.index(f.member(f.root(), 0), i), 2), 4));
  }
  return sum;
}

template <typename F>
double citm_paths(F& f, size_t topics) {
  double sum = 0;
  const auto count = f.size(f.member(f.root(), 0));
  for (size_t i = 0; i < count; ++i) {
    sum += f.first_char(f.member(f.index(f.member(f.root(), 0), i), 1));
  }
  for (size_t k = 0; k < topics; ++k) {
    sum += f.first_char(f.member(f.member(f.root(), 2), 3 + k));
  }
  return sum;
}

template <typename F>
double canada_paths(F& f) {
  double sum = 0;
  auto coordinates = [&f] {
    return f.member(f.member(f.index(f.member(f.root(), 0), 0), 1), 2);
  };
  const auto rings = f.size(coordinates());
  for (size_t i = 0; i < rings; ++i) {
    const auto points = f.size(f.index(coordinates(), i));
    for (size_t j = 0; j < points; ++j) {
      sum += f.real(f.index(f.index(f.index(coordinates(), i), j), 0));
    }
  }
  return sum;
}

// The first leaf of each path set: the value a program opening the image
// for one answer wants.
template <typename F>
double first_path(int corpus, F& f) {
  switch (corpus) {
    case 0:
      return f.integer(f.member(f.index(f.member(f.root(), 0), 0), 1));
    case 1:
      return f.first_char(f.member(f.index(f.member(f.root(), 0), 0), 1));
    default:
      return f.real(f.index(
          f.index(
              f.index(
                  f.member(f.member(f.index(f.member(f.root(), 0), 0), 1), 2),
                  0),
              0),
          0));
  }
}

template <typename F>
double run_paths(int corpus, F& f) {
  switch (corpus) {
    case 0:
      return twitter_paths(f);
    case 1:
      return citm_paths(f, sample(1).topicKeys.size());
    default:
      return canada_paths(f);
  }
}

// vkt adapters: the three ways to name a member.
struct VktBase {
  explicit VktBase(int corpus)
      : object(sample(corpus).image.data(),
               vkt_u32(sample(corpus).image.size()), VKT_ALLOC_REFER),
        names(path_names(corpus)) {}
  VKTValue root() const { return object.root(); }
  static VKTValue index(VKTValue v, size_t i) { return v[i]; }
  static size_t size(VKTValue v) { return v.size(); }
  static double integer(VKTValue v) { return double(v.asLongInt()); }
  static double real(VKTValue v) { return v.asDouble(); }
  static double first_char(VKTValue v) { return v.asString()[0]; }
  VKTObject object;
  std::vector<std::string> names;
};

// Plain names over an object opened elsewhere.
struct VktRef {
  VKTValue root() const { return object.root(); }
  VKTValue member(VKTValue v, size_t n) const { return v[names[n].c_str()]; }
  static VKTValue index(VKTValue v, size_t i) { return v[i]; }
  static double integer(VKTValue v) { return double(v.asLongInt()); }
  static double real(VKTValue v) { return v.asDouble(); }
  static double first_char(VKTValue v) { return v.asString()[0]; }
  const VKTObject& object;
  const std::vector<std::string>& names;
};

struct VktPlain : VktBase {
  using VktBase::VktBase;
  VKTValue member(VKTValue v, size_t n) const { return v[names[n].c_str()]; }
};

struct VktHints : VktBase {
  explicit VktHints(int corpus) : VktBase(corpus), hints(names.size(), 0) {
    object.setKeyHashEnabled(true);
  }
  VKTValue member(VKTValue v, size_t n) {
    return v.at(names[n].c_str(), &hints[n]);
  }
  std::vector<vkt_u32> hints;
};

struct VktIndexed : VktBase {
  explicit VktIndexed(int corpus) : VktBase(corpus) { object.buildKeyIndex(); }
  VKTValue member(VKTValue v, size_t n) const { return v[names[n].c_str()]; }
};

struct VktPrepared : VktBase {
  explicit VktPrepared(int corpus) : VktBase(corpus) {
    for (const std::string& n : names) keys.push_back(object.prepareKey(n));
  }
  VKTValue member(VKTValue v, size_t n) const { return v[keys[n]]; }
  std::vector<VKTKey> keys;
};

template <typename F>
void BM_paths_vkt(benchmark::State& state) {
  const int corpus = int(state.range(0));
  F f(corpus);
  for (auto _ : state) benchmark::DoNotOptimize(run_paths(corpus, f));
}

// ---------------------------------------------------------------------------
// vkt open and walks.
// ---------------------------------------------------------------------------

void BM_open_vkt(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    benchmark::DoNotOptimize(object.root());
  }
}

// Time to the first value: open, then one path by plain names.
void BM_first_vkt(benchmark::State& state) {
  const int corpus = int(state.range(0));
  const Sample& s = sample(corpus);
  const std::vector<std::string> names = path_names(corpus);
  for (auto _ : state) {
    VKTObject object(s.image.data(), vkt_u32(s.image.size()), VKT_ALLOC_REFER);
    VktRef f{object, names};
    benchmark::DoNotOptimize(first_path(corpus, f));
  }
}

void BM_open_vkt_keycache(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    object.setKeyHashEnabled(true);
    benchmark::DoNotOptimize(object.root());
  }
}

double scalar(VKTValue v) {
  switch (v.type()) {
    case VKT_TYPE_BOOL:
      return v.asBool();
    case VKT_TYPE_INTEGER:
      return double(v.asLongInt());
    case VKT_TYPE_FLOAT:
      return v.asDouble();
    case VKT_TYPE_STRING:
      return v.asString()[0];
    default:
      return 0;
  }
}

double first_char(const std::string& s) { return s.empty() ? 0 : s[0]; }
double first_char(std::string_view s) { return s.empty() ? 0 : s[0]; }

// The former way: names listed, then each member looked up by its name.
double walk_old(VKTValue v) {
  double sum = 0;
  if (v.type() == VKT_TYPE_OBJECT) {
    vkt_members names;
    v.getMemberNames(&names);
    for (const std::string& name : names) {
      sum += first_char(name) + walk_old(v[name]);
    }
  } else if (v.type() == VKT_TYPE_ARRAY) {
    for (vkt_u32 i = 0, n = vkt_u32(v.size()); i < n; ++i) {
      sum += walk_old(v[i]);
    }
  } else {
    sum += scalar(v);
  }
  return sum;
}

double walk_members(VKTValue v) {
  double sum = 0;
  if (v.type() == VKT_TYPE_OBJECT) {
    for (const VKTMember& m : v.members()) {
      sum += first_char(m.name) + walk_members(m.value);
    }
  } else if (v.type() == VKT_TYPE_ARRAY) {
    for (VKTValue e : v.elements()) sum += walk_members(e);
  } else {
    sum += scalar(v);
  }
  return sum;
}

double walk_values(VKTValue v) {
  const vkt_type t = v.type();
  if (t != VKT_TYPE_OBJECT && t != VKT_TYPE_ARRAY) return scalar(v);
  double sum = 0;
  for (VKTValue e : v.elements()) sum += walk_values(e);
  return sum;
}

void BM_walk_vkt_old(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    benchmark::DoNotOptimize(walk_old(object.root()));
  }
}

void BM_walk_vkt_members(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    benchmark::DoNotOptimize(walk_members(object.root()));
  }
}

void BM_walk_vkt_members_decoded(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    object.decodeKeyNames();
    benchmark::DoNotOptimize(walk_members(object.root()));
  }
}

void BM_walk_vkt_members_indexed(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    object.buildKeyIndex();
    benchmark::DoNotOptimize(walk_members(object.root()));
  }
}

// The steady state of a program that keeps an image open: names decoded
// once, outside the loop.
void BM_walk_vkt_members_predecoded(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
  object.decodeKeyNames();
  for (auto _ : state) benchmark::DoNotOptimize(walk_members(object.root()));
}

void BM_values_vkt(benchmark::State& state) {
  const vkt_binary& image = sample(int(state.range(0))).image;
  for (auto _ : state) {
    VKTObject object(image.data(), vkt_u32(image.size()), VKT_ALLOC_REFER);
    benchmark::DoNotOptimize(walk_values(object.root()));
  }
}

// ---------------------------------------------------------------------------
// FlexBuffers.
// ---------------------------------------------------------------------------

#if VKT_BENCH_HAVE_FLEXBUFFERS
using flexbuffers::Reference;

void BM_open_flex(benchmark::State& state) {
  const std::vector<uint8_t>& buf = sample(int(state.range(0))).flex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(flexbuffers::GetRoot(buf.data(), buf.size()));
  }
}

double flex_scalar(Reference r) {
  if (r.IsBool()) return r.AsBool();
  if (r.IsIntOrUint()) return double(r.AsInt64());
  if (r.IsFloat()) return r.AsDouble();
  if (r.IsString()) return r.AsString().c_str()[0];
  return 0;
}

template <bool kNames>
double flex_walk(Reference r) {
  double sum = 0;
  if (r.IsMap()) {
    const flexbuffers::Map map = r.AsMap();
    const flexbuffers::Vector values = map.Values();
    const size_t n = map.size();
    if (kNames) {
      const flexbuffers::TypedVector keys = map.Keys();
      for (size_t i = 0; i < n; ++i) sum += keys[i].AsKey()[0];
    }
    for (size_t i = 0; i < n; ++i) sum += flex_walk<kNames>(values[i]);
  } else if (r.IsUntypedVector()) {
    const flexbuffers::Vector v = r.AsVector();
    for (size_t i = 0, n = v.size(); i < n; ++i) {
      sum += flex_walk<kNames>(v[i]);
    }
  } else {
    sum += flex_scalar(r);
  }
  return sum;
}

template <bool kNames>
void BM_walk_flex(benchmark::State& state) {
  const std::vector<uint8_t>& buf = sample(int(state.range(0))).flex;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        flex_walk<kNames>(flexbuffers::GetRoot(buf.data(), buf.size())));
  }
}

struct FlexPaths {
  explicit FlexPaths(int corpus)
      : buf(sample(corpus).flex), names(path_names(corpus)) {}
  Reference root() const {
    return flexbuffers::GetRoot(buf.data(), buf.size());
  }
  Reference member(Reference v, size_t n) const {
    return v.AsMap()[names[n].c_str()];
  }
  static Reference index(Reference v, size_t i) { return v.AsVector()[i]; }
  static size_t size(Reference v) { return v.AsVector().size(); }
  static double integer(Reference v) { return double(v.AsInt64()); }
  static double real(Reference v) { return v.AsDouble(); }
  static double first_char(Reference v) { return v.AsString().c_str()[0]; }
  const std::vector<uint8_t>& buf;
  std::vector<std::string> names;
};

void BM_first_flex(benchmark::State& state) {
  const int corpus = int(state.range(0));
  FlexPaths f(corpus);
  for (auto _ : state) benchmark::DoNotOptimize(first_path(corpus, f));
}

void BM_paths_flex(benchmark::State& state) {
  const int corpus = int(state.range(0));
  FlexPaths f(corpus);
  for (auto _ : state) benchmark::DoNotOptimize(run_paths(corpus, f));
}
#endif

// ---------------------------------------------------------------------------
// MessagePack.
// ---------------------------------------------------------------------------

#if VKT_BENCH_HAVE_MSGPACK
void BM_open_msgpack(benchmark::State& state) {
  const msgpack::sbuffer& buf = sample(int(state.range(0))).msgpack;
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(buf.data(), buf.size());
    benchmark::DoNotOptimize(handle.get().type);
  }
}

double msgpack_scalar(const msgpack::object& o) {
  switch (o.type) {
    case msgpack::type::BOOLEAN:
      return o.via.boolean;
    case msgpack::type::POSITIVE_INTEGER:
      return double(o.via.u64);
    case msgpack::type::NEGATIVE_INTEGER:
      return double(o.via.i64);
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
      return o.via.f64;
    case msgpack::type::STR:
      return o.via.str.size != 0 ? o.via.str.ptr[0] : 0;
    default:
      return 0;
  }
}

template <bool kNames>
double msgpack_walk(const msgpack::object& o) {
  double sum = 0;
  if (o.type == msgpack::type::MAP) {
    for (uint32_t i = 0; i < o.via.map.size; ++i) {
      if (kNames) sum += msgpack_scalar(o.via.map.ptr[i].key);
      sum += msgpack_walk<kNames>(o.via.map.ptr[i].val);
    }
  } else if (o.type == msgpack::type::ARRAY) {
    for (uint32_t i = 0; i < o.via.array.size; ++i) {
      sum += msgpack_walk<kNames>(o.via.array.ptr[i]);
    }
  } else {
    sum += msgpack_scalar(o);
  }
  return sum;
}

template <bool kNames>
void BM_walk_msgpack(benchmark::State& state) {
  const msgpack::sbuffer& buf = sample(int(state.range(0))).msgpack;
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(buf.data(), buf.size());
    benchmark::DoNotOptimize(msgpack_walk<kNames>(handle.get()));
  }
}

struct MsgpackPaths {
  explicit MsgpackPaths(int corpus)
      : handle(msgpack::unpack(sample(corpus).msgpack.data(),
                               sample(corpus).msgpack.size())),
        names(path_names(corpus)) {}
  const msgpack::object* root() const { return &handle.get(); }
  const msgpack::object* member(const msgpack::object* v, size_t n) const {
    const std::string& name = names[n];
    for (uint32_t i = 0; i < v->via.map.size; ++i) {
      const msgpack::object& key = v->via.map.ptr[i].key;
      if (key.via.str.size == name.size() &&
          std::memcmp(key.via.str.ptr, name.data(), name.size()) == 0) {
        return &v->via.map.ptr[i].val;
      }
    }
    return nullptr;
  }
  static const msgpack::object* index(const msgpack::object* v, size_t i) {
    return &v->via.array.ptr[i];
  }
  static size_t size(const msgpack::object* v) { return v->via.array.size; }
  static double integer(const msgpack::object* v) { return msgpack_scalar(*v); }
  static double real(const msgpack::object* v) { return msgpack_scalar(*v); }
  static double first_char(const msgpack::object* v) {
    return msgpack_scalar(*v);
  }
  msgpack::object_handle handle;
  std::vector<std::string> names;
};

void BM_paths_msgpack(benchmark::State& state) {
  const int corpus = int(state.range(0));
  MsgpackPaths f(corpus);
  for (auto _ : state) benchmark::DoNotOptimize(run_paths(corpus, f));
}
#endif

// One row per corpus; the argument is its index in kCorpusNames.
void corpora(benchmark::internal::Benchmark* b) {
  b->ArgName("corpus")->DenseRange(0, 2)->MinTime(0.1);
}

}  // namespace

BENCHMARK(BM_open_vkt)->Apply(corpora);
BENCHMARK(BM_open_vkt_keycache)->Apply(corpora);
BENCHMARK(BM_first_vkt)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_paths_vkt, VktPlain)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_paths_vkt, VktHints)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_paths_vkt, VktIndexed)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_paths_vkt, VktPrepared)->Apply(corpora);
BENCHMARK(BM_walk_vkt_old)->Apply(corpora);
BENCHMARK(BM_walk_vkt_members)->Apply(corpora);
BENCHMARK(BM_walk_vkt_members_decoded)->Apply(corpora);
BENCHMARK(BM_walk_vkt_members_indexed)->Apply(corpora);
BENCHMARK(BM_walk_vkt_members_predecoded)->Apply(corpora);
BENCHMARK(BM_values_vkt)->Apply(corpora);
#if VKT_BENCH_HAVE_FLEXBUFFERS
BENCHMARK(BM_open_flex)->Apply(corpora);
BENCHMARK(BM_paths_flex)->Apply(corpora);
BENCHMARK(BM_first_flex)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_walk_flex, true)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_walk_flex, false)->Apply(corpora);
#endif
#if VKT_BENCH_HAVE_MSGPACK
BENCHMARK(BM_open_msgpack)->Apply(corpora);
BENCHMARK(BM_paths_msgpack)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_walk_msgpack, true)->Apply(corpora);
BENCHMARK_TEMPLATE(BM_walk_msgpack, false)->Apply(corpora);
#endif

BENCHMARK_MAIN();
