// The module as its host sees it: loaded from its file, bound through its entry, asked for instances through the
// factory that it registers.
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <set>
#include <utility>

#include "host/loaded_module.h"
#include "host/trace_format.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Numbers = std::vector<std::uint32_t>;
using Lines = std::vector<std::string>;

// A module, and a host that notes what is asked of it when it is loaded, and refuses one call or every allocation.
class ModuleTest : public World {
 protected:
  void SetUp() override {
    s_pTest = this;
    host::ModuleFile File;
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
    ASSERT_EQ("", m_Module.Load(File).Text);
  }
  void TearDown() override { EXPECT_TRUE(m_Blocks.empty()); }

  // An instance, as a host uses it: with the host's operations in its handle.
  LumbraInstance* Make(std::uint32_t nInterfaceId) {
    auto* const pInstance = static_cast<LumbraInstance*>(m_Factories.at(kSharedInstance)(7, &m_Root, nInterfaceId));
    if (pInstance != nullptr) pInstance->Handle.pSystem = &m_System;
    return pInstance;
  }

  // ---- The host's operations; what is null is not called here ---

  // Notes the numbers of a call.
  static ResultCode Note(const HostObject* pRoot, const Numbers& Call) {
    EXPECT_EQ(&s_pTest->m_Root, pRoot);
    s_pTest->m_Calls.push_back(Call);
    return s_pTest->m_Calls.size() == s_pTest->m_nRefused ? errACCESS_DENIED : errOK;
  }
  static ResultCode ResolveImports(HostObject* pRoot, std::uint32_t nReserved, HostImport* pTable,
                                   std::uint32_t nPluginId) {
    Numbers Call = {nReserved, nPluginId};
    do {
      Call.insert(Call.end(), {pTable->nExporter, pTable->nFunctionId});
    } while ((pTable++)->ppSlot != nullptr);
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
    return s_pTest->m_bNoMemory ? nullptr : s_pTest->m_Blocks.emplace_back(nSize, std::uint8_t{0xCD}).data();
  }
  static void Free(HostObject*, void* pBlock) {
    s_pTest->m_Blocks.remove_if([&](const Bytes& Block) { return Block.data() == pBlock; });
  }
  static std::uint32_t ReferenceShared(HostObject* pObject, std::uint32_t nReserved1, std::uint32_t nReserved2) {
    EXPECT_EQ(0u, nReserved1 | nReserved2);
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
  std::list<Bytes> m_Blocks;          // allocated and not given back
  bool m_bNoMemory = false;
  std::map<HostObject*, std::uint32_t> m_References;
  host::LoadedModule m_Module;
};

TEST_F(ModuleTest, EndsALoadAtTheFirstCallThatFailsAndSaysWhy) {
  const std::pair<Numbers, const char*> kCalls[] = {
      {{0, 0xBF8E, 5, 0xD7E5EB5D, 5, 0x7BC0105C, 0, 0}, "300 cannot resolve import table for ..."},
      {{0xBF8C, 0xBF8E, 0, 0}, "300 cannot register \"Lumbra\" interface"},
      {{0xC08C, 0xBF8E, 0, 0}, "300 cannot register multiple instance \"Lumbra\" interface"},
      {{0xC08D, 0xBF8E, 0, 0}, "300 cannot register multiple instance \"Lumbra\" interface"}};
  std::vector<Numbers> Expected;
  for (const auto& [Call, pReason] : kCalls) {
    Expected.push_back(Call);
    m_nRefused = Expected.size();
    EXPECT_EQ(0, m_Module.Entry()(&m_Root, kModuleLoad, &m_nError));
    EXPECT_CODE(errACCESS_DENIED, m_nError);
    EXPECT_EQ(Expected, std::exchange(m_Calls, {}));
    EXPECT_EQ(Lines{pReason}, TakeTrace());
  }
  m_nRefused = 0;
  EXPECT_EQ(1, m_Module.Entry()(&m_Root, kModuleLoad, &m_nError));
  EXPECT_CODE(errOK, m_nError);
  EXPECT_EQ(Expected, m_Calls);
  EXPECT_EQ(Lines{}, TakeTrace());
}

TEST_F(ModuleTest, KnowsTheRootFromLoadToUnload) {
  void* const pNowhere = reinterpret_cast<void*>(8);
  char16_t Folder[] = u"/folder";
  ASSERT_EQ(1, m_Module.Entry()(&m_Root, kModuleLoad, &m_nError));
  LumbraInstance* const pInstance = Make(kSeparateInstance);
  Numbers Reasons = {2, 3, 99, 102, 0xFFFFFFFF, kModuleUnload};
#ifndef _WIN32  // there 0 and 1 are the system's to say: they end and start the runtime that surrounds the entry
  Reasons.insert(Reasons.begin(), {0, 1});
#endif
  for (const std::uint32_t nReason : Reasons) {
    EXPECT_EQ(1, m_Module.Entry()(pNowhere, nReason, pNowhere));
    PropertyAccessRecord Record{Folder, sizeof(Folder), 0, kCodePageUtf16, propertySet};
    const ResultCode nSet = pInstance->pLifecycle->PropertyAccess(pInstance, propREPORT_FOLDER, &Record);
    EXPECT_CODE(nReason == kModuleUnload ? errUNEXPECTED : errOK, nSet) << nReason;
  }
  EXPECT_CODE(errOK, pInstance->pLifecycle->ObjectFree(pInstance));
}

// A host may make one binding wait for another.
TEST_F(ModuleTest, HoldsNoLockWhileTheHostBindsAFunction) {
  ASSERT_EQ(1, m_Module.Entry()(&m_Root, kModuleLoad, &m_nError));
  const auto BindAndUse = [](LumbraInstance* pInstance) {
    char16_t Folder[] = u"/folder";
    PropertyAccessRecord Record{Folder, sizeof(Folder), 0, kCodePageUtf16, propertySet};
    EXPECT_CODE(errOK, pInstance->pLifecycle->PropertyAccess(pInstance, propREPORT_FOLDER, &Record));
    EXPECT_CODE(errOK, pInstance->pLifecycle->ObjectFree(pInstance));
  };
  LumbraInstance* const pOne = Make(kSeparateInstance);
  LumbraInstance* const pOther = Make(kSeparateInstance);
  std::future<void> Other;
  m_OnBinding = [&] {
    Other = std::async(std::launch::async, BindAndUse, pOther);
    EXPECT_EQ(std::future_status::ready, Other.wait_for(std::chrono::seconds(20)));  // instead of for ever
  };
  BindAndUse(pOne);
  Other.get();
}

TEST_F(ModuleTest, MakesSeparateAndSharedInstances) {
  ASSERT_EQ(1, m_Module.Entry()(&m_Root, kModuleLoad, &m_nError));
  for (const std::uint32_t nId : {0u, 0xBF8Bu, 0xBF8Eu, 0xC08Eu, ~0u}) EXPECT_EQ(nullptr, Make(nId)) << nId;
  m_bNoMemory = true;
  for (const std::uint32_t nId : {0xBF8Cu, 0xC08Cu, 0xC08Du}) EXPECT_EQ(nullptr, Make(nId)) << nId;
  m_bNoMemory = false;

  LumbraInstance* const pShared = Make(kSharedInstance);
  LumbraInstance* const pOne = Make(kSeparateInstance);
  LumbraInstance* const pOther = Make(kSeparateInstance);
  for (const std::uint32_t nProperty : {propENVIRONMENT_FLAG, propCHECK_MODE}) {
    std::uint32_t nValue = 99;
    PropertyAccessRecord Record{&nValue, sizeof(nValue), 0, 0, propertyGet};
    EXPECT_CODE(errOK, pOne->pLifecycle->PropertyAccess(pOne, nProperty, &Record));
    EXPECT_EQ(0u, nValue) << nProperty;  // whatever the memory held
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pShared, Make(kSharedInstance));
  LumbraInstance* const pNew = Make(kNewSharedInstance);
  EXPECT_EQ(4u, (std::set{pShared, pOne, pOther, pNew}.size()));
  EXPECT_EQ(pNew, Make(kSharedInstance));
  // A first request found the handle as the module makes it: the host's operations are told of those that follow.
  EXPECT_EQ((std::map<HostObject*, std::uint32_t>{{&pShared->Handle, 3}, {&pNew->Handle, 1}}), m_References);
  EXPECT_CODE(errOK, pShared->pLifecycle->ObjectFree(pShared));  // no longer the shared one: its end changes nothing
  EXPECT_EQ(pNew, Make(kSharedInstance));
  for (LumbraInstance* const pInstance : {pOne, pOther, pNew})
    EXPECT_CODE(errOK, pInstance->pLifecycle->ObjectFree(pInstance));
}

}  // namespace
}  // namespace lumbra::test
