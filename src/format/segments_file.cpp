#include "format/segments_file.h"

#include <cstring>

namespace lumbra {

std::string EncodeSegments(std::uint32_t nFirstSegment, std::uint32_t nEventSize) {
  tSDB_HEADER Header{{}, nFirstSegment, nEventSize};
  std::memcpy(Header.nMagic, kSegmentsMagic, sizeof(kSegmentsMagic));
  return {reinterpret_cast<const char*>(&Header), sizeof(Header)};
}

std::optional<SegmentsFault> DecodeSegments(std::string_view Bytes, tSDB_HEADER* pHeader) {
  tSDB_HEADER Read{};
  if (Bytes.size() < sizeof(Read)) return SegmentsFault{"it is short", std::to_string(Bytes.size()) + " bytes"};
  std::memcpy(&Read, Bytes.data(), sizeof(Read));
  if (std::memcmp(Read.nMagic, kSegmentsMagic, sizeof(kSegmentsMagic)) != 0)
    return SegmentsFault{"it has no magic", ""};
  if (Read.nEventSize == 0) return SegmentsFault{"it gives events no size", ""};
  if (Read.nFirstSegment >= kSegmentNumberLimit)
    return SegmentsFault{"it leads beyond all segments", std::to_string(Read.nFirstSegment)};
  *pHeader = Read;
  return {};
}

}  // namespace lumbra
