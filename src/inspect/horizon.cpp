#include "inspect/horizon.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include "format/file_names.h"
#include "format/record_file.h"
#include "inspect/file.h"
#include "platform/file.h"
#include "platform/result.h"

namespace lumbra::inspect {
namespace {

// Behind a segment that is missing so many numbers are looked at: more are seldom lost together, and a list of a folder
// with a thousand segments takes a hundred times as long.
constexpr std::uint32_t kNear = 16;

// What is farther behind is found in such a list, which is made anew so often.
constexpr std::chrono::seconds kListAgain{1};

std::uint64_t SizeOf(const os::FolderHandle& pFolder, std::u16string_view Name) {
  os::FileLook Found{};
  return os::LookAt(pFolder, Name, &Found) == os::kSuccess && Found.bPlain ? Found.nSize : 0;
}

// One look at a chain.
class Look {
 public:
  Look(const Store& Of, const Database& What, const Horizon& Before, Horizon* pHorizon)
      : m_Store(Of), m_Database(What), m_Before(Before), m_pHorizon(pHorizon) {}

  os::SystemError OpenFolder() { return m_Store.OpenFolder(m_Database, &m_pFolder); }

  // What "segments.dat" says, and the segments from there on, or from a later one; or what is wrong with it. It is read
  // again behind them: segments that were dropped meanwhile would make the chain look shorter than it is.
  std::optional<SegmentsFault> FollowChain(std::uint32_t nFrom) {
    m_bSettled = true;
    const ChainHead Head = ReadHead();
    if (Head.Wrong) return Head.Wrong;
    *m_pHorizon = {Head.nEventSize, Head.nLife, Head.nFirst, {}, m_Before.Listed};
    if (Head.nFirst == 0) return {};
    m_nFailure = Append(std::max(Head.nFirst, nFrom));
    if (m_pHorizon->Segments.empty() && nFrom > Head.nFirst) m_nFailure = Append(Head.nFirst);
    if (m_pHorizon->Segments.empty())
      return SegmentsFault{"it leads to segment " + std::to_string(Head.nFirst) + ", which is not there", ""};
    const ChainHead Now = ReadHead();
    if (Now.Wrong) return Now.Wrong;
    m_bSettled = Head.nLife == Now.nLife && Head.nEventSize == Now.nEventSize && Head.nFirst <= Now.nFirst &&
                 Now.nFirst <= m_pHorizon->Segments.back().nNumber;
    return {};
  }
  bool IsSettled() const { return m_bSettled; }

  // Without it: the newest run of files with events, which tell their size themselves.
  void FollowFiles() {
    m_pHorizon->Segments.clear();
    std::vector<std::uint32_t> Numbers = ListSegments();
    if (Numbers.empty()) return;
    auto First = Numbers.end() - 1;
    while (First != Numbers.begin() && *(First - 1) + 1 == *First) --First;
    for (auto One = First; One != Numbers.end() && m_pHorizon->nEventSize == 0; ++One) {
      tPLAINDB_HEADER Header{};
      std::string Bytes;
      if (ReadSmall(m_pFolder, SegmentFileName(*One, kEventsFile), sizeof(Header), &Bytes) != os::kSuccess) continue;
      if (Bytes.size() != sizeof(Header)) continue;
      std::memcpy(&Header, Bytes.data(), sizeof(Header));
      const bool bMagic = std::memcmp(Header.Magic, kRecordMagic, sizeof(kRecordMagic)) == 0;
      if (bMagic && Header.nHeaderSize == sizeof(Header)) m_pHorizon->nEventSize = Header.nRecordSize;
    }
    if (m_pHorizon->nEventSize == 0) return;
    m_pHorizon->nFirst = *First;
    (void)Append(*First);  // as far as it goes
  }

  // Where a segment is missing in between, the next one behind it that holds events; 0 for none.
  std::uint32_t NextBehindHole() {
    if (m_pHorizon->Segments.empty()) return 0;
    const std::uint32_t nMissing = m_pHorizon->Segments.back().nNumber + 1;
    const std::uint32_t nEnd = std::min(nMissing + kNear + 1, kSegmentNumberLimit);
    for (std::uint32_t nNumber = nMissing + 1; nNumber < nEnd; ++nNumber) {
      if (EventsIn(nNumber) != 0) return nNumber;
    }
    if (m_Listed.empty() && !IsListWanted(nMissing)) return 0;
    if (m_Listed.empty()) m_Listed = ListSegments();
    for (auto At = std::ranges::upper_bound(m_Listed, nMissing); At != m_Listed.end(); ++At) {
      if (EventsIn(*At) != 0) return *At;
    }
    return 0;
  }

  // Goes on there, unless that segment is older than those before it: then it is of an earlier life of the database.
  bool GoOnBehindHole(std::uint32_t nNext) {
    os::FileLook Next{};
    (void)os::LookAt(m_pFolder, SegmentFileName(nNext, kEventsFile), &Next);  // without a birth when it fails
    return Next.nBirth >= m_pHorizon->Segments.back().nBirth && Append(nNext) == os::kSuccess;
  }

  // Events that came before the next segment was begun are counted for sure only when one behind it holds one.
  void CloseSegments() {
    std::vector<SegmentExtent>& Segments = m_pHorizon->Segments;
    bool bEventsBehind = false;  // healing puts empty ones in the place of those that are lost
    for (std::size_t i = Segments.size(); i-- > 0;) {
      Segments[i].bOver = bEventsBehind;
      bEventsBehind = bEventsBehind || Segments[i].nEvents != 0;
      if (Segments[i].bOver) Segments[i].nEvents = std::max(Segments[i].nEvents, EventsIn(Segments[i].nNumber));
    }
    for (SegmentExtent& One : Segments) LookForIds(&One);
  }

  bool Has(std::uint32_t nNumber) const {
    os::FileLook Found{};
    return os::LookAt(m_pFolder, SegmentFileName(nNumber, kEventsFile), &Found) == os::kSuccess;
  }
  os::SystemError Failure() const { return m_nFailure; }

  // Whether the chain has lost a segment since, or is another one.
  bool StartsBehind(std::uint32_t nNumber) const {
    const ChainHead Now = ReadChainHead(m_pFolder);
    return !Now.Wrong && (Now.nFirst > nNumber || Now.nLife != m_pHorizon->nLife);
  }

 private:
  ChainHead ReadHead() {
    ChainHead Head = ReadChainHead(m_pFolder);
    if (Head.nError != os::kFileNotFound && Head.nError != os::kAccessDenied) m_nFailure = Head.nError;
    return Head;
  }

  std::vector<std::uint32_t> ListSegments() {
    m_pHorizon->Listed = std::chrono::steady_clock::now();
    std::vector<std::uint32_t> Numbers;
    const auto Note = [&Numbers](const os::FoundFile& Found) {
      const std::uint32_t nNumber = IsEventsFileName(Found.Name) ? NumberOfSegmentFile(Found.Name) : 0;
      if (nNumber != 0 && nNumber < kSegmentNumberLimit) Numbers.push_back(nNumber);
      return true;
    };
    (void)Relieved([&] { return os::FindFiles(m_pFolder, kAnyEventsFile, Note); });  // as many as can be seen
    std::ranges::sort(Numbers);
    return Numbers;
  }

  // When the last one was made long ago, or the chain went farther before.
  bool IsListWanted(std::uint32_t nMissing) const {
    return std::chrono::steady_clock::now() >= m_Before.Listed + kListAgain ||
           (!m_Before.Segments.empty() && m_Before.Segments.back().nNumber >= nMissing);
  }

  // The segments from a number on, up to the first that is missing.
  os::SystemError Append(std::uint32_t nNumber) {
    for (; nNumber < kSegmentNumberLimit; ++nNumber) {
      os::FileLook Found{};
      const os::SystemError nError = os::LookAt(m_pFolder, SegmentFileName(nNumber, kEventsFile), &Found);
      if (nError == os::kFileNotFound) break;
      if (nError != os::kSuccess && m_pHorizon->Segments.empty()) return nError;
      // What is no file, and what cannot be looked at, is there, and holds nothing that can be counted.
      const std::uint64_t nSize = nError == os::kSuccess && Found.bPlain ? Found.nSize : 0;
      m_pHorizon->Segments.push_back(
          {.nNumber = nNumber,
           .nEvents = std::min(RecordCountOfSize(nSize, m_pHorizon->nEventSize), kMaxRecords),
           .nBirth = Found.nBirth,
           .nIdsBirth = 0,
           .bOver = false});
    }
    return os::kSuccess;
  }

  // The id records, unless the number belongs to another segment by now.
  void LookForIds(SegmentExtent* pSegment) const {
    os::FileLook Ids{};
    os::FileLook Events{};
    const bool bIds = os::LookAt(m_pFolder, SegmentFileName(pSegment->nNumber, kIdsFile), &Ids) == os::kSuccess;
    const bool bSame =
        os::LookAt(m_pFolder, SegmentFileName(pSegment->nNumber, kEventsFile), &Events) == os::kSuccess &&
        Events.nBirth == pSegment->nBirth;
    pSegment->nIdsBirth = bIds && bSame ? Ids.nBirth : kNoBirth;
  }

  std::uint64_t EventsIn(std::uint32_t nNumber) const {
    const std::uint64_t nSize = SizeOf(m_pFolder, SegmentFileName(nNumber, kEventsFile));
    return std::min(RecordCountOfSize(nSize, m_pHorizon->nEventSize), kMaxRecords);
  }

  const Store& m_Store;
  const Database& m_Database;
  const Horizon& m_Before;
  Horizon* const m_pHorizon;
  os::FolderHandle m_pFolder;
  std::vector<std::uint32_t> m_Listed;
  os::SystemError m_nFailure = os::kSuccess;
  bool m_bSettled = true;
};

// What is found behind a segment that is missing may have come after our last look: missing is only what is missing
// between that and a later look.
void LookBehindHoles(Look* pChain, const Database& What, const Report& Tell, Horizon* pHorizon) {
  while (const std::uint32_t nNext = pChain->NextBehindHole()) {
    const std::uint32_t nMissing = pHorizon->Segments.back().nNumber + 1;
    // It came meanwhile, so that what is behind it is behind the horizon; or it was dropped, with all before it.
    if (pChain->Has(nMissing) || pChain->StartsBehind(nMissing)) return;
    const bool bGoesOn = pChain->GoOnBehindHole(nNext);
    Tell({Grade::Damage, What.Folder + u'/' + SegmentFileName(nMissing, kEventsFile), 0,
          "it is missing, and segment " + std::to_string(nNext) + " is there" +
              (bGoesOn ? "" : ", which is older than those before it and is left out"),
          "", ""});
    if (!bGoesOn) return;
  }
}

}  // namespace

ChainHead ReadChainHead(const os::FolderHandle& pFolder) {
  std::string Bytes;
  os::FileLook Found{};
  tSDB_HEADER Says{};
  std::optional<SegmentsFault> Wrong;
  const os::SystemError nError = ReadSmall(pFolder, kSegmentsFile, sizeof(Says), &Bytes, &Found);
  if (nError == os::kSuccess) {
    Wrong = DecodeSegments(Bytes, &Says);
  } else {
    Wrong = {nError == os::kFileNotFound ? "it is missing" : "it cannot be read", ""};
  }
  return {Says.nFirstSegment, Says.nEventSize, Found.nBirth, std::move(Wrong), nError};
}

ObjectsExtent MeasureObjects(const os::FolderHandle& pFolder, std::u16string_view Ids, std::u16string_view Data) {
  const std::uint64_t nIds = SizeOf(pFolder, Ids);  // before that of the names, which are written first
  return {nIds, SizeOf(pFolder, Data)};
}

ResultCode TakeHorizon(const Store& Of, const Database& What, const Report& Tell, Horizon* pHorizon,
                       std::uint32_t nFrom, const Horizon& Before) {
  *pHorizon = {};
  Look Chain(Of, What, Before, pHorizon);
  if (const os::SystemError nError = Chain.OpenFolder(); nError != os::kSuccess) return ResultFromSystemError(nError);
  Patience Waiting;
  std::optional<SegmentsFault> Wrong;
  do {
    Wrong = Chain.FollowChain(nFrom);
    if (const os::SystemError nError = Chain.Failure(); nError != os::kSuccess) return ResultFromSystemError(nError);
  } while ((Wrong || !Chain.IsSettled()) && Waiting.Wait());
  if (Wrong) {
    const Grade HowBad = Of.Holders().empty() ? Grade::Damage : Grade::Unsettled;
    Tell({HowBad, What.Folder + u'/' + kSegmentsFile, 0, Wrong->What, "", Wrong->Found});
    Chain.FollowFiles();
  }
  LookBehindHoles(&Chain, What, Tell, pHorizon);
  Chain.CloseSegments();
  return errOK;
}

}  // namespace lumbra::inspect
