// The module as its host sees it: loaded from its file, bound through its entry, asked for instances through the
// factory that it registers.
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <utility>

#include "host/loaded_module.h"
#include "host/trace_format.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

using Numbers = std::vector<std::uint32_t>;

// A module, and a host that notes what is asked of it when it is loaded, and refuses one call or every allocation.
class ModuleTest : public World {
 protected:
  void SetUp() override {
    s_pTest = this;
    host::ModuleFile File;
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
    ASSERT_EQ("", m_Module.Load(File).Text);
  }

  int Enter(std::uint32_t nReason) { return m_Module.Entry()(&m_Root, nReason, &m_nError); }

  // An instance, as a host uses it: with the host's operations in its handle.
  LumbraInstance* Make(std::uint32_t nInterfaceId) {
    auto* const pInstance = static_cast<LumbraInstance*>(m_Factories.at(kSharedInstance)(7, &m_Root, nInterfaceId));
    if (pInstance != nullptr) pInstance->Handle.pSystem = &m_System;
    return pInstance;
  }
  static ResultCode SetFolder(LumbraInstance* pInstance) {
    char16_t Folder[] = u"/folder";
    PropertyAccessRecord Record{Folder, sizeof(Folder), 0, kCodePageUtf16, propertySet};
    return pInstance->pLifecycle->PropertyAccess(pInstance, propREPORT_FOLDER, &Record);
  }
  static void End(LumbraInstance* pInstance) { EXPECT_CODE(errOK, pInstance->pLifecycle->ObjectFree(pInstance)); }

  // ---- The host's operations; what is null is not called here ---

  // Notes the numbers of a call.
  static ResultCode Note(const HostObject* pRoot, const Numbers& Call) {
    EXPECT_EQ(&s_pTest->m_Root, pRoot);
    s_pTest->m_Calls.push_back(Call);
    return s_pTest->m_Calls.size() == s_pTest->m_nRefused ? errACCESS_DENIED : errOK;
  }
  static ResultCode ResolveImports(HostObject* pRoot, std::uint32_t nReserved, HostImport* pTable, std::uint32_t nId) {
    Numbers Call = {nReserved, nId};
    for (; pTable->ppSlot != nullptr; ++pTable) Call.insert(Call.end(), {pTable->nExporter, pTable->nFunctionId});
    return Note(pRoot, Call);
  }
  static ResultCode RegisterInterface(HostObject* pRoot, std::uint32_t nInterfaceId, std::uint32_t nPluginId,
                                      std::uint32_t nReserved1, std::uint32_t nReserved2, HostFactory pFactory) {
    s_pTest->m_Factories[nInterfaceId] = pFactory;
    return Note(pRoot, {nInterfaceId, nPluginId, nReserved1, nReserved2});
  }
  static ResultCode BindFunction(HostObject*, void** ppSlot, std::uint32_t nExporter, std::uint32_t nFunctionId,
                                 std::uint32_t nOption) {
    if (s_pTest->m_OnBinding) std::exchange(s_pTest->m_OnBinding, {})();
    *ppSlot = s_pTest->m_Offered[{nExporter, nFunctionId, nOption}];
    return errOK;
  }
  static ResultCode Trace(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
    EXPECT_EQ(&s_pTest->m_Root, pObject);
    NoteTraceLine(nLevel, host::FormatTraceLine(pFormat, Arguments));
    return errOK;
  }
  static ResultCode AppendText(HostString*, const void*, std::uint32_t, std::uint32_t) { return errOK; }
  static void* Allocate(HostObject*, std::uint32_t nSize) {
    return s_pTest->m_bNoMemory ? nullptr : ::operator new(nSize);
  }
  static void Free(HostObject*, void* pBlock) { ::operator delete(pBlock); }
  static std::uint32_t ReferenceShared(HostObject* pObject, std::uint32_t, std::uint32_t) {
    return ++s_pTest->m_References[pObject];
  }

  inline static ModuleTest* s_pTest = nullptr;
  HostRootOperations m_RootOperations{ResolveImports, RegisterInterface, BindFunction, nullptr, nullptr};
  HostSystemOperations m_System{nullptr, nullptr, Allocate, Free, nullptr,        nullptr,
                                nullptr, nullptr, nullptr,  {},   ReferenceShared};
  HostObject m_Root{&m_RootOperations, &m_System};
  ResultCode m_nError = errOK;
  std::vector<Numbers> m_Calls;
  std::size_t m_nRefused = 0;  // the number of the call that fails, from 1
  std::map<std::uint32_t, HostFactory> m_Factories;
  // By exporter, function, option.
  std::map<Numbers, void*> m_Offered = {{{1, 0x5EC5256C, 2}, reinterpret_cast<void*>(&Trace)},
                                        {{38, 0x0A02700B, 0}, reinterpret_cast<void*>(&AppendText)}};
  std::function<void()> m_OnBinding;  // called at the first binding
  bool m_bNoMemory = false;
  std::map<HostObject*, std::uint32_t> m_References;
  host::LoadedModule m_Module;
};

TEST_F(ModuleTest, EndsALoadAtTheFirstCallThatFailsAndSaysWhy) {
  const std::pair<Numbers, const char*> kCalls[] = {
      {{0, 0xBF8E, 5, 0xD7E5EB5D, 5, 0x7BC0105C}, "300 cannot resolve import table for ..."},
      {{0xBF8C, 0xBF8E, 0, 0}, "300 cannot register \"Lumbra\" interface"},
      {{0xC08C, 0xBF8E, 0, 0}, "300 cannot register multiple instance \"Lumbra\" interface"},
      {{0xC08D, 0xBF8E, 0, 0}, "300 cannot register multiple instance \"Lumbra\" interface"}};
  std::vector<Numbers> Expected;
  for (const auto& [Call, pReason] : kCalls) {
    Expected.push_back(Call);
    m_nRefused = Expected.size();
    Step(pReason, Enter(kModuleLoad)).Is(0).Says({pReason});
    EXPECT_CODE(errACCESS_DENIED, m_nError);
    EXPECT_EQ(Expected, std::exchange(m_Calls, {}));
  }
  m_nRefused = 0;
  Step("one that goes well", Enter(kModuleLoad)).Is(1).Says({});
  EXPECT_CODE(errOK, m_nError);
  EXPECT_EQ(Expected, m_Calls);
}

TEST_F(ModuleTest, KnowsTheRootFromLoadToUnload) {
  ASSERT_EQ(1, Enter(kModuleLoad));
  LumbraInstance* const pInstance = Make(kSeparateInstance);
  // On Windows 0 and 1 are the system's to say: they end and start the runtime that surrounds the entry.
  for (const std::uint32_t nReason : {2u, 3u, 99u, 102u, 0xFFFFFFFFu}) {
    EXPECT_EQ(1, Enter(nReason));
    EXPECT_CODE(errOK, SetFolder(pInstance)) << nReason;
  }
  EXPECT_EQ(1, Enter(kModuleUnload));
  EXPECT_CODE(errUNEXPECTED, SetFolder(pInstance));
  End(pInstance);
}

// A host may make one binding wait for another.
TEST_F(ModuleTest, HoldsNoLockWhileTheHostBindsAFunction) {
  ASSERT_EQ(1, Enter(kModuleLoad));
  LumbraInstance* const pOne = Make(kSeparateInstance);
  LumbraInstance* const pOther = Make(kSeparateInstance);
  std::future<ResultCode> Other;
  m_OnBinding = [&] {
    Other = std::async(std::launch::async, SetFolder, pOther);
    EXPECT_EQ(std::future_status::ready, Other.wait_for(std::chrono::seconds(20)));  // instead of for ever
  };
  EXPECT_CODE(errOK, SetFolder(pOne));
  EXPECT_CODE(errOK, Other.get());
  for (LumbraInstance* const pInstance : {pOne, pOther}) End(pInstance);
}

TEST_F(ModuleTest, MakesSeparateAndSharedInstances) {
  ASSERT_EQ(1, Enter(kModuleLoad));
  for (const std::uint32_t nId : {0u, 0xBF8Bu, 0xBF8Eu, 0xC08Eu, ~0u}) EXPECT_EQ(nullptr, Make(nId)) << nId;
  m_bNoMemory = true;
  for (const std::uint32_t nId : {0xBF8Cu, 0xC08Cu, 0xC08Du}) EXPECT_EQ(nullptr, Make(nId)) << nId;
  m_bNoMemory = false;
  LumbraInstance* const pShared = Make(kSharedInstance);
  LumbraInstance* const pSeparate = Make(kSeparateInstance);
  EXPECT_NE(pShared, pSeparate);
  EXPECT_EQ(pShared, Make(kSharedInstance));
  EXPECT_EQ(1u, m_References[&pShared->Handle]);  // the first request found the handle as the module makes it
  LumbraInstance* const pNew = Make(kNewSharedInstance);
  EXPECT_NE(pShared, pNew);
  EXPECT_EQ(pNew, Make(kSharedInstance));
  End(pShared);  // no longer the shared one: its end changes nothing
  EXPECT_EQ(pNew, Make(kSharedInstance));
  for (LumbraInstance* const pInstance : {pSeparate, pNew}) End(pInstance);
}

}  // namespace
}  // namespace lumbra::test
