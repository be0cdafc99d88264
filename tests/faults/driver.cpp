#include "faults/driver.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>

#include "faults/findings.h"
#include "host/trace_format.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kEventSize = 32;
constexpr std::uint64_t kGlobalLimit = 9000;    // bytes: some segments of a small database
constexpr std::uint64_t kOneStepOfSize = 1500;  // what an add can bring at most: a new segment and an event

// Faults are for the store, and not for its driver.
struct InStore {
  InStore() { PauseFaults(false); }
  ~InStore() { PauseFaults(true); }
};

std::string EventOfSerial(std::uint64_t nSerial, Id nObject) {
  const std::uint64_t Parts[] = {nSerial, nObject, nSerial * 0x9E3779B97F4A7C15, ~nSerial};
  static_assert(sizeof(Parts) == kEventSize);
  return {reinterpret_cast<const char*>(Parts), sizeof(Parts)};
}

std::string Narrow(std::u16string_view Text) {
  return {Text.begin(), Text.end()};
}
std::string Hex(std::uint64_t n) {
  char Text[20];
  std::snprintf(Text, sizeof(Text), "%016llx", static_cast<unsigned long long>(n));
  return Text;
}
std::string Describe(const Key& Of) {
  constexpr const char* kKinds[] = {"event ", "name of ", "data of "};
  return kKinds[Of.Kind] + Hex(Of.nId) + (Of.Kind == Key::Data ? " tag " + std::to_string(Of.nTag) : "");
}

std::uint32_t DatabaseOf(Id nId) {
  return static_cast<std::uint32_t>(nId >> kDatabaseShift);
}
Id FirstOf(std::uint32_t nDatabase) {
  return Id{nDatabase} << kDatabaseShift;
}
Fact OverSegments(Fact::Kinds Kind, Id nFirst, Id nCount = 1) {
  return {Kind, {Key::Event, nFirst << kSegmentShift}, {}, (nFirst + nCount) << kSegmentShift};
}

}  // namespace

Driver::Driver(Setup With, Record Known)
    : m_With(std::move(With)), m_Known(std::move(Known)), m_pInstance(m_With.pInstance), m_nSerial(m_With.nSeed << 32) {
  PauseFaults(true);
  const bool bAlone = m_pInstance == nullptr;
  const std::string Suffix = std::to_string(m_With.nFirst);
  m_Databases = {{m_With.nFirst, {}, 6, 20},
                 {m_With.nFirst + 1, {}, 7, bAlone ? 0u : 21u},
                 {0, u"named" + std::u16string(Suffix.begin(), Suffix.end()), 9, 30}};
}

// The store's own objects take the first ids that are free.
void Driver::TellOwnObjects() {
  for (const char* const pName : {"System", "QOR", "host"}) Tell({Fact::Attempt, {Key::Name, 0}, pName});
}

void Driver::Tell(const Fact& Of) {
  m_Known.Apply(Of);
  if (m_With.Tell) m_With.Tell(Of);
}

template <class... Parameters>
ResultCode Driver::Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                        std::type_identity_t<Parameters>... Arguments) const {
  if (!m_pInstance || !m_pInstance->bOpen) return errSTORE_NOT_INITIALIZED;
  const InStore Now;
  return m_pInstance->Store.Call(pOperation, Arguments...);
}

// ---- Opening and closing ----------------------------------------------------------------------------------

bool Driver::Open(Limits Set) {
  Begin(kOther, 0);
  TellOwnObjects();
  if (m_pInstance == nullptr) m_pInstance = std::make_shared<Instance>();
  if (!m_pInstance->Store) {
    if (std::getenv("LUMBRA_FAULTS_TRACE") != nullptr) m_pInstance->Host.TraceToStream(600, stderr);
    m_pInstance->Host.SetPlaceholder(u"%Report%", m_With.Folder.u16string());
    m_pInstance->Host.SetPlaceholder(u"%host%", u"host");
    m_pInstance->Store = m_pInstance->Host.Create();
    (void)m_pInstance->Store.SetNumber(propCHECK_MODE, m_With.bChecked ? 1 : 0);
  }
  if (!m_pInstance->bOpen) {
    const InStore Now;
    m_pInstance->bOpen = Succeeded(m_pInstance->Store.Init());
  }
  bool bOpen = m_pInstance->bOpen;
  for (Database& One : m_Databases) bOpen = OpenDatabase(&One, Set) && bOpen;
  if (Set == Limits::Yes && m_With.pInstance == nullptr) {
    bOpen = Succeeded(Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, kGlobalLimit)) && bOpen;
  }
  return bOpen;
}

bool Driver::OpenDatabase(Database* pDatabase, Limits Set) {
  Begin(kOther, pDatabase->nId);
  ResultCode nCode = errOK;
  if (pDatabase->Name.empty()) {
    nCode = Call(&Ops::InitDB, pDatabase->nId, kEventSize);
    if (nCode == errALREADY_DONE) nCode = errOK;
  } else {
    nCode = Call(&Ops::InitDBByName, pDatabase->Name.c_str(), kEventSize, &pDatabase->nId);
  }
  if (Failed(nCode)) return false;
  if (Set == Limits::No) return true;
  TellDrops(*pDatabase);
  Begin(kAddOrLimit, pDatabase->nId);
  const auto SetLimit = [&](LumbraLimit Kind, std::uint64_t nValue) {
    if (Succeeded(nCode)) nCode = Call(&Ops::SetDBParams, pDatabase->nId, Kind, nValue);
  };
  if (pDatabase->nMaxEvents != 0) {
    SetLimit(limitDatabaseSize, 1000000000);  // so that it counts for itself
    SetLimit(limitDatabaseEvents, pDatabase->nMaxEvents);
  }
  SetLimit(limitSegmentEvents, pDatabase->nSegmentEvents);
  if (Failed(nCode)) return false;
  LearnDrops(*pDatabase);
  return true;
}

void Driver::Close() {
  if (m_pInstance == nullptr || m_With.pInstance != nullptr) return;
  const InStore Now;
  m_pInstance.reset();
}

bool Driver::Flush() {
  if (!m_pInstance->bOpen) return false;
  Begin(kFlush, 0);
  const auto Send = [this] {
    const InStore Now;
    return m_pInstance->Host.SendFlush();
  };
  if (Failed(Send())) return false;
  Tell({Fact::Flushed});
  return true;
}

// ---- The work ---------------------------------------------------------------------------------------------

void Driver::Step(std::uint64_t nStep) {
  m_Random.seed(m_With.nSeed * 1000003 + nStep);
  const Database& Db = m_Databases[Below(m_Databases.size())];
  const std::uint64_t nWhat = Below(40);
  if (nWhat < 20) {
    Add(Db);
  } else if (nWhat < 23) {
    Update();
  } else if (nWhat < 27) {
    SetData();
  } else if (nWhat < 28) {
    RemoveData();
  } else if (nWhat < 33) {
    Read();
  } else if (nWhat < 35) {
    Find(0);
  } else if (nWhat < 37) {
    Flush();
  } else if (nWhat < 38) {
    (void)Call(&Ops::Compact, 0);
  } else if (Below(2) == 0) {
    if (Below(3) == 0) Clear(Db);
  } else if (m_With.pInstance == nullptr) {
    // Files that a store does not write again are not synced again: what is to be covered is flushed before it ends.
    Flush();
    Close();
    Open();
  }
}

void Driver::AddToEach(const char* pWhen) {
  const auto Expect = [&](bool bDone) {
    if (!bDone) Found(std::string("an add fails ") + pWhen + ": " + m_LastFailure);
  };
  Expect(Find(0).has_value());
  // A newest segment that lost a file with the power says so once, and the chain goes on behind it.
  for (const Database& One : m_Databases) Expect(Add(One) || (m_Compared != End::Whole && Add(One)));
}

const Key* Driver::Pick(Key::Kinds Kind) {
  std::vector<const Key*> Of;
  for (const auto& One : m_Known.Now()) {
    if (One.first.Kind == Kind) Of.push_back(&One.first);
  }
  return Of.empty() ? nullptr : Of[Below(Of.size())];
}

// Finds or creates an object under one of a few names, so that some are there already.
std::optional<Id> Driver::Find(std::uint32_t nDatabase) {
  Begin(kOther, nDatabase);
  const std::string Path =
      "C:\\Dir" + std::to_string(m_With.nFirst * 10 + Below(4)) + "\\Name" + std::to_string(Below(40));
  const std::u16string Wide(Path.begin(), Path.end());
  Id nId = 0;
  constexpr std::uint32_t kRepairing = 2;
  const ResultCode nCode =
      Below(2) == 0
          ? Call(&Ops::FindObject, nDatabase, typeFile, Wide.c_str(), kZeroTerminated, kRepairing, 0, 0, &nId)
          : Call(&Ops::FindObjectSimple, nDatabase, typeFile, Wide.c_str(), kZeroTerminated, kRepairing, 0, &nId);
  if (Failed(nCode)) {
    m_LastFailure = "finding in " + Hex(nDatabase) + ", " + host::DescribeCode(nCode);
    return {};
  }
  Tell({Fact::Promise, {Key::Name, nId}, Path});
  return nId;
}

bool Driver::Add(const Database& To) {
  const std::optional<Id> nObject = Find(To.nId);
  if (!nObject) return false;
  TellDrops(To);
  const std::string Content = EventOfSerial(++m_nSerial, *nObject);
  Tell({Fact::Attempt, {Key::Event, FirstOf(To.nId)}, Content});
  Begin(kAddOrLimit, To.nId);
  Id nId = 0;
  if (const ResultCode nCode = Call(&Ops::AddEvent, To.nId, Content.data(), kEventSize, &nId); Failed(nCode)) {
    m_LastFailure = "adding in " + Hex(To.nId) + ", " + host::DescribeCode(nCode);
    return false;
  }
  const bool bUsed = m_Known.IsUsed(nId, m_Compared == End::Power);
  if (bUsed && m_Compared != End::Damage) Found("the id of an event came back: " + Hex(nId));
  Tell({Fact::Promise, {Key::Event, nId}, Content});
  LearnDrops(To);
  return true;
}

// Takes back what the limits of a database may drop at its next check.
void Driver::TellDrops(const Database& Of) {
  const auto& All = m_Known.Segments();
  const Id nFirst = FirstOf(Of.nId) >> kSegmentShift;
  const std::vector<std::pair<Id, std::uint32_t>> Held(All.lower_bound(nFirst),
                                                       All.lower_bound(FirstOf(Of.nId + 1) >> kSegmentShift));
  if (Held.empty()) return;
  std::size_t nSegments = Held.size() + (Held.back().second >= Of.nSegmentEvents ? 1 : 0);
  if (Of.nMaxEvents == 0) {
    // Also what was written since the last add, which counts in the limit only now.
    std::uint64_t nBytes = kOneStepOfSize;
    std::error_code Missing;
    for (const auto& One : fs::directory_iterator(FolderOf(Of), Missing)) nBytes += One.file_size();
    const bool bMayBeOver = nBytes >= kGlobalLimit;
    if (nSegments > 1 && bMayBeOver) Tell(OverSegments(Fact::Drop, Held.front().first));
    return;
  }
  std::uint32_t nEvents = 0;
  for (const auto& One : Held) nEvents += One.second;
  for (std::size_t i = 0; i < Held.size() && nSegments > 1 && nEvents > Of.nMaxEvents; ++i, --nSegments) {
    Tell(OverSegments(Fact::Drop, Held[i].first));
    nEvents -= Held[i].second;
  }
}

// What is gone the store alone knows: it may have been killed before it dropped what it was about to.
void Driver::LearnDrops(const Database& Of) {
  const std::uint32_t nRecords = Info(Of.nId).first;
  for (;;) {
    std::uint32_t nHeld = 0;
    Id nOldest = 0;
    for (const auto& [nSegment, nEvents] : m_Known.Segments()) {
      if (DatabaseOf(nSegment << kSegmentShift) != Of.nId) continue;
      if (nOldest == 0) nOldest = nSegment;
      nHeld += nEvents;
    }
    if (nHeld <= nRecords) return;
    Tell(OverSegments(Fact::Gone, nOldest));
  }
}

void Driver::Update() {
  const Key* const pPicked = Pick(Key::Event);
  if (pPicked == nullptr) return;
  const Key Event = *pPicked;
  Begin(kOther, Event.nId);
  const std::string Content = EventOfSerial(++m_nSerial, 0);
  Tell({Fact::Attempt, Event, Content});
  Tell({Fact::TakeBack, Event});
  const ResultCode nCode = Call(&Ops::UpdateEvent, Event.nId, Content.data(), kEventSize);
  if (Succeeded(nCode)) Tell({Fact::Promise, Event, Content});
}

void Driver::SetData() {
  const Key* const pPicked = Pick(Key::Name);
  if (pPicked == nullptr) return;
  const Key Block{Key::Data, pPicked->nId, static_cast<std::uint32_t>(1 + Below(3))};
  Begin(kOther, Block.nId);
  std::string Content(1 + Below(Below(4) == 0 ? 5000 : 60), '\0');
  for (char& c : Content) c = static_cast<char>(Below(256));
  Tell({Fact::Attempt, Block, Content});
  Tell({Fact::TakeBack, Block});
  host::ByteBlob Saved({Content.begin(), Content.end()});
  const auto nSize = static_cast<std::uint32_t>(Content.size());
  const ResultCode nCode = Below(2) == 0 ? Call(&Ops::SetObjectData, Block.nId, Content.data(), nSize, Block.nTag)
                                         : Call(&Ops::SetObjectDataFrom, Block.nId, Saved.Handle(), Block.nTag);
  if (Succeeded(nCode)) Tell({Fact::Promise, Block, Content});
}

void Driver::RemoveData() {
  const Key* const pPicked = Pick(Key::Data);
  if (pPicked == nullptr) return;
  const Id nObject = pPicked->nId;
  Begin(kOther, nObject);
  for (std::uint32_t nTag = 1; nTag <= 3; ++nTag) Tell({Fact::TakeBack, {Key::Data, nObject, nTag}});
  (void)Call(&Ops::RemoveAllObjectData, nObject);
}

void Driver::Clear(const Database& Which) {
  Tell(OverSegments(Fact::Clear, FirstOf(Which.nId) >> kSegmentShift, Id{1} << (kDatabaseShift - kSegmentShift)));
  Begin(kClear, Which.nId);
  (void)Call(&Ops::ClearDB, Which.nId);
}

// What is read is compared; that a read fails is another matter.
void Driver::Read() {
  for (const Key::Kinds Kind : {Key::Event, Key::Name, Key::Data}) {
    const Key* const pKey = Pick(Kind);
    if (pKey == nullptr) continue;
    const std::optional<std::string> Value = ValueOf(*pKey);
    if (Value && *Value != m_Known.Now().at(*pKey)) Found("a read delivers a wrong " + Describe(*pKey));
    host::IdContainer Ids;
    host::ByteBlob Blob;
    char Buffer[5 * kEventSize];
    std::uint32_t nRead = 0;
    (void)Call(&Ops::GetEvents, DatabaseOf(pKey->nId), 0, Buffer, sizeof(Buffer), 5, &nRead, Ids.Handle());
    (void)Call(&Ops::GetObjectDataInto, pKey->nId, Ids.Handle(), pKey->nTag);
    (void)Call(&Ops::GetObjectDataInto, pKey->nId, Blob.Handle(), pKey->nTag);
    (void)Call(&Ops::EnumFirstObject, DatabaseOf(pKey->nId), nullptr);
    (void)Call(&Ops::EnumNextObject, pKey->nId, nullptr);
  }
  Info(kAllDatabases);
}

// ---- Reading ----------------------------------------------------------------------------------------------

std::optional<std::string> Driver::EventOf(Id nId) const {
  std::string Content(kEventSize, '\0');
  std::uint32_t nRead = 0;
  const ResultCode nCode = Call(&Ops::GetEvents, DatabaseOf(nId), nId, Content.data(), kEventSize, 1, &nRead, nullptr);
  return nCode == errOK && nRead == 1 ? std::optional(Content) : std::nullopt;
}

std::optional<std::string> Driver::ValueOf(const Key& Of) const {
  if (Of.Kind == Key::Event) return EventOf(Of.nId);
  if (Of.Kind == Key::Name) {
    char16_t Name[200] = {};
    const ResultCode nCode = Call(&Ops::GetObjectName, Of.nId, Name, sizeof(Name), nullptr, 0, nullptr);
    return Succeeded(nCode) ? std::optional(Narrow(Name)) : std::nullopt;
  }
  std::string Content(6000, '\0');
  std::uint32_t nSize = 0;
  const ResultCode nCode = Call(&Ops::GetObjectData, Of.nId, Content.data(), 6000, &nSize, Of.nTag);
  Content.resize(std::min(nSize, 6000u));
  return Succeeded(nCode) ? std::optional(Content) : std::nullopt;
}

std::pair<std::uint32_t, std::uint64_t> Driver::Info(std::uint32_t nDatabase) const {
  std::pair<std::uint32_t, std::uint64_t> Told;
  (void)Call(&Ops::GetDBInfo, nDatabase, &Told.first, &Told.second, nullptr);
  return Told;
}

bool Driver::IsMarkedCorrupted() const {
  std::uint32_t nMarked = 0;
  (void)m_pInstance->Store.GetNumber(propCORRUPTED, &nMarked);
  return nMarked != 0;
}

fs::path Driver::FolderOf(const Database& Of) const {
  char Name[20];
  std::snprintf(Name, sizeof(Name), "%02X", Of.nId);
  return m_With.Folder / (Of.Name.empty() ? Name : Narrow(Of.Name));
}

// As it stands on the disk: from the segment that the header names, up to the first without an event file.
Driver::Chain Driver::ChainOf(const Database& Of) const {
  const fs::path Folder = FolderOf(Of);
  std::uint32_t Header[3] = {};
  std::ifstream(Folder / "segments.dat", std::ios::binary).read(reinterpret_cast<char*>(Header), sizeof(Header));
  Chain There;
  for (std::uint32_t nSegment = Header[1]; nSegment != 0; ++nSegment) {
    char Name[30];
    std::snprintf(Name, sizeof(Name), "%08X_events.dat", nSegment);
    std::error_code Missing;
    const std::uint64_t nSize = fs::file_size(Folder / Name, Missing);
    if (Missing) break;
    constexpr std::uint32_t kHeaderSize = 12;
    There[FirstOf(Of.nId) >> kSegmentShift | nSegment] =
        nSize < kHeaderSize ? 0 : static_cast<std::uint32_t>((nSize - kHeaderSize) / kEventSize);
  }
  return There;
}

// ---- Comparing --------------------------------------------------------------------------------------------

void Driver::Verify(End Of, Lookups Which) {
  m_Compared = Of;
  const Promises Must = Of == End::Power ? m_Known.Covered() : m_Known.Now();
  std::set<Id> Newest = {0};
  for (const Database& One : m_Databases) {
    const Chain There = ChainOf(One);
    if (!There.empty()) Newest.insert(There.rbegin()->first);
    VerifyEvents(One, There, Must, Of);
  }
  VerifyObjects(Must, Of);
  VerifyLookups(Newest, Must, Of, Which);
}

// Events have no CRC: what damage makes of them is not compared, but read.
void Driver::VerifyEvents(const Database& Of, const Chain& There, const Promises& Must, End How) {
  std::uint32_t nRecords = 0;
  for (const auto& One : There) nRecords += One.second;
  const std::uint32_t nTold = Info(Of.nId).first;
  if (nTold != nRecords && How == End::Whole) {
    Found("database " + Hex(Of.nId) + " tells " + std::to_string(nTold) + " events, its files have " +
          std::to_string(nRecords));
  }
  for (const auto& [Event, Value] : Must) {
    if (Event.Kind != Key::Event || DatabaseOf(Event.nId) != Of.nId || How == End::Damage) continue;
    const auto Segment = There.find(Event.nId >> kSegmentShift);
    const bool bThere = Segment != There.end() && static_cast<std::uint32_t>(Event.nId) < Segment->second;
    if (!bThere) Found("lost: " + Describe(Event));
  }
  for (const auto& [nSegment, nCount] : There) {
    const Id nFirst = nSegment << kSegmentShift;
    for (Id nId = nFirst; nId < nFirst + nCount; ++nId) VerifyEvent(nId, Must, How);
  }
}

void Driver::VerifyEvent(Id nId, const Promises& Must, End How) {
  const Key Event{Key::Event, nId};
  const std::optional<std::string> Content = EventOf(nId);
  if (How == End::Damage) return;
  const auto Promised = Must.find(Event);
  const bool bMust = Promised != Must.end();
  const bool bTried = Content && m_Known.WasTried(Event, *Content);
  const bool bTorn = How == End::Power && (!Content || m_Known.IsTorn(nId, *Content));
  if (bMust ? Content != Promised->second : !bTried && !bTorn) {
    Found((Content ? "altered: " : "unreadable: ") + Describe(Event));
  }
  // One that was under way and made it is there from now on.
  if (!bMust && bTried && How == End::Whole && !m_Known.IsUsed(nId, false)) Tell({Fact::Promise, Event, *Content});
}

void Driver::VerifyObjects(const Promises& Must, End How) {
  for (const auto& [Of, Value] : Must) {
    if (Of.Kind == Key::Event) continue;
    const std::optional<std::string> There = ValueOf(Of);
    if (There != Value && (There || How != End::Damage))
      Found((There ? "altered: " : "lost: ") + Describe(Of) + (Of.Kind == Key::Name ? " (" + Value + ")" : ""));
  }
  // Where CRCs vouch for names and data, nothing is delivered that never was there.
  for (const auto& [Of, Value] : m_Known.Now()) {
    if (Of.Kind == Key::Event || Must.contains(Of) || !m_With.bChecked || How != End::Power) continue;
    const std::optional<std::string> There = ValueOf(Of);
    // A record of zeros, as a file has that was extended and not written, has the right CRC: an object without a name.
    const bool bZeros = There && Of.Kind == Key::Name && (There->empty() || There->starts_with('\\'));
    if (There && !bZeros && !m_Known.WasTried(Of, *There))
      Found("delivered as good: wrong " + Describe(Of) + (Of.Kind == Key::Name ? " (" + Value + "): " + *There : ""));
  }
}

void Driver::VerifyLookups(const std::set<Id>& Stores, const Promises& Must, End How, Lookups Which) {
  std::map<std::pair<Id, std::string>, Id> Newest;  // of each name in each store
  for (const auto& [Of, Value] : Must) {
    if (Of.Kind == Key::Name && Stores.contains(Of.nId >> kSegmentShift))
      Newest[{Of.nId >> kSegmentShift, Value}] = Of.nId;
  }
  for (const auto& One : Newest) {
    const auto& Where = One.first;
    const Id nExpected = One.second;
    const std::u16string Path(Where.second.begin(), Where.second.end());
    const auto Look = [&](std::uint32_t nMode, Id* pnId) {
      return Call(&Ops::FindObject, DatabaseOf(nExpected), typeFile, Path.c_str(), kZeroTerminated, nMode, 0, 0, pnId);
    };
    Id nId = 0;
    const ResultCode nCode = Look(0, &nId);
    if (Succeeded(nCode) ? nId == nExpected || How == End::Power : How == End::Damage) continue;
    if (Failed(nCode) && Which == Lookups::MayFail && Succeeded(Look(2, &nId))) continue;
    // A creation that repaired has cut the node off, and was killed before it told the new id.
    if (Succeeded(nCode) && Which == Lookups::MayFail && !Must.contains({Key::Name, nId})) continue;
    Found("not found under its " + Describe({Key::Name, nExpected}) + ": " + Where.second + ", but " + Hex(nId));
  }
}

}  // namespace lumbra::test
