// VKTWriterObject::writeImage: collect, number the tables, lay out the stream
// entities without reading a payload, build the key table, the string entity
// and the root value, place the sections, seal the header, filter, write.
// Every size is known before the first byte goes out, so a tree nesting too
// deep or an image past 32-bit offsets is refused with nothing written.
//
//   header | key table | root value | string offset array | string entity
//   [v4: bstream offset array | bstream size array | 0-pad | bstream entity]
//   stream offset array | stream size array | 0-pad | stream entity
//
// An entity starts at a multiple of the largest alignment of its table; a
// payload starts at a multiple of its own alignment counted from its
// entity's start, with zero bytes in between and nothing behind the last.
// The structural sections are built in memory, the header, key table and
// root value in one buffer (which createImage keeps as the whole image);
// payloads go from their source straight to the output.
#include "vkt/packed_array.h"
#include "vkt/streams.h"
#include "vkt/writer_container.h"

using vkt_internal::kMaxImageSize;
using vkt_internal::kSizeHint;
using vkt_internal::StreamEntry;
using vkt_internal::ValueBuffer;

namespace {

const char* const kTooDeep = "tree nests deeper than 255";
const char* const kTooLarge = "image larger than 4 GiB";
const char* const kTooShared =
    "values shared more often than verify accepts for the image's size";
static_assert(VKT_MAX_DEPTH == 255, "kTooDeep names the limit");

// Rounds x up to a multiple of a; 0 means no alignment.
vkt_u64 round_up(vkt_u64 x, vkt_u32 a) {
  return a == 0 ? x : (x + a - 1) / a * a;
}

// Writes zero bytes until the stream has taken `target` bytes.
void pad_to(VKTWriteStream& stream, vkt_u32 target) {
  static const vkt_u8 kZeros[256] = {};
  while (stream.Offset() < target) {
    const vkt_u32 gap = target - stream.Offset();
    stream.Write(kZeros, gap < sizeof(kZeros) ? gap : vkt_u32(sizeof(kZeros)));
  }
}

// Where each payload of a stream table lies, counted from the entity's start.
struct EntityLayout {
  std::vector<vkt_u32> offsets;
  std::vector<vkt_u32> sizes;
  vkt_u32 maxAlignment = 0;  // 0 for an empty table
  vkt_u64 size = 0;          // end of the last payload
};

// Lays out the entries of a numbered stream table in table order: no payload
// is read. Counts in 64 bits and stops once past kMaxImageSize, where the
// image is refused anyway.
template <typename Table>
EntityLayout layout_entity(const Table& table) {
  EntityLayout layout;
  vkt_u64 end = 0;
  for (size_t i = 0; i < table.size() && end <= kMaxImageSize; ++i) {
    const StreamEntry& entry = table.sorted(i);
    end = round_up(end, entry.alignment);
    layout.offsets.push_back(vkt_u32(end));
    layout.sizes.push_back(entry.size);
    end += entry.size;
    layout.maxAlignment = std::max(layout.maxAlignment, entry.alignment);
  }
  layout.size = end;
  return layout;
}

// Writes the payloads of a table at the offsets its layout counted, from
// `entityStart` on. Padding goes by those offsets rather than by the sink's
// count, so the offset arrays point at the payloads whatever the alignments.
template <typename Table>
void write_entity(VKTWriteStream& writer, const Table& table,
                  const EntityLayout& layout, vkt_u32 entityStart) {
  pad_to(writer, entityStart);
  for (size_t i = 0; i < table.size(); ++i) {
    const StreamEntry& entry = table.sorted(i);
    pad_to(writer, entityStart + layout.offsets[i]);
    if (entry.reader != nullptr) {
      writer.Write(entry.reader);
    } else {
      writer.Write(entry.ptr, entry.size);
    }
  }
}

// The string entity's size and its offset array's, in 64 bits, found
// before either is built (they are built once the root value is done, so
// that they never share the heap with the value walk's scratch).
struct StringSections {
  vkt_u64 entity = 0;
  vkt_u64 offsets = 0;
};

template <typename Table>
StringSections measure_strings(const Table& strings) {
  StringSections size;
  vkt_u64 last = 0;  // where the last string starts
  for (size_t i = 0; i < strings.size(); ++i) {
    last = size.entity;
    size.entity += strings.sorted(i).size() + 1;
  }
  if (size.entity <= kMaxImageSize) {
    size.offsets = unsigned_array_size(vkt_u32(strings.size()),
                                       unsigned_width(vkt_u32(last)));
  }
  return size;
}

// The strings in table order, each closed by a NUL, and the array of where
// each starts; `bytes` is what measure_strings found, at most kMaxImageSize.
template <typename Table>
void build_string_sections(const Table& strings, vkt_u64 bytes,
                           vkt_binary* entity, vkt_binary* offsetArray) {
  std::vector<vkt_u32> offsets(strings.size());
  entity->reserve(bytes);
  for (size_t i = 0; i < strings.size(); ++i) {
    const std::string_view text = strings.sorted(i);
    offsets[i] = vkt_u32(entity->size());
    entity->insert(entity->end(), text.begin(), text.end());
    entity->push_back(0);
  }
  *offsetArray = create_unsigned_array(offsets);
}

// The structural sections behind the root value, built in memory.
struct BackSections {
  vkt_binary stringOffsets;
  vkt_binary strings;
  vkt_binary bstreamOffsets;
  vkt_binary bstreamSizes;
  vkt_binary streamOffsets;
  vkt_binary streamSizes;
};

// Places every section from the sizes of what precedes it: offsets in the
// order of sSectionTable, and the image's whole size, in 64 bits.
vkt_u64 place_sections(vkt_u32 headerSize, vkt_u64 keySize, vkt_u64 rootSize,
                       const BackSections& back, const EntityLayout& bstreams,
                       const EntityLayout& streams, bool ver4,
                       vkt_u64 offsets[SECTION_COUNT]) {
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) offsets[s] = 0;
  offsets[SECTION_KEY_OFFSET_ARRAY] = headerSize;
  offsets[SECTION_KEY_ENTITY] = headerSize;
  offsets[SECTION_ROOT_VALUE] = headerSize + keySize;
  offsets[SECTION_STRING_OFFSET_ARRAY] = headerSize + keySize + rootSize;
  offsets[SECTION_STRING_ENTITY] =
      offsets[SECTION_STRING_OFFSET_ARRAY] + back.stringOffsets.size();
  vkt_u64 at = offsets[SECTION_STRING_ENTITY] + back.strings.size();
  offsets[SECTION_BSTREAM_OFFSET_ARRAY] = at;
  if (ver4) {
    offsets[SECTION_BSTREAM_SIZE_ARRAY] = at + back.bstreamOffsets.size();
    offsets[SECTION_BSTREAM_ENTITY] =
        round_up(offsets[SECTION_BSTREAM_SIZE_ARRAY] + back.bstreamSizes.size(),
                 bstreams.maxAlignment);
    at = offsets[SECTION_BSTREAM_ENTITY] + bstreams.size;
  }
  offsets[SECTION_STREAM_OFFSET_ARRAY] = at;
  offsets[SECTION_STREAM_SIZE_ARRAY] = at + back.streamOffsets.size();
  offsets[SECTION_STREAM_ENTITY] =
      round_up(offsets[SECTION_STREAM_SIZE_ARRAY] + back.streamSizes.size(),
               streams.maxAlignment);
  return offsets[SECTION_STREAM_ENTITY] + streams.size;
}

// The header of a finished layout, checksum included, before any filter.
void seal_header(vkt_u8* header, vkt_u32 version, vkt_u32 flags,
                 const vkt_u64 offsets[SECTION_COUNT]) {
  std::memset(header, 0, HEADER_SIZE);
  std::memcpy(header + HEADER_OFST_MAGICNUMBER, MAGIC_NUMBER,
              MAGIC_NUMBER_LENGTH);
  write_16bit_unsigned(header + HEADER_OFST_VERSION, version);
  write_16bit_unsigned(header + HEADER_OFST_FLAGS, flags & 0xFFFF);
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) {
    if (section_present(s, version)) {
      write_32bit_unsigned(header + sSectionTable[s].field,
                           vkt_u32(offsets[s]));
    }
  }
  write_32bit_unsigned(header + HEADER_OFST_CHECKSUM,
                       header_checksum(header, version));
}

// The structural sections of the front (key table, root value) and behind
// it (string tables) go through the filter, one call per section in file
// order; a reader covers all four in one.
void filter_sections(VKTFilter* filter, vkt_u32 flags, vkt_u32 version,
                     vkt_u8* header, vkt_binary* front, vkt_u32 headerSize,
                     vkt_u64 keySize, BackSections* back) {
  if (filter == nullptr) return;
  if (flags & VKT_FLAGS_FILTER_HEADER) filter_header(filter, header, version);
  if (!(flags & VKT_FLAGS_FILTER_INFO)) return;
  filter->Filter(front->data() + headerSize, vkt_u32(keySize));
  filter->Filter(front->data() + headerSize + keySize,
                 vkt_u32(front->size() - headerSize - keySize));
  for (vkt_binary* section : {&back->stringOffsets, &back->strings}) {
    filter->Filter(section->data(), vkt_size(section->size()));
  }
}

// Everything behind the front, from the string tables to the last stream
// payload; `start` is where the image's first byte went in the sink.
template <typename Table>
void write_back(VKTWriteStream& writer, const BackSections& back,
                const Table& bstreamTable, const EntityLayout& bstreams,
                const Table& streamTable, const EntityLayout& streams,
                bool ver4, vkt_u64 start,
                const vkt_u64 offsets[SECTION_COUNT]) {
  writer.Write(back.stringOffsets);
  writer.Write(back.strings);
  if (ver4) {
    writer.Write(back.bstreamOffsets);
    writer.Write(back.bstreamSizes);
    write_entity(writer, bstreamTable, bstreams,
                 vkt_u32(start + offsets[SECTION_BSTREAM_ENTITY]));
  }
  writer.Write(back.streamOffsets);
  writer.Write(back.streamSizes);
  write_entity(writer, streamTable, streams,
               vkt_u32(start + offsets[SECTION_STREAM_ENTITY]));
}

// The root value's likely size, once the tables are numbered: prepare's
// hint with the key arrays as wide as the key table makes them, and each
// string tag at its own width.
vkt_u64 root_hint(const vkt_internal::WriterTables& tables) {
  const size_t keyWidth = unsigned_width(vkt_u32(tables.keys.size()));
  size_t stringRefs = 0;
  for (const vkt_u32 refs : tables.stringRefs) stringRefs += refs;
  return tables.sizeHint + (keyWidth - 1) * tables.members +
         tables.stringTagHint() - kSizeHint[TYPE_STRING] * stringRefs;
}

// The layouts of the sections behind the root value, known once the tables
// are numbered and before any of them is built.
struct BackLayout {
  EntityLayout streams;
  EntityLayout bstreams;
  StringSections strings;
  // Bytes of everything behind the root value, alignment padding included.
  vkt_u64 size() const {
    return strings.entity + strings.offsets +
           unsigned_array_size(streams.offsets) +
           unsigned_array_size(streams.sizes) +
           unsigned_array_size(bstreams.offsets) +
           unsigned_array_size(bstreams.sizes) + streams.size + bstreams.size +
           streams.maxAlignment + bstreams.maxAlignment;
  }
};

// Collect, then number: tags are positions in the sorted tables. Answers
// the source's refusal, or null.
const char* collect_tables(vkt_internal::ValueSource& source,
                           vkt_internal::WriterTables* tables) {
  if (const char* refusal = source.prepare(*tables)) return refusal;
  tables->number();
  tables->levels.resize(tables->deepest);
  return nullptr;
}

// Reserves room for the root value, with a little slack and, when the front
// becomes the whole image, all that follows it. The slack is all the room
// the buffer has before it grows, which holds the old and the new buffer at
// once, so the hint counts what it can exactly.
void reserve_root(vkt_internal::WriterTables& tables, const BackLayout& back,
                  bool wholeImage, vkt_binary* image) {
  const vkt_u64 hint = root_hint(tables);
  std::vector<vkt_u32>().swap(tables.stringRefs);  // counted: not needed
  vkt_u64 expected = image->size() + hint + hint / 32;
  if (wholeImage) expected += back.size();
  if (expected <= kMaxImageSize) image->reserve(expected);
}

// Appends the root value to *image, unless the front already passes the
// limit; the walk's scratch goes before the string sections come.
void encode_root(vkt_internal::ValueSource& source,
                 vkt_internal::WriterTables& tables, vkt_binary* image) {
  if (image->size() <= kMaxImageSize) {
    ValueBuffer value(image);
    tables.value = &value;
    source.encode(tables);
    value.finish();
  }
  std::vector<vkt_internal::WriterTables::Level>().swap(tables.levels);
}

// The string, stream and bstream tables, built in memory.
void build_back(const vkt_internal::WriterTables& tables,
                const BackLayout& layout, BackSections* back) {
  build_string_sections(tables.strings, layout.strings.entity, &back->strings,
                        &back->stringOffsets);
  back->streamOffsets = create_unsigned_array(layout.streams.offsets);
  back->streamSizes = create_unsigned_array(layout.streams.sizes);
  back->bstreamOffsets = create_unsigned_array(layout.bstreams.offsets);
  back->bstreamSizes = create_unsigned_array(layout.bstreams.sizes);
}

// A ValueSource from two functions, so that the writer's own members can
// walk a tree through its private parts.
template <typename Prepare, typename Encode>
class WalkSource : public vkt_internal::ValueSource {
 public:
  WalkSource(Prepare prepare, Encode encode)
      : mPrepare(prepare), mEncode(encode) {}
  const char* prepare(vkt_internal::WriterTables& tables) override {
    return mPrepare(tables);
  }
  void encode(vkt_internal::WriterTables& tables) override { mEncode(tables); }

 private:
  Prepare mPrepare;
  Encode mEncode;
};

template <typename Prepare, typename Encode>
WalkSource<Prepare, Encode> walk_source(Prepare prepare, Encode encode) {
  return WalkSource<Prepare, Encode>(prepare, encode);
}

}  // namespace

VKTWriterObject::VKTWriterObject()
    : mOptimize(true), mEndian(VKT_ENDIAN_LITTLE), mEndianSet(false) {}

vkt_binary VKTWriterObject::createImage(const VKTWriterValue& root,
                                        VKTFilter* structFilter,
                                        vkt_u32 flags) {
  vkt_binary result;
  auto source = walk_source(
      [&](Tables& t) { return root.prepare(t) ? nullptr : kTooDeep; },
      [&](Tables& t) { root.createImage(t); });
  if (!assemble(source, nullptr, structFilter, flags, &result)) {
    vkt_binary().swap(result);  // its memory goes too
  }
  return result;
}

bool VKTWriterObject::writeImage(const VKTWriterValue& root,
                                 VKTWriteStream& writer,
                                 VKTFilter* structFilter, vkt_u32 flags) {
  vkt_binary front;
  auto source = walk_source(
      [&](Tables& t) { return root.prepare(t) ? nullptr : kTooDeep; },
      [&](Tables& t) { root.createImage(t); });
  return assemble(source, &writer, structFilter, flags, &front);
}

bool VKTWriterObject::assemble(vkt_internal::ValueSource& source,
                               VKTWriteStream* sink, VKTFilter* structFilter,
                               vkt_u32 flags, vkt_binary* front) {
  mError = "";
  if (structFilter == nullptr) flags &= ~FLAGS_FILTER_BITS;
  // Offsets count from the image's first byte, wherever the sink stands.
  const vkt_u64 start = sink != nullptr ? sink->Offset() : 0;

  Tables tables(mOptimize);
  if (const char* refusal = collect_tables(source, &tables)) {
    mError = refusal;
    return false;
  }
  const BackLayout layout = {layout_entity(tables.streams),
                             layout_entity(tables.bstreams),
                             measure_strings(tables.strings)};
  // The payloads and strings alone may pass the limit: refused before the
  // root value is built.
  if (start + layout.streams.size + layout.bstreams.size > kMaxImageSize ||
      layout.strings.entity > kMaxImageSize) {
    mError = kTooLarge;
    return false;
  }

  // Bstreams, and a byte order asked for, need the version-4 header.
  const bool ver4 = !layout.bstreams.offsets.empty() || mEndianSet;
  const vkt_u32 version = ver4 ? CURRENT_VERSION : 3;
  const vkt_u32 headerSize = ver4 ? HEADER_SIZE_VER4 : HEADER_SIZE_VER3;
  if (ver4 && mEndian == VKT_ENDIAN_BIG) flags |= VKT_FLAGS_ENDIAN_BIG;

  // The front: room for the header, then the key table and the root value
  // built in place, so neither is copied again.
  vkt_binary& image = *front;
  image.resize(headerSize);
  {
    std::vector<std::string_view> keys(tables.keys.size());
    for (size_t i = 0; i < keys.size(); ++i) keys[i] = tables.keys.sorted(i);
    createDAImage(keys, &image);
  }
  const vkt_u64 keySize = image.size() - headerSize;
  reserve_root(tables, layout, sink == nullptr, &image);
  encode_root(source, tables, &image);
  const vkt_u64 rootSize = image.size() - headerSize - keySize;

  BackSections back;
  build_back(tables, layout, &back);
  vkt_u64 offsets[SECTION_COUNT];
  const vkt_u64 size =
      place_sections(headerSize, keySize, rootSize, back, layout.bstreams,
                     layout.streams, ver4, offsets);
  if (tables.tooLarge || image.size() > kMaxImageSize ||
      start + size > kMaxImageSize) {
    mError = kTooLarge;
    return false;
  }
  // Verify's default budget of values, so that every image made here passes
  // it: sharing may not make a small image stand for too many values.
  if (tables.values > VKTVerifyLimits::defaultMaxValues(size)) {
    mError = kTooShared;
    return false;
  }

  vkt_u8 header[HEADER_SIZE];
  seal_header(header, version, flags, offsets);
  filter_sections(structFilter, flags, version, header, &image, headerSize,
                  keySize, &back);
  std::memcpy(image.data(), header, headerSize);

  VKTBinaryWriteStream rest(image);
  if (sink != nullptr) sink->Write(image);
  write_back(sink != nullptr ? *sink : rest, back, tables.bstreams,
             layout.bstreams, tables.streams, layout.streams, ver4, start,
             offsets);
  return true;
}
