// The chain of a database: where it starts, what is missing in it, and what lies beside it.
#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "format/file_names.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/segments_file.h"
#include "salvage/look_parts.h"

namespace lumbra::salvage {
namespace {

std::string EventsHead(std::uint32_t nEventSize) {
  tPLAINDB_HEADER Header{{}, sizeof(tPLAINDB_HEADER), nEventSize};
  std::memcpy(Header.Magic, kRecordMagic, sizeof(Header.Magic));
  return BytesOf(Header);
}

// The event size of a head; nothing for one that is none.
std::optional<std::uint32_t> SizeIn(const std::string& Head) {
  tPLAINDB_HEADER Header{};
  if (Head.size() != sizeof(Header)) return {};
  std::memcpy(&Header, Head.data(), sizeof(Header));
  return Header.nRecordSize != 0 && Head == EventsHead(Header.nRecordSize) ? std::optional(Header.nRecordSize)
                                                                           : std::nullopt;
}

// A segment by its events, which are there.
struct Segment {
  std::uint32_t nNumber;
  std::uint64_t nSize;
  std::int64_t nWritten;
  std::int64_t nCreated;
  std::string Head;
};
// Segments whose numbers follow each other.
using Run = std::vector<Segment>;

std::int64_t LastWritten(const Run& Of) {
  std::int64_t nLast = 0;
  for (const Segment& One : Of) nLast = std::max(nLast, One.nWritten);
  return nLast;
}

constexpr std::u16string_view kObjectFiles[] = {kTreeFile, kIdsFile, kDataFile};

class DatabaseLook {
 public:
  DatabaseLook(const std::u16string& Folder, FolderView& Files, const Wishes& Wanted, Plan* pPlan)
      : m_Folder(Folder), m_Files(Files), m_Wanted(Wanted), m_pPlan(pPlan) {}

  void Run() {
    ReadHeader();
    ListSegments();
    if (m_Segments.empty()) return MendNothingLeft();
    ChooseEventSize();
    if (m_nEventSize == 0) return Report({}, "no file tells the size of its events");
    SplitIntoRuns();
    ChooseChain();
    if (m_nChain == m_Runs.size()) return Report({}, "no file of events has those that segments.dat tells of");
    JoinOrSetAside();
    if (m_bLeads && !m_bFirstMoved && m_Wanted.bDropped) SetDroppedAside();
    MendEventHeads();
    MendObjects();
    MendStart();
  }

 private:
  // ---- What is there ----

  void ReadHeader() {
    m_Header = m_Files.Read(kSegmentsFile, 0, sizeof(tSDB_HEADER));
    tSDB_HEADER Header{};
    m_bHeaderGood = !DecodeSegments(m_Header, &Header);
    m_nFirst = Header.nFirstSegment;
    m_nEventSize = Header.nEventSize;
  }

  void ListSegments() {
    for (const auto& [Name, File] : m_Files.Files()) {
      if (!IsEventsFileName(Name)) continue;
      const std::uint32_t nNumber = NumberOfSegmentFile(Name);
      if (nNumber == 0 || nNumber >= kSegmentNumberLimit) continue;
      m_Segments.push_back(
          {nNumber, File.nSize, File.nWritten, File.nCreated, m_Files.Read(Name, 0, sizeof(tPLAINDB_HEADER))});
    }
  }

  const Segment* FindSegment(std::uint32_t nNumber) const {
    const auto Found = std::ranges::find(m_Segments, nNumber, &Segment::nNumber);
    return Found == m_Segments.end() ? nullptr : &*Found;
  }

  static bool Fits(const Segment& Of, std::uint32_t nEventSize) {
    return Of.nSize >= sizeof(tPLAINDB_HEADER) && (Of.nSize - sizeof(tPLAINDB_HEADER)) % nEventSize == 0;
  }

  // ---- What is to be believed ----

  // "segments.dat" is, as long as a file of events agrees with it, or a single one contradicts it and the bodies of all
  // are whole events of its size; otherwise the size that most of those have, of those whose events fit it.
  void ChooseEventSize() {
    std::map<std::uint32_t, std::size_t> Sizes;
    for (const Segment& One : m_Segments) {
      const std::optional<std::uint32_t> Size = SizeIn(One.Head);
      if (Size && Fits(One, *Size)) ++Sizes[*Size];
    }
    if (Sizes.empty() || (m_bHeaderGood && Sizes.contains(m_nEventSize))) return;
    const auto Most = std::ranges::max_element(Sizes, {}, [](const auto& One) { return One.second; });
    const auto FitsHeader = [this](const Segment& One) {
      return Fits(One, m_nEventSize);
    };
    if (m_bHeaderGood && Most->second == 1 && std::ranges::all_of(m_Segments, FitsHeader)) return;
    m_nEventSize = Most->first;
    m_bHeaderGood = false;
  }

  // Events of another size are of another life of the database, unless a bit of their header has turned.
  bool IsOfAnotherLife(const Segment& Of) const {
    const std::optional<std::uint32_t> Size = SizeIn(Of.Head);
    if (!Size || *Size == m_nEventSize) return false;
    return BitsApart(Of.Head, EventsHead(m_nEventSize)) > 1 || !Fits(Of, m_nEventSize) || IsFromBeforeRestart(Of);
  }

  // What a restart has left was written last before the first segment of today was made. Of copies times say nothing.
  bool IsFromBeforeRestart(const Segment& Of) const {
    const Segment* const pFirst = m_bHeaderGood ? FindSegment(m_nFirst) : nullptr;
    if (pFirst == nullptr || pFirst->nNumber == Of.nNumber || IsCopy(*pFirst) || IsCopy(Of)) return false;
    return Of.nWritten < pFirst->nCreated;
  }

  // A copy that kept its time was made after it was written.
  static bool IsCopy(const Segment& Of) { return Of.nWritten < Of.nCreated; }

  void SplitIntoRuns() {
    for (const Segment& One : m_Segments) {
      const bool bFollows = !m_Runs.empty() && m_Runs.back().back().nNumber + 1 == One.nNumber &&
                            IsOfAnotherLife(m_Runs.back().back()) == IsOfAnotherLife(One);
      if (!bFollows) m_Runs.emplace_back();
      m_Runs.back().push_back(One);
    }
  }

  // The run that "segments.dat" leads to, or the one that was written last.
  void ChooseChain() {
    const Segment* const pFirst = m_bHeaderGood ? FindSegment(m_nFirst) : nullptr;
    m_bLeads = pFirst != nullptr && !IsOfAnotherLife(*pFirst);
    m_nChain = m_Runs.size();
    for (std::size_t i = 0; i < m_Runs.size(); ++i) {
      if (IsOfAnotherLife(m_Runs[i].front())) continue;
      const bool bHasFirst = m_bLeads && m_Runs[i].front().nNumber <= m_nFirst && m_Runs[i].back().nNumber >= m_nFirst;
      const bool bLater = m_nChain == m_Runs.size() || LastWritten(m_Runs[i]) >= LastWritten(m_Runs[m_nChain]);
      if (m_bLeads ? bHasFirst : bLater) m_nChain = i;
    }
    if (m_bLeads) LookBelowFirst();
  }

  // Whole segments below the first, one turned bit away. One or two were dropped: the header moves behind a segment
  // before its files go, and kills in between are likelier than a turned bit.
  void LookBelowFirst() {
    constexpr std::uint32_t kMostDropped = 2;
    std::uint32_t nLowest = m_nFirst;
    while (nLowest > m_Runs[m_nChain].front().nNumber && IsWhole(nLowest - 1)) --nLowest;
    if (m_nFirst - nLowest <= kMostDropped || std::popcount(nLowest ^ m_nFirst) != 1) return;
    m_nFirst = nLowest;
    m_bFirstMoved = true;
  }

  bool IsWhole(std::uint32_t nNumber) const {
    return std::ranges::all_of(kObjectFiles,
                               [&](std::u16string_view Name) { return m_Files.Has(SegmentFileName(nNumber, Name)); });
  }

  // ---- The chain ----

  // Numbers are not enough to join two runs: a restart leaves old segments behind. A few numbers may be missing where
  // the segments behind them were written later, or at least not before the first of the chain was made.
  void JoinOrSetAside() {
    m_Chain = m_Runs[m_nChain];
    const std::int64_t nChainWritten = LastWritten(m_Chain);
    if (m_bLeads) std::erase_if(m_Chain, [this](const Segment& One) { return One.nNumber < m_nFirst; });
    for (std::size_t i = m_nChain; !m_bLeads && i > 0 && AreFewMissing(m_Runs[i - 1], m_Chain); --i) {
      if (LastWritten(m_Runs[i - 1]) > nChainWritten || IsOfAnotherLife(m_Runs[i - 1].front())) break;
      Fill(m_Runs[i - 1].back().nNumber + 1, m_Chain.front().nNumber);
      m_Chain.insert(m_Chain.begin(), m_Runs[i - 1].begin(), m_Runs[i - 1].end());
    }
    for (std::size_t i = m_nChain + 1; i < m_Runs.size(); ++i) {
      const std::int64_t nWritten = LastWritten(m_Runs[i]);
      const bool bLater = nWritten >= nChainWritten || nWritten >= m_Chain.front().nCreated;
      if (bLater && !IsOfAnotherLife(m_Runs[i].front()) && AreFewMissing(m_Chain, m_Runs[i])) {
        Fill(m_Chain.back().nNumber + 1, m_Runs[i].front().nNumber);
        m_Chain.insert(m_Chain.end(), m_Runs[i].begin(), m_Runs[i].end());
      } else {
        SetAside(m_Runs[i]);
      }
    }
  }

  static bool AreFewMissing(const salvage::Run& Before, const salvage::Run& Behind) {
    constexpr std::uint32_t kFew = 16;
    return Behind.front().nNumber - Before.back().nNumber <= kFew + 1;
  }

  // Empty segments: the component finds their files, and starts anew what is in them.
  void Fill(std::uint32_t nFirst, std::uint32_t nEnd) {
    for (; nFirst < nEnd; ++nFirst)
      StartSegment(nFirst, "a segment is missing here; an empty one keeps those behind it in reach");
  }

  // The events last: as long as they are there, the next look finds the rest of them.
  void SetAside(const salvage::Run& Other) {
    for (const Segment& One : Other) {
      for (const std::u16string_view Name : {kTreeFile, kIdsFile, kDataFile, kEventsFile}) {
        const std::u16string File = SegmentFileName(One.nNumber, Name);
        if (m_Files.Has(File))
          Add(Step::Kind::SetAside, File, {}, {}, "it lies behind the end of the chain, which would overwrite it");
      }
    }
  }

  // What interrupted drops have left, which takes room outside all limits.
  void SetDroppedAside() {
    for (const auto& [Name, File] : m_Files.Files()) {
      const std::uint32_t nNumber = IsFileOfDatabase(Name) ? NumberOfSegmentFile(Name) : 0;
      if (nNumber != 0 && nNumber < m_nFirst) Add(Step::Kind::SetAside, Name, {}, {}, "its segment was dropped");
    }
  }

  // ---- The segments ----

  void MendEventHeads() {
    const std::string Wanted = EventsHead(m_nEventSize);
    for (const Segment& One : m_Chain) {
      const std::u16string File = SegmentFileName(One.nNumber, kEventsFile);
      if (One.Head == Wanted || One.nSize < Wanted.size()) continue;
      // A torn append may stand behind whole events; then a turned bit is told by how little it changes.
      constexpr int kTurnedBits = 2;
      if (Fits(One, m_nEventSize) || BitsApart(One.Head, Wanted) <= kTurnedBits) {
        Add(Step::Kind::Patch, File, One.Head, Wanted,
            "its header contradicts the files beside it, and its events fit");
      } else {
        Report(File, "its header is damaged, and its events do not fit; opened, it is emptied");
      }
    }
  }

  // Whether there are names of a segment, which come before its events, or what is left of them.
  bool HasNames(std::uint32_t nNumber) const {
    const FolderView::File* const pIds = m_Files.Find(SegmentFileName(nNumber, kIdsFile));
    const FolderView::File* const pData = m_Files.Find(SegmentFileName(nNumber, kDataFile));
    return (pIds != nullptr && pIds->nSize > sizeof(tPLAINDB_HEADER)) ||
           (pData != nullptr && pData->nSize > sizeof(FILE_MAGIC));
  }

  void MendObjects() {
    bool bNewestLacks = false;
    for (const Segment& One : m_Chain) {
      const bool bNewest = One.nNumber == m_Chain.back().nNumber;
      const bool bEmpty = One.nSize <= sizeof(tPLAINDB_HEADER);
      if (bNewest && bEmpty && !HasNames(One.nNumber)) continue;  // only begun: the component takes it up again
      if (!bNewest && One.nSize < sizeof(tPLAINDB_HEADER) && HasNames(One.nNumber))
        Report(SegmentFileName(One.nNumber, kEventsFile), "its events are lost");
      const bool bLacks = !IsWhole(One.nNumber);
      if (bLacks) CreateObjectFiles(One.nNumber, "it is missing; an empty one keeps the segment's events readable");
      const ObjectFileNames Names = NamesOf(One.nNumber);
      LookAtObjectHeads(m_Folder, m_Files, Names, m_pPlan);
      const bool bLooksAtEnd = bNewest || m_Wanted.bThorough;
      const bool bEndLost = bLooksAtEnd && LookAtDataEnd(m_Folder, m_Files, Names, m_pPlan);
      bNewestLacks = bNewest && (bLacks || bEndLost || IsTorn(One));
      if (m_Wanted.bThorough) LookAtTree(m_Folder, m_Files, Names, m_pPlan);
    }
    // Segments that have lost their events, behind the last that has some.
    std::uint32_t nLast = m_Chain.back().nNumber;
    for (const auto& One : m_Files.Files()) {
      constexpr std::uint32_t kFew = 16;
      const std::uint32_t nNumber = NumberOfSegmentFile(One.first);
      const bool bNear = nNumber > nLast && nNumber <= m_Chain.back().nNumber + kFew;
      if (bNear && HasNames(nNumber) && !m_Files.Has(SegmentFileName(nNumber, kEventsFile))) nLast = nNumber;
    }
    const bool bLostEvents = nLast != m_Chain.back().nNumber;
    for (std::uint32_t nNumber = m_Chain.back().nNumber + 1; nNumber <= nLast; ++nNumber)
      StartSegment(nNumber, kLostEvents);
    if (bLostEvents || bNewestLacks) StartSegment(nLast + 1, kSuccessor);
  }

  // Of the newest segment something is lost: it must not give the ids of that to others.
  static constexpr char kLostEvents[] = "its events are lost; an empty file keeps its names readable";
  static constexpr char kSuccessor[] = "a new segment, so that ids of what is lost are given to no others";

  void StartSegment(std::uint32_t nNumber, const char* pWhy) {
    if (nNumber >= kSegmentNumberLimit) return;
    CreateObjectFiles(nNumber, pWhy);
    Create(SegmentFileName(nNumber, kEventsFile), EventsHead(m_nEventSize), pWhy);
  }

  void CreateObjectFiles(std::uint32_t nNumber, const char* pWhy) {
    for (const std::u16string_view Name : kObjectFiles) {
      const std::u16string File = SegmentFileName(nNumber, Name);
      if (!m_Files.Has(File)) Create(File, {}, pWhy);
    }
  }

  static ObjectFileNames NamesOf(std::uint32_t nNumber) {
    return {SegmentFileName(nNumber, kIdsFile), SegmentFileName(nNumber, kTreeFile),
            SegmentFileName(nNumber, kDataFile)};
  }

  // Whether the last event or the last id record is not whole.
  bool IsTorn(const Segment& Of) {
    return !Fits(Of, m_nEventSize) || !HasWholeRecords(m_Files, SegmentFileName(Of.nNumber, kIdsFile));
  }

  // ---- "segments.dat" ----

  void MendStart() {
    const std::string Wanted = EncodeSegments(m_Chain.front().nNumber, m_nEventSize);
    if ((m_bLeads && !m_bFirstMoved) || m_Header == Wanted) return;
    const char* const pFound = m_bFirstMoved   ? "leads behind whole segments"
                               : m_bHeaderGood ? "leads nowhere"
                                               : "is damaged or missing";
    PutHeader(Wanted, "it " + std::string(pFound) + "; the chain starts at segment " +
                          std::to_string(m_Chain.front().nNumber) + " again");
  }

  // No segment is left. The component would begin at 1 again, and give ids that were given; where the first one has
  // names, it has lost its events.
  void MendNothingLeft() {
    if (!m_bHeaderGood || m_nFirst == 0) return;
    if (HasNames(m_nFirst)) {
      StartSegment(m_nFirst, kLostEvents);
      StartSegment(m_nFirst + 1, kSuccessor);
    } else if (m_nFirst > 1) {
      StartSegment(m_nFirst, "no segment is left; an empty one keeps the ids of lost events from coming back");
    }
  }

  void PutHeader(const std::string& Wanted, const std::string& Why) {
    if (!m_Files.Has(kSegmentsFile)) return Create(kSegmentsFile, Wanted, Why);
    Add(Step::Kind::Patch, kSegmentsFile, m_Header, Wanted, Why);
  }

  // ---- Steps ----

  void Create(const std::u16string& File, const std::string& Content, const std::string& Why) {
    Add(Step::Kind::Create, File, {}, Content, Why);
  }
  void Report(const std::u16string& File, const std::string& Why) { Add(Step::Kind::Report, File, {}, {}, Why); }
  void Add(Step::Kind What, const std::u16string& File, const std::string& Before, const std::string& After,
           const std::string& Why) {
    m_pPlan->Steps.push_back({What, m_Folder, File, 0, Before, After, Why});
  }

  const std::u16string& m_Folder;
  FolderView& m_Files;
  const Wishes m_Wanted;
  Plan* m_pPlan;
  std::string m_Header;  // of "segments.dat"
  bool m_bHeaderGood = false;
  bool m_bLeads = false;       // the header leads to a segment that is there
  bool m_bFirstMoved = false;  // to one below, for which a bit of the header has turned
  std::uint32_t m_nFirst = 0;
  std::uint32_t m_nEventSize = 0;  // 0 while it is not known
  std::vector<Segment> m_Segments;
  std::vector<salvage::Run> m_Runs;
  std::size_t m_nChain = 0;  // among the runs
  salvage::Run m_Chain;
};

}  // namespace

bool HasEvents(const FolderView& Files) {
  return std::ranges::any_of(Files.Files(), [](const auto& One) {
    return IsEventsFileName(One.first) && One.second.nSize > sizeof(tPLAINDB_HEADER);
  });
}

void LookAtDatabase(const std::u16string& Folder, FolderView& Files, const Wishes& Wanted, Plan* pPlan) {
  DatabaseLook(Folder, Files, Wanted, pPlan).Run();
}

}  // namespace lumbra::salvage
