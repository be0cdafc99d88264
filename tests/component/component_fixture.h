// A store in the test's folder, loaded into a stand-alone host and driven through its operation table.
#pragma once

#include <optional>

#include "host/standalone_host.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {

class ComponentTest : public World {
 protected:
  using Ops = LumbraOperations;
  using Lines = std::vector<std::string>;
  using Ids = std::vector<std::uint64_t>;
  struct Event {
    std::uint64_t nTime;
    std::uint64_t nObject;
  };

  ComponentTest() { Load(); }
  void SetUp() override { OpenFresh(0); }

  void Load() {
    m_Host.emplace();
    m_Host->SetPlaceholder(u"%Report%", WideFolder());
    m_Host->SetPlaceholder(u"%host%", u"test-host");
    m_Host->TraceToCallback(600, &NoteTraceLine);
  }
  void Unload() {
    m_Store = host::Store();
    m_Host.reset();
  }

  static std::u16string Letter(std::uint64_t n) { return std::u16string(1, static_cast<char16_t>(u'a' + n)); }
  bool Exists(const char* pName) const { return std::filesystem::exists(Folder() / pName); }

  // No instance, and an empty folder.
  void StartAnew() {
    m_Store = host::Store();
    std::filesystem::remove_all(Folder());
    std::filesystem::create_directory(Folder());
  }

  // A new instance in place of the one that is there.
  ResultCode Open(std::uint32_t nCheckMode = 0) {
    m_Store = host::Store();
    m_Store = m_Host->Create();
    EXPECT_CODE(errOK, m_Store.SetNumber(propCHECK_MODE, nCheckMode));
    return m_Store.Init();
  }

  // The same after bytes of a file have changed.
  ResultCode OpenPatched(const char* pName, std::uint64_t nOffset, const Bytes& Content, std::uint32_t nCheckMode) {
    m_Store = host::Store();
    Patch(pName, nOffset, Content);
    return Open(nCheckMode);
  }

  // A fresh store with a numbered database, 5, and a named one.
  void OpenFresh(std::uint32_t nCheckMode) {
    StartAnew();
    ASSERT_CODE(errOK, Open(nCheckMode));
    ASSERT_CODE(errOK, InitDb(5));
    m_nNamed = OpenNamed(u"named");
  }

  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

  ResultCode InitDb(std::uint32_t nDb, std::uint32_t nSize = 16) { return Call(&Ops::InitDB, nDb, nSize); }
  ResultCode ClearDb(std::uint32_t nDb) { return Call(&Ops::ClearDB, nDb); }
  ResultCode SetLimit(std::uint32_t nDb, std::uint32_t nKind, std::uint64_t nValue) {
    return Call(&Ops::SetDBParams, nDb, nKind, nValue);
  }

  std::uint32_t OpenNamed(const char16_t* pName) {
    std::uint32_t nDb = 99;
    m_nLast = Call(&Ops::InitDBByName, pName, 16, &nDb);
    return nDb;
  }

  // The number of records, their size, and the time.
  std::tuple<std::uint32_t, std::uint64_t, std::uint64_t> Info(std::uint32_t nDb) {
    std::tuple<std::uint32_t, std::uint64_t, std::uint64_t> Found;
    m_nLast = Call(&Ops::GetDBInfo, nDb, &std::get<0>(Found), &std::get<1>(Found), &std::get<2>(Found));
    return Found;
  }
  std::uint32_t Records(std::uint32_t nDb) { return std::get<0>(Info(nDb)); }
  std::uint64_t Size(std::uint32_t nDb) { return std::get<1>(Info(nDb)); }

  ResultCode Add(std::uint32_t nDb, std::uint64_t nTime, std::uint64_t nObject = 0, std::uint64_t* pnId = nullptr) {
    const Event Added{nTime, nObject};
    return Call(&Ops::AddEvent, nDb, &Added, sizeof(Added), pnId);
  }

  // Adds events of the times 1 to nCount.
  void Fill(std::uint32_t nDb, std::uint64_t nCount) {
    for (std::uint64_t i = 1; i <= nCount; ++i) ASSERT_CODE(errOK, Add(nDb, i)) << nDb;
  }

  std::vector<Event> Events(std::uint32_t nDb, std::uint64_t nStart, std::uint32_t nCount) {
    std::vector<Event> Read(nCount);
    std::uint32_t nRead = 0;
    m_nLast = Call(&Ops::GetEvents, nDb, nStart, Read.data(), nCount * 16, nCount, &nRead, nullptr);
    Read.resize(nRead);
    return Read;
  }

  // The times of the events from a start on.
  Ids Times(std::uint32_t nDb, std::uint64_t nStart, std::uint32_t nCount) {
    Ids Result;
    for (const Event& One : Events(nDb, nStart, nCount)) Result.push_back(One.nTime);
    return Result;
  }

  std::uint64_t Find(std::uint32_t nDb, const std::u16string& Path, std::uint32_t nCreate = 1,
                     std::uint32_t nType = typeFile, std::uint64_t nParent = 0) {
    std::uint64_t nId = 99;
    m_nLast = Call(&Ops::FindObject, nDb, nType, Path.c_str(), kZeroTerminated, nCreate, 0, nParent, &nId);
    return nId;
  }

  std::u16string NameOf(std::uint64_t nId) {
    char16_t Buffer[300] = {};
    m_nLast = Call(&Ops::GetObjectName, nId, Buffer, sizeof(Buffer), nullptr, 0, nullptr);
    return Succeeded(m_nLast) ? Buffer : u"";
  }

  std::uint32_t Number(std::uint32_t nProperty) const {
    std::uint32_t nValue = 99;
    EXPECT_CODE(errOK, m_Store.GetNumber(nProperty, &nValue));
    return nValue;
  }

  // The code of the call that gave a value.
  ResultCode CodeOf(auto /*Value*/) const { return m_nLast; }

  // What calls answered, as texts, and codes by their names: so that many are compared at once. Of a vector the text,
  // and so the comparison, reaches no farther than the first 32 values.
  struct Answer : std::string {
    template <class Value>
    Answer(const Value& Given) : std::string(::testing::PrintToString(Given)) {}
    Answer(ResultCode nCode) : std::string(Name(nCode)) {}
  };
  static Lines Answers(std::initializer_list<Answer> Given) { return {Given.begin(), Given.end()}; }
  static void Expect(std::initializer_list<Answer> Expected, std::initializer_list<Answer> Given,
                     const char* pFile = __builtin_FILE(), int nLine = __builtin_LINE()) {
    EXPECT_EQ(Answers(Expected), Answers(Given)) << pFile << ':' << nLine;
  }

  std::optional<host::StandaloneHost> m_Host;
  host::Store m_Store;
  inline static thread_local ResultCode m_nLast = errOK;  // of the thread's last call that gave a value
  std::uint32_t m_nNamed = 0;
};

}  // namespace lumbra::test
