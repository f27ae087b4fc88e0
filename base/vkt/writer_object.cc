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
// The structural sections are built in memory; payloads go from their source
// straight to the output.
#include "vkt/packed_array.h"
#include "vkt/streams.h"
#include "vkt/writer_blocks.h"

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

// Numbers the entries of a stream table by position and lays them out with a
// counting stream: no payload is read.
template <typename Table>
EntityLayout layout_entity(Table& table) {
  EntityLayout layout;
  VKTDummyWriteStream counter(0);
  unsigned index = 0;
  for (auto& entry : table) {
    entry.second = index++;
    insert_padding(counter, entry.first.alignment);
    layout.offsets.push_back(counter.Offset());
    layout.sizes.push_back(entry.first.size);
    counter.Write(nullptr, entry.first.size);
    if (entry.first.alignment > layout.maxAlignment) {
      layout.maxAlignment = entry.first.alignment;
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
  size_t i = 0;
  for (const auto& entry : table) {
    pad_to(writer, entityStart + layout.offsets[i++]);
    if (entry.first.reader != nullptr) {
      writer.Write(entry.first.reader);
    } else {
      writer.Write(entry.first.ptr, entry.first.size);
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
  VKTBinaryWriteStream stream(result);
  writeImage(root, stream, structFilter, flags);
  return result;
}

void VKTWriterObject::writeImage(const VKTWriterValue& root,
                                 VKTWriteStream& writer,
                                 VKTFilter* structFilter, vkt_u32 flags) {
  if (structFilter == nullptr) flags &= ~FLAGS_FILTER_BITS;

  // Collect, then number: tags are positions in the sorted tables.
  mKeyTable.clear();
  mStringTable.clear();
  mStreamTable.clear();
  mBStreamTable.clear();
  root.prepare(this);

  vkt_binary keyImage;
  createDAImage(mKeyTable, &keyImage);
  unsigned index = 0;
  for (auto& entry : mKeyTable) entry.second = index++;

  vkt_binary stringImage;
  std::vector<vkt_u32> stringOffsetArray;
  index = 0;
  for (auto& entry : mStringTable) {
    entry.second = index++;
    stringOffsetArray.push_back(vkt_u32(stringImage.size()));
    stringImage.insert(stringImage.end(), entry.first.begin(),
                       entry.first.end());
    stringImage.push_back(0);
  }

  const EntityLayout streams = layout_entity(mStreamTable);
  const EntityLayout bstreams = layout_entity(mBStreamTable);

  vkt_binary rootImage;
  root.createImage(this, &rootImage);

  vkt_binary stringOffsetImage = create_unsigned_array(stringOffsetArray);
  const vkt_binary streamOffsetImage = create_unsigned_array(streams.offsets);
  const vkt_binary streamSizeImage = create_unsigned_array(streams.sizes);
  const vkt_binary bstreamOffsetImage = create_unsigned_array(bstreams.offsets);
  const vkt_binary bstreamSizeImage = create_unsigned_array(bstreams.sizes);

  // Bstreams, and a byte order asked for, need the version-4 header.
  const bool ver4 = !bstreams.offsets.empty() || mEndianSet;
  const vkt_u32 packVersion = ver4 ? CURRENT_VERSION : 3;
  const vkt_u32 headerSize = ver4 ? HEADER_SIZE_VER4 : HEADER_SIZE_VER3;
  if (ver4 && mEndian == VKT_ENDIAN_BIG) flags |= VKT_FLAGS_ENDIAN_BIG;

  const vkt_u32 ofstKeyEntity = headerSize;
  const vkt_u32 ofstRootValue = ofstKeyEntity + vkt_u32(keyImage.size());
  const vkt_u32 ofstStringOffsetArray =
      ofstRootValue + vkt_u32(rootImage.size());
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
      for (vkt_binary* section :
           {&keyImage, &rootImage, &stringOffsetImage, &stringImage}) {
        structFilter->Filter(section->data(), vkt_size(section->size()));
      }
    }
  }

  // Offsets count from the image's first byte, wherever the sink stands.
  const vkt_u32 start = writer.Offset();
  writer.Write(header, headerSize);
  writer.Write(keyImage);
  writer.Write(rootImage);
  writer.Write(stringOffsetImage);
  writer.Write(stringImage);
  if (ver4) {
    writer.Write(bstreamOffsetImage);
    writer.Write(bstreamSizeImage);
    write_entity(writer, mBStreamTable, bstreams, start + ofstBStreamEntity);
  }
  writer.Write(streamOffsetImage);
  writer.Write(streamSizeImage);
  write_entity(writer, mStreamTable, streams, start + ofstStreamEntity);
}
