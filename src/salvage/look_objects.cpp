// The heads of an object store's files, each of which says whether the store has CRCs: so two of them tell what the
// third must be.
#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

#include "format/crc32.h"
#include "format/file_names.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/tree_file.h"
#include "salvage/look_parts.h"

namespace lumbra::salvage {
namespace {

template <class Record>
bool Get(const std::string& Bytes, Record* pRecord) {
  if (Bytes.size() < sizeof(Record)) return false;
  std::memcpy(pRecord, Bytes.data(), sizeof(Record));
  return true;
}

enum class Form { Unknown, Plain, Checked };

tPLAINDB_HEADER IdsHeader(Form Of) {
  tPLAINDB_HEADER Header{{}, sizeof(tPLAINDB_HEADER), sizeof(tODB_ID_ENTRY)};
  std::memcpy(Header.Magic, Of == Form::Checked ? kCheckedRecordMagic : kRecordMagic, sizeof(Header.Magic));
  if (Of == Form::Checked) Header.nRecordSize += kCrcSize;
  return Header;
}

tODB_BT_HEADER TreeHeader(Form Of, std::uint64_t nSize) {
  tODB_BT_HEADER Header{{}, FirstNodeOffset, nSize & ~std::uint64_t{3}};
  std::memcpy(Header.Magic, Of == Form::Checked ? kCheckedTreeMagic : kTreeMagic, sizeof(Header.Magic));
  return Header;
}

std::string DataMagic(Form Of) {
  const FILE_MAGIC& Magic = MagicOf(Of == Form::Checked ? kCheckedFeatures : kPlainFeatures);
  return {Magic, sizeof(Magic)};
}

Form FormOfIds(const std::string& Head) {
  for (const Form Known : {Form::Plain, Form::Checked}) {
    if (Head == BytesOf(IdsHeader(Known))) return Known;
  }
  return Form::Unknown;
}

// Whether the tree may be used is another matter: a first node at 0 says that it is being filled.
Form FormOfTree(const std::string& Head) {
  tODB_BT_HEADER Header{};
  if (!Get(Head, &Header)) return Form::Unknown;
  if (std::memcmp(Header.Magic, kTreeMagic, sizeof(kTreeMagic)) == 0) return Form::Plain;
  if (std::memcmp(Header.Magic, kCheckedTreeMagic, sizeof(kCheckedTreeMagic)) == 0) return Form::Checked;
  return Form::Unknown;
}

Form FormOfData(const std::string& Head) {
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (Head != std::string_view(Known.Magic, sizeof(Known.Magic))) continue;
    return (Known.nFeatures & featureNameCrc) != 0 ? Form::Checked : Form::Plain;
  }
  return Form::Unknown;
}

// A look at the three heads.
class Heads {
 public:
  Heads(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan)
      : m_Folder(Folder), m_Files(Files), m_Names(Names), m_pPlan(pPlan) {}

  void Look() {
    const std::string Ids = m_Files.Read(m_Names.Ids, 0, sizeof(tPLAINDB_HEADER));
    const std::string Tree = m_Files.Read(m_Names.Tree, 0, sizeof(tODB_BT_HEADER));
    const std::string Data = m_Files.Read(m_Names.Data, 0, sizeof(FILE_MAGIC));
    const Form OfIds = FormOfIds(Ids);
    const Form OfTree = FormOfTree(Tree);
    const Form OfData = FormOfData(Data);
    if (OfIds == Form::Unknown && OfTree == OfData) MendIds(Ids, OfTree);
    if (OfTree == Form::Unknown && OfIds == OfData) MendTree(Tree, OfIds);
    if (OfTree != Form::Unknown) MendRootPlace(Tree, OfTree, OfIds);
    if (OfData == Form::Unknown && OfIds == OfTree) MendData(Data, OfIds);
  }

 private:
  void MendIds(const std::string& Head, Form Of) {
    const FolderView::File* const pFile = m_Files.Find(m_Names.Ids);
    const tPLAINDB_HEADER Wanted = IdsHeader(Of);
    if (Of == Form::Unknown || pFile == nullptr || pFile->nSize < sizeof(Wanted)) return;
    if ((pFile->nSize - sizeof(Wanted)) % Wanted.nRecordSize != 0) return;
    Patch(m_Names.Ids, Head, BytesOf(Wanted), "its header contradicts the files beside it, and its records fit");
  }

  void MendTree(const std::string& Head, Form Of) {
    const FolderView::File* const pFile = m_Files.Find(m_Names.Tree);
    if (Of == Form::Unknown || pFile == nullptr || pFile->nSize < FirstNodeOffset + kRootSlots * sizeof(tODB_BT_OFFSET))
      return;
    Patch(m_Names.Tree, Head, BytesOf(TreeHeader(Of, pFile->nSize)), "its header contradicts the files beside it");
  }

  // The shared store's may stand at 0 while it is filled, where there are CRCs; no other tree is filled anew.
  void MendRootPlace(const std::string& Head, Form Of, Form OfIds) {
    tODB_BT_HEADER Header{};
    const FolderView::File* const pFile = m_Files.Find(m_Names.Tree);
    if (!Get(Head, &Header) || Header.nFirstNodeOffset == FirstNodeOffset) return;
    if (m_Folder.empty() && Header.nFirstNodeOffset == 0 && OfIds != Form::Plain) return;
    if (pFile->nSize < FirstNodeOffset + kRootSlots * sizeof(tODB_BT_OFFSET)) return;
    Patch(m_Names.Tree, Head, BytesOf(TreeHeader(Of, pFile->nSize)), "its header places the root elsewhere");
  }

  void MendData(const std::string& Head, Form Of) {
    if (Of == Form::Unknown || Head.size() != sizeof(FILE_MAGIC)) return;
    Patch(m_Names.Data, Head, DataMagic(Of), "its magic contradicts the files beside it");
  }

  void Patch(const std::u16string& File, const std::string& Before, const std::string& After, const char* pWhy) {
    m_pPlan->Steps.push_back({Step::Kind::Patch, m_Folder, File, 0, Before, After, pWhy});
  }

  const std::u16string& m_Folder;
  FolderView& m_Files;
  const ObjectFileNames& m_Names;
  Plan* m_pPlan;
};

}  // namespace

void LookAtObjectHeads(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan) {
  Heads(Folder, Files, Names, pPlan).Look();
}

namespace {

constexpr char kLostByOne[] = "an id record points behind its end, where new names will stand; put it back from a copy";
constexpr char kLostEnd[] = "its end is lost, where new names would be read out for old ones; put it back from a copy";

// The last id records of a store.
std::vector<tODB_ID_ENTRY> NewestRecords(FolderView& Files, const ObjectFileNames& Names, Form Of,
                                         std::uint64_t nMost) {
  const std::uint32_t nRecord = IdsHeader(Of).nRecordSize;
  const std::uint64_t nAll = (Files.Find(Names.Ids)->nSize - sizeof(tPLAINDB_HEADER)) / nRecord;
  const std::uint64_t nFirst = nAll > nMost ? nAll - nMost : 0;
  const std::string Bytes = Files.Read(Names.Ids, sizeof(tPLAINDB_HEADER) + nFirst * nRecord,
                                       static_cast<std::uint32_t>((nAll - nFirst) * nRecord));
  std::vector<tODB_ID_ENTRY> Records(Bytes.size() / nRecord);
  for (std::size_t i = 0; i < Records.size(); ++i)
    std::memcpy(&Records[i], Bytes.data() + i * nRecord, sizeof(Records[i]));
  return Records;
}

// What blocks have, by the magic of the data file, or where that is lost by the kind of the id file.
std::uint32_t FeaturesOf(FolderView& Files, const ObjectFileNames& Names, Form OfIds) {
  const std::string Magic = Files.Read(Names.Data, 0, sizeof(FILE_MAGIC));
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (Magic == std::string_view(Known.Magic, sizeof(Known.Magic))) return Known.nFeatures;
  }
  return OfIds == Form::Checked ? kCheckedFeatures : kPlainFeatures;
}

// What stood behind the end of a data file, by what the newest id records reach there.
class LostEnd {
 public:
  LostEnd(FolderView& Files, const ObjectFileNames& Names) : m_Files(Files), m_Names(Names) {
    m_Of = FormOfIds(Files.Read(Names.Ids, 0, sizeof(tPLAINDB_HEADER)));
    if (m_Of == Form::Unknown) return;
    m_nFeatures = FeaturesOf(Files, Names, m_Of);
    if (const FolderView::File* const pData = Files.Find(Names.Data)) m_nThere = pData->nSize;
    constexpr std::uint64_t kFew = 64;        // records, which a sound store costs
    constexpr std::uint64_t kMany = 1 << 15;  // where the oldest of these points behind the end, too
    List(kFew, false);
    if (!m_Records.empty()) List(m_Records.contains(0) ? kMany : kFew, true);
  }

  bool IsNone() const { return m_Records.empty(); }

  // What a single record says is believed where it begins at the end; in front of an array stands what it tells of. A
  // large loss is believed only with a name that begins there: that is short, so something else is lost behind it.
  // Otherwise that record is damaged itself.
  bool IsOneRecords() const { return m_Records.size() == 1 && !(IsLarge() ? m_bNameFollows : m_bFollows); }

  bool IsLarge() const { return m_nEnd > m_nThere + kMostLost; }

  // What takes its place: the magic, and zeros.
  std::string Filling() const {
    std::string Whole = m_nThere < sizeof(FILE_MAGIC) ? DataMagic(m_Of).substr(static_cast<std::size_t>(m_nThere)) : "";
    Whole.resize(static_cast<std::size_t>(m_nEnd - m_nThere));
    return Whole;
  }

 private:
  static constexpr std::uint64_t kMostLost = 1 << 20;  // bytes

  void List(std::uint64_t nMost, bool bBlocks) {
    m_Records.clear();
    const std::vector<tODB_ID_ENTRY> Records = NewestRecords(m_Files, m_Names, m_Of, nMost);
    for (std::size_t i = 0; i < Records.size(); ++i) {
      const tODB_ID_ENTRY& One = Records[i];
      if (One.nName != 0 && Note(i, One.nName, One.nNameSize, featureNameCrc)) m_bNameFollows |= BeginsThere(One.nName);
      if (One.nDataEntriesOffset == 0 || One.nDataEntriesCount == 0) continue;
      const std::uint32_t nSize = One.nDataEntriesCount * std::uint32_t{sizeof(tODB_DATA_ENTRY)};
      m_bFollows |= Note(i, One.nDataEntriesOffset, nSize, featureArrayCrc);
      if (bBlocks) NoteBlocks(i, m_Files.Read(m_Names.Data, One.nDataEntriesOffset, nSize));
    }
  }

  void NoteBlocks(std::size_t nRecord, const std::string& Entries) {
    for (std::size_t nAt = 0; nAt + sizeof(tODB_DATA_ENTRY) <= Entries.size(); nAt += sizeof(tODB_DATA_ENTRY)) {
      tODB_DATA_ENTRY Entry{};
      std::memcpy(&Entry, Entries.data() + nAt, sizeof(Entry));
      Note(nRecord, Entry.nDataOffset, DataSize::Decode(Entry.nDataSize).nCapacity, 0);  // its CRC is counted
    }
  }

  bool Note(std::size_t nRecord, std::uint64_t nStart, std::uint64_t nSize, std::uint32_t nCrc) {
    const std::uint64_t nEnd = nStart + nSize + ((m_nFeatures & nCrc) != 0 ? kCrcSize : 0);
    if (nEnd <= m_nThere) return false;
    m_Records.insert(nRecord);
    m_nEnd = std::max(m_nEnd, nEnd);
    m_bFollows |= BeginsThere(nStart);
    return true;
  }

  bool BeginsThere(std::uint64_t nStart) const {
    return nStart <= std::max<std::uint64_t>(m_nThere, sizeof(FILE_MAGIC));
  }

  FolderView& m_Files;
  const ObjectFileNames& m_Names;
  Form m_Of = Form::Unknown;
  std::uint32_t m_nFeatures = 0;
  std::uint64_t m_nThere = 0;
  std::uint64_t m_nEnd = 0;
  bool m_bFollows = false;
  bool m_bNameFollows = false;
  std::set<std::size_t> m_Records;
};

}  // namespace

bool LookAtDataEnd(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan) {
  const FolderView::File* const pData = Files.Find(Names.Data);
  if (pData == nullptr && !Folder.empty()) return false;  // of a segment it was made, and new names go elsewhere
  const LostEnd Lost(Files, Names);
  const auto Add = [&](Step::Kind What, const std::string& After, const char* pWhy) {
    pPlan->Steps.push_back({What, Folder, Names.Data, pData == nullptr ? 0 : pData->nSize, {}, After, pWhy});
  };
  if (Lost.IsNone()) return false;
  if (Lost.IsOneRecords() || Lost.IsLarge()) {
    Add(Step::Kind::Report, {}, Lost.IsOneRecords() ? kLostByOne : kLostEnd);
    return !Folder.empty() || !Lost.IsOneRecords();
  }
  Add(pData == nullptr ? Step::Kind::Create : Step::Kind::Patch, Lost.Filling(),
      "it is shorter than its newest names; zeros keep others from their place");
  return false;
}

namespace {

bool KnowsObjects(FolderView& Files, const std::u16string& Tree) {
  const std::string Slots = Files.Read(Tree, FirstNodeOffset, kRootSlots * sizeof(tODB_BT_OFFSET));
  return Slots.find_first_not_of('\0') != std::string::npos;
}

}  // namespace

void LookAtTree(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan) {
  if (KnowsObjects(Files, Names.Tree)) return;
  constexpr std::uint64_t kMany = 1 << 15;  // records among which an object with a name stands
  const Form Of = FormOfIds(Files.Read(Names.Ids, 0, sizeof(tPLAINDB_HEADER)));
  if (Of == Form::Unknown || !std::ranges::any_of(NewestRecords(Files, Names, Of, kMany), &IsInTree)) return;
  if (Files.Has(Names.Tree))
    pPlan->Steps.push_back(
        {.What = Step::Kind::SetAside, .Folder = Folder, .File = Names.Tree, .Why = "it finds none of the objects"});
  pPlan->Steps.push_back({.What = Step::Kind::Rebuild,
                          .Folder = Folder,
                          .File = Names.Tree,
                          .Why = "it is built anew from the id records"});
}

bool HasWholeRecords(FolderView& Files, const std::u16string& Ids) {
  const Form Of = FormOfIds(Files.Read(Ids, 0, sizeof(tPLAINDB_HEADER)));
  return Of != Form::Unknown && (Files.Find(Ids)->nSize - sizeof(tPLAINDB_HEADER)) % IdsHeader(Of).nRecordSize == 0;
}

namespace {

// The next object would take the place of a torn record, and its id. Zeros are a sound record of an object without a
// name; what is there of the old one might lead to the name of another.
void FillTornRecord(FolderView& Files, const std::u16string& Ids, Plan* pPlan) {
  const Form Of = FormOfIds(Files.Read(Ids, 0, sizeof(tPLAINDB_HEADER)));
  if (Of == Form::Unknown) return;
  const std::uint32_t nRecord = IdsHeader(Of).nRecordSize;
  const std::uint64_t nSize = Files.Find(Ids)->nSize;
  const auto nTorn = static_cast<std::uint32_t>((nSize - sizeof(tPLAINDB_HEADER)) % nRecord);
  if (nTorn == 0) return;
  pPlan->Steps.push_back({.What = Step::Kind::Patch,
                          .File = Ids,
                          .nOffset = nSize - nTorn,
                          .Before = Files.Read(Ids, nSize - nTorn, nTorn),
                          .After = std::string(nRecord, '\0'),
                          .Why = "its last record is torn; zeros fill it up, so that its id is given to no other"});
}

// Refuses the store as it is: what would be lost, or told wrong, is for a person to put back.
void Refuse(const std::u16string& File, const std::string& Why, Plan* pPlan) {
  pPlan->Steps.push_back({.File = File, .Why = Why});
  pPlan->Refusal = Describe(pPlan->Steps.back());
}

// What tells that shared objects were recorded, where their records are lost; "" for nothing.
std::string TraceOfRecords(FolderView& Files, const ObjectFileNames& Names) {
  const FolderView::File* const pData = Files.Find(Names.Data);
  if (pData != nullptr && pData->nSize > sizeof(FILE_MAGIC)) return "the names of g_objdt.dat";
  return KnowsObjects(Files, Names.Tree) ? "the tree of g_objbt.dat" : "";
}

}  // namespace

void LookAtReplacing(FolderView& Files, Plan* pPlan) {
  constexpr std::uint32_t kLongestMark = 64;
  const Replacement Of = ReadReplacement(Files.Read(kReplacingFile, 0, kLongestMark));
  pPlan->Replacing = Of.Time;
  if (Of.bBack)
    return Refuse(kReplacingFile,
                  "the old pair is being put back, which lumbra repair --undo " + Of.Time + " --yes finishes", pPlan);
  const auto Add = [&](Step::Kind What, const char16_t* pFile, const char* pTo) {
    // An empty file was made by a process that looked meanwhile, and is replaced.
    const FolderView::File* const pThere = Files.Find(pFile);
    if (pThere == nullptr || (What == Step::Kind::SetAside && pThere->nSize == 0 && pFile != kReplacingFile)) return;
    pPlan->Steps.push_back({.What = What,
                            .File = pFile,
                            .Before = What == Step::Kind::Rename ? Files.Digest(pFile) : "",
                            .After = pTo,
                            .Why = "the compacted pair takes the place of the live one"});
  };
  // Ids aside, data aside, new data, new ids.
  if (Files.Has(kCompactedDataFile)) {
    Add(Step::Kind::SetAside, kSharedIdsFile, "");
    Add(Step::Kind::SetAside, kSharedDataFile, "");
  }
  Add(Step::Kind::Rename, kCompactedDataFile, "g_objdt.dat");
  Add(Step::Kind::Rename, kCompactedIdsFile, "g_objid.dat");
  Add(Step::Kind::SetAside, kReplacingFile, "");
}

void LookAtSharedObjects(FolderView& Files, const Wishes& Wanted, Plan* pPlan) {
  if (Files.Has(kCompactedIdsFile) != Files.Has(kCompactedDataFile)) {
    const char16_t* const pHalf = Files.Has(kCompactedIdsFile) ? kCompactedIdsFile : kCompactedDataFile;
    pPlan->Steps.push_back({.File = pHalf, .Why = "half a pair of compaction, which the next one overwrites"});
  }
  const ObjectFileNames Names{kSharedIdsFile, kSharedTreeFile, kSharedDataFile};
  Plan Found;
  LookAtObjectHeads({}, Files, Names, &Found);
  const bool bMended = std::ranges::any_of(Found.Steps, [&](const Step& One) { return One.File == Names.Ids; });
  const bool bIds = bMended || FormOfIds(Files.Read(Names.Ids, 0, sizeof(tPLAINDB_HEADER))) != Form::Unknown;
  const std::string Trace = bIds ? "" : TraceOfRecords(Files, Names);
  const bool bEndLost = LookAtDataEnd({}, Files, Names, &Found);
  if ((!Trace.empty() || bEndLost) && Wanted.bStartEmpty) {
    for (const std::u16string& Name : {Names.Tree, Names.Ids, Names.Data}) {  // the one that tells of it last
      if (Files.Has(Name))
        pPlan->Steps.push_back({.What = Step::Kind::SetAside, .File = Name, .Why = "the shared objects begin anew"});
    }
    return;
  }
  FillTornRecord(Files, Names.Ids, &Found);
  LookAtTree({}, Files, Names, &Found);
  pPlan->Steps.insert(pPlan->Steps.end(), Found.Steps.begin(), Found.Steps.end());
  if (!Trace.empty())
    Refuse(Names.Ids,
           (Files.Has(Names.Ids) ? "it is damaged beside " : "it is missing beside ") + Trace +
               ": opened, all shared objects would be lost",
           pPlan);
  if (bEndLost) pPlan->Refusal = Describe({.File = Names.Data, .Why = kLostEnd});
}

}  // namespace lumbra::salvage
