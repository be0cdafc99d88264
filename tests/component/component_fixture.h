// A store in the test's folder, loaded into a stand-alone host and driven through its operation table. The verbs that
// answer a code leave it to the test; the others end a test that they cannot serve.
#pragma once

#include <numeric>
#include <optional>

#include "host/standalone_host.h"
#include "support/steps.h"

namespace lumbra::test {

class ComponentTest : public World {
 protected:
  using Ops = LumbraOperations;
  using Ids = std::vector<std::uint64_t>;
  struct Event {
    std::uint64_t nTime;
    std::uint64_t nObject;
  };

  ComponentTest() { Load(); }
  void SetUp() override { OpenFresh(0); }

  // ---- The instance ---

  void Load() {
    m_Host.emplace();
    m_Host->SetPlaceholder(u"%Report%", WideFolder());
    m_Host->SetPlaceholder(u"%host%", u"test-host");
    m_Host->TraceToCallback(600, &NoteTraceLine);
  }
  void Unload() {
    Close();
    m_Host.reset();
  }
  void Close() { m_Store = host::Store(); }

  // A new instance in place of the one that is there.
  ResultCode Open(std::uint32_t nCheckMode = 0) {
    Close();
    m_Store = m_Host->Create();
    Must(m_Store.SetNumber(propCHECK_MODE, nCheckMode));
    return m_Store.Init(host::Heal::Off);
  }
  void Restart(std::uint32_t nCheckMode = 0) { Must(Open(nCheckMode)); }

  // The same after bytes of a file have changed.
  void RestartWith(const char* pFile, std::uint64_t nOffset, const Bytes& Content, std::uint32_t nCheckMode) {
    Close();
    Patch(pFile, nOffset, Content);
    Restart(nCheckMode);
  }

  // No instance, and an empty folder.
  void StartAnew() {
    Close();
    fs::remove_all(Folder());
    fs::create_directory(Folder());
  }

  // A fresh store with a numbered database, 5, and a named one.
  void OpenFresh(std::uint32_t nCheckMode) {
    StartAnew();
    Restart(nCheckMode);
    Must(InitDb(5));
    m_nNamed = OpenNamed(u"named");
  }

  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

  std::uint32_t Number(std::uint32_t nProperty) const {
    std::uint32_t nValue = 0;
    Must(m_Store.GetNumber(nProperty, &nValue));
    return nValue;
  }

  // ---- Databases ---

  ResultCode InitDb(std::uint32_t nDb, std::uint32_t nSize = 16) { return Call(&Ops::InitDB, nDb, nSize); }
  ResultCode InitNamed(const char16_t* pName, std::uint32_t* pnDb) { return Call(&Ops::InitDBByName, pName, 16, pnDb); }
  std::uint32_t OpenNamed(const char16_t* pName, Place Where = {__builtin_FILE(), __builtin_LINE()}) {
    std::uint32_t nDb = 0;
    Must(InitNamed(pName, &nDb), Where);
    return nDb;
  }
  ResultCode ClearDb(std::uint32_t nDb) { return Call(&Ops::ClearDB, nDb); }
  ResultCode SetLimit(std::uint32_t nDb, std::uint32_t nKind, std::uint64_t nValue) {
    return Call(&Ops::SetDBParams, nDb, nKind, nValue);
  }

  struct DbInfo {
    std::uint32_t nRecords = 0;
    std::uint64_t nSize = 0;
    std::uint64_t nTime = 0;
  };
  DbInfo Info(std::uint32_t nDb) {
    DbInfo Found;
    Must(Call(&Ops::GetDBInfo, nDb, &Found.nRecords, &Found.nSize, &Found.nTime));
    return Found;
  }

  // ---- Events ---

  ResultCode Add(std::uint32_t nDb, std::uint64_t nTime, std::uint64_t nObject = 0, std::uint64_t* pnId = nullptr) {
    const Event Added{nTime, nObject};
    return Call(&Ops::AddEvent, nDb, &Added, sizeof(Added), pnId);
  }
  // Adds events of these times.
  void Fill(std::uint32_t nDb, std::uint32_t nFirst, std::uint32_t nLast,
            Place Where = {__builtin_FILE(), __builtin_LINE()}) {
    for (std::uint32_t i = nFirst; i <= nLast; ++i) Must(Add(nDb, i), Where);
  }

  // Up to nCount events from a start on, and their times.
  std::vector<Event> Events(std::uint32_t nDb, std::uint64_t nStart, std::uint32_t nCount) {
    std::vector<Event> Read(nCount);
    std::uint32_t nRead = 0;
    (void)Call(&Ops::GetEvents, nDb, nStart, Read.data(), nCount * 16, nCount, &nRead, nullptr);  // fewer tell as much
    Read.resize(nRead);
    return Read;
  }
  Ids Times(std::uint32_t nDb, std::uint64_t nStart, std::uint32_t nCount) {
    Ids Found;
    for (const Event& One : Events(nDb, nStart, nCount)) Found.push_back(One.nTime);
    return Found;
  }

  // Checks that a database has the events of these times and no others, and counts as many.
  void Holds(std::uint32_t nDb, std::uint32_t nFirst, std::uint32_t nLast,
             Place Where = {__builtin_FILE(), __builtin_LINE()}) {
    Ids Expected(nLast - nFirst + 1);
    std::iota(Expected.begin(), Expected.end(), nFirst);
    const std::string Events = "events of database " + std::to_string(nDb);
    Step("the " + Events, Times(nDb, 0, 1000), Where.pFile, Where.nLine).Is(Expected);
    Step("the number of " + Events, Info(nDb).nRecords, Where.pFile, Where.nLine).Is(nLast - nFirst + 1);
  }

  // ---- Objects ---

  ResultCode FindObject(std::uint32_t nDb, const std::u16string& Path, std::uint32_t nCreate, std::uint64_t* pnId) {
    return Call(&Ops::FindObject, nDb, typeFile, Path.c_str(), kZeroTerminated, nCreate, 0, 0, pnId);
  }
  std::uint64_t Find(std::uint32_t nDb, const std::u16string& Path, std::uint32_t nCreate = 1,
                     std::uint32_t nType = typeFile, std::uint64_t nParent = 0,
                     Place Where = {__builtin_FILE(), __builtin_LINE()}) {
    std::uint64_t nId = 0;
    Must(Call(&Ops::FindObject, nDb, nType, Path.c_str(), kZeroTerminated, nCreate, 0, nParent, &nId), Where);
    return nId;
  }

  // The name, or the code of the failure.
  std::u16string NameOf(std::uint64_t nId) {
    char16_t Buffer[300] = {};
    const ResultCode nCode = Call(&Ops::GetObjectName, nId, Buffer, sizeof(Buffer), nullptr, 0, nullptr);
    const std::string Code = Name(nCode);
    return Succeeded(nCode) ? Buffer : std::u16string(Code.begin(), Code.end());
  }

  std::optional<host::StandaloneHost> m_Host;
  host::Store m_Store;
  std::uint32_t m_nNamed = 0;
};

}  // namespace lumbra::test
