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
  struct Event {
    std::uint64_t nTime;
    std::uint64_t nObject;
  };

  ComponentTest() { Load(); }
  ~ComponentTest() override { Unload(); }

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

  // A new instance in place of the one that is there.
  ResultCode Open(std::uint32_t nCheckMode = 0) {
    m_Store = host::Store();
    m_Store = m_Host->Create();
    m_Store.SetNumber(propCHECK_MODE, nCheckMode);
    return m_Store.Init();
  }

  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

  ResultCode Add(std::uint32_t nDb, std::uint64_t nTime, std::uint64_t nObject = 0, std::uint64_t* pnId = nullptr) {
    const Event Added{nTime, nObject};
    return Call(&Ops::AddEvent, nDb, &Added, sizeof(Added), pnId);
  }

  // The times of the events from a start on.
  std::vector<std::uint64_t> Times(std::uint32_t nDb, std::uint64_t nStart, std::uint32_t nCount) {
    std::vector<Event> Read(nCount);
    std::uint32_t nRead = 0;
    m_nLast = Call(&Ops::GetEvents, nDb, nStart, Read.data(), nCount * 16, nCount, &nRead, nullptr);
    std::vector<std::uint64_t> Result;
    for (std::uint32_t i = 0; i < nRead; ++i) Result.push_back(Read[i].nTime);
    return Result;
  }

  std::uint64_t Find(std::uint32_t nDb, const char16_t* pName, std::uint32_t nCreate = 1,
                     std::uint32_t nType = typeFile, std::uint64_t nParent = 0) {
    std::uint64_t nId = 99;
    m_nLast = Call(&Ops::FindObject, nDb, nType, pName, kZeroTerminated, nCreate, 0, nParent, &nId);
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

  std::uint32_t OpenNamed(const char16_t* pName) {
    std::uint32_t nDb = 0;
    m_nLast = Call(&Ops::InitDBByName, pName, 16, &nDb);
    return nDb;
  }

  std::optional<host::StandaloneHost> m_Host;
  host::Store m_Store;
  ResultCode m_nLast = errOK;
};

}  // namespace lumbra::test
