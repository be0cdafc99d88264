// A row of operations on a store and on a model of it in memory: every answer, and in the end all content, is the
// model's, also after the store was opened anew.
#include <deque>
#include <map>
#include <numeric>
#include <tuple>

#include "fuzz.h"

namespace lumbra::fuzz {
namespace {

// ---- The model --------------------------------------------------------------------------------------------

struct Object {
  std::uint64_t nParent;
  std::uint8_t nType;
  std::u16string Name;  // empty: anonymous
  std::map<std::uint32_t, Bytes> Data;
};

// A segment of a database; the shared objects are a segment without events, too.
struct Segment {
  std::uint32_t nNumber;
  bool bChecked;  // files with every CRC
  std::deque<Bytes> Events = {};
  std::map<std::uint64_t, Object> Objects = {};
  std::map<std::tuple<std::uint64_t, std::uint8_t, std::u16string>, std::uint64_t> Ids = {};  // parent, type, name
};

struct Database {
  std::uint32_t nId;
  std::uint32_t nEventSize = 16;
  std::uint64_t nSegmentMax = 0;
  std::uint64_t nMax = 0;
  std::deque<Segment> Segments = {};

  std::uint64_t Count() const {
    return std::transform_reduce(Segments.begin(), Segments.end(), std::uint64_t{0}, std::plus(),
                                 [](const Segment& One) { return One.Events.size(); });
  }
  Segment* Find(std::uint32_t nNumber) {
    const auto Found = std::ranges::find(Segments, nNumber, &Segment::nNumber);
    return Found == Segments.end() ? nullptr : &*Found;
  }
  void CheckLimits(bool bCheckMode) {
    Segment& Newest = Segments.back();
    if (nSegmentMax != 0 && Newest.Events.size() >= nSegmentMax) Segments.push_back({Newest.nNumber + 1, bCheckMode});
    while (Segments.size() > 1 && nMax != 0 && Count() > nMax) Segments.pop_front();
  }
};

// ---- Store and model together -----------------------------------------------------------------------------

class Pair {
 public:
  explicit Pair(bool bCheckMode) {
    m_Databases[kSystemDatabase].Segments.push_back({0, bCheckMode});
    for (std::size_t i = 1; i < std::size(m_Databases); ++i) m_Databases[i].Segments.push_back({1, bCheckMode});
    Open(bCheckMode);
  }

  void Run(Input From) {
    using Operation = void (Pair::*)(Input*);
    constexpr Operation kOperations[] = {&Pair::Add,  &Pair::Add,     &Pair::Update,     &Pair::Read,
                                         &Pair::Read, &Pair::Find,    &Pair::Find,       &Pair::Find,
                                         &Pair::Name, &Pair::SetData, &Pair::SetData,    &Pair::Limit,
                                         &Pair::Info, &Pair::Reopen,  &Pair::RemoveData, &Pair::Rare};
    while (!From.IsDone()) (this->*kOperations[From.Byte() % std::size(kOperations)])(&From);
    CompareAll();
    Open(m_bCheckMode);
    CompareAll();
  }

 private:
  Database& Pick(Input* pFrom) { return m_Databases[pFrom->Byte() % std::size(m_Databases)]; }
  Database& PickNumbered(Input* pFrom) { return m_Databases[1 + pFrom->Byte() % (std::size(m_Databases) - 1)]; }

  // The id of an object of the database, whatever the segment; now and then none, or none that is there.
  static std::uint64_t PickObject(Input* pFrom, const Database& In) {
    std::vector<std::uint64_t> Ids = {0, WithDatabase(1ull << 32 | 0x1234, In.nId)};
    for (const Segment& One : In.Segments) {
      for (const auto& Entry : One.Objects) Ids.push_back(Entry.first);
    }
    return Ids[Ids.size() - 1 - pFrom->Byte() % Ids.size()];
  }

  Object* FindInModel(std::uint64_t nId) {
    for (Database& One : m_Databases) {
      Segment* const pSegment = One.nId == DatabaseOfId(nId) ? One.Find(SegmentOfId(nId)) : nullptr;
      if (pSegment == nullptr) continue;
      const auto Found = pSegment->Objects.find(nId);
      return Found == pSegment->Objects.end() ? nullptr : &Found->second;
    }
    return nullptr;
  }

  Bytes MakeEvent(Input* pFrom, const Database& In) {
    Bytes Event(In.nEventSize);
    const std::uint64_t nObject = PickObject(pFrom, Pick(pFrom));
    std::memcpy(Event.data(), &++m_nSerial, sizeof(m_nSerial));
    std::memcpy(Event.data() + 8, &nObject, sizeof(nObject));
    return Event;
  }

  void Open(bool bCheckMode) {
    m_bCheckMode = bCheckMode;
    RequireCode(errOK, m_Store.Open(bCheckMode), "opening");
    for (Database& One : m_Databases) {
      One.nSegmentMax = One.nMax = 0;
      if (One.nId == kSystemDatabase) continue;
      const bool bNamed = One.nId >= kFirstNamedDatabase;
      std::uint32_t nId = One.nId;
      RequireCode(errOK,
                  bNamed ? m_Store.Call(&Ops::InitDBByName, u"named", One.nEventSize, &nId)
                         : m_Store.Call(&Ops::InitDB, One.nId, One.nEventSize),
                  "opening a database");
      Require(nId == One.nId, "a name keeps its id");
    }
  }

  // ---- Events ----

  void Add(Input* pFrom) {
    Database& To = PickNumbered(pFrom);
    const Bytes Event = MakeEvent(pFrom, To);
    std::uint64_t nId = 0;
    To.CheckLimits(m_bCheckMode);
    Segment& Newest = To.Segments.back();
    RequireCode(errOK, m_Store.Call(&Ops::AddEvent, To.nId, Event.data(), To.nEventSize, &nId), "adding");
    Require(nId == WithDatabase(std::uint64_t{Newest.nNumber} << 32 | Newest.Events.size(), To.nId), "ids go up by 1");
    Newest.Events.push_back(Event);
  }

  void Update(Input* pFrom) {
    Database& In = PickNumbered(pFrom);
    const std::uint32_t nNumber = In.Segments.front().nNumber + pFrom->Byte() % 4;
    const std::uint32_t nIndex = pFrom->Byte() % 16;
    const Bytes Event = MakeEvent(pFrom, In);
    const std::uint64_t nId = WithDatabase(std::uint64_t{nNumber} << 32 | nIndex, In.nId);
    const ResultCode nCode = m_Store.Call(&Ops::UpdateEvent, nId, Event.data(), In.nEventSize);
    Segment* const pSegment = In.Find(nNumber);
    if (pSegment == nullptr) return RequireCode(errOBJECT_NOT_FOUND, nCode, "updating in no segment");
    if (nIndex >= pSegment->Events.size()) return RequireCode(errNOT_FOUND, nCode, "updating no event");
    RequireCode(errOK, nCode, "updating");
    pSegment->Events[nIndex] = Event;
  }

  // From a position, from the end, or from an event id. The id of a segment that is no more is a position, too.
  void Read(Input* pFrom) {
    Database& In = PickNumbered(pFrom);
    const std::uint8_t nHow = pFrom->Byte() % 3;
    const std::uint64_t nAt = pFrom->Byte() % 64;
    const std::uint32_t nCount = pFrom->Byte() % 40;
    if (nHow == 0) return CompareEvents(In, nAt, nAt, nCount);
    if (nHow == 1) return CompareEvents(In, ~nAt, In.Count() - std::min(nAt + 1, In.Count()), nCount);
    const std::uint64_t nNumber = In.Segments.front().nNumber - 1 + nAt / 8;
    std::uint64_t nPosition = nAt % 8;
    for (const Segment& One : In.Segments) {
      if (nNumber < One.nNumber || nNumber > In.Segments.back().nNumber) break;
      if (nNumber == One.nNumber && nAt % 8 >= One.Events.size()) return;
      if (nNumber > One.nNumber) nPosition += One.Events.size();
    }
    CompareEvents(In, WithDatabase(nNumber << 32 | nAt % 8, In.nId), nPosition, nCount);
  }

  // Reads events and their parents from a start that means a position.
  void CompareEvents(const Database& In, std::uint64_t nStart, std::uint64_t nPosition, std::uint32_t nCount) {
    Bytes Expected;
    std::vector<std::uint64_t> Parents;
    for (const Segment& One : In.Segments) {
      for (std::size_t i = 0; i < One.Events.size() && Parents.size() < nCount; ++i) {
        if (nPosition != 0 && nPosition-- != 0) continue;
        Expected.insert(Expected.end(), One.Events[i].begin(), One.Events[i].end());
        std::uint64_t nObject = 0;
        std::memcpy(&nObject, One.Events[i].data() + 8, sizeof(nObject));
        const Object* const pObject = FindInModel(nObject);
        Parents.push_back(pObject == nullptr ? 0 : pObject->nParent);
      }
    }
    Bytes Found(std::size_t{nCount} * In.nEventSize);
    std::uint32_t nRead = 0;
    host::IdContainer FoundParents;
    const ResultCode nCode =
        m_Store.Call(&Ops::GetEvents, In.nId, nStart, Found.data(), static_cast<std::uint32_t>(Found.size()), nCount,
                     &nRead, FoundParents.Handle());
    if (nCount != 0) RequireCode(Parents.size() == nCount ? errOK : errNO_MORE_EVENTS, nCode, "reading");
    Found.resize(std::size_t{nRead} * In.nEventSize);
    Require(Found == Expected, "events stay as they are");
    Require(FoundParents.Parents() == Parents, "events have the parents of their objects");
  }

  // ---- Objects ----

  // Names without separators, of types that have no other way of their own with them.
  void Find(Input* pFrom) {
    Database& In = Pick(pFrom);
    constexpr std::uint8_t kTypes[] = {typeFile, typeFolder, typeRegistryValue, 7, typeName};
    constexpr char16_t kLetters[] = {u'a', u'b', u'\u00e9', u'\u6f22'};
    const std::uint8_t nName = pFrom->Byte();
    const std::uint8_t nHow = pFrom->Byte();
    const std::uint64_t nParent = (nHow & 8) == 0 ? 0 : PickObject(pFrom, In);
    const std::uint8_t nType = kTypes[nHow / 16 % std::size(kTypes)];
    const std::uint32_t nCreate = nHow % 3;
    const std::u16string Name(nName / 4 * 5, kLetters[nName % 4]);  // empty: an anonymous object
    if (Name.empty() && (nCreate == 0 || nParent != 0)) return;

    Segment& Newest = In.Segments.back();
    const auto Key = std::tuple(nParent, nType, Name);
    const auto Known = Name.empty() ? Newest.Ids.end() : Newest.Ids.find(Key);
    const Object* const pParent = nParent == 0 ? nullptr : FindInModel(nParent);
    const bool bParentFits =
        nParent == 0 || (pParent != nullptr && !pParent->Name.empty() && SegmentOfId(nParent) == Newest.nNumber);
    const bool bFound = bParentFits && (nCreate != 0 || Known != Newest.Ids.end());
    std::uint64_t nId = 1;
    RequireCode(bFound ? errOK : errOBJECT_NOT_FOUND,
                m_Store.Call(&Ops::FindObject, In.nId, nType, Name.c_str(), static_cast<std::int32_t>(Name.size() * 2),
                             nCreate, 0, nParent, &nId),
                "finding");
    if (!bFound) return Require(nId == 0, "a failure gives no id");
    if (Known != Newest.Ids.end()) return Require(nId == Known->second, "a name has one object");
    Require(nId >> 32 == (In.nId << 24 | Newest.nNumber), "an object is where it was created");
    Require(Newest.Objects.try_emplace(nId, Object{nParent, nType, Name, {}}).second, "an object has an id of its own");
    if (!Name.empty()) Newest.Ids[Key] = nId;
  }

  std::u16string FullName(const Object& Of) {
    if (Of.nParent == 0) return Of.Name;
    return FullName(*FindInModel(Of.nParent)) + (Of.nType == typeRegistryValue ? u'/' : u'\\') + Of.Name;
  }

  void Name(Input* pFrom) {
    const std::uint64_t nId = PickObject(pFrom, Pick(pFrom));
    if (nId != 0) CompareObject(nId);  // 0 is no object, and has an empty name
  }

  void CompareObject(std::uint64_t nId) {
    const Object* const pObject = FindInModel(nId);
    std::uint32_t nSize = 0;
    std::uint32_t nType = 0;
    const ResultCode nCode = m_Store.Call(&Ops::GetObjectName, nId, nullptr, 0, &nSize, 0, &nType);
    if (pObject == nullptr) return Require(Failed(nCode), "no name without an object");
    RequireCode(errOK, nCode, "the size of a name");
    std::u16string Found(nSize / 2 + 1, u'x');
    RequireCode(errOK, m_Store.Call(&Ops::GetObjectName, nId, Found.data(), nSize + 2, nullptr, 0, nullptr), "a name");
    Require(Found == FullName(*pObject) + u'\0' && nType == pObject->nType, "a name stays as it is");
    for (const auto& [nTag, Content] : pObject->Data) CompareData(nId, nTag, &Content);
    CompareData(nId, 0x12345, nullptr);
  }

  void CompareData(std::uint64_t nId, std::uint32_t nTag, const Bytes* pExpected) {
    host::ByteBlob Found({'x'});
    RequireCode(pExpected == nullptr ? errNOT_FOUND : errOK,
                m_Store.Call(&Ops::GetObjectDataInto, nId, Found.Handle(), nTag), "reading data");
    if (pExpected != nullptr) Require(Found.Content() == *pExpected, "data stays as it is");
  }

  void SetData(Input* pFrom) {
    const std::uint64_t nId = PickObject(pFrom, Pick(pFrom));
    const std::uint32_t nTag = pFrom->Byte();
    const std::uint32_t nSize = pFrom->Take<std::uint16_t>();
    host::ByteBlob Content(Bytes(nSize, pFrom->Byte()));
    Object* const pObject = FindInModel(nId);
    const ResultCode nCode = m_Store.Call(&Ops::SetObjectDataFrom, nId, Content.Handle(), nTag);
    if (pObject == nullptr) return Require(Failed(nCode), "no data without an object");
    const bool bNew = !pObject->Data.contains(nTag);
    const bool bFull = bNew && pObject->Data.size() == 255;
    RequireCode(bFull ? errOUT_OF_SPACE : errOK, nCode, "writing data");
    const bool bDropped = bNew && nSize == 0 && !StoreOf(nId).bChecked;  // a block that would have no bytes at all
    if (!bFull && !bDropped) pObject->Data[nTag] = Content.Content();
  }

  void RemoveData(Input* pFrom) {
    const std::uint64_t nId = PickObject(pFrom, Pick(pFrom));
    Object* const pObject = FindInModel(nId);
    const ResultCode nCode = m_Store.Call(&Ops::RemoveAllObjectData, nId);
    if (pObject == nullptr) return Require(Failed(nCode), "no data without an object");
    RequireCode(errOK, nCode, "removing data");
    pObject->Data.clear();
  }

  const Segment& StoreOf(std::uint64_t nId) {
    return *std::ranges::find(m_Databases, DatabaseOfId(nId), &Database::nId)->Find(SegmentOfId(nId));
  }

  // ---- Databases ----

  void Limit(Input* pFrom) {
    Database& Of = PickNumbered(pFrom);
    const bool bSegment = pFrom->Byte() % 2 == 0;
    (bSegment ? Of.nSegmentMax : Of.nMax) = pFrom->Byte() % 16;
    RequireCode(errOK,
                m_Store.Call(&Ops::SetDBParams, Of.nId, bSegment ? limitSegmentEvents : limitDatabaseEvents,
                             bSegment ? Of.nSegmentMax : Of.nMax),
                "setting a limit");
    Of.CheckLimits(m_bCheckMode);
  }

  void Info(Input*) {
    std::uint64_t nTotal = 0;
    std::uint32_t nRecords = 0;
    for (const Database& One : m_Databases) {
      RequireCode(errOK, m_Store.Call(&Ops::GetDBInfo, One.nId, &nRecords, nullptr, nullptr), "describing");
      Require(nRecords == One.Count(), "a database knows the number of its events");
      nTotal += nRecords;
    }
    RequireCode(errOK, m_Store.Call(&Ops::GetDBInfo, kAllDatabases, &nRecords, nullptr, nullptr), "describing all");
    Require(nRecords == nTotal, "the sum of all events");
  }

  void Rare(Input* pFrom) {
    const std::uint8_t nHow = pFrom->Byte();
    if (nHow % 8 == 0) return CompareAll();
    if (nHow % 8 != 1) return m_Store.Flush();
    Database& Cleared = PickNumbered(pFrom);
    RequireCode(errOK, m_Store.Call(&Ops::ClearDB, Cleared.nId), "clearing");
    Cleared.Segments.clear();
    Cleared.Segments.push_back({1, m_bCheckMode});
  }

  // A new start: in either mode, behind half an event that a crash has left, with the compacted files in place of the
  // others, or with another size of events, with which a database starts anew.
  void Reopen(Input* pFrom) {
    const std::uint8_t nHow = pFrom->Byte();
    if ((nHow & 1) != 0) RequireCode(errOK, m_Store.Call(&Ops::Compact, kSystemDatabase), "compacting");
    m_Store.Close();
    if ((nHow & 1) != 0) {
      fs::rename(Folder() / "g_objidcompacted.dat", Folder() / "g_objid.dat");
      fs::rename(Folder() / "g_objdtcompacted.dat", Folder() / "g_objdt.dat");
    }
    if ((nHow & 2) != 0) {
      constexpr std::uint64_t kHeader = 12;
      const Segment& Newest = m_Databases[1].Segments.back();
      char Name[40];
      std::snprintf(Name, sizeof(Name), "01/%08X_events.dat", static_cast<unsigned>(Newest.nNumber));
      fs::resize_file(Folder() / Name, kHeader + Newest.Events.size() * m_Databases[1].nEventSize + nHow / 16);
    }
    const bool bCheckMode = (nHow & 4) != 0;
    Database& Resized = m_Databases[1];
    if ((nHow & 8) != 0 && Resized.Segments.size() == 1 && Resized.Segments[0].nNumber == 1) {
      Resized.nEventSize ^= 16 ^ 24;
      Resized.Segments.front() = {1, bCheckMode};
    }
    Open(bCheckMode);
  }

  void CompareAll() {
    Info(nullptr);
    for (const Database& One : m_Databases) {
      if (One.nId != kSystemDatabase) CompareEvents(One, 0, 0, static_cast<std::uint32_t>(One.Count() + 1));
      for (const Segment& In : One.Segments) {
        for (const auto& Entry : In.Objects) CompareObject(Entry.first);
      }
    }
  }

  FuzzStore m_Store;
  Database m_Databases[4] = {{kSystemDatabase}, {1}, {47}, {kFirstNamedDatabase}};
  bool m_bCheckMode = false;
  std::uint64_t m_nSerial = 0;
};

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  EmptyFolder();
  Input From(pData, nSize);
  const bool bCheckMode = From.Byte() % 2 != 0;
  Pair(bCheckMode).Run(From);
  return 0;
}
