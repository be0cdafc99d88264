#include "inspect/paths.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "events/circle_watch.h"
#include "events/object_types.h"
#include "host/text.h"
#include "lumbra/lumbra.h"

namespace lumbra::inspect {
namespace {

// So many stores are open at a time: twice as many as a reader of events opens before it reads them.
constexpr std::size_t kMostOpen = 128;

// So much for the names of one call, which are some 100 MB at most where they are paths of real files.
constexpr std::size_t kMostNameBytes = std::size_t{1} << 29;

bool IsAscii(std::string_view Text) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::uint64_t nBits = 0;
  std::size_t nAt = 0;
  for (; nAt + sizeof(nBits) <= Text.size(); nAt += sizeof(nBits)) {
    std::uint64_t nEight = 0;
    std::memcpy(&nEight, Text.data() + nAt, sizeof(nEight));
    nBits |= nEight;
  }
  for (; nAt < Text.size(); ++nAt) nBits |= static_cast<std::uint8_t>(Text[nAt]);
  return (nBits & kHighBits) == 0;
}

// A stored name as text, in the buffer where it must be converted; and how many units of UTF-16 it has.
std::string_view TextOf(const tODB_ID_ENTRY& Record, std::span<const std::uint8_t> Stored, std::string* pBuffer,
                        std::size_t* pnUnits) {
  std::u16string Wide;
  if ((Record.nFlags & fObjUtf8) != 0) {
    const std::string_view Text(reinterpret_cast<const char*>(Stored.data()), Stored.size());
    *pnUnits = Text.size();
    if (IsAscii(Text)) return Text;
    Wide = host::ToUtf16(Text);
  } else {
    Wide.resize(Stored.size() / sizeof(char16_t));
    std::memcpy(Wide.data(), Stored.data(), Wide.size() * sizeof(char16_t));
  }
  *pnUnits = Wide.size();
  *pBuffer = host::NameToBytes(Wide);
  return *pBuffer;
}

// What stands between an object and its parent: the objects of a path have a separator of their own where it is '/'.
char SeparatorOf(const tODB_ID_ENTRY& Record, std::string_view Name) {
  if (Record.nParentId == 0 || Name.starts_with('/') || Name.starts_with('\\')) return '\0';
  return Record.nType == typeRegistryValue ? '/' : '\\';
}

bool FollowsVolumes(std::uint8_t nType) {
  return (EffectiveFlags(nType, 0) & fObjFollowVolumeLinks) != 0;
}

// A volume has one path for those that follow its link, and one for others.
std::uint64_t KeyOf(std::uint64_t nStore, std::uint32_t nShortId, bool bVolumes) {
  return nStore << 33 | std::uint64_t{bVolumes} << 32 | nShortId;
}

ObjectView::State StateOf(Answer Found) {
  switch (Found) {
    case Answer::Read:
      return ObjectView::State::Named;
    case Answer::Missing:
      return ObjectView::State::Gone;
    case Answer::Damaged:
      return ObjectView::State::Damaged;
    case Answer::Unsettled:
      return ObjectView::State::Unsettled;
    case Answer::Unreadable:
      break;
  }
  return ObjectView::State::Unreadable;
}

}  // namespace

Paths::Paths(const Store& Of, std::uint64_t nCacheBytes)
    : m_Store(Of), m_nCacheBytes(nCacheBytes), m_Cache(nCacheBytes) {}

char* Paths::Texts::Take(std::size_t nSize) {
  constexpr std::size_t kChunk = 1 << 20;
  while (m_nChunk < m_Chunks.size() && m_Chunks[m_nChunk].size() - m_nUsed < nSize) {
    ++m_nChunk;
    m_nUsed = 0;
  }
  m_nSize += nSize;
  if (m_nChunk == m_Chunks.size()) m_Chunks.emplace_back(std::max(kChunk, nSize));
  return m_Chunks[m_nChunk].data() + std::exchange(m_nUsed, m_nUsed + nSize);
}

// ---- Stores -----------------------------------------------------------------------------------------------

std::uint64_t Paths::Keep(std::uint32_t nDatabase, std::uint32_t nSegment) {
  const std::uint64_t nToken = NextToken();
  (void)Open({nDatabase, nSegment, nToken}, 0);  // what cannot be opened is told of the objects that are asked for
  return nToken;
}

void Paths::Rest() {
  if (!os::DeletedFilesFreeTheirNames()) m_Stores.clear();
}

Answer Paths::OpenFolderOf(const Key& Of, os::FolderHandle* ppFolder) {
  *ppFolder = m_Store.Folder();
  if (Of.nSegment == 0) return Answer::Read;
  os::FolderHandle& pKnown = m_Folders[Of.nDatabase];
  if (pKnown == nullptr) {
    const std::optional<Database> In = m_Store.Find(Of.nDatabase);
    if (!In) return Answer::Missing;
    if (m_Store.OpenFolder(*In, &pKnown) != os::kSuccess) return Answer::Unreadable;
  }
  *ppFolder = pKnown;
  return Answer::Read;
}

// What could not be opened is tried once a call. What was opened as whatever has that number is tried again when it was
// deleted; what has a token is read as long as it is open.
Paths::Held& Paths::Open(const Key& Of, std::uint64_t nIdsBirth) {
  const auto Found = m_Stores.find(Of);
  if (Found != m_Stores.end()) {
    Held& Known = Found->second;
    const bool bNow = std::exchange(Known.nUsed, m_nCalls) == m_nCalls;
    if (bNow || Of.nToken != 0 || (Known.pObjects != nullptr && !Known.pObjects->IsDeleted())) return Known;
  }
  if (Found == m_Stores.end() && m_Stores.size() >= kMostOpen)
    m_Stores.erase(std::ranges::min_element(m_Stores, {}, [](const auto& One) { return One.second.nUsed; }));
  Held& Fresh = m_Stores[Of];
  Fresh = {nullptr, Answer::Missing, ++m_nOpened, m_nCalls};
  os::FolderHandle pFolder;
  Fresh.Opened = nIdsBirth == kNoBirth ? Answer::Missing : OpenFolderOf(Of, &pFolder);
  if (Fresh.Opened != Answer::Read) return Fresh;
  auto pObjects = std::make_unique<Objects>(
      m_Store, std::move(pFolder), Of.nSegment == 0 ? SharedObjectFiles() : ObjectFilesOf(Of.nSegment), &m_Cache);
  Fresh.Opened = pObjects->Open(nIdsBirth);
  if (Fresh.Opened == Answer::Read) Fresh.pObjects = std::move(pObjects);
  return Fresh;
}

// The objects of a segment that were kept last, of those of the same life of the database as where the ids come from.
Paths::Held* Paths::FindKept(const Key& Of, const ObjectsOrigin& From) {
  auto After = m_Stores.upper_bound({Of.nDatabase, Of.nSegment, From.nToken});
  if (From.nToken == 0 || After == m_Stores.begin()) return nullptr;
  const Key& Kept = (--After)->first;
  const bool bThat = Kept.nDatabase == Of.nDatabase && Kept.nSegment == Of.nSegment && Kept.nToken != 0;
  return bThat && Kept.nToken >= From.nChainToken ? &Open(Kept, 0) : nullptr;
}

// What has the number now must be the segment's own, or older than the one where the ids come from.
Paths::Held& Paths::OpenByName(Key Of, const ObjectsOrigin& From) {
  Of.nToken = 0;
  if (Of.nDatabase != From.nDatabase || From.nIdsBirth == 0) return Open(Of, 0);
  if (Of.nSegment == From.nSegment) return Open(Of, From.nIdsBirth);
  os::FolderHandle pFolder;
  os::FileLook Now{};
  if (OpenFolderOf(Of, &pFolder) == Answer::Read)
    (void)os::LookAt(pFolder, ObjectFilesOf(Of.nSegment).Ids, &Now);  // without a birth when it fails
  return Open(Of, Now.nBirth < From.nIdsBirth || Of.nSegment > From.nSegment ? Now.nBirth : kNoBirth);
}

Paths::Held& Paths::HeldOf(std::uint64_t nId, const ObjectsOrigin& From) {
  if (m_pLast != nullptr && nId >> 32 == m_nLastStore) return *m_pLast;
  Key Of{DatabaseOfId(nId), SegmentOfId(nId), From.nToken};
  if (Of.nSegment == 0) Of = {0, 0, 0};  // the shared objects are all databases'
  const bool bSameDatabase = Of.nSegment != 0 && Of.nDatabase == From.nDatabase;
  Held* pFound = nullptr;
  if (bSameDatabase && From.nToken == kNoObjects) pFound = &Open(Of, kNoBirth);
  if (bSameDatabase && pFound == nullptr) pFound = FindKept(Of, From);
  if (pFound == nullptr) pFound = &OpenByName(Of, From);
  m_nLastStore = nId >> 32;
  m_pLast = pFound;
  return *pFound;
}

Objects* Paths::Find(std::uint64_t nId, const ObjectsOrigin& From) {
  ++m_nCalls;
  m_pLast = nullptr;
  return HeldOf(nId, From).pObjects.get();
}

// ---- Names ------------------------------------------------------------------------------------------------

// By their bytes, the lowest first, where ids differ in them: one pass a byte, whatever the ids are.
void Paths::Sort(std::span<const std::uint64_t> Ids) {
  m_Order.resize(Ids.size());
  m_Spare.resize(Ids.size());
  std::uint64_t nDiffer = 0;
  for (std::uint32_t i = 0; i < Ids.size(); ++i) {
    const bool bHost = Ids[i] == kHostObjectAlias && m_nHostObject != 0;
    m_Order[i] = {bHost ? m_nHostObject : Ids[i], i};
    nDiffer |= m_Order[i].nId ^ m_Order[0].nId;
  }
  constexpr int kBits = 11;
  constexpr std::uint64_t kDigits = 1 << kBits;
  for (int nShift = 0; nShift < 64; nShift += kBits) {
    if ((nDiffer >> nShift & (kDigits - 1)) == 0) continue;
    std::uint32_t Starts[kDigits + 1] = {};
    const auto DigitOf = [nShift](const Order& One) {
      return static_cast<std::size_t>(One.nId >> nShift & (kDigits - 1));
    };
    for (const Order& One : m_Order) ++Starts[DigitOf(One) + 1];
    for (std::size_t i = 1; i < kDigits; ++i) Starts[i] += Starts[i - 1];
    for (const Order& One : m_Order) m_Spare[Starts[DigitOf(One)]++] = One;
    m_Order.swap(m_Spare);
  }
}

// In small groups of one store: while one object is looked at, what the next ones need is on its way from the memory.
const std::vector<ObjectView>& Paths::Resolve(std::span<const std::uint64_t> Ids, const ObjectsOrigin& From) {
  constexpr std::size_t kGroup = 64;
  constexpr std::size_t kBehind = 16;  // what was brought near then is there
  ++m_nCalls;
  m_pLast = nullptr;
  m_pNow = m_pNow == &m_Answers[0] ? &m_Answers[1] : &m_Answers[0];
  m_pNow->Shown.Clear();
  std::vector<ObjectView>& Views = m_pNow->Views;
  Views.resize(Ids.size());
  Sort(Ids);
  Work Group[kGroup];
  std::uint32_t FirstOf[kGroup];  // in the order
  for (std::size_t i = 0; i < m_Order.size();) {
    std::size_t nWorks = 0;
    const std::uint64_t nStore = m_Order[i].nId >> 32;
    const auto ApproachTextOf = [this, &Group](std::size_t n) {
      if (Group[n].Record.nParentId != 0) m_Parents.ApproachText(ParentKey(Group[n]));
    };
    for (; i < m_Order.size() && nWorks < kGroup && m_Order[i].nId >> 32 == nStore; ++nWorks) {
      FirstOf[nWorks] = static_cast<std::uint32_t>(i);
      __builtin_prefetch(&Views[m_Order[i].nIndex], 1);
      const std::uint64_t nId = m_Order[i].nId;
      Begin(nId, From, &Group[nWorks]);
      if (Group[nWorks].Record.nParentId != 0) m_Parents.Approach(ParentKey(Group[nWorks]));
      if (nWorks >= kBehind) ApproachTextOf(nWorks - kBehind);
      while (i < m_Order.size() && m_Order[i].nId == nId) ++i;
    }
    for (std::size_t n = nWorks - std::min(nWorks, kBehind); n < nWorks; ++n) ApproachTextOf(n);
    for (std::size_t n = 0; n < nWorks; ++n) {
      Finish(&Group[n]);
      const std::size_t nEnd = n + 1 < nWorks ? FirstOf[n + 1] : i;
      for (std::size_t nAt = FirstOf[n]; nAt < nEnd; ++nAt) Views[m_Order[nAt].nIndex] = Group[n].Seen;
    }
  }
  return Views;
}

std::uint64_t Paths::ParentKey(const Work& Of) const {
  return KeyOf(Of.pStore->nNumber, MAKE_SHORT_OBJECT_ID(Of.Record.nParentId), Of.bVolumes);
}

// Up to the record whose name is wanted.
void Paths::Begin(std::uint64_t nId, const ObjectsOrigin& From, Work* pWork) {
  ObjectView& Seen = pWork->Seen;
  Seen = {};
  pWork->pStore = &HeldOf(nId, From);
  pWork->nShortId = MAKE_SHORT_OBJECT_ID(nId);
  pWork->bVolumes = false;
  tODB_ID_ENTRY& Record = pWork->Record;
  Record.nParentId = 0;
  if (nId == 0) {
    Seen.Of = ObjectView::State::Nothing;
    return;
  }
  Seen.Of = StateOf(pWork->pStore->Opened);
  const bool bOwn = From.nSegment != 0 && DatabaseOfId(nId) == From.nDatabase && SegmentOfId(nId) == From.nSegment;
  if (bOwn && pWork->pStore->Opened == Answer::Missing) Seen.Of = ObjectView::State::Lost;
  if (pWork->pStore->pObjects == nullptr) return;
  Objects& In = *pWork->pStore->pObjects;
  Seen.Of = StateOf(In.ReadRecord(pWork->nShortId, &Record));
  if (Seen.Of != ObjectView::State::Named) {
    Record.nParentId = 0;
    return;
  }
  Seen.nType = Record.nType;
  if (Record.nParentId != 0) Seen.nParent = WithDatabase(Record.nParentId, DatabaseOfId(nId));
  pWork->bVolumes = FollowsVolumes(Record.nType);
  Seen.Of = ReadLinked(In, &pWork->nShortId, pWork->bVolumes, &Record);
}

void Paths::Finish(Work* pWork) {
  ObjectView& Seen = pWork->Seen;
  const tODB_ID_ENTRY& Record = pWork->Record;
  if (Seen.Of != ObjectView::State::Named) return;
  const Held& Store = *pWork->pStore;
  const std::uint32_t nParent = MAKE_SHORT_OBJECT_ID(Record.nParentId);
  const Path Parent = Record.nParentId == 0 ? Path() : ParentPath(Store, nParent, pWork->bVolumes);
  Seen.Of = Parent.State;
  if (Seen.Of != ObjectView::State::Named) return;
  std::span<const std::uint8_t> Stored;
  const Answer Read = Store.pObjects->ReadName(Record, &Stored);
  Seen.Of = Read == Answer::Missing ? ObjectView::State::Lost : StateOf(Read);  // the file of names is missing
  if (Seen.Of != ObjectView::State::Named) return;
  std::string Buffer;
  std::size_t nUnits = 0;
  const std::string_view Name = TextOf(Record, Stored, &Buffer, &nUnits);
  if (Parent.nUnits + 1 + nUnits > kMaxNameUnits) {
    const bool bSeparated = SeparatorOf(Record, Name) != '\0';
    if (Parent.nUnits + (bSeparated ? 1 : 0) + nUnits > kMaxNameUnits) Seen.Of = ObjectView::State::TooLong;
  }
  if (m_pNow->Shown.Size() > kMostNameBytes) Seen.Of = ObjectView::State::TooLong;
  if (Seen.Of == ObjectView::State::Named) Seen.Name = Join(Parent, Record, Name);
}

std::string_view Paths::Join(const Path& Parent, const tODB_ID_ENTRY& Record, std::string_view Name) {
  const char cSeparator = SeparatorOf(Record, Name);
  const std::size_t nSize = Parent.Text.size() + (cSeparator != '\0' ? 1 : 0) + Name.size();
  char* const pText = m_pNow->Shown.Take(nSize);
  char* pAt = std::copy(Parent.Text.begin(), Parent.Text.end(), pText);
  if (cSeparator != '\0') *pAt++ = cSeparator;
  std::copy(Name.begin(), Name.end(), pAt);
  return {pText, nSize};
}

// The record of an object, or of the one that a link lets it stand for.
ObjectView::State Paths::ReadLinked(Objects& In, std::uint32_t* pnShortId, bool bVolumes, tODB_ID_ENTRY* pRecord) {
  constexpr int kMostLinks = 64;  // one behind another; more of them are damage
  for (int i = 0; pRecord->nType == typeRegistryKey || (pRecord->nType == typeVolumeRoot && bVolumes); ++i) {
    if (i == kMostLinks) return ObjectView::State::Damaged;
    std::uint64_t nLink = 0;
    std::vector<std::uint8_t> Bytes;
    const Answer Read = In.ReadData(*pnShortId, kObjectLinkTag, &Bytes, sizeof(nLink));
    if (Read == Answer::Missing || (Read == Answer::Read && Bytes.size() != sizeof(nLink))) break;
    if (Read != Answer::Read) return StateOf(Read);
    std::memcpy(&nLink, Bytes.data(), sizeof(nLink));
    if (nLink == 0) break;
    *pnShortId = MAKE_SHORT_OBJECT_ID(nLink);
    const ObjectView::State Found = StateOf(In.ReadRecord(*pnShortId, pRecord));
    if (Found != ObjectView::State::Named) return Found;
  }
  return ObjectView::State::Named;
}

const Paths::Path& Paths::ParentPath(const Held& In, std::uint32_t nShortId, bool bVolumes) {
  const std::uint64_t nKey = KeyOf(In.nNumber, nShortId, bVolumes);
  if (const Path* const pKnown = m_Parents.Find(nKey)) return *pKnown;
  if (m_Parents.Size() > m_nCacheBytes) m_Parents.Clear();
  std::string Text;
  std::size_t nUnits = 0;
  const ObjectView::State State = BuildPath(In, nShortId, bVolumes, &Text, &nUnits);
  if (State != ObjectView::State::Named && State != ObjectView::State::TooLong) return m_Failed = {State, 0, {}};
  return m_Parents.Add(nKey, {State, static_cast<std::uint32_t>(nUnits), Text});
}

// Goes up to the root, or to a parent that is known, and puts the names together from there.
ObjectView::State Paths::BuildPath(const Held& In, std::uint32_t nShortId, bool bVolumes, std::string* pText,
                                   std::size_t* pnUnits) {
  std::vector<std::string> Names;  // of the objects, with their separators, the last one first
  CircleWatch Circle;
  while (nShortId != 0) {
    if (const Path* const pKnown = m_Parents.Find(KeyOf(In.nNumber, nShortId, bVolumes))) {
      if (pKnown->State != ObjectView::State::Named) return pKnown->State;
      *pnUnits += pKnown->nUnits;
      Names.emplace_back(pKnown->Text);
      break;
    }
    if (Circle.WasHere(nShortId)) return ObjectView::State::Damaged;
    tODB_ID_ENTRY Record{};
    ObjectView::State State = StateOf(In.pObjects->ReadRecord(nShortId, &Record));
    if (State == ObjectView::State::Named) State = ReadLinked(*In.pObjects, &nShortId, bVolumes, &Record);
    if (State != ObjectView::State::Named) return State;
    std::span<const std::uint8_t> Stored;
    State = StateOf(In.pObjects->ReadName(Record, &Stored));
    if (State != ObjectView::State::Named) return State;
    std::string Buffer;
    std::size_t nOwn = 0;
    const std::string_view Name = TextOf(Record, Stored, &Buffer, &nOwn);
    const char cSeparator = SeparatorOf(Record, Name);
    Names.push_back(cSeparator == '\0' ? std::string(Name) : cSeparator + std::string(Name));
    *pnUnits += nOwn + (cSeparator == '\0' ? 0 : 1);
    if (*pnUnits > kMaxNameUnits) return ObjectView::State::TooLong;
    nShortId = MAKE_SHORT_OBJECT_ID(Record.nParentId);
  }
  for (auto Name = Names.rbegin(); Name != Names.rend(); ++Name) *pText += *Name;
  return ObjectView::State::Named;
}

// ---- Paths that are known ---------------------------------------------------------------------------------

std::size_t Paths::KnownPaths::HomeOf(std::uint64_t nKey) const {
  return static_cast<std::size_t>(nKey * 0x9E3779B97F4A7C15 >> 32) & (m_Entries.size() - 1);
}

const Paths::Path* Paths::KnownPaths::Find(std::uint64_t nKey) const {
  if (m_Entries.empty()) return nullptr;
  for (std::size_t nAt = HomeOf(nKey); m_Entries[nAt].nKey != 0; nAt = (nAt + 1) & (m_Entries.size() - 1)) {
    if (m_Entries[nAt].nKey == nKey) return &m_Entries[nAt].Known;
  }
  return nullptr;
}

const Paths::Path& Paths::KnownPaths::Add(std::uint64_t nKey, Path Known) {
  char* const pText = m_Texts.Take(Known.Text.size());
  std::ranges::copy(Known.Text, pText);
  Known.Text = {pText, Known.Text.size()};
  m_nTextBytes += Known.Text.size();
  if (++m_nKnown * 2 > m_Entries.size()) {
    std::vector<Entry> Old(std::max<std::size_t>(m_Entries.size() * 2, 1024));
    Old.swap(m_Entries);
    for (const Entry& One : Old) {
      if (One.nKey != 0) *FreeFor(One.nKey) = One;
    }
  }
  Entry& Fresh = *FreeFor(nKey);
  Fresh = {nKey, Known};
  return Fresh.Known;
}

Paths::KnownPaths::Entry* Paths::KnownPaths::FreeFor(std::uint64_t nKey) {
  std::size_t nAt = HomeOf(nKey);
  while (m_Entries[nAt].nKey != 0) nAt = (nAt + 1) & (m_Entries.size() - 1);
  return &m_Entries[nAt];
}

void Paths::KnownPaths::Approach(std::uint64_t nKey) const {
  if (!m_Entries.empty()) __builtin_prefetch(&m_Entries[HomeOf(nKey)]);
}

void Paths::KnownPaths::ApproachText(std::uint64_t nKey) const {
  const Path* const pKnown = Find(nKey);
  if (pKnown == nullptr) return;
  __builtin_prefetch(pKnown->Text.data());
  __builtin_prefetch(pKnown->Text.data() + pKnown->Text.size());
}

void Paths::KnownPaths::Clear() {
  m_Entries.clear();
  m_Texts.Clear();
  m_nKnown = 0;
  m_nTextBytes = 0;
}

}  // namespace lumbra::inspect
