// VKTWriterObject::writeImage: collect, build the key table, number the
// tables, lay out the stream entities without reading a payload, generate the
// root value, compute the section offsets, seal the header, filter, write.
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
#include "vkt/writer_tables.h"

namespace {

// Rounds x up to a multiple of a; 0 means no alignment.
vkt_u32 round_up(vkt_u32 x, vkt_u32 a) {
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

// Zero bytes up to the next multiple of `alignment` of the stream's count;
// alignments 0 and 1 pad nothing.
void insert_padding(VKTWriteStream& stream, vkt_u32 alignment) {
  if (alignment == 0) return;
  pad_to(stream, round_up(stream.Offset(), alignment));
}

// Where each payload of a stream table lies, counted from the entity's start.
struct EntityLayout {
  std::vector<vkt_u32> offsets;
  std::vector<vkt_u32> sizes;
  vkt_u32 maxAlignment = 0;  // 0 for an empty table
  vkt_u32 size = 0;          // end of the last payload
};

// Lays out the entries of a numbered stream table in table order with a
// counting stream: no payload is read.
template <typename Table>
EntityLayout layout_entity(const Table& table) {
  EntityLayout layout;
  VKTDummyWriteStream counter(0);
  for (size_t i = 0; i < table.size(); ++i) {
    const StreamEntry& entry = table.sorted(i);
    insert_padding(counter, entry.alignment);
    layout.offsets.push_back(counter.Offset());
    layout.sizes.push_back(entry.size);
    counter.Write(nullptr, entry.size);
    if (entry.alignment > layout.maxAlignment) {
      layout.maxAlignment = entry.alignment;
    }
  }
  layout.size = counter.Offset();
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

}  // namespace

VKTWriterObject::VKTWriterObject()
    : mOptimize(true), mEndian(VKT_ENDIAN_LITTLE), mEndianSet(false) {}

vkt_binary VKTWriterObject::createImage(const VKTWriterValue& root,
                                        VKTFilter* structFilter,
                                        vkt_u32 flags) {
  vkt_binary result;
  assemble(root, nullptr, structFilter, flags, &result);
  return result;
}

void VKTWriterObject::writeImage(const VKTWriterValue& root,
                                 VKTWriteStream& writer,
                                 VKTFilter* structFilter, vkt_u32 flags) {
  vkt_binary front;
  assemble(root, &writer, structFilter, flags, &front);
}

void VKTWriterObject::assemble(const VKTWriterValue& root, VKTWriteStream* sink,
                               VKTFilter* structFilter, vkt_u32 flags,
                               vkt_binary* front) {
  if (structFilter == nullptr) flags &= ~FLAGS_FILTER_BITS;

  // Collect, then number: tags are positions in the sorted tables.
  Tables tables(mOptimize);
  root.prepare(tables);
  tables.number();

  const EntityLayout streams = layout_entity(tables.streams);
  const EntityLayout bstreams = layout_entity(tables.bstreams);

  // Bstreams, and a byte order asked for, need the version-4 header.
  const bool ver4 = !bstreams.offsets.empty() || mEndianSet;
  const vkt_u32 packVersion = ver4 ? CURRENT_VERSION : 3;
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
  const vkt_u32 keySize = vkt_u32(image.size()) - headerSize;

  vkt_binary stringImage;
  std::vector<vkt_u32> stringOffsetArray(tables.strings.size());
  size_t stringBytes = 0;
  for (size_t i = 0; i < tables.strings.size(); ++i) {
    stringBytes += tables.strings.sorted(i).size() + 1;
  }
  stringImage.reserve(stringBytes);
  for (size_t i = 0; i < tables.strings.size(); ++i) {
    const std::string_view text = tables.strings.sorted(i);
    stringOffsetArray[i] = vkt_u32(stringImage.size());
    stringImage.insert(stringImage.end(), text.begin(), text.end());
    stringImage.push_back(0);
  }

  // The root's likely size with a little slack for wider offsets and, when
  // the front becomes the whole image, all that follows it.
  size_t expected = image.size() + tables.sizeHint + tables.sizeHint / 8;
  if (sink == nullptr) {
    expected += stringBytes + 5 * stringOffsetArray.size() + streams.size +
                bstreams.size + streams.maxAlignment + bstreams.maxAlignment +
                8 * (streams.sizes.size() + bstreams.sizes.size()) + 64;
  }
  image.reserve(expected);
  root.createImage(tables, &image);
  const vkt_u32 rootSize = vkt_u32(image.size()) - headerSize - keySize;

  vkt_binary stringOffsetImage = create_unsigned_array(stringOffsetArray);
  const vkt_binary streamOffsetImage = create_unsigned_array(streams.offsets);
  const vkt_binary streamSizeImage = create_unsigned_array(streams.sizes);
  const vkt_binary bstreamOffsetImage = create_unsigned_array(bstreams.offsets);
  const vkt_binary bstreamSizeImage = create_unsigned_array(bstreams.sizes);

  const vkt_u32 ofstKeyEntity = headerSize;
  const vkt_u32 ofstRootValue = ofstKeyEntity + keySize;
  const vkt_u32 ofstStringOffsetArray = ofstRootValue + rootSize;
  const vkt_u32 ofstStringEntity =
      ofstStringOffsetArray + vkt_u32(stringOffsetImage.size());
  const vkt_u32 ofstBStreamOffsetArray =
      ofstStringEntity + vkt_u32(stringImage.size());
  vkt_u32 ofstBStreamSizeArray = 0;
  vkt_u32 ofstBStreamEntity = 0;
  vkt_u32 ofstStreamOffsetArray = ofstBStreamOffsetArray;
  if (ver4) {
    ofstBStreamSizeArray =
        ofstBStreamOffsetArray + vkt_u32(bstreamOffsetImage.size());
    ofstBStreamEntity =
        round_up(ofstBStreamSizeArray + vkt_u32(bstreamSizeImage.size()),
                 bstreams.maxAlignment);
    ofstStreamOffsetArray = ofstBStreamEntity + bstreams.size;
  }
  const vkt_u32 ofstStreamSizeArray =
      ofstStreamOffsetArray + vkt_u32(streamOffsetImage.size());
  const vkt_u32 ofstStreamEntity =
      round_up(ofstStreamSizeArray + vkt_u32(streamSizeImage.size()),
               streams.maxAlignment);

  vkt_u8 header[HEADER_SIZE] = {};
  std::memcpy(header + HEADER_OFST_MAGICNUMBER, MAGIC_NUMBER,
              MAGIC_NUMBER_LENGTH);
  write_16bit_unsigned(header + HEADER_OFST_VERSION, packVersion);
  write_16bit_unsigned(header + HEADER_OFST_FLAGS, flags & 0xFFFF);
  vkt_u32 offsets[SECTION_COUNT] = {};  // in the order of sSectionTable
  offsets[SECTION_KEY_OFFSET_ARRAY] = ofstKeyEntity;
  offsets[SECTION_KEY_ENTITY] = ofstKeyEntity;
  offsets[SECTION_ROOT_VALUE] = ofstRootValue;
  offsets[SECTION_STRING_OFFSET_ARRAY] = ofstStringOffsetArray;
  offsets[SECTION_STRING_ENTITY] = ofstStringEntity;
  offsets[SECTION_BSTREAM_OFFSET_ARRAY] = ofstBStreamOffsetArray;
  offsets[SECTION_BSTREAM_SIZE_ARRAY] = ofstBStreamSizeArray;
  offsets[SECTION_BSTREAM_ENTITY] = ofstBStreamEntity;
  offsets[SECTION_STREAM_OFFSET_ARRAY] = ofstStreamOffsetArray;
  offsets[SECTION_STREAM_SIZE_ARRAY] = ofstStreamSizeArray;
  offsets[SECTION_STREAM_ENTITY] = ofstStreamEntity;
  for (vkt_u32 s = 0; s < SECTION_COUNT; ++s) {
    if (section_present(s, packVersion)) {
      write_32bit_unsigned(header + sSectionTable[s].field, offsets[s]);
    }
  }
  // The checksum is taken on the plain header, before any filtering.
  write_32bit_unsigned(header + HEADER_OFST_CHECKSUM,
                       header_checksum(header, packVersion));

  if (structFilter != nullptr) {
    if (flags & VKT_FLAGS_FILTER_HEADER) {
      filter_header(structFilter, header, packVersion);
    }
    if (flags & VKT_FLAGS_FILTER_INFO) {
      // One call per section, in file order; a reader covers all four in one.
      structFilter->Filter(image.data() + ofstKeyEntity, keySize);
      structFilter->Filter(image.data() + ofstRootValue, rootSize);
      for (vkt_binary* section : {&stringOffsetImage, &stringImage}) {
        structFilter->Filter(section->data(), vkt_size(section->size()));
      }
    }
  }
  std::memcpy(image.data(), header, headerSize);

  // Offsets count from the image's first byte, wherever the sink stands.
  VKTBinaryWriteStream rest(image);
  VKTWriteStream& writer = sink != nullptr ? *sink : rest;
  const vkt_u32 start = sink != nullptr ? sink->Offset() : 0;
  if (sink != nullptr) sink->Write(image);
  writer.Write(stringOffsetImage);
  writer.Write(stringImage);
  if (ver4) {
    writer.Write(bstreamOffsetImage);
    writer.Write(bstreamSizeImage);
    write_entity(writer, tables.bstreams, bstreams, start + ofstBStreamEntity);
  }
  writer.Write(streamOffsetImage);
  writer.Write(streamSizeImage);
  write_entity(writer, tables.streams, streams, start + ofstStreamEntity);
}
