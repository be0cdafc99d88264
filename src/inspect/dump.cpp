#include "inspect/dump.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "format/data_crc.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/segments_file.h"
#include "format/tree_file.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "inspect/file.h"
#include "inspect/paged.h"
#include "lumbra/lumbra.h"

namespace lumbra::inspect {
namespace {

enum class Kind { Unknown, Events, Ids, Tree, Data, Segments, Index, Identity, Text };

constexpr const char* kKinds[] = {"no file of a store",
                                  "events",
                                  "id records",
                                  "a hash tree",
                                  "names and data",
                                  "where the chain of segments starts",
                                  "names of databases",
                                  "the id of the database",
                                  "a text"};

const char* NameOf(Kind Of) {
  return kKinds[static_cast<int>(Of)];
}

std::string Hex(std::uint64_t nNumber, int nDigits = 0) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string Text;
  for (; nNumber != 0 || Text.empty() || static_cast<int>(Text.size()) < nDigits; nNumber >>= 4)
    Text.insert(Text.begin(), kDigits[nNumber & 15]);
  return "0x" + Text;
}

std::string HexBytes(std::span<const std::uint8_t> Bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string Text;
  for (const std::uint8_t nByte : Bytes) {
    if (!Text.empty()) Text += ' ';
    Text += kDigits[nByte >> 4];
    Text += kDigits[nByte & 15];
  }
  return Text;
}

std::string Quoted(std::string_view Text) {
  const std::string Shown = host::Printable(Text);
  return Shown.starts_with('"') ? Shown : '"' + Shown + '"';
}

// ---- What a file is -----------------------------------------------------------------------------------------

std::u16string_view WithoutNumber(std::u16string_view Name) {
  return NumberOfSegmentFile(Name) != 0 ? Name.substr(kSegmentPrefixLength) : Name;
}

Kind KindOfName(std::u16string_view Name) {
  if (Name.ends_with(kHealingEnding)) Name.remove_suffix(kHealingEnding.size());
  const std::u16string_view OfSegment = WithoutNumber(Name);
  const auto Is = [&](auto... Names) {
    return ((Name == Names || (OfSegment != Name && OfSegment == Names)) || ...);
  };
  if (Is(kEventsFile)) return Kind::Events;
  if (Is(kIdsFile, kSharedIdsFile, kCompactedIdsFile)) return Kind::Ids;
  if (Is(kTreeFile, kSharedTreeFile)) return Kind::Tree;
  if (Is(kDataFile, kSharedDataFile, kCompactedDataFile)) return Kind::Data;
  if (Is(kSegmentsFile)) return Kind::Segments;
  if (Is(kIndexFile)) return Kind::Index;
  if (Is(kIdentityFile)) return Kind::Identity;
  if (Is(kReplacingFile) || Name.ends_with(u".schema") || Name.ends_with(u".json")) return Kind::Text;
  return Kind::Unknown;
}

bool StartsWith(std::string_view Head, const char (&Magic)[4]) {
  return Head.starts_with(std::string_view(Magic, sizeof(Magic)));
}

Kind KindOfHead(std::string_view Head) {
  if (StartsWith(Head, kRecordMagic) || StartsWith(Head, kCheckedRecordMagic)) {
    std::uint32_t nRecord = 0;
    if (Head.size() >= sizeof(tPLAINDB_HEADER))
      std::memcpy(&nRecord, Head.data() + offsetof(tPLAINDB_HEADER, nRecordSize), sizeof(nRecord));
    const bool bChecked = StartsWith(Head, kCheckedRecordMagic);
    return bChecked || nRecord == sizeof(tODB_ID_ENTRY) ? Kind::Ids : Kind::Events;
  }
  if (StartsWith(Head, kTreeMagic) || StartsWith(Head, kCheckedTreeMagic)) return Kind::Tree;
  if (StartsWith(Head, kSegmentsMagic)) return Kind::Segments;
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (StartsWith(Head, Known.Magic)) return Kind::Data;
  }
  for (const IndexBlock& Known : {kIndexSignature, kCorruptedIndexSignature}) {
    if (Head == std::string_view(Known.data(), Known.size())) return Kind::Index;
  }
  return Kind::Unknown;
}

// The name of the file of another kind that belongs to the same object store; empty where that cannot be told.
std::u16string Beside(std::u16string_view Name, Kind Wanted) {
  const std::u16string_view OfSegment = WithoutNumber(Name);
  const char16_t* const pName = Wanted == Kind::Ids ? kIdsFile : kDataFile;
  if (OfSegment != Name) return std::u16string(Name.substr(0, kSegmentPrefixLength)) + pName;
  if (Name == kCompactedIdsFile || Name == kCompactedDataFile)
    return Wanted == Kind::Ids ? kCompactedIdsFile : kCompactedDataFile;
  if (Name == kSharedIdsFile || Name == kSharedTreeFile || Name == kSharedDataFile)
    return Wanted == Kind::Ids ? kSharedIdsFile : kSharedDataFile;
  return {};
}

// ---- Reading ------------------------------------------------------------------------------------------------

class Stream {
 public:
  static constexpr std::uint32_t kSize = 128 * 1024;
  static constexpr std::uint32_t kLittle = 4 * 1024;

  os::SystemError Open(const os::FolderHandle& pFolder, std::u16string_view Name) {
    os::FileLook Found{};
    os::SystemError nError = File::Open(pFolder, Name, &m_pFile);
    if (nError == os::kSuccess) nError = m_pFile->Look(&Found);
    m_nSize = Found.nSize;
    return nError;
  }

  std::uint64_t Size() const { return m_nSize; }
  os::SystemError Error() const { return m_nError; }

  // At most kSize; fewer at the file's end, and where the system refuses.
  std::span<const std::uint8_t> Get(std::uint64_t nOffset, std::uint64_t nWanted) {
    const auto nSize = static_cast<std::uint32_t>(std::min<std::uint64_t>(nWanted, kSize));
    if (nOffset < m_nStart || nOffset + nSize > m_nStart + m_nValid) {
      if (m_Bytes == nullptr) m_Bytes.reset(new std::uint8_t[kSize]);
      // What jumps about reads little.
      const bool bGoesOn = nOffset >= m_nStart && nOffset <= m_nStart + m_nValid;
      const std::uint32_t nPiece = bGoesOn ? kSize : std::max(nSize, kLittle);
      m_nStart = nOffset;
      m_nValid = 0;
      const os::SystemError nError = m_pFile->Read(nOffset, m_Bytes.get(), nPiece, &m_nValid);
      if (nError != os::kSuccess) m_nError = nError;
    }
    const auto nBehind = static_cast<std::uint32_t>(nOffset - m_nStart);
    return {m_Bytes.get() + nBehind, std::min(nSize, m_nValid - nBehind)};
  }

  template <class Record>
  bool Get(std::uint64_t nOffset, Record* pRecord) {
    const std::span<const std::uint8_t> Bytes = Get(nOffset, sizeof(Record));
    if (Bytes.size() == sizeof(Record)) std::memcpy(pRecord, Bytes.data(), sizeof(Record));
    return Bytes.size() == sizeof(Record);
  }

 private:
  std::unique_ptr<File> m_pFile;
  std::uint64_t m_nSize = 0;
  std::unique_ptr<std::uint8_t[]> m_Bytes;
  std::uint64_t m_nStart = 0;
  std::uint32_t m_nValid = 0;
  os::SystemError m_nError = os::kSuccess;
};

// ---- Words --------------------------------------------------------------------------------------------------

class Dumper {
 public:
  Dumper(const os::FolderHandle& pFolder, std::u16string_view Name, const DumpRequest& What)
      : m_pFolder(pFolder), m_Name(Name), m_What(What) {}

  os::SystemError Run(bool* pbSound) {
    if (const os::SystemError nError = m_From.Open(m_pFolder, m_Name); nError != os::kSuccess) return nError;
    const std::span<const std::uint8_t> Bytes = m_From.Get(0, kIndexBlockSize);
    const std::string_view Head(reinterpret_cast<const char*>(Bytes.data()), Bytes.size());
    const Kind ByName = KindOfName(m_Name);
    Kind ByHead = KindOfHead(Head);
    // Events of their size begin like id records.
    if (ByName == Kind::Events && ByHead == Kind::Ids && StartsWith(Head, kRecordMagic)) ByHead = Kind::Events;
    const bool bHasMagic = ByName != Kind::Identity && ByName != Kind::Text;
    const Kind Of = ByHead != Kind::Unknown && bHasMagic ? ByHead : ByName;
    Print(host::Printable(host::ToUtf8(m_Name)) + ": " + NameOf(Of) + ", " + std::to_string(m_From.Size()) + " bytes");
    if (ByName != Kind::Unknown && bHasMagic && ByHead == Kind::Unknown && m_From.Size() >= 4)
      Contradict(0, "its first bytes are not those of " + std::string(NameOf(ByName)));
    if (ByName != Kind::Unknown && ByName != Of) Contradict(0, std::string("its name is that of ") + NameOf(ByName));
    Show(Of);
    if (m_From.Error() != os::kSuccess) Contradict(0, "the system refuses to read some of it");
    *pbSound = m_bSound;
    return os::kSuccess;
  }

 private:
  void Show(Kind Of) {
    switch (Of) {
      case Kind::Events:
        return ShowEvents();
      case Kind::Ids:
        return ShowIds();
      case Kind::Tree:
        return ShowTree();
      case Kind::Data:
        return ShowData();
      case Kind::Segments:
        return ShowSegments();
      case Kind::Index:
        return ShowIndex();
      case Kind::Identity:
        return ShowIdentity();
      case Kind::Text:
        return ShowText();
      case Kind::Unknown:
        return ShowBytes(0);
    }
  }

  // ---- Lines

  void Print(const std::string& Line) { m_bGoesOn = m_bGoesOn && m_What.Print(Line); }

  void Say(std::uint64_t nOffset, const std::string& Words) {
    std::string Place = std::to_string(nOffset);
    Place.insert(0, Place.size() < 10 ? 10 - Place.size() : 0, ' ');
    Print(Place + "  " + Words);
  }

  void Contradict(std::uint64_t nOffset, const std::string& Words) {
    m_bSound = false;
    Say(nOffset, "!! " + Words);
  }

  // A field that can have one value.
  void SayOnly(std::uint64_t nOffset, const std::string& Words, std::uint64_t nFound, std::uint64_t nExpected) {
    Say(nOffset, Words + std::to_string(nFound));
    if (nFound != nExpected) Contradict(nOffset, "it should be " + std::to_string(nExpected));
  }

  void SayMagic(const char (&Magic)[4], const std::string& Meaning) {
    Say(0, "magic " + Quoted({Magic, sizeof(Magic)}) + (Meaning.empty() ? "" : ": " + Meaning));
  }

  void SayShort(std::size_t nHead) {
    Contradict(m_From.Size(), "it ends within its header of " + std::to_string(nHead) + " bytes");
    ShowBytes(0);
  }

  // Bytes that mean nothing, 16 a line; the same ones again and again are told once.
  void ShowBytes(std::uint64_t nFrom) {
    std::vector<std::uint8_t> Before;
    std::uint64_t nSame = 0;
    for (std::uint64_t nAt = nFrom; nAt < m_From.Size() && m_bGoesOn;) {
      const std::span<const std::uint8_t> Bytes = m_From.Get(nAt, kLine);
      if (Bytes.empty()) return;
      if (Bytes.size() == kLine && std::ranges::equal(Bytes, Before)) {
        ++nSame;
      } else {
        SaySame(&nSame);
        Before.assign(Bytes.begin(), Bytes.end());
        std::string Line = HexBytes(Bytes);
        Line.resize(3 * kLine, ' ');
        for (const std::uint8_t nByte : Bytes) Line += nByte >= 0x20 && nByte < 0x7F ? static_cast<char>(nByte) : '.';
        Say(nAt, Line);
      }
      nAt += Bytes.size();
    }
    SaySame(&nSame);
  }

  void SaySame(std::uint64_t* pnSame) {
    if (*pnSame != 0) Print("            the same " + std::to_string(*pnSame) + " times more");
    *pnSame = 0;
  }

  // ---- Record files

  std::optional<tPLAINDB_HEADER> ShowRecordHead() {
    tPLAINDB_HEADER Head{};
    if (!m_From.Get(0, &Head)) {
      SayShort(sizeof(Head));
      return {};
    }
    const bool bChecked = std::memcmp(Head.Magic, kCheckedRecordMagic, sizeof(Head.Magic)) == 0;
    SayMagic(Head.Magic, bChecked ? "each record ends with its CRC" : "records without CRCs");
    SayOnly(offsetof(tPLAINDB_HEADER, nHeaderSize), "header size ", Head.nHeaderSize, sizeof(Head));
    return Head;
  }

  void ShowEvents() {
    const std::optional<tPLAINDB_HEADER> Head = ShowRecordHead();
    if (!Head) return;
    const std::uint64_t nSize = Head->nRecordSize;
    Say(offsetof(tPLAINDB_HEADER, nRecordSize), "bytes of each event " + std::to_string(nSize));
    if (nSize == 0) return Contradict(offsetof(tPLAINDB_HEADER, nRecordSize), "events have a size");
    const std::uint64_t nCount = RecordCountOfSize(m_From.Size(), Head->nRecordSize);
    std::uint64_t nAt = sizeof(*Head);
    for (std::uint64_t i = 0; i < nCount && m_bGoesOn; ++i, nAt += nSize) {
      const std::span<const std::uint8_t> Event = m_From.Get(nAt, nSize);
      if (Event.empty()) return;
      const std::size_t nShown = std::min<std::size_t>(Event.size(), kMostOfAnEvent);
      std::string Line = "event ";
      Line.append(std::to_string(i)).append(": ").append(HexBytes(Event.first(nShown)));
      if (nShown < nSize) Line.append(" ... ").append(std::to_string(nSize - nShown)).append(" more");
      const std::string Words = m_What.DescribeEvent != nullptr ? m_What.DescribeEvent(Event) : "";
      if (!Words.empty()) Line.append("  ").append(Words);
      Say(nAt, Line);
    }
    if (nAt < m_From.Size())
      Say(nAt, "a torn event of " + std::to_string(m_From.Size() - nAt) + " bytes, which the next one overwrites");
  }

  void ShowIds() {
    const std::optional<tPLAINDB_HEADER> Head = ShowRecordHead();
    if (!Head) return;
    const bool bChecked = std::memcmp(Head->Magic, kCheckedRecordMagic, sizeof(Head->Magic)) == 0;
    const std::uint32_t nStored = sizeof(tODB_ID_ENTRY) + (bChecked ? kCrcSize : 0);
    SayOnly(offsetof(tPLAINDB_HEADER, nRecordSize), "bytes of each record ", Head->nRecordSize, nStored);
    const std::uint64_t nCount = RecordCountOfSize(m_From.Size(), nStored);
    std::uint64_t nAt = sizeof(*Head);
    if (nCount != 0)
      Print(
          "            of each: hash at 0, parent at 8, name at 16, its size at 20, flags at 22, type at 23, data at 24, "
          "blocks at 28" +
          std::string(bChecked ? ", CRC at 29" : ""));
    for (std::uint64_t i = 1; i <= nCount && m_bGoesOn; ++i, nAt += nStored) {
      const std::span<const std::uint8_t> Bytes = m_From.Get(nAt, nStored);
      if (Bytes.size() < nStored) return;
      tODB_ID_ENTRY Record{};
      std::memcpy(&Record, Bytes.data(), sizeof(Record));
      Say(nAt, "object " + std::to_string(i) + ": " + Describe(Record));
      if (bChecked && !DataCrc().Valid(0, Bytes.data(), sizeof(Record), Bytes.data() + sizeof(Record)))
        Contradict(nAt + sizeof(Record), "the CRC should be " + Hex(DataCrc().Of(0, Bytes.data(), sizeof(Record)), 8));
    }
    if (nAt < m_From.Size())
      Say(nAt, "a torn record of " + std::to_string(m_From.Size() - nAt) + " bytes, which the next one overwrites");
  }

  static std::string Describe(const tODB_ID_ENTRY& Record) {
    std::string Words = Record.nObjectHash == 0              ? "no hash"
                        : Record.nObjectHash == kInvalidHash ? "left nameless by compaction"
                                                             : "hash " + Hex(Record.nObjectHash, 16);
    Words += Record.nParentId == 0 ? ", no parent" : ", parent " + Hex(Record.nParentId);
    Words += ", type " + std::to_string(Record.nType);
    if (Record.nNameSize == 0) {
      Words += ", no name";
    } else {
      Words += ", name at " + std::to_string(Record.nName) + ", " + std::to_string(Record.nNameSize) +
               ((Record.nFlags & fObjUtf8) != 0 ? " bytes of UTF-8" : " bytes of UTF-16");
    }
    if ((Record.nFlags & ~fObjUtf8) != 0) Words += ", flags " + Hex(Record.nFlags);
    if (Record.nDataEntriesCount == 0) return Words + ", no data";
    return Words + ", data at " + std::to_string(Record.nDataEntriesOffset) + ", " +
           std::to_string(Record.nDataEntriesCount) + (Record.nDataEntriesCount == 1 ? " block" : " blocks");
  }

  // ---- The tree

  // Whether the CRCs of the store have seeds; nothing where the file that tells it is not there.
  std::optional<bool> IsSeeded() const {
    std::string Magic;
    const std::u16string Data = Beside(m_Name, Kind::Data);
    if (Data.empty() || ReadSmall(m_pFolder, Data, sizeof(FILE_MAGIC), &Magic) != os::kSuccess) return {};
    const FILE_MAGIC& Seeded = MagicOf(kCheckedFeatures);
    return Magic == std::string_view(Seeded, sizeof(Seeded));
  }

  void ShowTree() {
    tODB_BT_HEADER Head{};
    if (!m_From.Get(0, &Head)) return SayShort(sizeof(Head));
    m_bNodeCrcs = std::memcmp(Head.Magic, kCheckedTreeMagic, sizeof(Head.Magic)) == 0;
    m_Seeded = IsSeeded();
    SayMagic(Head.Magic, m_bNodeCrcs ? "each node ends with its CRC" : "nodes without CRCs");
    Say(4, "the root is at " + std::to_string(Head.nFirstNodeOffset) +
               (Head.nFirstNodeOffset == 0 ? ": the tree is being filled, and not used before that is done" : ""));
    if (Head.nFirstNodeOffset != 0 && Head.nFirstNodeOffset != FirstNodeOffset) Contradict(4, "it should be 16");
    Say(8, "bytes in use " + std::to_string(Head.nDBSize));
    if (Head.nDBSize != m_From.Size()) Contradict(8, "the file has " + std::to_string(m_From.Size()));
    ShowNode(FirstNodeOffset, 0, 0);
  }

  // It and those below it, as deep as a hash has digits.
  void ShowNode(std::uint32_t nOffset, std::uint32_t nParent, std::uint32_t nLevel) {
    const std::uint32_t nSlots = SlotsOnLevel(nLevel);
    const auto nSlotsSize = static_cast<std::uint32_t>(nSlots * sizeof(tODB_BT_OFFSET));
    const std::uint32_t nSize = nSlotsSize + (m_bNodeCrcs ? kCrcSize : 0);
    for (std::uint32_t nAt = nOffset; nAt < nOffset + nSize; nAt += sizeof(tODB_BT_OFFSET)) {
      if (m_Shown.Set(nAt / sizeof(tODB_BT_OFFSET))) return Contradict(nOffset, "this node lies over another one");
    }
    const std::span<const std::uint8_t> Bytes = m_From.Get(nOffset, nSize);
    if (Bytes.size() < nSize) return Contradict(nOffset, "this node lies behind the end");
    std::array<tODB_BT_OFFSET, kRootSlots> Slots{};
    std::memcpy(Slots.data(), Bytes.data(), nSlotsSize);
    Say(nOffset, "node on level " + std::to_string(nLevel) + ", " + std::to_string(nSlots) + " slots" +
                     (nLevel == 0 ? "" : ", below the one at " + std::to_string(nParent)));
    CheckNode(Bytes, nOffset, nParent, nSlotsSize);
    for (std::uint32_t i = 0; i < nSlots && m_bGoesOn; ++i) {
      if (Slots[i] != 0) ShowSlot(nOffset, i, Slots[i], nLevel);
    }
    for (std::uint32_t i = 0; i < nSlots && m_bGoesOn; ++i) {
      if (IsChild(Slots[i]) && IsNode(Slots[i] & ~kChildBit, nLevel))
        ShowNode(Slots[i] & ~kChildBit, nOffset, nLevel + 1);
    }
  }

  void CheckNode(std::span<const std::uint8_t> Bytes, std::uint32_t nOffset, std::uint32_t nParent,
                 std::uint32_t nSlotsSize) {
    if (!m_bNodeCrcs) return;
    const auto IsRight = [&](bool bSeeded) {
      return DataCrc(bSeeded).Valid(nParent, Bytes.data(), nSlotsSize, Bytes.data() + nSlotsSize);
    };
    if (m_Seeded ? !IsRight(*m_Seeded) : !IsRight(false) && !IsRight(true))
      Contradict(nOffset + nSlotsSize,
                 "the CRC should be " + Hex(DataCrc(m_Seeded.value_or(true)).Of(nParent, Bytes.data(), nSlotsSize), 8));
  }

  static bool IsNode(std::uint32_t nOffset, std::uint32_t nLevel) {
    return nLevel < kMaxTreeLevel && nOffset > FirstNodeOffset && nOffset % sizeof(tODB_BT_OFFSET) == 0;
  }

  void ShowSlot(std::uint32_t nOffset, std::uint32_t nSlot, tODB_BT_OFFSET nEntry, std::uint32_t nLevel) {
    const std::uint64_t nAt = nOffset + std::uint64_t{nSlot} * sizeof(nEntry);
    const std::uint32_t nChild = nEntry & ~kChildBit;
    Say(nAt, "  slot " + Hex(nSlot) + ": " +
                 (IsChild(nEntry) ? "the node at " + std::to_string(nChild) : "object " + std::to_string(nEntry)));
    if (IsChild(nEntry) && !IsNode(nChild, nLevel)) Contradict(nAt, "no node can be there");
  }

  // ---- Names and data

  void ShowData() {
    FILE_MAGIC Magic{};
    if (!m_From.Get(0, &Magic)) return SayShort(sizeof(Magic));
    const auto Known = std::ranges::find_if(
        kFeatureMagics, [&](const FeatureMagic& One) { return std::memcmp(One.Magic, Magic, sizeof(Magic)) == 0; });
    m_nFeatures = Known == std::end(kFeatureMagics) ? kPlainFeatures : Known->nFeatures;
    m_Crc = DataCrc(Has(featureNameCrc));
    SayMagic(Magic, DescribeFeatures());
    const std::u16string Ids = Beside(m_Name, Kind::Ids);
    tPLAINDB_HEADER Head{};
    if (Ids.empty() || m_Ids.Open(m_pFolder, Ids) != os::kSuccess || !m_Ids.Get(0, &Head)) {
      Print("            without the id records beside it nobody knows what is what");
      return ShowBytes(sizeof(Magic));
    }
    const bool bChecked = std::memcmp(Head.Magic, kCheckedRecordMagic, sizeof(Head.Magic)) == 0;
    const std::uint32_t nStored = sizeof(tODB_ID_ENTRY) + (bChecked ? kCrcSize : 0);
    Print("            in the order of the id records in " + host::Printable(host::ToUtf8(Ids)));
    for (std::uint64_t i = 1; i <= RecordCountOfSize(m_Ids.Size(), nStored) && m_bGoesOn; ++i) {
      tODB_ID_ENTRY Record{};
      if (!m_Ids.Get(sizeof(Head) + (i - 1) * nStored, &Record)) return;
      ShowObject(static_cast<std::uint32_t>(i), Record);
    }
  }

  bool Has(std::uint32_t nFeature) const { return (m_nFeatures & nFeature) != 0; }

  std::string DescribeFeatures() const {
    std::string Words = Has(featureMask) ? "masked data" : "data as it is";
    if (Has(featureNameCrc)) return Words + ", every CRC, with seeds";
    if (Has(featureArrayCrc)) return Words + ", CRCs of data and of its tables";
    return Words + (Has(featureBlockCrc) ? ", CRCs of data" : ", no CRCs");
  }

  // False where a part of it lies outside of the file.
  bool IsInFile(std::uint64_t nOffset, std::uint64_t nSize, const std::string& Words) {
    if (nOffset >= sizeof(FILE_MAGIC) && nOffset + nSize <= m_From.Size()) return true;
    Contradict(nOffset, Words + ", " + std::to_string(nSize) + " bytes, lies outside of the file");
    return false;
  }

  void ShowObject(std::uint32_t nShortId, const tODB_ID_ENTRY& Record) {
    const std::string Of = " of object " + std::to_string(nShortId);
    const std::uint32_t nNameCrc = Has(featureNameCrc) ? kCrcSize : 0;
    if (Record.nNameSize != 0 && IsInFile(Record.nName, Record.nNameSize + nNameCrc, "the name" + Of)) {
      const std::span<const std::uint8_t> Bytes = m_From.Get(Record.nName, Record.nNameSize + nNameCrc);
      if (Bytes.size() < Record.nNameSize + nNameCrc) return;
      Say(Record.nName, "name" + Of + ": " + NameIn(Bytes.first(Record.nNameSize), Record.nFlags));
      if (nNameCrc != 0) CheckCrc(Record.nName, Record.nObjectHash, Bytes.data(), Record.nNameSize);
    }
    if (Record.nDataEntriesCount == 0) return;
    const std::uint32_t nSize = Record.nDataEntriesCount * std::uint32_t{sizeof(tODB_DATA_ENTRY)};
    const std::uint32_t nCrc = Has(featureArrayCrc) ? kCrcSize : 0;
    if (!IsInFile(Record.nDataEntriesOffset, nSize + nCrc, "the table of data" + Of)) return;
    const std::span<const std::uint8_t> Bytes = m_From.Get(Record.nDataEntriesOffset, nSize + nCrc);
    if (Bytes.size() < nSize + nCrc) return;
    Say(Record.nDataEntriesOffset, "table of data" + Of);
    if (nCrc != 0) CheckCrc(Record.nDataEntriesOffset, nShortId, Bytes.data(), nSize);
    std::vector<tODB_DATA_ENTRY> Entries(Record.nDataEntriesCount);
    std::memcpy(Entries.data(), Bytes.data(), nSize);
    for (std::size_t i = 0; i < Entries.size() && m_bGoesOn; ++i)
      ShowEntry(Record.nDataEntriesOffset + i * sizeof(tODB_DATA_ENTRY), nShortId, Entries[i]);
  }

  static std::string NameIn(std::span<const std::uint8_t> Bytes, std::uint8_t nFlags) {
    if ((nFlags & fObjUtf8) != 0) return Quoted({reinterpret_cast<const char*>(Bytes.data()), Bytes.size()});
    std::u16string Wide(Bytes.size() / sizeof(char16_t), u'\0');
    std::memcpy(Wide.data(), Bytes.data(), Wide.size() * sizeof(char16_t));
    return Quoted(host::NameToBytes(Wide)) + " (UTF-16)";
  }

  void CheckCrc(std::uint64_t nOffset, std::uint64_t nSeed, const std::uint8_t* pBytes, std::uint32_t nSize) {
    if (!m_Crc.Valid(nSeed, pBytes, nSize, pBytes + nSize))
      Contradict(nOffset + nSize, "the CRC should be " + Hex(m_Crc.Of(nSeed, pBytes, nSize), 8));
  }

  void ShowEntry(std::uint64_t nAt, std::uint32_t nShortId, const tODB_DATA_ENTRY& Entry) {
    const DataSize Sizes = DataSize::Decode(Entry.nDataSize);
    Say(nAt, "  key " + Hex(Entry.nDataType) + ": at " + std::to_string(Entry.nDataOffset) + ", " +
                 std::to_string(Sizes.nStored) + " bytes stored, room for " + std::to_string(Sizes.nCapacity));
    if (Sizes.nStored > Sizes.nCapacity) Contradict(nAt, "there is less room than is stored");
    if (Sizes.nStored == 0 || !IsInFile(Entry.nDataOffset, Sizes.nStored, "  this block")) return;
    const std::uint32_t nCrc = Has(featureBlockCrc) ? kCrcSize : 0;
    if (Sizes.nStored < nCrc) return Contradict(nAt, "it is too short for its CRC");
    std::vector<std::uint8_t> Front;  // what is shown of it
    std::uint32_t nFound = m_Crc.Of(nShortId, nullptr, 0);
    std::uint8_t Stored[kCrcSize] = {};
    const std::uint32_t nUser = Sizes.nStored - nCrc;
    for (std::uint32_t nDone = 0; nDone < Sizes.nStored && m_bGoesOn;) {
      const std::span<const std::uint8_t> Bytes =
          m_From.Get(std::uint64_t{Entry.nDataOffset} + nDone, std::min(Sizes.nStored - nDone, kPiece));
      if (Bytes.empty()) return;
      std::vector<std::uint8_t> Piece(Bytes.begin(), Bytes.end());
      const auto nPiece = static_cast<std::uint32_t>(Piece.size());
      if (Has(featureMask)) MaskDataBlock(Piece.data(), nPiece);
      const std::uint32_t nCovered = nDone < nUser ? std::min(nPiece, nUser - nDone) : 0;
      nFound = Crc32(nFound, Piece.data(), nCovered);
      for (std::uint32_t i = nCovered; i < nPiece; ++i) Stored[nDone + i - nUser] = Piece[i];
      if (nDone == 0) Front.assign(Piece.begin(), Piece.begin() + std::min(nCovered, kMostOfABlock));
      if (nCrc == 0) break;  // only its front is shown
      nDone += nPiece;
    }
    Say(Entry.nDataOffset, "    " + HexBytes(Front) + (nUser > Front.size() ? " ..." : ""));
    if (nCrc != 0 && std::memcmp(&nFound, Stored, sizeof(nFound)) != 0)
      Contradict(std::uint64_t{Entry.nDataOffset} + nUser, "the CRC should be " + Hex(nFound, 8));
  }

  // ---- Small files

  void ShowSegments() {
    tSDB_HEADER Head{};
    if (!m_From.Get(0, &Head)) return SayShort(sizeof(Head));
    SayMagic(Head.nMagic, "");
    Say(4, "the oldest segment is " + (Head.nFirstSegment == 0 ? "none yet" : std::to_string(Head.nFirstSegment)));
    if (Head.nFirstSegment >= kSegmentNumberLimit) Contradict(4, "no segment has such a number");
    Say(8, "bytes of each event " + std::to_string(Head.nEventSize));
    if (Head.nEventSize == 0) Contradict(8, "events have a size");
    if (m_From.Size() > sizeof(Head)) Contradict(sizeof(Head), "nothing should follow");
  }

  void ShowIndex() {
    for (std::uint64_t nAt = 0; nAt < m_From.Size() && m_bGoesOn; nAt += kIndexBlockSize) {
      const std::span<const std::uint8_t> Bytes = m_From.Get(nAt, kIndexBlockSize);
      const std::string Block(Bytes.begin(), Bytes.end());
      const std::string Name = Block.substr(0, Block.find('\0'));
      const std::uint64_t nId = kFirstNamedDatabase + nAt / kIndexBlockSize - 1;
      Say(nAt, nAt == 0 ? Quoted(Name) : "database " + std::to_string(nId) + ": " + Quoted(Name));
      if (Block.size() < kIndexBlockSize) Contradict(nAt + Block.size(), "it ends within an item");
      if (nAt != 0 && (nId > kLastNamedDatabase || Name.empty())) Contradict(nAt, "this names no database");
    }
  }

  void ShowIdentity() {
    IdentityBytes Id{};
    if (!m_From.Get(0, &Id)) return SayShort(sizeof(Id));
    Say(0, "the database has the id " + std::to_string(DecodeIdentity(Id)));
    if (DecodeIdentity(Id) < kFirstNamedDatabase || DecodeIdentity(Id) > kLastNamedDatabase)
      Contradict(0, "no named database has such an id");
    if (m_From.Size() > sizeof(Id)) Contradict(sizeof(Id), "nothing should follow");
  }

  void ShowText() {
    for (std::uint64_t nAt = 0; nAt < m_From.Size() && m_bGoesOn;) {
      const std::span<const std::uint8_t> Bytes = m_From.Get(nAt, kMostOfALine);
      if (Bytes.empty()) return;
      const auto End = std::ranges::find(Bytes, std::uint8_t{'\n'});
      const std::string Line(Bytes.begin(), End);
      Say(nAt, host::Printable(Line));
      nAt += Line.size() + (End != Bytes.end() ? 1 : 0);
    }
  }

  static constexpr std::uint32_t kLine = 16;
  static constexpr std::uint32_t kMostOfAnEvent = 4096;
  static constexpr std::uint32_t kMostOfABlock = 32;
  static constexpr std::uint32_t kMostOfALine = 4096;
  static constexpr std::uint32_t kPiece = 64 * 1024;

  const os::FolderHandle m_pFolder;
  const std::u16string m_Name;
  const DumpRequest& m_What;
  Stream m_From;
  Stream m_Ids;
  bool m_bSound = true;
  bool m_bGoesOn = true;
  bool m_bNodeCrcs = false;
  std::optional<bool> m_Seeded;
  PagedBits m_Shown;  // of a tree, by 4 bytes
  std::uint32_t m_nFeatures = 0;
  DataCrc m_Crc;
};

}  // namespace

os::SystemError Dump(const os::FolderHandle& pFolder, std::u16string_view Name, const DumpRequest& What,
                     bool* pbSound) {
  return Dumper(pFolder, Name, What).Run(pbSound);
}

}  // namespace lumbra::inspect
