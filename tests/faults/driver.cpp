#include "faults/driver.h"

#include <algorithm>
#include <fstream>
#include <random>

#include "host/trace_format.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kEventSize = 32;
constexpr std::uint32_t kHeaderSize = 12;       // of an event file
constexpr std::uint64_t kGlobalLimit = 9000;    // bytes: some segments of a small database
constexpr std::uint64_t kOneStepOfSize = 1500;  // what an add can bring at most: a new segment and an event
constexpr std::uint32_t kFinding = 0;
constexpr std::uint32_t kRepairing = 2;

std::string EventOf(std::uint64_t nSerial, Id nObject) {
  const std::uint64_t Parts[] = {nSerial, nObject, nSerial * 0x9E3779B97F4A7C15, ~nSerial};
  static_assert(sizeof(Parts) == kEventSize);
  return {reinterpret_cast<const char*>(Parts), sizeof(Parts)};
}

std::string Narrow(std::u16string_view Text) {
  return {Text.begin(), Text.end()};
}
std::string Format(const char* pFormat, std::uint64_t n) {
  char Text[40];
  std::snprintf(Text, sizeof(Text), pFormat, static_cast<unsigned long long>(n));
  return Text;
}
std::string Describe(const Key& Of) {
  constexpr const char* kKinds[] = {"event ", "name of ", "data of "};
  return kKinds[Of.Kind] + Format("%016llx", Of.nId) + (Of.nTag != 0 ? " tag " + std::to_string(Of.nTag) : "");
}

Id FirstOf(std::uint32_t nDatabase) {
  return Id{nDatabase} << kDatabaseShift;
}
Fact OverSegments(Fact::Kinds Kind, Id nFirst, Id nCount = 1) {
  return {Kind, {Key::Event, nFirst << kSegmentShift}, {}, (nFirst + nCount) << kSegmentShift};
}

void NeverPause(bool /*bOutside*/) {}

}  // namespace

Source SourceOf(std::uint64_t nSeed) {
  return [Random = std::mt19937_64(nSeed)](std::uint64_t nEnd) mutable {
    return Random() % nEnd;
  };
}

Driver::Driver(Setup With, Record Known)
    : m_With(std::move(With)), m_Known(std::move(Known)), m_pInstance(m_With.pInstance), m_nSerial(m_With.nSeed << 32) {
  if (m_With.pPause == nullptr) m_With.pPause = &NeverPause;
  m_With.pPause(true);
  if (!m_With.Choose) m_With.Choose = SourceOf(m_With.nSeed);
  const bool bGlobal = !IsShared() && !m_With.bExact;
  const std::string Suffix = std::to_string(m_With.nFirst);
  m_Databases = {{m_With.nFirst, {}, 6, 20},
                 {m_With.nFirst + 1, {}, 7, bGlobal ? 0u : 21u},
                 {0, u"named" + std::u16string(Suffix.begin(), Suffix.end()), 9, 30}};
}

void Driver::Tell(const Fact& Of) {
  m_Known.Apply(Of);
  if (m_With.Tell) m_With.Tell(Of);
}

auto Driver::InStore(auto Work) const {
  m_With.pPause(false);
  const auto Answer = Work();
  m_With.pPause(true);
  return Answer;
}

template <class... Parameters>
ResultCode Driver::Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                        std::type_identity_t<Parameters>... Arguments) const {
  if (!m_pInstance || !m_pInstance->bOpen) return errSTORE_NOT_INITIALIZED;
  return InStore([&] { return m_pInstance->Store.Call(pOperation, Arguments...); });
}

void Driver::Expect(bool bTrue, const std::string& What) const {
  if (!bTrue && m_With.bExact) Found(std::string("in ") + m_pAct + ": " + What);
}

bool Driver::Done(ResultCode nCode, const std::string& What) {
  if (Failed(nCode)) m_LastFailure = What + ", " + host::DescribeCode(nCode);
  Expect(Succeeded(nCode), m_LastFailure);
  return Succeeded(nCode);
}

// ---- Opening and closing ----------------------------------------------------------------------------------

bool Driver::Open(Limits Set) {
  bool bOpen = OpenStore();
  for (Database& One : m_Databases) bOpen = OpenDatabase(&One, Set) && bOpen;
  const bool bGlobal = Set == Limits::Yes && !IsShared() && !m_With.bExact;
  return (!bGlobal || Done(Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, kGlobalLimit), "limiting")) && bOpen;
}

bool Driver::OpenStore() {
  // The store's own objects take the first ids that are free.
  for (const char* const pName : {"System", "QOR", "host"}) Tell({Fact::Attempt, {Key::Name, 0}, pName});
  if (m_pInstance == nullptr) {
    Begin(kOpen);
    m_pInstance = std::make_shared<Instance>();
  }
  Begin(kOther);
  Instance& Now = *m_pInstance;
  if (!Now.Store) {
    if (m_With.Trace) Now.Host.TraceToCallback(600, m_With.Trace);
    Now.Host.SetPlaceholder(u"%Report%", m_With.Folder.u16string());
    Now.Host.SetPlaceholder(u"%host%", u"host");
    Now.Store = Now.Host.Create();
    if (!Done(Now.Store.SetNumber(propCHECK_MODE, m_With.bChecked ? 1 : 0), "setting the mode")) return false;
    if (!Done(Now.Store.SetNumber(propCACHE_SIZE, m_With.nCacheSize), "setting the cache")) return false;
  }
  if (Now.bOpen) return true;
  return Now.bOpen = Done(InStore([&] { return Now.Store.Init(m_With.What); }), "opening the store");
}

bool Driver::OpenDatabase(Database* pDatabase, Limits Set) {
  Begin(kOther);
  const bool bNamed = !pDatabase->Name.empty();
  ResultCode nCode = bNamed ? Call(&Ops::InitDBByName, pDatabase->Name.c_str(), kEventSize, &pDatabase->nId)
                            : Call(&Ops::InitDB, pDatabase->nId, kEventSize);
  if (nCode == errALREADY_DONE) nCode = errOK;
  if (!Done(nCode, "opening a database")) return false;
  if (Set == Limits::No) return true;
  if (m_With.bExact) {
    pDatabase->nSegmentEvents = static_cast<std::uint32_t>(2 + Below(8));
    pDatabase->nMaxEvents = static_cast<std::uint32_t>(1 + Below(30));
  }
  TellDrops(*pDatabase);
  Begin(kAddOrLimit);
  const auto SetLimit = [&](LumbraLimit Kind, std::uint64_t nValue) {
    return Done(Call(&Ops::SetDBParams, pDatabase->nId, Kind, nValue), "limiting");
  };
  // With a size of its own a database does not count in the limit over all.
  if (pDatabase->nMaxEvents != 0 && !SetLimit(limitDatabaseSize, 1000000000)) return false;
  if (!SetLimit(limitDatabaseEvents, pDatabase->nMaxEvents)) return false;
  if (!SetLimit(limitSegmentEvents, pDatabase->nSegmentEvents)) return false;
  LearnDrops(*pDatabase);
  return true;
}

void Driver::Close() {
  if (m_pInstance == nullptr || IsShared()) return;
  m_With.pPause(false);
  m_pInstance.reset();
  m_With.pPause(true);
}

// ---- The work ---------------------------------------------------------------------------------------------

struct Driver::Act {
  std::uint64_t nWeight;
  const char* pName;
  void (Driver::*pDo)();
};
const Driver::Act Driver::kActs[] = {{40, "add", &Driver::AddOne},      {6, "update", &Driver::Update},
                                     {8, "set data", &Driver::SetData}, {2, "remove data", &Driver::RemoveData},
                                     {8, "read", &Driver::Read},        {4, "read a row", &Driver::ReadRow},
                                     {4, "find", &Driver::FindShared},  {4, "flush", &Driver::Flush},
                                     {2, "compact", &Driver::Compact},  {1, "clear", &Driver::ClearOne},
                                     {2, "reopen", &Driver::Reopen}};

void Driver::Step() {
  std::uint64_t nAll = 0;
  for (const Act& One : kActs) nAll += One.nWeight;
  std::uint64_t nChosen = Below(nAll);
  const Act* pChosen = kActs;
  while (nChosen >= pChosen->nWeight) nChosen -= (pChosen++)->nWeight;
  m_pAct = pChosen->pName;
  (this->*pChosen->pDo)();
}

void Driver::AddToEach(const char* pWhen) {
  const auto Require = [&](bool bDone) {
    if (!bDone && m_Compared != End::Foreign) Found(std::string("an add fails ") + pWhen + ": " + m_LastFailure);
  };
  Require(Find(kSystemDatabase, AnyPath()).has_value());
  // A newest segment that lost a file with the power says so once, and the chain goes on behind it.
  for (const Database& One : m_Databases) Require(Add(One) || (m_Compared != End::Whole && Add(One)));
}

std::optional<Key> Driver::Pick(Key::Kinds Kind) {
  const Promises& All = m_Known.Now();
  const auto First = All.lower_bound({Kind, 0});
  const auto Last = All.lower_bound({static_cast<Key::Kinds>(Kind + 1), 0});
  if (First == Last) return {};
  return std::next(First, static_cast<std::ptrdiff_t>(Below(static_cast<std::uint64_t>(std::distance(First, Last)))))
      ->first;
}

ResultCode Driver::Look(std::uint32_t nDatabase, const std::string& Path, std::uint32_t nMode, Id* pnId) const {
  const std::u16string Wide(Path.begin(), Path.end());
  if (Path.back() % 2 == 0)
    return Call(&Ops::FindObject, nDatabase, typeFile, Wide.c_str(), kZeroTerminated, nMode, 0, 0, pnId);
  return Call(&Ops::FindObjectSimple, nDatabase, typeFile, Wide.c_str(), kZeroTerminated, nMode, 0, pnId);
}

// One of a few, so that some are there already.
std::string Driver::AnyPath() {
  const std::string Folder = std::to_string(m_With.nFirst * 10 + Below(4));
  return "C:\\Dir" + Folder + "\\Name" + std::to_string(Below(40));
}

std::optional<Id> Driver::Find(std::uint32_t nDatabase, const std::string& Path) {
  Begin(kOther);
  Id nKnown = 0;
  if (m_With.bExact) {
    const ResultCode nCode = Look(nDatabase, Path, kFinding, &nKnown);
    const auto Known = m_Known.Now().find({Key::Name, nKnown});
    const bool bKnown = Succeeded(nCode) && Known != m_Known.Now().end() && Known->second == Path;
    Expect(bKnown || nCode == errOBJECT_NOT_FOUND, "a wrong answer for the name " + Path);
  }
  Id nId = 0;
  if (!Done(Look(nDatabase, Path, kRepairing, &nId), "finding in " + std::to_string(nDatabase))) return {};
  Expect(nKnown == 0 ? !m_Known.Now().contains({Key::Name, nId}) : nId == nKnown, "another object for " + Path);
  Tell({Fact::Promise, {Key::Name, nId}, Path});
  return nId;
}

bool Driver::Add(const Database& To) {
  const std::optional<Id> nObject = Find(To.nId, AnyPath());
  if (!nObject) return false;
  TellDrops(To);
  const Chain Held = m_With.bExact ? ChainOf(To) : Chain();
  const std::string Content = EventOf(++m_nSerial, *nObject);
  Tell({Fact::Attempt, {Key::Event, 0}, Content});
  Begin(kAddOrLimit);
  Id nId = 0;
  const ResultCode nCode = Call(&Ops::AddEvent, To.nId, Content.data(), kEventSize, &nId);
  if (!Done(nCode, "adding to " + std::to_string(To.nId))) return false;
  const bool bUsed = m_Known.IsUsed(nId, m_Compared == End::Power);
  if (bUsed && m_Compared <= End::Power) Found("the id of an event came back: " + Describe({Key::Event, nId}));
  if (!Held.empty()) {
    const auto& [nNewest, nEvents] = *Held.rbegin();
    const bool bFull = nEvents >= To.nSegmentEvents;
    Expect(nId == (bFull ? (nNewest + 1) << kSegmentShift : nNewest << kSegmentShift | nEvents), "ids go up by one");
  }
  Tell({Fact::Promise, {Key::Event, nId}, Content});
  LearnDrops(To);
  return true;
}

// Takes back what the limits of a database may drop at its next check.
void Driver::TellDrops(const Database& Of) {
  const Chain Held = ChainOf(Of);
  if (Held.empty()) return;
  std::size_t nSegments = Held.size() + (Held.rbegin()->second >= Of.nSegmentEvents ? 1 : 0);
  std::uint64_t nCounted = 0;
  if (Of.nMaxEvents == 0) {
    // Also what was written since the last add, which counts in the limit only now.
    std::error_code Missing;
    for (const auto& One : fs::directory_iterator(FolderOf(Of), Missing))
      nCounted += One.is_regular_file() ? One.file_size() : 0;
    const bool bMayBeOver = nCounted + kOneStepOfSize >= kGlobalLimit;
    if (nSegments > 1 && bMayBeOver) Tell(OverSegments(Fact::Drop, Held.begin()->first));
    return;
  }
  for (const auto& One : Held) nCounted += One.second;
  for (auto Oldest = Held.begin(); nSegments > 1 && nCounted > Of.nMaxEvents; ++Oldest, --nSegments) {
    Tell(OverSegments(Fact::Drop, Oldest->first));
    nCounted -= Oldest->second;
  }
}

// What is gone the store alone knows: it may have been killed before it dropped what it was about to.
void Driver::LearnDrops(const Database& Of) {
  const std::uint32_t nRecords = RecordsOf(Of.nId);
  const Chain Held = m_Known.SegmentsOf(Of.nId);
  std::uint64_t nHeld = 0;
  for (const auto& One : Held) nHeld += One.second;
  for (auto Oldest = Held.begin(); nHeld > nRecords; ++Oldest) {
    Tell(OverSegments(Fact::Gone, Oldest->first));
    nHeld -= Oldest->second;
  }
  Expect(nHeld == nRecords, "a database tells events that were never added");
}

void Driver::Replace(const Key& Of, const std::string& Content, auto Write) {
  Begin(kOther);
  Tell({Fact::Attempt, Of, Content});
  Tell({Fact::TakeBack, Of});
  if (Done(Write(static_cast<std::uint32_t>(Content.size())), "replacing")) Tell({Fact::Promise, Of, Content});
}

void Driver::Update() {
  const std::optional<Key> Event = Pick(Key::Event);
  if (!Event) return;
  const std::string Content = EventOf(++m_nSerial, 0);
  Replace(*Event, Content,
          [&](std::uint32_t nSize) { return Call(&Ops::UpdateEvent, Event->nId, Content.data(), nSize); });
}

void Driver::SetData() {
  const std::optional<Key> Object = Pick(Key::Name);
  if (!Object) return;
  const Key Block{Key::Data, Object->nId, static_cast<std::uint32_t>(1 + Below(3))};
  std::string Content(1 + Below(Below(4) == 0 ? 5000 : 60), '\0');
  std::ranges::generate(Content, [n = Below(256)]() mutable { return static_cast<char>(n = n * 5 + 1); });
  host::ByteBlob Saved({Content.begin(), Content.end()});
  Replace(Block, Content, [&](std::uint32_t nSize) {
    if (Below(2) == 0) return Call(&Ops::SetObjectData, Block.nId, Content.data(), nSize, Block.nTag);
    return Call(&Ops::SetObjectDataFrom, Block.nId, Saved.Handle(), Block.nTag);
  });
}

void Driver::RemoveData() {
  const std::optional<Key> Block = Pick(Key::Data);
  if (!Block) return;
  Begin(kOther);
  for (std::uint32_t nTag = 1; nTag <= 3; ++nTag) Tell({Fact::TakeBack, {Key::Data, Block->nId, nTag}});
  if (!Done(Call(&Ops::RemoveAllObjectData, Block->nId), "removing data")) return;
  Expect(!ValueOf(*Block), "data stays that was removed");
}

// What is read is compared; that a read fails is another matter.
void Driver::Read() {
  for (const Key::Kinds Kind : {Key::Event, Key::Name, Key::Data}) {
    const std::optional<Key> Picked = Pick(Kind);
    if (!Picked) continue;
    const std::optional<std::string> Value = ValueOf(*Picked);
    Expect(Value.has_value(), "unreadable: " + Describe(*Picked));
    if (Value && *Value != m_Known.Now().at(*Picked)) Found("a read delivers a wrong " + Describe(*Picked));
    host::ByteBlob Blob;
    host::IdContainer Ids;
    const ResultCode nCode = Call(&Ops::GetObjectDataInto, Picked->nId, Blob.Handle(), Picked->nTag);
    const bool bBlob = Succeeded(nCode) && Kind == Key::Data;
    if (bBlob && std::string(Blob.Content().begin(), Blob.Content().end()) != m_Known.Now().at(*Picked))
      Found("a read delivers other " + Describe(*Picked));
    // That these answer is enough: there is no such data, and enumerating is not supported.
    (void)Call(&Ops::GetObjectDataInto, Picked->nId, Ids.Handle(), Picked->nTag);
    (void)Call(&Ops::EnumFirstObject, DatabaseOfId(Picked->nId), nullptr);
    (void)Call(&Ops::EnumNextObject, Picked->nId, nullptr);
  }
  (void)RecordsOf(kAllDatabases);  // others may use it as well
}

// Some events from a position, from the end or from an event's id, with the folders of the objects that they are about.
void Driver::ReadRow() {
  const Database& Of = Any();
  const Promises& Known = m_Known.Now();
  const std::vector<Promises::value_type> All(Known.lower_bound({Key::Event, FirstOf(Of.nId)}),
                                              Known.lower_bound({Key::Event, FirstOf(Of.nId + 1)}));
  if (All.empty()) return;
  const std::uint64_t nAt = Below(All.size());
  const Id Starts[] = {nAt, nAt - All.size(), All[nAt].first.nId};
  std::string Rows(5 * kEventSize, '\0');
  std::uint32_t nRead = 0;
  host::IdContainer Folders;
  const ResultCode nCode =
      Call(&Ops::GetEvents, Of.nId, Starts[Below(3)], Rows.data(), 5 * kEventSize, 5, &nRead, Folders.Handle());
  if (!m_With.bExact || !Done(nCode, "reading a row")) return;
  Expect(nRead == std::min<std::size_t>(5, All.size() - nAt), "a row of another length");
  for (std::size_t i = 0; i < nRead; ++i) {
    const std::string& Content = All[nAt + i].second;
    Expect(Rows.substr(i * kEventSize, kEventSize) == Content,
           "a row delivers a wrong " + Describe(All[nAt + i].first));
    Id nObject = 0;
    std::copy_n(Content.data() + sizeof(Id), sizeof(Id), reinterpret_cast<char*>(&nObject));
    const auto Path = Known.find({Key::Name, nObject});
    if (Path == Known.end()) continue;
    const std::string Folder = Path->second.substr(0, Path->second.rfind('\\'));
    Expect(ValueOf({Key::Name, Folders.Parents().at(i)}) == Folder, "another folder than " + Folder);
  }
}

void Driver::Flush() {
  if (!m_pInstance->bOpen) return;
  Begin(kFlush);
  if (Done(InStore([this] { return m_pInstance->Host.SendFlush(); }), "flushing")) Tell({Fact::Flushed});
}

void Driver::Compact() {
  Begin(kOther);
  (void)Done(Call(&Ops::Compact, kSystemDatabase), "compacting");  // the live files stay as they are
}

bool Driver::Clear(const Database& Which) {
  Tell(OverSegments(Fact::Clear, FirstOf(Which.nId) >> kSegmentShift, Id{1} << (kDatabaseShift - kSegmentShift)));
  Begin(kClear);
  return Done(Call(&Ops::ClearDB, Which.nId), "clearing");
}

// Files that a store does not write again are not synced again: what is to be covered is flushed before it ends. Where
// nothing disturbs, the next start meets what it may meet: half an event, compacted files in their place, another mode.
void Driver::Reopen() {
  if (IsShared()) return;
  Flush();
  if (m_With.bExact) Compact();
  Close();
  if (m_With.bExact) {
    if (Below(2) == 0) {
      for (const char* const pName : {"g_objid", "g_objdt"}) {
        fs::rename(m_With.Folder / (std::string(pName) + "compacted.dat"),
                   m_With.Folder / (std::string(pName) + ".dat"));
      }
    }
    const Database& Torn = Any();
    const auto [nSegment, nEvents] = *ChainOf(Torn).rbegin();
    fs::resize_file(EventFile(Torn, nSegment), kHeaderSize + nEvents * kEventSize + Below(kEventSize));
    m_With.bChecked = Below(2) == 0;
  }
  (void)Open();  // where that may fail, the next one to open goes on
}

// ---- Reading ----------------------------------------------------------------------------------------------

std::optional<std::string> Driver::ValueOf(const Key& Of) const {
  const std::uint32_t nDatabase = DatabaseOfId(Of.nId);
  std::uint32_t nSize = 0;
  std::string Content(6000, '\0');
  char16_t Name[200] = {};
  ResultCode nCode = errOK;
  if (Of.Kind == Key::Event) {
    nCode = Call(&Ops::GetEvents, nDatabase, Of.nId, Content.data(), kEventSize, 1, &nSize, nullptr);
    nSize *= kEventSize;
    if (nSize == 0) return {};
  } else if (Of.Kind == Key::Name) {
    nCode = Call(&Ops::GetObjectName, Of.nId, Name, sizeof(Name), nullptr, 0, nullptr);
    return Succeeded(nCode) ? std::optional(Narrow(Name)) : std::nullopt;
  } else {
    nCode = Call(&Ops::GetObjectData, Of.nId, Content.data(), 6000, &nSize, Of.nTag);
  }
  Content.resize(std::min(nSize, 6000u));
  return Succeeded(nCode) ? std::optional(Content) : std::nullopt;
}

std::uint32_t Driver::RecordsOf(std::uint32_t nDatabase) const {
  std::uint32_t nRecords = 0;
  std::uint64_t nBytes = 0;
  (void)Call(&Ops::GetDBInfo, nDatabase, &nRecords, &nBytes, nullptr);  // 0 of one that is not open
  return nRecords;
}

bool Driver::IsMarkedCorrupted() const {
  std::uint32_t nMarked = 0;
  return Succeeded(m_pInstance->Store.GetNumber(propCORRUPTED, &nMarked)) && nMarked != 0;
}

fs::path Driver::FolderOf(const Database& Of) const {
  return m_With.Folder / (Of.Name.empty() ? Format("%02llX", Of.nId) : Narrow(Of.Name));
}

fs::path Driver::EventFile(const Database& Of, Id nSegment) const {
  return FolderOf(Of) / (Format("%08llX", nSegment & 0xFFFFFF) + "_events.dat");
}

// As it stands on the disk: from the segment that the header names, up to the first without an event file.
Driver::Chain Driver::ChainOf(const Database& Of) const {
  std::uint32_t Header[3] = {};
  std::ifstream(FolderOf(Of) / "segments.dat", std::ios::binary).read(reinterpret_cast<char*>(Header), sizeof(Header));
  Chain There;
  for (std::uint32_t nSegment = Header[1]; nSegment != 0; ++nSegment) {
    std::error_code Missing;
    const std::uint64_t nSize = fs::file_size(EventFile(Of, nSegment), Missing);
    if (Missing) break;
    There[FirstOf(Of.nId) >> kSegmentShift | nSegment] =
        nSize < kHeaderSize ? 0 : static_cast<std::uint32_t>((nSize - kHeaderSize) / kEventSize);
  }
  return There;
}

// ---- Comparing --------------------------------------------------------------------------------------------

void Driver::Verify(End Of, Lookups Which) {
  m_Compared = Of;
  m_pAct = "comparing";
  const Promises Must = Of == End::Power ? m_Known.Covered() : m_Known.Now();
  const Promises Known = m_Known.Now();
  std::set<Key> Events;
  std::set<Id> Newest = {0};
  for (const Database& One : m_Databases) {
    const Chain There = ChainOf(One);
    if (!There.empty()) Newest.insert(There.rbegin()->first);
    std::uint32_t nRecords = 0;
    for (const auto& [nSegment, nEvents] : There) {
      nRecords += nEvents;
      for (Id i = 0; i < nEvents; ++i) Events.insert({Key::Event, (nSegment << kSegmentShift) + i});
    }
    const std::uint32_t nTold = RecordsOf(One.nId);
    if (nTold != nRecords && Of == End::Whole)
      Found("a database tells " + std::to_string(nTold) + " events, its files have " + std::to_string(nRecords));
  }
  for (const auto& [Event, Value] : Must) VerifyValue(Event, &Value, Of);
  for (const auto& One : Known) {
    if (One.first.Kind != Key::Event && !Must.contains(One.first)) VerifyValue(One.first, nullptr, Of);
  }
  for (const Key& Event : Events) {
    if (!Must.contains(Event)) VerifyValue(Event, nullptr, Of);
  }
  VerifyLookups(Newest, Must, Of, Which);
}

// One that must be there, or one that may be. Events have no CRC: what damage makes of them is not compared, but read.
void Driver::VerifyValue(const Key& Of, const std::string* pMust, End How) {
  const std::optional<std::string> There = ValueOf(Of);
  const bool bEvent = Of.Kind == Key::Event;
  bool bGood = How == End::Foreign || (How == End::Damage && (bEvent || !There));
  if (pMust != nullptr) {
    bGood = bGood || There == *pMust;
  } else if (bEvent) {
    const bool bTried = There && m_Known.WasTried(Of, *There);
    bGood = bGood || bTried || (How == End::Power && (!There || m_Known.IsTorn(Of.nId, *There)));
    // One that was under way and made it is there from now on.
    if (bTried && How == End::Whole && !m_Known.IsUsed(Of.nId, false)) Tell({Fact::Promise, Of, *There});
  } else {
    // Where CRCs vouch for names and data, nothing is delivered that never was there. A record of zeros, as a file has
    // that was extended and not written, has the right CRC: an object without a name.
    const bool bZeros = There && Of.Kind == Key::Name && (There->empty() || There->starts_with('\\'));
    bGood = bGood || !m_With.bChecked || !There || bZeros || m_Known.WasTried(Of, *There);
  }
  if (!bGood) Found((There ? "altered: " : "lost: ") + Describe(Of) + (pMust && !bEvent ? " (" + *pMust + ")" : ""));
}

// The newest object of each name: an older one was out of reach when that was made.
void Driver::VerifyLookups(const std::set<Id>& Segments, const Promises& Must, End How, Lookups Which) {
  std::map<std::pair<Id, std::string>, Id> Newest;
  for (const auto& [Of, Path] : Must) {
    const Id nSegment = Of.nId >> kSegmentShift;
    if (Of.Kind == Key::Name && Segments.contains(nSegment)) Newest[{nSegment, Path}] = Of.nId;
  }
  for (const auto& One : Newest) {
    const std::string& Path = One.first.second;
    const std::uint32_t nDatabase = DatabaseOfId(One.second);
    Id nId = 0;
    const ResultCode nCode = Look(nDatabase, Path, kFinding, &nId);
    if (How == End::Foreign || (How == End::Damage && Failed(nCode))) continue;
    if (Succeeded(nCode) && (nId == One.second || How == End::Power)) continue;
    // A creation that repaired has cut the node off, and was killed before it told the new id.
    if (Succeeded(nCode) && Which == Lookups::MayFail && !Must.contains({Key::Name, nId})) continue;
    if (Failed(nCode) && Which == Lookups::MayFail && Succeeded(Look(nDatabase, Path, kRepairing, &nId))) continue;
    Found("not found: " + Describe({Key::Name, One.second}) + " (" + Path + ")");
  }
}

void Driver::UseDamaged(End Of) {
  if (!Open(Limits::No)) return;
  Verify(Of, Lookups::MayFail);
  for (const bool bCleared : {false, true}) {
    m_Known = {};
    AddToEach("after damage");
    for (const Database& One : m_Databases) (void)Find(One.nId, "Alone");
    Flush();
    Close();
    m_With.bChecked = !m_With.bChecked;
    if (!Open(Limits::No)) Found("it does not open again");
    for (const auto& [One, Value] : m_Known.Now()) {
      // The whole name of an object may lead through one that is damaged.
      if (One.Kind == Key::Event || Value == "Alone") VerifyValue(One, &Value, End::Whole);
    }
    for (const Database& One : m_Databases) {
      if (!bCleared && !Clear(One)) Found("it cannot be cleared: " + m_LastFailure);
    }
  }
}

// The database in whose folder a file stands; none for the store's own.
const Driver::Database* Driver::OwnerOf(const std::string& File) const {
  const auto One = std::ranges::find_if(
      m_Databases, [&](const Database& Any) { return File.starts_with(FolderOf(Any).filename().string() + '/'); });
  return One == m_Databases.end() ? nullptr : &*One;
}

// Whether a file that was damaged may take a value along. Names lead through shared objects.
bool Driver::StandsIn(const Key& Of, const std::string& File) const {
  const bool bOfObjects = File.starts_with("g_obj");
  if (bOfObjects) return Of.Kind != Key::Event;
  const std::size_t nNumber = File.find('/') + 1;
  if (nNumber == 0 || File.find('_', nNumber) != nNumber + 8) return false;
  const Database* const pOwner = OwnerOf(File);
  return pOwner != nullptr && DatabaseOfId(Of.nId) == pOwner->nId &&
         (Of.nId >> kSegmentShift & 0xFFFFFF) == std::stoull(File.substr(nNumber, 8), nullptr, 16);
}

// Whether a value stands in one of the two segments before the first of a chain, by the chain's header.
bool Driver::StandsBeforeChain(const Key& Of, const std::string& File) const {
  const Database* const pOwner = OwnerOf(File);
  if (pOwner == nullptr || DatabaseOfId(Of.nId) != pOwner->nId) return false;
  return ChainOf(*pOwner).begin()->first - (Of.nId >> kSegmentShift) <= 2;
}

void Driver::VerifyHealed(const std::string& File, Shape Damaged) {
  OpenStore();
  if (!m_pInstance->bOpen) {
    if (!File.starts_with("g_objid")) Found("it does not open");
    return;
  }
  if (!Open(Limits::No)) Found("a database does not open");
  m_Compared = End::Whole;
  const Promises Before = m_Known.Now();
  for (const auto& [Of, Value] : Before) {
    const bool bDropped = Damaged == Shape::StartsLater && StandsBeforeChain(Of, File);
    if (!bDropped && !StandsIn(Of, File)) VerifyValue(Of, &Value, End::Whole);
  }
  // Nothing tells of events that are cut off the end of the newest segment.
  if (File.ends_with("events.dat")) m_Compared = End::Damage;
  if (File.ends_with("objid.dat")) m_Compared = End::Foreign;  // a record may be damaged that new names lead through
  if (File.starts_with("g_obj")) return;                       // a new name may lead through one that is damaged
  AddToEach("after healing");
  for (const auto& [Of, Value] : Before) {
    const bool bCut = Damaged == Shape::Shorter && Of.Kind == Key::Name && StandsIn(Of, File);
    const std::optional<std::string> There = bCut ? ValueOf(Of) : std::nullopt;
    // Zeros end a name.
    if (There && !Value.starts_with(*There)) Found("an old id has another name: " + Describe(Of) + " (" + *There + ')');
  }
}

// ---- Files ------------------------------------------------------------------------------------------------

Files ReadFiles(const fs::path& Folder) {
  Files All;
  for (const auto& Entry : fs::recursive_directory_iterator(Folder)) {
    if (!Entry.is_regular_file()) continue;
    std::ifstream Stream(Entry.path(), std::ios::binary);
    All[Entry.path().lexically_relative(Folder).string()] = std::string(std::istreambuf_iterator<char>(Stream), {});
  }
  return All;
}

void WriteFiles(const fs::path& Folder, const Files& All) {
  fs::remove_all(Folder);
  for (const auto& [Path, Content] : All) {
    fs::create_directories((Folder / Path).parent_path());
    std::ofstream(Folder / Path, std::ios::binary) << Content;
  }
}

}  // namespace lumbra::test
