// A database: the chain of its segments, their numbering, and their events.
#include <cstring>
#include <optional>

#include "format/file_names.h"
#include "format/record_file.h"
#include "format/segments_file.h"
#include "inspect/verify_parts.h"
#include "lumbra/result_code.h"

namespace lumbra::inspect {
namespace {

// How many objects ids may name, by the heads of id files; nothing where that is not known.
std::optional<std::uint64_t> ObjectsIn(const os::FolderHandle& pFolder, const ObjectFileNames& Names) {
  os::FileLook Found{};
  tPLAINDB_HEADER Head{};
  std::string Bytes;
  if (os::LookAt(pFolder, Names.Ids, &Found) != os::kSuccess || !Found.bPlain) return {};
  if (ReadSmall(pFolder, Names.Ids, sizeof(Head), &Bytes) != os::kSuccess || Bytes.size() < sizeof(Head)) return {};
  std::memcpy(&Head, Bytes.data(), sizeof(Head));
  const bool bPlain = std::memcmp(Head.Magic, kRecordMagic, sizeof(Head.Magic)) == 0;
  const bool bChecked = std::memcmp(Head.Magic, kCheckedRecordMagic, sizeof(Head.Magic)) == 0;
  if (!bPlain && !bChecked) return {};
  return RecordCountOfSize(Found.nSize, sizeof(tODB_ID_ENTRY) + (bChecked ? sizeof(std::uint32_t) : 0));
}

class ChainLook {
 public:
  ChainLook(const Database& What, const VerifyRequest& Request, Examiner* pTell)
      : m_Database(What), m_Request(Request), m_pTell(pTell) {}

  std::vector<ObjectsPart> Look() {
    if (const os::SystemError nError = m_pTell->Of().OpenFolder(m_Database, &m_pFolder); nError != os::kSuccess) {
      os::FileLook Found{};
      const bool bGone = os::LookAt(m_pTell->Of().Folder(), m_Database.Folder, &Found) == os::kFileNotFound;
      if (!bGone) m_pTell->Suspect({m_pTell->Of().Folder(), {}, m_Database.Folder}, 0, "the system refuses to open it");
      return {};
    }
    if (m_pTell->IsFirst()) ++m_pTell->Totals().nFiles;  // "segments.dat"
    TakeChain();
    LookAtNumbers();
    CountObjects();
    for (const SegmentExtent& One : m_Chain.Segments) LookAtEvents(One);
    std::vector<ObjectsPart> Parts;
    for (const SegmentExtent& One : m_Chain.Segments)
      Parts.push_back({m_pFolder, m_Database.Folder, One.nNumber, IsNewest(One) && One.nEvents == 0});
    return Parts;
  }

 private:
  FileOf Named(std::u16string Name) const { return {m_pFolder, m_Database.Folder, std::move(Name)}; }
  bool IsNewest(const SegmentExtent& Which) const { return Which.nNumber == m_Chain.Segments.back().nNumber; }

  // The events first, of all segments.
  void TakeChain() {
    std::vector<Finding> Found;
    const Report Keep = [&Found](const Finding& One) {
      Found.push_back(One);
    };
    const ResultCode nCode = TakeHorizon(m_pTell->Of(), m_Database, Keep, &m_Chain);
    if (Failed(nCode)) m_pTell->Suspect(Named(kSegmentsFile), 0, "the system refuses to look at the chain");
    // Where nothing holds events it was begun, or is being cleared.
    const bool bEmpty = !HoldsEvents();
    for (Finding& One : Found) {
      if (bEmpty) One.Of = Grade::Leftover;
      m_pTell->Settled(std::move(One));
    }
  }

  bool HoldsEvents() const {
    bool bHolds = false;
    (void)os::FindFiles(m_pFolder, kAnyEventsFile, [&bHolds](const os::FoundFile& Found) {  // none where it fails
      bHolds = IsEventsFileName(Found.Name) && (Found.bFolder || Found.nSize > sizeof(tPLAINDB_HEADER));
      return !bHolds;
    });
    return bHolds;
  }

  // ---- Numbers

  void LookAtNumbers() {
    const std::uint32_t nLast = m_Chain.Segments.empty() ? 0 : m_Chain.Segments.back().nNumber;
    std::vector<std::u16string> Names;
    if (os::ListPlainFiles(m_pFolder, &Names) != os::kSuccess) return;
    std::ranges::sort(Names);
    os::FileLook Found{};
    const bool bGrew =
        nLast != 0 && os::LookAt(m_pFolder, SegmentFileName(nLast + 1, kEventsFile), &Found) == os::kSuccess;
    for (const std::u16string& Name : Names) {
      const FileOf What = Named(Name);
      const std::uint32_t nNumber = NumberOfSegmentFile(Name);
      if (Name.ends_with(kHealingEnding)) {
        m_pTell->Leftover(What, 0, "it was to take the place of another file, when healing ended early");
      } else if (nNumber == 0 || !IsFileOfDatabase(Name)) {
        continue;
      } else if (m_Chain.nFirst != 0 && nNumber < m_Chain.nFirst) {
        m_pTell->Leftover(What, 0, "its segment was dropped");
      } else if (m_Chain.Segments.empty() || (nNumber > nLast && !bGrew)) {
        LookBehindEnd(What, nNumber);
      }
    }
  }

  // A chain that goes on behind a missing segment was told with that.
  void LookBehindEnd(const FileOf& What, std::uint32_t nNumber) {
    os::FileLook Events{};
    const bool bThere = os::LookAt(m_pFolder, SegmentFileName(nNumber, kEventsFile), &Events) == os::kSuccess;
    const bool bHolds = bThere && Events.nSize > sizeof(tPLAINDB_HEADER);
    if (!bThere && What.Name == SegmentFileName(nNumber, kIdsFile) &&
        ObjectsIn(m_pFolder, ObjectFilesOf(nNumber)).value_or(0) != 0) {
      m_pTell->Suspect(What, 0, "it holds names, and the events of its segment are missing");
    } else if (!bHolds) {
      m_pTell->Leftover(What, 0, "its segment does not belong to the chain, and holds no events");
    } else if (IsEventsFileName(What.Name)) {
      m_pTell->Suspect(What, 0, "it holds events, and does not belong to the chain");
    }
  }

  // ---- Events

  // Behind the events, so that all objects are there that they name.
  void CountObjects() {
    if (m_Request.IdFields == nullptr || m_Chain.nEventSize == 0) return;
    for (const std::uint32_t nAt : m_Request.IdFields(m_Database, m_Chain.nEventSize)) {
      if (nAt + sizeof(std::uint64_t) <= m_Chain.nEventSize) m_IdFields.push_back(nAt);
    }
    if (m_IdFields.empty()) return;
    m_nShared = ObjectsIn(m_pTell->Of().Folder(), SharedObjectFiles()).value_or(UINT64_MAX);
    for (const SegmentExtent& One : m_Chain.Segments)
      m_Objects.push_back({One.nNumber, ObjectsIn(m_pFolder, ObjectFilesOf(One.nNumber)).value_or(UINT64_MAX)});
  }

  void LookAtEvents(const SegmentExtent& Which) {
    const FileOf What = Named(SegmentFileName(Which.nNumber, kEventsFile));
    std::unique_ptr<File> pFile;
    const os::SystemError nError = File::Open(m_pFolder, What.Name, &pFile);
    if (nError == os::kFileNotFound) return;  // it was dropped since
    os::FileLook Found{};
    if (nError != os::kSuccess || pFile->Look(&Found) != os::kSuccess)
      return m_pTell->Suspect(What, 0, WhyNotOpen(nError, What));
    if (m_pTell->IsFirst()) ++m_pTell->Totals().nFiles;
    if (!ReadHead(*pFile, What, Found.nSize, IsNewest(Which) && Which.nEvents == 0)) return;
    ReadEvents(*pFile, What, Which);
    const std::uint64_t nTorn = (Found.nSize - sizeof(tPLAINDB_HEADER)) % m_Chain.nEventSize;
    os::FileLook Now{};
    const bool bSame = pFile->Look(&Now) == os::kSuccess && Now.nSize == Found.nSize;
    if (nTorn == 0 || !bSame) return;
    // Of one that was over before it was measured nothing is being written.
    if (Which.bOver) {
      m_pTell->Suspect(What, Found.nSize - nTorn, "its last event is torn, and its segment is over");
    } else {
      m_pTell->Leftover(What, Found.nSize - nTorn, "its last event is torn");
    }
  }

  bool ReadHead(const File& From, const FileOf& What, std::uint64_t nSize, bool bMayBeBegun) {
    tPLAINDB_HEADER Head{};
    std::uint32_t nRead = 0;
    if (From.Read(0, &Head, sizeof(Head), &nRead) != os::kSuccess) {
      m_pTell->Suspect(What, 0, "the system refuses to read it");
      return false;
    }
    if (nRead < sizeof(Head)) {
      if (bMayBeBegun) {
        m_pTell->Leftover(What, nSize, "it was only begun", "12 bytes", std::to_string(nSize));
      } else {
        m_pTell->Suspect(What, nSize, "it ends within its header", "12 bytes", std::to_string(nSize));
      }
      return false;
    }
    if (std::memcmp(Head.Magic, kRecordMagic, sizeof(Head.Magic)) != 0) {
      m_pTell->Suspect(What, 0, "it has no magic of a file of events");
      return false;
    }
    if (Head.nHeaderSize != sizeof(Head) || Head.nRecordSize != m_Chain.nEventSize) {
      m_pTell->Suspect(What, 4, "its header has other sizes than the database",
                       "12 and " + std::to_string(m_Chain.nEventSize),
                       std::to_string(Head.nHeaderSize) + " and " + std::to_string(Head.nRecordSize));
      return false;
    }
    return true;
  }

  // The files are read also where nothing is to be looked for in them: whether they can be is what is asked.
  void ReadEvents(const File& From, const FileOf& What, const SegmentExtent& Which) {
    const std::uint64_t nSize = m_Chain.nEventSize;
    const std::uint64_t nEnd = sizeof(tPLAINDB_HEADER) + Which.nEvents * nSize;
    const bool bAligned = nSize <= kPiece;
    const std::uint64_t nPiece = bAligned ? kPiece / nSize * nSize : kPiece;
    if (m_Piece == nullptr) m_Piece.reset(new std::uint8_t[kPiece]);
    for (std::uint64_t nAt = sizeof(tPLAINDB_HEADER); nAt < nEnd; nAt += nPiece) {
      const auto nWanted = static_cast<std::uint32_t>(std::min(nPiece, nEnd - nAt));
      std::uint32_t nRead = 0;
      if (From.Read(nAt, m_Piece.get(), nWanted, &nRead) != os::kSuccess) {
        m_pTell->Suspect(What, nAt, "the system refuses to read it");
        nRead = 0;
      }
      if (bAligned && !m_IdFields.empty()) LookAtIds(What, nAt, {m_Piece.get(), nRead});
      if (!m_pTell->Count(nWanted)) return;
    }
    if (m_pTell->IsFirst()) m_pTell->Totals().nEvents += Which.nEvents;
  }

  void LookAtIds(const FileOf& What, std::uint64_t nAt, std::span<const std::uint8_t> Events) {
    const std::size_t nSize = m_Chain.nEventSize;
    for (std::size_t i = 0; i + nSize <= Events.size(); i += nSize) {
      for (const std::uint32_t nField : m_IdFields) {
        std::uint64_t nId = 0;
        std::memcpy(&nId, Events.data() + i + nField, sizeof(nId));
        const auto nShortId = static_cast<std::uint32_t>(nId);
        if (nId >> 32 != m_nLately || nShortId > m_nLatelyCount || nShortId == 0) LookAtId(What, nAt + i + nField, nId);
      }
    }
  }

  // An id of this database, or of the shared objects. Those of dropped segments, of segments that there never were and
  // of other databases are left alone: events are their caller's own, and that this is an id is only believed.
  void LookAtId(const FileOf& What, std::uint64_t nPlace, std::uint64_t nId) {
    const auto nDatabase = static_cast<std::uint32_t>(nId >> 56);
    const std::uint32_t nSegment = static_cast<std::uint32_t>(nId >> 32) & 0xFFFFFF;
    const auto nShortId = static_cast<std::uint32_t>(nId);
    std::uint64_t nCount = 0;
    if (nDatabase == 0 && nSegment == 0) {
      if (nShortId == 0) return;
      nCount = m_nShared;
    } else {
      if (nDatabase != m_Database.Id || nSegment == 0) return;
      const auto Of = std::ranges::lower_bound(m_Objects, nSegment, {}, &Store::nNumber);
      if (Of == m_Objects.end() || Of->nNumber != nSegment) return;
      nCount = Of->nCount;
    }
    m_nLately = nId >> 32;
    m_nLatelyCount = nCount;
    if (nShortId == 0 || nShortId > nCount)
      m_pTell->Suspect(What, nPlace, "an event names an object that is not there", "", Hex(nId));
  }

  static constexpr std::uint32_t kPiece = 256 * 1024;
  struct Store {
    std::uint32_t nNumber;
    std::uint64_t nCount;
  };

  const Database& m_Database;
  const VerifyRequest& m_Request;
  Examiner* const m_pTell;
  os::FolderHandle m_pFolder;
  Horizon m_Chain;
  std::vector<std::uint32_t> m_IdFields;
  std::vector<Store> m_Objects;
  std::uint64_t m_nShared = 0;
  std::uint64_t m_nLately = UINT64_MAX;  // the store that was met lately
  std::uint64_t m_nLatelyCount = 0;
  std::unique_ptr<std::uint8_t[]> m_Piece;
};

}  // namespace

std::vector<ObjectsPart> VerifyChain(const Database& What, const VerifyRequest& Request, Examiner* pTell) {
  return ChainLook(What, Request, pTell).Look();
}

}  // namespace lumbra::inspect
