// The heads of an object store's files, each of which says whether the store has CRCs: so two of them tell what the
// third must be.
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <vector>

#include "format/file_names.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/tree_file.h"
#include "salvage/look_parts.h"

namespace lumbra::salvage {
namespace {

constexpr std::uint32_t kCrcSize = 4;

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
    if (OfTree != Form::Unknown) MendRootPlace(Tree, OfTree);
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

  // The shared store's may stand at 0 while it is filled; a segment's tree is never filled anew.
  void MendRootPlace(const std::string& Head, Form Of) {
    tODB_BT_HEADER Header{};
    const FolderView::File* const pFile = m_Files.Find(m_Names.Tree);
    if (!Get(Head, &Header) || Header.nFirstNodeOffset == FirstNodeOffset) return;
    if (m_Folder.empty() && Header.nFirstNodeOffset == 0) return;
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

// Bytes of the data file, from an offset on.
struct Extent {
  std::uint64_t nStart;
  std::uint64_t nEnd;
};

// Where a record's name block and data entry array stand, each empty at 0 where there is none.
std::array<Extent, 2> ExtentsOf(const tODB_ID_ENTRY& Record, std::uint32_t nFeatures) {
  const auto Block = [nFeatures](std::uint32_t nOffset, std::uint64_t nSize, std::uint32_t nCrc) {
    return nOffset == 0 ? Extent{} : Extent{nOffset, nOffset + nSize + ((nFeatures & nCrc) != 0 ? kCrcSize : 0)};
  };
  return {Block(Record.nName, Record.nNameSize, featureNameCrc),
          Block(Record.nDataEntriesOffset, Record.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), featureArrayCrc)};
}

// What blocks have, by the magic of the data file, or where that is lost by the kind of the id file.
std::uint32_t FeaturesOf(FolderView& Files, const ObjectFileNames& Names, Form OfIds) {
  const std::string Magic = Files.Read(Names.Data, 0, sizeof(FILE_MAGIC));
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (Magic == std::string_view(Known.Magic, sizeof(Known.Magic))) return Known.nFeatures;
  }
  return OfIds == Form::Checked ? kCheckedFeatures : kPlainFeatures;
}

std::uint64_t EndOf(const tODB_ID_ENTRY& Record, std::uint32_t nFeatures) {
  const auto [Name, Array] = ExtentsOf(Record, nFeatures);
  return std::max(Name.nEnd, Array.nEnd);
}

}  // namespace

std::string MissingDataEnd(FolderView& Files, const ObjectFileNames& Names, bool* pbFurther) {
  constexpr std::uint64_t kFew = 64;            // records, which a sound store costs
  constexpr std::uint64_t kMany = 1 << 15;      // where the oldest of these points behind the end, too
  constexpr std::uint64_t kMostLost = 1 << 20;  // bytes; a record that points further is damaged itself
  const Form Of = FormOfIds(Files.Read(Names.Ids, 0, sizeof(tPLAINDB_HEADER)));
  if (Of == Form::Unknown) return {};
  const FolderView::File* const pData = Files.Find(Names.Data);
  const std::uint64_t nThere = pData == nullptr ? 0 : pData->nSize;
  const std::uint32_t nFeatures = FeaturesOf(Files, Names, Of);
  std::vector<tODB_ID_ENTRY> Records = NewestRecords(Files, Names, Of, kFew);
  if (!Records.empty() && EndOf(Records.front(), nFeatures) > nThere) Records = NewestRecords(Files, Names, Of, kMany);
  // Blocks are appended one behind the other: what is missing is told without a jump.
  const std::uint64_t nStart = std::max<std::uint64_t>(nThere, sizeof(FILE_MAGIC));
  std::uint64_t nEnd = nStart;
  for (const tODB_ID_ENTRY& Record : Records) {
    for (const Extent& Block : ExtentsOf(Record, nFeatures)) {
      if (Block.nEnd <= nEnd) continue;
      const bool bFollows = Block.nStart <= nEnd && Block.nEnd <= nThere + kMostLost;
      *pbFurther = *pbFurther || !bFollows;
      if (bFollows) nEnd = Block.nEnd;
    }
  }
  if (nEnd == nStart) return {};
  std::string Whole = nThere < sizeof(FILE_MAGIC) ? DataMagic(Of).substr(static_cast<std::size_t>(nThere)) : "";
  Whole.resize(static_cast<std::size_t>(nEnd - nThere));
  return Whole;
}

void LookAtDataEnd(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan) {
  const FolderView::File* const pData = Files.Find(Names.Data);
  if (pData == nullptr && !Folder.empty()) return;  // of a segment it was made, and new names go elsewhere
  bool bFurther = false;
  const std::string Missing = MissingDataEnd(Files, Names, &bFurther);
  const auto Add = [&](Step::Kind What, const std::string& After, const char* pWhy) {
    pPlan->Steps.push_back({What, Folder, Names.Data, pData == nullptr ? 0 : pData->nSize, {}, After, pWhy});
  };
  if (!Missing.empty())
    Add(pData == nullptr ? Step::Kind::Create : Step::Kind::Patch, Missing,
        "it is shorter than its newest names; zeros keep others from their place");
  if (bFurther)
    Add(Step::Kind::Report, {}, "id records point behind its end, where new names will stand; put it back from a copy");
}

void LookAtTree(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan) {
  const std::string Slots = Files.Read(Names.Tree, FirstNodeOffset, kRootSlots * sizeof(tODB_BT_OFFSET));
  if (Slots.find_first_not_of('\0') != std::string::npos) return;
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

// What is left of putting a compacted pair in the place of the live one: ids aside, data aside, new data, new ids.
void FinishReplacing(const FolderView& Files, Plan* pPlan) {
  const auto Move = [&](const char16_t* pFile, const char* pTo) {
    const FolderView::File* const pThere = Files.Find(pFile);
    if (pThere == nullptr) return;
    const Step::Kind What = *pTo == '\0' ? Step::Kind::SetAside : Step::Kind::Rename;
    pPlan->Steps.push_back({.What = What,
                            .File = pFile,
                            .nOffset = pThere->nSize,
                            .After = pTo,
                            .Why = "the compacted pair takes the place of the live one"});
  };
  if (Files.Has(kCompactedDataFile)) {
    Move(kSharedIdsFile, "");
    Move(kSharedDataFile, "");
  }
  Move(kCompactedDataFile, "g_objdt.dat");
  Move(kCompactedIdsFile, "g_objid.dat");
  Move(kReplacingFile, "");
}

}  // namespace

void LookAtSharedObjects(FolderView& Files, bool bHasEvents, const Wishes& Wanted, Plan* pPlan) {
  if (Files.Has(kReplacingFile)) return FinishReplacing(Files, pPlan);
  if (Files.Has(kCompactedIdsFile) != Files.Has(kCompactedDataFile)) {
    const char16_t* const pHalf = Files.Has(kCompactedIdsFile) ? kCompactedIdsFile : kCompactedDataFile;
    pPlan->Steps.push_back({.File = pHalf, .Why = "half a pair of compaction, which the next one overwrites"});
  }
  const ObjectFileNames Names{kSharedIdsFile, kSharedTreeFile, kSharedDataFile};
  LookAtObjectHeads({}, Files, Names, pPlan);
  LookAtDataEnd({}, Files, Names, pPlan);
  LookAtTree({}, Files, Names, pPlan);
  const bool bMended = std::ranges::any_of(pPlan->Steps, [&](const Step& One) { return One.File == Names.Ids; });
  const FolderView::File* const pData = Files.Find(Names.Data);
  if (pData == nullptr || pData->nSize <= sizeof(FILE_MAGIC)) return;
  const bool bIds = FormOfIds(Files.Read(Names.Ids, 0, sizeof(tPLAINDB_HEADER))) != Form::Unknown;
  if (bIds || bMended || !bHasEvents) return;
  if (Wanted.bStartEmpty) {
    for (const std::u16string& Name : {Names.Tree, Names.Ids, Names.Data}) {  // the one that tells of it last
      if (Files.Has(Name))
        pPlan->Steps.push_back({.What = Step::Kind::SetAside, .File = Name, .Why = "the shared objects begin anew"});
    }
    return;
  }
  const char* const pWhy =
      Files.Has(Names.Ids) ? "it is damaged beside the names of g_objdt.dat: opened, all shared objects would be lost"
                           : "it is missing beside the names of g_objdt.dat: opened, all shared objects would be lost";
  pPlan->Steps.push_back({.File = Names.Ids, .Why = pWhy});
  pPlan->Refusal = Describe(pPlan->Steps.back());
}

}  // namespace lumbra::salvage
