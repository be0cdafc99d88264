// The objects of one store: their records, names and data, and what the tree has to know of them.
#include <cstring>
#include <iterator>
#include <utility>

#include "events/object_hash.h"
#include "format/data_crc.h"
#include "format/file_names.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "inspect/paged.h"
#include "inspect/verify_parts.h"
#include "lumbra/lumbra.h"

namespace lumbra::inspect {
namespace {

constexpr std::uint32_t kRecord = sizeof(tODB_ID_ENTRY);

// ---- What leads where in the data file ----------------------------------------------------------------------

enum class Block : std::uint8_t { Name, Array, Data };

struct Range {
  std::uint32_t nStart;
  std::uint32_t nSize;
  std::uint32_t nShortId;
  Block Kind;
  std::uint32_t nKey = 0;     // of a block of data
  std::uint32_t nStored = 0;  // bytes of it that count

  std::uint64_t End() const { return std::uint64_t{nStart} + nSize; }
};

// What is known to be led to. Ranges that touch are one.
class Taken {
 public:
  struct Run {
    std::uint64_t nStart;
    std::uint64_t nEnd;
  };

  // One behind all others; false where it does not stand there.
  bool Append(std::uint64_t nStart, std::uint64_t nEnd) {
    if (!m_Runs.empty() && nStart < m_Runs.back().nEnd) return false;
    if (!m_Runs.empty() && nStart == m_Runs.back().nEnd) {
      m_Runs.back().nEnd = nEnd;
    } else {
      m_Runs.push_back({nStart, nEnd});
    }
    return true;
  }

  // Adds more in any order. Calls Accept for what lies by itself, in the order in which it stands, and Refuse for what
  // lies over something else.
  template <class Take, class Leave>
  void Merge(std::vector<Range>* pMore, Take Accept, Leave Refuse) {
    std::ranges::sort(*pMore, {}, [](const Range& One) { return std::pair(One.nStart, One.nShortId); });
    Taken Merged;
    auto Next = m_Runs.begin();
    for (const Range& One : *pMore) {
      for (; Next != m_Runs.end() && Next->nStart <= One.nStart; ++Next) Merged.Append(Next->nStart, Next->nEnd);
      const bool bOver = Next != m_Runs.end() && One.End() > Next->nStart;
      if (!bOver && Merged.Append(One.nStart, One.End())) {
        Accept(One);
      } else {
        Refuse(One);
      }
    }
    for (; Next != m_Runs.end(); ++Next) Merged.Append(Next->nStart, Next->nEnd);
    *this = std::move(Merged);
    *pMore = {};
  }

  const std::vector<Run>& Runs() const { return m_Runs; }

 private:
  std::vector<Run> m_Runs;
};

// ---- The hash of a name -------------------------------------------------------------------------------------

// Whether a stored name has its hash. Whether its case counts is not stored: both are tried, what was right the last
// time first.
class NameHash {
 public:
  bool Fits(const tODB_ID_ENTRY& Record, std::span<const std::uint8_t> Stored, std::uint64_t nParentHash) {
    std::uint32_t nSize = 0;
    const void* pName = Stored.data();
    if ((Record.nFlags & fObjUtf8) != 0) {
      nSize = Widen(Stored) * std::uint32_t{sizeof(char16_t)};
      pName = m_Wide.data();
    } else {
      nSize = static_cast<std::uint32_t>(Stored.size());
    }
    const auto Try = [&](std::uint32_t nFlags) {
      return ObjectHash(Record.nType, pName, nSize, nParentHash, nFlags) == Record.nObjectHash;
    };
    if (Try(m_nFlags)) return true;
    const std::uint32_t nOther = m_nFlags ^ fObjNoCase;
    if (Try(nOther)) {
      m_nFlags = nOther;
      return true;
    }
    return (Record.nFlags & fObjUtf8) != 0 && (LostUnits(nSize) || FitsWithHalfUnit(Record, nSize, nParentHash));
  }

 private:
  // A unit that no UTF-8 has was replaced when the name was stored: what it was is not known.
  bool LostUnits(std::uint32_t nSize) const {
    return std::find(m_Wide.begin(), m_Wide.begin() + nSize / sizeof(char16_t), u'\uFFFD') !=
           m_Wide.begin() + nSize / sizeof(char16_t);
  }

  // A last byte that was no whole unit counts for the hash, and is not stored as UTF-8.
  bool FitsWithHalfUnit(const tODB_ID_ENTRY& Record, std::uint32_t nSize, std::uint64_t nParentHash) {
    constexpr std::uint32_t kMostTries = 1000;  // such names are rare, and each costs as much as hundreds
    if (++m_nTries > kMostTries) return false;
    std::vector<std::uint8_t> Name(nSize + 1);
    std::memcpy(Name.data(), m_Wide.data(), nSize);
    for (std::uint32_t nByte = 0; nByte < 256; ++nByte) {
      Name.back() = static_cast<std::uint8_t>(nByte);
      for (const std::uint32_t nFlags : {0u, std::uint32_t{fObjNoCase}}) {
        if (ObjectHash(Record.nType, Name.data(), nSize + 1, nParentHash, nFlags) == Record.nObjectHash) return true;
      }
    }
    return false;
  }

  // Answers the units.
  std::uint32_t Widen(std::span<const std::uint8_t> Stored) {
    const auto nBytes = static_cast<std::uint32_t>(Stored.size());
    if (m_Wide.size() < nBytes) m_Wide.resize(nBytes);
    std::uint8_t nBits = 0;
    for (std::uint32_t i = 0; i < nBytes; ++i) {
      nBits |= Stored[i];
      m_Wide[i] = Stored[i];
    }
    if (nBits < 0x80) return nBytes;
    return os::Utf8ToWide(reinterpret_cast<const char*>(Stored.data()), nBytes, m_Wide.data(), nBytes);
  }

  std::vector<char16_t> m_Wide;
  std::uint32_t m_nFlags = fObjNoCase;
  std::uint32_t m_nTries = 0;
};

// ---- The store ----------------------------------------------------------------------------------------------

class ObjectsLook final : public HashedRecords {
 public:
  ObjectsLook(const ObjectsPart& What, Examiner* pTell)
      : m_Part(What),
        m_pTell(pTell),
        m_IdsFile{What.pFolder, What.Folder, What.Names().Ids},
        m_TreeFile{What.pFolder, What.Folder, What.Names().Tree},
        m_DataFile{What.pFolder, What.Folder, What.Names().Data} {}

  void Look() {
    if (!OpenFiles() || !ReadHeads()) return;
    m_Records = std::make_unique<Window>(m_pIds.get(), m_IdsFile, m_pTell);
    m_Names = std::make_unique<Window>(m_pData.get(), m_DataFile, m_pTell);
    LookAtRecords();
    LookAtNames();
    LookAtCircles();
    LookAtArrays();
    LookAtBlocks();
    if (m_pTell->Stopped()) return;
    TellHoles();
    if (m_bTree) VerifyTree(m_TreeFile, *m_pTree, *this, m_Part.nSegment == 0, Has(featureNameCrc), m_pTell);
  }

  std::uint64_t CountAtHorizon() const override { return m_nCount; }
  std::uint64_t CountNow() override {
    os::FileLook Found{};
    if (m_pIds->Look(&Found) != os::kSuccess) return m_nCount;
    return RecordCountOfSize(Found.nSize, m_nStored);
  }
  std::uint64_t HashOf(std::uint64_t nShortId) const override { return m_Hashes.Get(nShortId); }
  bool IsDamaged(std::uint64_t nShortId) const override { return m_Damaged.Test(nShortId); }

 private:
  bool Has(std::uint32_t nFeature) const { return (m_nFeatures & nFeature) != 0; }
  bool HasRecordCrcs() const { return m_nStored != kRecord; }

  // ---- Files and heads

  struct Opened {
    os::SystemError nError = os::kFileNotFound;
    std::uint64_t nSize = 0;
  };
  Opened Open(const FileOf& What, std::unique_ptr<File>* ppFile) {
    Opened Done;
    Done.nError = File::Open(What.pFolder, What.Name, ppFile);
    os::FileLook Found{};
    if (Done.nError == os::kSuccess) Done.nError = (*ppFile)->Look(&Found);
    Done.nSize = Found.nSize;
    if (Done.nError == os::kSuccess && m_pTell->IsFirst()) ++m_pTell->Totals().nFiles;
    return Done;
  }

  // The sizes of the ids before that of the data, which is written first; and the tree behind both.
  bool OpenFiles() {
    const Opened Ids = Open(m_IdsFile, &m_pIds);
    const Opened Data = Open(m_DataFile, &m_pData);
    const Opened Tree = Open(m_TreeFile, &m_pTree);
    m_nIdsSize = Ids.nSize;
    m_nDataSize = Data.nSize;
    m_bTree = Tree.nError == os::kSuccess;
    // Nothing leads to a store whose creation was cut short: it is begun anew.
    const bool bEmpty =
        m_Part.bMayBeBegun && m_nIdsSize <= sizeof(tPLAINDB_HEADER) && m_nDataSize <= sizeof(FILE_MAGIC);
    const std::pair<const FileOf*, os::SystemError> All[] = {
        {&m_IdsFile, Ids.nError}, {&m_DataFile, Data.nError}, {&m_TreeFile, Tree.nError}};
    const bool bNone = std::ranges::all_of(All, [](const auto& One) { return One.second == os::kFileNotFound; });
    if (bNone && (m_Part.nSegment == 0 || IsDropped())) return false;
    for (const auto& [pFile, nError] : All) {
      if (nError == os::kFileNotFound && bEmpty) {
        m_pTell->Leftover(*pFile, 0, "it is missing, since what it belongs to was only begun");
      } else if (nError != os::kSuccess && !IsDropped()) {
        m_pTell->Suspect(*pFile, 0, WhyNotOpen(nError, *pFile));
      }
    }
    return Ids.nError == os::kSuccess && Data.nError == os::kSuccess;
  }

  // Whether the segment went meanwhile.
  bool IsDropped() const {
    if (m_Part.nSegment == 0) return false;
    os::FileLook Found{};
    return os::LookAt(m_Part.pFolder, SegmentFileName(m_Part.nSegment, kEventsFile), &Found) == os::kFileNotFound;
  }

  bool ReadHeads() {
    tPLAINDB_HEADER Head{};
    std::uint32_t nRead = 0;
    if (m_pIds->Read(0, &Head, sizeof(Head), &nRead) != os::kSuccess) {
      m_pTell->Suspect(m_IdsFile, 0, "the system refuses to read it");
      return false;
    }
    if (nRead < sizeof(Head)) return TellShort(m_IdsFile, nRead, sizeof(Head), m_nDataSize <= sizeof(FILE_MAGIC));
    const bool bPlain = std::memcmp(Head.Magic, kRecordMagic, sizeof(Head.Magic)) == 0;
    const bool bChecked = std::memcmp(Head.Magic, kCheckedRecordMagic, sizeof(Head.Magic)) == 0;
    if (!bPlain && !bChecked) {
      m_pTell->Suspect(m_IdsFile, 0, "it has no magic of a file of id records");
      return false;
    }
    m_nStored = kRecord + (bChecked ? kCrcSize : 0);
    if (Head.nHeaderSize != sizeof(Head) || Head.nRecordSize != m_nStored) {
      m_pTell->Suspect(m_IdsFile, 4, "its header has other sizes than a file of its kind",
                       "12 and " + std::to_string(m_nStored),
                       std::to_string(Head.nHeaderSize) + " and " + std::to_string(Head.nRecordSize));
      return false;
    }
    m_nCount = RecordCountOfSize(m_nIdsSize, m_nStored);
    return ReadMagic(bChecked);
  }

  bool ReadMagic(bool bChecked) {
    FILE_MAGIC Magic{};
    std::uint32_t nRead = 0;
    if (m_pData->Read(0, Magic, sizeof(Magic), &nRead) != os::kSuccess) {
      m_pTell->Suspect(m_DataFile, 0, "the system refuses to read it");
      return false;
    }
    if (nRead < sizeof(Magic)) return TellShort(m_DataFile, nRead, sizeof(Magic), m_nCount == 0);
    const auto Known = std::ranges::find_if(
        kFeatureMagics, [&](const FeatureMagic& One) { return std::memcmp(One.Magic, Magic, sizeof(Magic)) == 0; });
    if (Known == std::end(kFeatureMagics)) {
      m_pTell->Suspect(m_DataFile, 0, "it has no magic of a file of names and data");
      return false;
    }
    m_nFeatures = Known->nFeatures;
    m_Crc = DataCrc(Has(featureNameCrc));
    const bool bAgrees = bChecked || !Has(featureNameCrc);
    if (!bAgrees || (bChecked && m_nFeatures <= kPlainFeatures))
      m_pTell->Suspect(m_DataFile, 0, "its magic contradicts that of the id records", "",
                       std::string(Magic, sizeof(Magic)));
    return true;
  }

  // A fresh file, or a part of what was there.
  bool TellShort(const FileOf& What, std::uint32_t nSize, std::size_t nHead, bool bNothingLost) {
    if (bNothingLost) {
      m_pTell->Leftover(What, nSize, "it was only begun", std::to_string(nHead) + " bytes", std::to_string(nSize));
    } else {
      m_pTell->Suspect(What, nSize, "it ends within its header", std::to_string(nHead) + " bytes",
                       std::to_string(nSize));
    }
    return false;
  }

  // ---- Records

  std::uint64_t PlaceOf(std::uint64_t nShortId) const { return sizeof(tPLAINDB_HEADER) + (nShortId - 1) * m_nStored; }

  bool IsSound(std::span<const std::uint8_t> Stored, tODB_ID_ENTRY* pRecord) const {
    if (Stored.size() < m_nStored) return false;
    std::memcpy(pRecord, Stored.data(), kRecord);
    return !HasRecordCrcs() || DataCrc().Valid(0, Stored.data(), kRecord, Stored.data() + kRecord);
  }

  // A record as it is now.
  bool ReadAgain(std::uint64_t nShortId, tODB_ID_ENTRY* pRecord) const {
    std::uint8_t Stored[kRecord + kCrcSize];
    std::uint32_t nRead = 0;
    if (m_pIds->Read(PlaceOf(nShortId), Stored, m_nStored, &nRead) != os::kSuccess) return false;
    return IsSound({Stored, nRead}, pRecord);
  }

  void LookAtRecords() {
    for (std::uint64_t nShortId = 1; nShortId <= m_nCount && !m_pTell->Stopped(); ++nShortId) {
      tODB_ID_ENTRY Record{};
      bool bSound = IsSound(m_Records->Get(PlaceOf(nShortId), m_nStored), &Record);
      for (bool bLooked = false; !bSound && m_pTell->LooksAgain(&bLooked);) bSound = ReadAgain(nShortId, &Record);
      if (bSound) {
        LookAtRecord(static_cast<std::uint32_t>(nShortId), Record);
      } else {
        m_Damaged.Set(nShortId);
        m_pTell->Suspect(m_IdsFile, PlaceOf(nShortId), "the CRC of an id record is wrong", "",
                         "object " + std::to_string(nShortId));
      }
    }
    if (m_pTell->IsFirst()) m_pTell->Totals().nObjects += m_nCount;
    const std::uint64_t nEnd = PlaceOf(m_nCount + 1);
    os::FileLook Now{};
    const bool bSame = m_pIds->Look(&Now) == os::kSuccess && Now.nSize == m_nIdsSize;
    if (m_nIdsSize > nEnd && bSame) m_pTell->Leftover(m_IdsFile, nEnd, "its last record is torn");
  }

  void LookAtRecord(std::uint32_t nShortId, const tODB_ID_ENTRY& Record) {
    m_Hashes.Set(nShortId, Record.nObjectHash);
    LookAtParent(nShortId, Record);
    if (Record.nDataEntriesCount != 0) {
      const std::uint32_t nSize = Record.nDataEntriesCount * std::uint32_t{sizeof(tODB_DATA_ENTRY)};
      const std::uint32_t nCrc = Has(featureArrayCrc) ? kCrcSize : 0;
      Collect({Record.nDataEntriesOffset, nSize + nCrc, nShortId, Block::Array}, &m_Arrays);
    }
    const bool bNamed = Record.nNameSize != 0;
    if (bNamed != IsInTree(Record)) {
      TellRecord(nShortId, bNamed ? "an object has a name and no hash" : "an object has a hash and no name");
    } else if (bNamed) {
      const std::uint32_t nCrc = Has(featureNameCrc) ? kCrcSize : 0;
      const Range Name{Record.nName, Record.nNameSize + nCrc, nShortId, Block::Name};
      if (!IsInFile(Name)) {
        TellOutside(Name);
      } else if (IsLater(nShortId, Record.nParentId) || !m_Taken.Append(Name.nStart, Name.End())) {
        m_LateNames.push_back(Name);
      } else {
        LookAtName(nShortId, Record);
      }
    }
  }

  void TellRecord(std::uint32_t nShortId, const char* pWhat, std::string Expected = {}, std::string Found = {}) {
    m_pTell->Suspect(m_IdsFile, PlaceOf(nShortId), pWhat, std::move(Expected),
                     Found.empty() ? "object " + std::to_string(nShortId) : std::move(Found));
  }

  static bool IsLater(std::uint32_t nShortId, tObjectId nParent) { return MAKE_SHORT_OBJECT_ID(nParent) >= nShortId; }

  void LookAtParent(std::uint32_t nShortId, const tODB_ID_ENTRY& Record) {
    const tObjectId nParent = Record.nParentId;
    if (nParent == 0) return;
    const std::uint32_t nShort = MAKE_SHORT_OBJECT_ID(nParent);
    if (StoreNumberOf(nParent) != m_Part.nSegment)
      return TellRecord(nShortId, "the parent of an object is in another store", Hex(m_Part.nSegment),
                        Hex(StoreNumberOf(nParent)));
    if (nShort == 0 || nShort > m_nCount)
      return TellRecord(nShortId, "the parent of an object is not there", "", Hex(nShort));
    if (nShort >= nShortId) m_Later.push_back(nShortId);
  }

  // ---- Names

  // What lies outside of the file may have been written since its size was taken.
  bool IsInFile(const Range& What) {
    if (What.nStart < sizeof(FILE_MAGIC)) return false;
    if (What.End() <= m_nDataSize) return true;
    os::FileLook Now{};
    if (m_pData->Look(&Now) == os::kSuccess && Now.nSize > m_nDataSize) m_nDataSize = Now.nSize;
    return What.End() <= m_nDataSize;
  }

  void TellOutside(const Range& What) {
    static constexpr const char* kWords[] = {"a name lies outside of the file",
                                             "a table of data lies outside of the file",
                                             "a block of data lies outside of the file"};
    if (What.Kind != Block::Name && !IsStillThere(What)) return;
    m_pTell->Suspect(m_DataFile, What.nStart, kWords[static_cast<int>(What.Kind)],
                     "up to " + std::to_string(m_nDataSize),
                     std::to_string(What.nSize) + " bytes of object " + std::to_string(What.nShortId));
  }

  void TellOverlap(const Range& What) {
    static constexpr const char* kWords[] = {"a name lies over something else",
                                             "a table of data lies over something else",
                                             "a block of data lies over something else"};
    if (What.Kind != Block::Name && !IsStillThere(What)) return;
    m_pTell->Suspect(m_DataFile, What.nStart, kWords[static_cast<int>(What.Kind)], "",
                     std::to_string(What.nSize) + " bytes of object " + std::to_string(What.nShortId));
  }

  void LookAtName(std::uint32_t nShortId, const tODB_ID_ENTRY& Record) {
    const std::uint32_t nStored = Record.nNameSize + (Has(featureNameCrc) ? kCrcSize : 0);
    const std::span<const std::uint8_t> Stored = m_Names->Get(Record.nName, nStored);
    if (Stored.size() < nStored) return;  // the system's refusal was told, or the file was cut off meanwhile
    if (Has(featureNameCrc) &&
        !m_Crc.Valid(Record.nObjectHash, Stored.data(), Record.nNameSize, Stored.data() + Record.nNameSize)) {
      m_pTell->Suspect(m_DataFile, Record.nName, "the CRC of a name is wrong", "",
                       "object " + std::to_string(nShortId));
      return;
    }
    std::uint64_t nParentHash = 0;
    if (Record.nParentId != 0) {
      const std::uint32_t nParent = MAKE_SHORT_OBJECT_ID(Record.nParentId);
      if (StoreNumberOf(Record.nParentId) != m_Part.nSegment || nParent > m_nCount) return;
      nParentHash = m_Hashes.Get(nParent);
      if (nParentHash == kInvalidHash || m_Damaged.Test(nParent)) return;  // what it was is lost
      if (nParentHash == 0) return TellRecord(nShortId, "the parent of an object has no name");
    }
    if (!m_Hash.Fits(Record, Stored.first(Record.nNameSize), nParentHash))
      TellRecord(nShortId, "the hash of an object is not that of its name");
  }

  // Those that do not stand behind the ones before them, or whose parents come later.
  void LookAtNames() {
    const auto Accept = [this](const Range& One) {
      tODB_ID_ENTRY Record{};
      if (!m_pTell->Stopped() && ReadAgain(One.nShortId, &Record) && Record.nName == One.nStart)
        LookAtName(One.nShortId, Record);
    };
    m_Names->Forget();
    m_Taken.Merge(&m_LateNames, Accept, [this](const Range& One) { TellOverlap(One); });
  }

  // A circle has a parent that came later.
  void LookAtCircles() {
    Paged<std::uint32_t> Walks;
    for (std::uint32_t nWalk = 1; nWalk <= m_Later.size(); ++nWalk) {
      for (std::uint64_t nAt = m_Later[nWalk - 1]; nAt != 0 && nAt <= m_nCount;) {
        if (const std::uint32_t nBefore = Walks.Get(nAt)) {
          if (nBefore == nWalk)
            TellRecord(static_cast<std::uint32_t>(nAt), "an object is its own parent, over others or at once");
          break;
        }
        Walks.Set(nAt, nWalk);
        tODB_ID_ENTRY Record{};
        if (!ReadAgain(nAt, &Record) || StoreNumberOf(Record.nParentId) != m_Part.nSegment) break;
        nAt = MAKE_SHORT_OBJECT_ID(Record.nParentId);
      }
    }
  }

  // ---- Data

  void Collect(const Range& What, std::vector<Range>* pAll) {
    if (IsInFile(What)) {
      pAll->push_back(What);
    } else {
      TellOutside(What);
    }
  }

  // An object's table of data as it is now; empty where it has none, or none that can be read.
  std::vector<tODB_DATA_ENTRY> EntriesNow(std::uint32_t nShortId, std::uint32_t* pnOffset) const {
    tODB_ID_ENTRY Record{};
    if (!ReadAgain(nShortId, &Record)) return {};
    std::vector<tODB_DATA_ENTRY> Entries(Record.nDataEntriesCount);
    *pnOffset = Record.nDataEntriesOffset;
    std::uint32_t nRead = 0;
    const auto nSize = static_cast<std::uint32_t>(Entries.size() * sizeof(tODB_DATA_ENTRY));
    if (m_pData->Read(*pnOffset, Entries.data(), nSize, &nRead) != os::kSuccess || nRead != nSize) Entries.clear();
    return Entries;
  }

  // Whether what was found to be wrong is what the object leads to, still.
  bool IsStillThere(const Range& What) const {
    if (What.Kind == Block::Array) {
      tODB_ID_ENTRY Record{};
      return !ReadAgain(What.nShortId, &Record) || Record.nDataEntriesOffset == What.nStart;
    }
    std::uint32_t nOffset = 0;
    return std::ranges::any_of(EntriesNow(What.nShortId, &nOffset), [&](const tODB_DATA_ENTRY& One) {
      return One.nDataType == What.nKey && One.nDataOffset == What.nStart &&
             DataSize::Decode(One.nDataSize).nCapacity == What.nSize;
    });
  }

  // Looks at bytes until they are sound, or not those that count any more, or the time is up.
  template <class Check>
  bool IsSoundIn(const Range& What, Check Try) {
    bool bSound = Try();
    for (bool bLooked = false; !bSound && IsStillThere(What) && m_pTell->LooksAgain(&bLooked);) {
      m_Names->Forget();
      bSound = Try();
    }
    return bSound || !IsStillThere(What);
  }

  void LookAtArrays() {
    m_Names->Forget();
    m_Taken.Merge(
        &m_Arrays, [this](const Range& One) { LookAtArray(One); }, [this](const Range& One) { TellOverlap(One); });
  }

  void LookAtArray(const Range& What) {
    if (m_pTell->Stopped()) return;
    const std::uint32_t nCrc = Has(featureArrayCrc) ? kCrcSize : 0;
    const std::uint32_t nSize = What.nSize - nCrc;
    std::vector<tODB_DATA_ENTRY> Entries(nSize / sizeof(tODB_DATA_ENTRY));
    const bool bSound = IsSoundIn(What, [&] {
      const std::span<const std::uint8_t> Stored = m_Names->Get(What.nStart, What.nSize);
      if (Stored.size() < What.nSize) return false;
      std::memcpy(Entries.data(), Stored.data(), nSize);
      return nCrc == 0 || m_Crc.Valid(What.nShortId, Stored.data(), nSize, Stored.data() + nSize);
    });
    if (!bSound) {
      m_pTell->Suspect(m_DataFile, What.nStart, "the CRC of a table of data is wrong", "",
                       "object " + std::to_string(What.nShortId));
      return;
    }
    if (!IsStillThere(What)) return;
    for (std::size_t i = 0; i < Entries.size(); ++i) LookAtEntry(What, i, Entries[i]);
  }

  void LookAtEntry(const Range& Array, std::size_t nEntry, const tODB_DATA_ENTRY& Entry) {
    const DataSize Sizes = DataSize::Decode(Entry.nDataSize);
    const std::uint64_t nAt = Array.nStart + nEntry * sizeof(Entry);
    const Range Data{Entry.nDataOffset, Sizes.nCapacity, Array.nShortId, Block::Data, Entry.nDataType, Sizes.nStored};
    const std::uint32_t nLeast = Has(featureBlockCrc) ? kCrcSize : 0;
    if ((Sizes.nStored > Sizes.nCapacity || Sizes.nStored < nLeast) && IsStillThere(Data)) {
      m_pTell->Suspect(m_DataFile, nAt, "the size of a block of data is none", "",
                       Hex(Entry.nDataSize) + " of object " + std::to_string(Array.nShortId));
    } else if (Sizes.nCapacity != 0) {
      Collect(Data, &m_Blocks);
    }
  }

  void LookAtBlocks() {
    m_Names->Forget();
    m_Taken.Merge(
        &m_Blocks, [this](const Range& One) { LookAtBlock(One); }, [this](const Range& One) { TellOverlap(One); });
  }

  // How many of its bytes count is in the entry, which may have changed. Without CRCs the bytes are read, and nothing
  // can be said of them.
  void LookAtBlock(const Range& What) {
    if (m_pTell->Stopped()) return;
    bool bAgain = false;
    const bool bSound = IsSoundIn(What, [&] {
      if (!Has(featureBlockCrc)) {
        ReadOver(What);
        return true;
      }
      if (!std::exchange(bAgain, true)) return HasItsCrc(What, What.nStored);
      std::uint32_t nOffset = 0;
      for (const tODB_DATA_ENTRY& One : EntriesNow(What.nShortId, &nOffset)) {
        if (One.nDataType == What.nKey && One.nDataOffset == What.nStart)
          return HasItsCrc(What, DataSize::Decode(One.nDataSize).nStored);
      }
      return true;
    });
    if (!bSound)
      m_pTell->Suspect(m_DataFile, What.nStart, "the CRC of a block of data is wrong", "",
                       "key " + Hex(What.nKey) + " of object " + std::to_string(What.nShortId));
  }

  void ReadOver(const Range& What) {
    for (std::uint64_t nAt = What.nStart; nAt < What.End();) {
      const auto nPiece = static_cast<std::uint32_t>(std::min<std::uint64_t>(What.End() - nAt, Window::kSize));
      if (m_Names->Get(nAt, nPiece).size() < nPiece || m_pTell->Stopped()) return;
      nAt += nPiece;
    }
  }

  bool HasItsCrc(const Range& What, std::uint32_t nStored) {
    if (nStored < kCrcSize || nStored > What.nSize) return false;
    std::uint32_t nCrc = m_Crc.Of(What.nShortId, nullptr, 0);
    std::uint8_t Found[kCrcSize];
    const std::uint32_t nUser = nStored - kCrcSize;
    std::vector<std::uint8_t> Piece(std::min(nStored, kPiece));
    for (std::uint32_t nDone = 0; nDone < nStored;) {
      const std::uint32_t nPiece = std::min(nStored - nDone, kPiece);
      const std::span<const std::uint8_t> Stored = m_Names->Get(std::uint64_t{What.nStart} + nDone, nPiece);
      if (Stored.size() < nPiece || m_pTell->Stopped()) return false;
      std::copy(Stored.begin(), Stored.end(), Piece.begin());
      if (Has(featureMask)) MaskDataBlock(Piece.data(), nPiece);  // the key fits a piece a whole number of times
      const std::uint32_t nCovered = nDone < nUser ? std::min(nPiece, nUser - nDone) : 0;
      nCrc = Crc32(nCrc, Piece.data(), nCovered);
      for (std::uint32_t i = nCovered; i < nPiece; ++i) Found[nDone + i - nUser] = Piece[i];
      nDone += nPiece;
    }
    return std::memcmp(&nCrc, Found, sizeof(nCrc)) == 0;
  }

  // Blocks that were replaced, and those of what was never finished.
  void TellHoles() {
    std::uint64_t nBytes = 0;
    std::uint64_t nPlaces = 0;
    std::uint64_t nFirst = 0;
    std::uint64_t nEnd = sizeof(FILE_MAGIC);
    const auto Note = [&](std::uint64_t nUpTo) {
      if (nUpTo <= nEnd) return;
      if (nPlaces++ == 0) nFirst = nEnd;
      nBytes += nUpTo - nEnd;
    };
    for (const Taken::Run& One : m_Taken.Runs()) {
      Note(One.nStart);
      nEnd = One.nEnd;
    }
    os::FileLook Now{};
    if (m_pData->Look(&Now) == os::kSuccess && Now.nSize == m_nDataSize) Note(Now.nSize);  // not what is being added
    if (nBytes != 0)
      m_pTell->Leftover(
          m_DataFile, nFirst, "nothing leads to some of it, which compaction leaves out", "",
          std::to_string(nBytes) + " bytes in " + std::to_string(nPlaces) + (nPlaces == 1 ? " place" : " places"));
  }

  static constexpr std::uint32_t kPiece = 64 * 1024;

  const ObjectsPart m_Part;
  Examiner* const m_pTell;
  const FileOf m_IdsFile;
  const FileOf m_TreeFile;
  const FileOf m_DataFile;
  std::unique_ptr<File> m_pIds;
  std::unique_ptr<File> m_pTree;
  std::unique_ptr<File> m_pData;
  std::unique_ptr<Window> m_Records;
  std::unique_ptr<Window> m_Names;
  bool m_bTree = false;
  std::uint64_t m_nIdsSize = 0;
  std::uint64_t m_nDataSize = 0;
  std::uint32_t m_nStored = kRecord;
  std::uint32_t m_nFeatures = 0;
  DataCrc m_Crc;
  std::uint64_t m_nCount = 0;
  NameHash m_Hash;
  Paged<std::uint64_t> m_Hashes;  // by short id
  PagedBits m_Damaged;
  Taken m_Taken;
  std::vector<std::uint32_t> m_Later;  // whose parents have higher ids
  std::vector<Range> m_LateNames;
  std::vector<Range> m_Arrays;
  std::vector<Range> m_Blocks;
};

}  // namespace

void VerifyObjects(const ObjectsPart& What, Examiner* pTell) {
  ObjectsLook(What, pTell).Look();
}

}  // namespace lumbra::inspect
