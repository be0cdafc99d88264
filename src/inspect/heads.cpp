#include "inspect/heads.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "format/crc32.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/tree_file.h"
#include "inspect/file.h"
#include "lumbra/lumbra.h"

namespace lumbra::inspect {
namespace {

struct Fault {
  std::string What;
  std::string Expected = {};
  std::string Found = {};
};

bool HasMagic(const std::string& Bytes, const char (&Magic)[4]) {
  return std::memcmp(Bytes.data(), Magic, sizeof(Magic)) == 0;
}

// Of a record file: nSize is that of its records, in a checked file with their CRCs.
std::optional<Fault> FaultOfRecords(const std::string& Bytes, std::uint32_t nSize, bool bMayBeChecked) {
  tPLAINDB_HEADER Header{};
  std::memcpy(&Header, Bytes.data(), sizeof(Header));
  const bool bChecked = bMayBeChecked && HasMagic(Bytes, kCheckedRecordMagic);
  if (!bChecked && !HasMagic(Bytes, kRecordMagic)) return Fault{"it has not the magic of a file of records"};
  if (Header.nHeaderSize != sizeof(Header))
    return Fault{"its head has another size", std::to_string(sizeof(Header)), std::to_string(Header.nHeaderSize)};
  const std::uint32_t nStored = nSize + (bChecked ? kCrcSize : 0);
  if (Header.nRecordSize == nStored) return {};
  return Fault{"its records have another size", std::to_string(nStored), std::to_string(Header.nRecordSize)};
}

std::optional<Fault> FaultOfData(const std::string& Bytes) {
  const bool bKnown =
      std::ranges::any_of(kFeatureMagics, [&Bytes](const FeatureMagic& Known) { return HasMagic(Bytes, Known.Magic); });
  return bKnown ? std::nullopt : std::optional(Fault{"it has not the magic of a file of names and data"});
}

std::optional<Fault> FaultOfTree(const std::string& Bytes) {
  const bool bKnown = HasMagic(Bytes, kTreeMagic) || HasMagic(Bytes, kCheckedTreeMagic);
  return bKnown ? std::nullopt : std::optional(Fault{"it has not the magic of a tree"});
}

// What a file of one of the four kinds has for a head, and how it is looked at. Events: the size of each.
struct Kind {
  const char16_t* pName;
  std::uint32_t nHeadSize;
  std::optional<Fault> (*pLook)(const std::string& Bytes, std::uint32_t nEventSize);
};
constexpr Kind kIds = {kIdsFile, sizeof(tPLAINDB_HEADER), [](const std::string& Bytes, std::uint32_t) {
                         return FaultOfRecords(Bytes, sizeof(tODB_ID_ENTRY), true);
                       }};
constexpr Kind kData = {kDataFile, sizeof(FILE_MAGIC), [](const std::string& Bytes, std::uint32_t) {
                          return FaultOfData(Bytes);
                        }};
constexpr Kind kTree = {kTreeFile, sizeof(tODB_BT_HEADER), [](const std::string& Bytes, std::uint32_t) {
                          return FaultOfTree(Bytes);
                        }};
constexpr Kind kEvents = {kEventsFile, sizeof(tPLAINDB_HEADER), [](const std::string& Bytes, std::uint32_t nEventSize) {
                            return FaultOfRecords(Bytes, nEventSize, false);
                          }};

class Checker {
 public:
  Checker(const Store& Of, const Report& Tell) : m_Store(Of), m_Tell(Tell) {}

  // bBegun: the file has content that others need, and is not just being made. StillThere says whether it is to be
  // there at all.
  template <class Predicate>
  void Check(const os::FolderHandle& pFolder, const std::u16string& Name, const std::u16string& Shown, const Kind& Of,
             std::uint32_t nEventSize, bool bBegun, Predicate StillThere) {
    for (;;) {
      const std::optional<Fault> Found = Look(pFolder, Name, Of, nEventSize, bBegun);
      if (!Found || !StillThere()) return;
      if (m_Patience.Wait()) continue;
      const Grade Graded = m_Store.Holders().empty() ? Grade::Damage : Grade::Unsettled;
      m_Tell({Graded, Shown, 0, Found->What, Found->Expected, Found->Found});
      return;
    }
  }

 private:
  static std::optional<Fault> Look(const os::FolderHandle& pFolder, const std::u16string& Name, const Kind& Of,
                                   std::uint32_t nEventSize, bool bBegun) {
    std::string Bytes;
    const os::SystemError nError = ReadSmall(pFolder, Name, Of.nHeadSize, &Bytes);
    if (nError == os::kFileNotFound) return bBegun ? std::optional(Fault{"it is missing"}) : std::nullopt;
    if (nError != os::kSuccess) return Fault{"it is no file, or the system refuses to read it"};
    if (Bytes.size() == Of.nHeadSize) return Of.pLook(Bytes, nEventSize);
    if (!bBegun) return {};
    return Fault{"it is shorter than its head", std::to_string(Of.nHeadSize), std::to_string(Bytes.size())};
  }

  const Store& m_Store;
  const Report& m_Tell;
  Patience m_Patience;  // for all files together
};

// Whether it was neither dropped nor made anew since.
bool IsStill(const SegmentExtent& Segment, const os::FolderHandle& pFolder, const std::u16string& Events) {
  os::FileLook Look{};
  if (os::LookAt(pFolder, Events, &Look) != os::kSuccess || Look.nBirth != Segment.nBirth) return false;
  // Its files go when the chain begins behind it.
  const std::uint32_t nFirst = ReadChainHead(pFolder).nFirst;
  const std::u16string First = SegmentFileName(nFirst, kEventsFile);
  return nFirst <= Segment.nNumber || os::LookAt(pFolder, First, &Look) != os::kSuccess;
}

std::optional<Fault> FaultOfIndex(const Store& Of) {
  const os::FolderHandle& pStore = Of.Folder();
  constexpr std::uint64_t kLongest = (std::uint64_t{kMaxIndexNames} + 1) * kIndexBlockSize;
  std::string Bytes;
  os::FileLook Look{};
  const os::SystemError nError = ReadSmall(pStore, kIndexFile, kIndexBlockSize, &Bytes);
  if (nError == os::kFileNotFound) {
    const auto IsNamed = [](const Database& One) {
      return One.Id.value_or(kFirstNamedDatabase) >= kFirstNamedDatabase;
    };
    return std::ranges::any_of(Of.Databases(), IsNamed) ? std::optional(Fault{"it is missing"}) : std::nullopt;
  }
  if (nError != os::kSuccess) return Fault{"it is no file, or the system refuses to read it"};
  if (os::LookAt(pStore, kIndexFile, &Look) == os::kSuccess && Look.nSize > kLongest)
    return Fault{"it is longer than an index of names can be", std::to_string(kLongest), std::to_string(Look.nSize)};
  const bool bNew = Bytes.empty();
  if (bNew || std::ranges::equal(Bytes, kIndexSignature) || std::ranges::equal(Bytes, kCorruptedIndexSignature))
    return {};
  return Fault{"it does not say that it is an index of names"};
}

}  // namespace

void CheckSharedHeads(const Store& Of, const Report& Tell) {
  Checker Heads(Of, Tell);
  struct SharedFile {
    const char16_t* pName;
    const Kind& What;
  };
  const SharedFile kFiles[] = {{kSharedIdsFile, kIds}, {kSharedDataFile, kData}, {kSharedTreeFile, kTree}};
  os::FileLook Ids{};
  const bool bBegun =
      os::LookAt(Of.Folder(), kSharedIdsFile, &Ids) == os::kSuccess && Ids.nSize > sizeof(tPLAINDB_HEADER);
  for (const SharedFile& One : kFiles) {
    // Of a store that has lost its records, the names alone tell that they were there.
    const bool bNeeded = bBegun || One.pName == kSharedIdsFile;
    Heads.Check(Of.Folder(), One.pName, One.pName, One.What, 0, bNeeded, [] { return true; });
  }
  Patience Waiting;
  std::optional<Fault> Index = FaultOfIndex(Of);
  while (Index && Waiting.Wait()) Index = FaultOfIndex(Of);
  if (Index) Tell({Grade::Damage, kIndexFile, 0, Index->What, Index->Expected, Index->Found});
}

void CheckHeads(const Store& Of, const Database& What, const Horizon& At, const Report& Tell) {
  os::FolderHandle pFolder;
  if (Of.OpenFolder(What, &pFolder) != os::kSuccess) return;  // which the horizon has told
  Checker Heads(Of, Tell);
  for (const SegmentExtent& Segment : At.Segments) {
    const std::u16string Events = SegmentFileName(Segment.nNumber, kEventsFile);
    for (const Kind* const pOne : {&kEvents, &kIds, &kData, &kTree}) {
      const std::u16string Name = SegmentFileName(Segment.nNumber, pOne->pName);
      Heads.Check(pFolder, Name, What.Folder + u'/' + Name, *pOne, At.nEventSize, Segment.nEvents != 0,
                  [&] { return IsStill(Segment, pFolder, Events); });
    }
  }
}

}  // namespace lumbra::inspect
