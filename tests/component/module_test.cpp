// The module as its host sees it: loaded from its file, bound through its entry, asked for instances through the
// factory that it registers.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "host/loaded_module.h"
#include "host/trace_format.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Lines = std::vector<std::string>;

std::string Hex(std::uint32_t nValue) {
  char Text[12];
  std::snprintf(Text, sizeof(Text), "%X", nValue);
  return Text;
}

// A host that notes what is asked of it, and refuses one call or every allocation.
class NotingHost {
 public:
  HostObject m_Root{&kRootOperations, &kSystemOperations};
  Lines m_Calls;
  std::size_t m_nRefused = 99;  // the number of the call that fails, from 0
  bool m_bNoMemory = false;
  int m_nBlocks = 0;  // allocated and not given back
  std::map<std::uint32_t, HostFactory> m_Factories;
  std::map<HostObject*, int> m_References;

  NotingHost() { s_pHost = this; }
  ~NotingHost() { EXPECT_EQ(0, m_nBlocks); }

  // What was asked since the last time.
  Lines TakeCalls() { return std::exchange(m_Calls, {}); }

  // An instance, as a host uses it: with the host's operations in its handle.
  LumbraInstance* Make(std::uint32_t nInterfaceId) {
    auto* const pInstance = static_cast<LumbraInstance*>(m_Factories.at(kSharedInstance)(7, &m_Root, nInterfaceId));
    if (pInstance != nullptr) pInstance->Handle.pSystem = &kSystemOperations;
    return pInstance;
  }

 private:
  ResultCode Note(const std::string& Call) {
    m_Calls.push_back(Call);
    return m_Calls.size() == m_nRefused + 1 ? errACCESS_DENIED : errOK;
  }

  static ResultCode ResolveImports(HostObject* pRoot, std::uint32_t nReserved, HostImport* pTable,
                                   std::uint32_t nPluginId) {
    EXPECT_EQ(&s_pHost->m_Root, pRoot);
    EXPECT_EQ(0u, nReserved);
    std::string Call = "resolve for " + Hex(nPluginId) + ':';
    for (; pTable->ppSlot != nullptr; ++pTable) {
      *pTable->ppSlot = reinterpret_cast<void*>(+[](std::uint32_t*) -> std::uint32_t { return 1; });
      Call += ' ' + std::to_string(pTable->nExporter) + '/' + Hex(pTable->nFunctionId);
    }
    EXPECT_EQ(0u, pTable->nExporter | pTable->nFunctionId);
    return s_pHost->Note(Call);
  }

  static ResultCode RegisterInterface(HostObject* pRoot, std::uint32_t nInterfaceId, std::uint32_t nPluginId,
                                      std::uint32_t nReserved1, std::uint32_t nReserved2, HostFactory pFactory) {
    EXPECT_EQ(&s_pHost->m_Root, pRoot);
    EXPECT_EQ(0u, nReserved1 | nReserved2);
    s_pHost->m_Factories[nInterfaceId] = pFactory;
    return s_pHost->Note("register " + Hex(nInterfaceId) + " for " + Hex(nPluginId));
  }

  static ResultCode BindFunction(HostObject* pRoot, void** ppSlot, std::uint32_t nExporter, std::uint32_t nFunctionId,
                                 std::uint32_t nOption) {
    EXPECT_EQ(&s_pHost->m_Root, pRoot);
    if (nExporter == kExporterTrace && nFunctionId == kFunctionTrace && nOption == kTraceBindOption) {
      *ppSlot = reinterpret_cast<void*>(&Trace);
      return errOK;
    }
    if (nFunctionId == kFunctionStringAppend) *ppSlot = reinterpret_cast<void*>(&AppendText);
    return s_pHost->Note("bind " + std::to_string(nExporter) + '/' + Hex(nFunctionId));
  }

  static ResultCode Trace(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
    const char* const pWho = pObject == &s_pHost->m_Root ? "root: " : "not the root: ";
    NoteTraceLine(nLevel, pWho + host::FormatTraceLine(pFormat, Arguments));
    return errOK;
  }

  static ResultCode AppendText(HostString*, const void*, std::uint32_t, std::uint32_t) {
    return s_pHost->Note("append");
  }

  static void* Allocate(HostObject*, std::uint32_t nSize) {
    if (s_pHost->m_bNoMemory) return nullptr;
    ++s_pHost->m_nBlocks;
    return std::memset(std::malloc(nSize), 0xCD, nSize);
  }

  static void Free(HostObject*, void* pBlock) {
    if (pBlock != nullptr) --s_pHost->m_nBlocks;
    std::free(pBlock);
  }

  static std::uint32_t ReferenceShared(HostObject* pObject, std::uint32_t nReserved1, std::uint32_t nReserved2) {
    EXPECT_EQ(0u, nReserved1 | nReserved2);
    return static_cast<std::uint32_t>(++s_pHost->m_References[pObject]);
  }

  // What is null is not called here.
  static constexpr HostRootOperations kRootOperations = {ResolveImports, RegisterInterface, BindFunction, nullptr,
                                                         nullptr};
  static constexpr HostSystemOperations kSystemOperations = {nullptr, nullptr, Allocate, Free, nullptr,        nullptr,
                                                             nullptr, nullptr, nullptr,  {},   ReferenceShared};

  inline static NotingHost* s_pHost = nullptr;
};

class ModuleTest : public World {
 protected:
  void SetUp() override {
    host::ModuleFile File;
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
    ASSERT_EQ("", m_Module.Load(File).Text);
  }

  int Enter(std::uint32_t nReason, void* pRoot, void* pError) { return m_Module.Entry()(pRoot, nReason, pError); }
  int Load() { return Enter(kModuleLoad, &m_Host.m_Root, &m_nError); }

  static ResultCode SetFolder(LumbraInstance* pInstance) {
    char16_t Folder[] = u"/folder";
    PropertyAccessRecord Record{Folder, sizeof(Folder), 0, kCodePageUtf16, propertySet};
    return pInstance->pLifecycle->PropertyAccess(pInstance, propREPORT_FOLDER, &Record);
  }
  static std::uint32_t NumberOf(LumbraInstance* pInstance, std::uint32_t nProperty) {
    std::uint32_t nValue = 99;
    PropertyAccessRecord Record{&nValue, sizeof(nValue), 0, 0, propertyGet};
    EXPECT_CODE(errOK, pInstance->pLifecycle->PropertyAccess(pInstance, nProperty, &Record));
    return nValue;
  }

  NotingHost m_Host;
  host::LoadedModule m_Module;
  ResultCode m_nError = 77;
};

// A load whose call of that number is refused.
class FailedLoadTest : public ModuleTest, public ::testing::WithParamInterface<std::size_t> {};
INSTANTIATE_TEST_SUITE_P(EachCall, FailedLoadTest, ::testing::Range<std::size_t>(0, 5));

TEST_P(FailedLoadTest, EndsAtOnceAndSaysWhy) {
  const Lines kCalls = {"resolve for BF8E: 5/D7E5EB5D 5/7BC0105C", "register BF8C for BF8E", "register C08C for BF8E",
                        "register C08D for BF8E"};
  const Lines kReasons = {"300 root: cannot resolve import table for ...",
                          "300 root: cannot register \"Lumbra\" interface",
                          "300 root: cannot register multiple instance \"Lumbra\" interface",
                          "300 root: cannot register multiple instance \"Lumbra\" interface"};
  m_Host.m_nRefused = GetParam();
  const bool bRefused = GetParam() < kCalls.size();
  EXPECT_EQ(bRefused ? 0 : 1, Load());
  EXPECT_CODE(bRefused ? errACCESS_DENIED : errOK, m_nError);
  EXPECT_EQ(bRefused ? Lines{kReasons[GetParam()]} : Lines{}, TakeTrace());
  const std::size_t nCalls = bRefused ? GetParam() + 1 : kCalls.size();
  EXPECT_EQ(Lines(kCalls.begin(), kCalls.begin() + static_cast<std::ptrdiff_t>(nCalls)), m_Host.TakeCalls());
}

TEST_F(ModuleTest, KnowsTheRootFromLoadToUnload) {
  void* const pNowhere = reinterpret_cast<void*>(8);
  ASSERT_EQ(1, Load());
  LumbraInstance* const pInstance = m_Host.Make(kSeparateInstance);
  m_Host.TakeCalls();
#ifdef _WIN32  // where 0 and 1 are the system's to say: they end and start the runtime that surrounds the entry
  const auto kOthers = {2u, 3u, 99u, 102u, 0xFFFFFFFFu};
#else
  const auto kOthers = {0u, 1u, 2u, 3u, 99u, 102u, 0xFFFFFFFFu};
#endif
  for (const std::uint32_t nReason : kOthers) {
    EXPECT_EQ(1, Enter(nReason, pNowhere, pNowhere)) << nReason;
    EXPECT_EQ(1, Enter(nReason, nullptr, nullptr)) << nReason;
  }
  EXPECT_CODE(errOK, SetFolder(pInstance));
  EXPECT_EQ((Lines{"bind 38/A02700B", "append"}), m_Host.TakeCalls());
  EXPECT_EQ(1, Enter(kModuleUnload, &m_Host.m_Root, nullptr));
  SetFolder(pInstance);
  EXPECT_EQ(Lines{}, m_Host.TakeCalls());
  pInstance->pLifecycle->ObjectFree(pInstance);
}

TEST_F(ModuleTest, MakesSeparateAndSharedInstances) {
  ASSERT_EQ(1, Load());
  for (const std::uint32_t nUnknown : {0u, kLumbraPluginId, kSharedInstance - 1, kNewSharedInstance + 1, 0xFFFFFFFFu}) {
    EXPECT_EQ(nullptr, m_Host.Make(nUnknown)) << nUnknown;
  }
  m_Host.m_bNoMemory = true;
  for (const std::uint32_t nId : {kSharedInstance, kSeparateInstance, kNewSharedInstance}) {
    EXPECT_EQ(nullptr, m_Host.Make(nId)) << nId;
  }
  m_Host.m_bNoMemory = false;
  EXPECT_EQ(0, m_Host.m_nBlocks);

  LumbraInstance* const pShared = m_Host.Make(kSharedInstance);
  LumbraInstance* const pOne = m_Host.Make(kSeparateInstance);
  LumbraInstance* const pOther = m_Host.Make(kSeparateInstance);
  EXPECT_EQ(3u, (std::set{pShared, pOne, pOther}.size()));
  EXPECT_EQ(0u, NumberOf(pOne, propENVIRONMENT_FLAG) | NumberOf(pOne, propCHECK_MODE));  // whatever the memory held
  EXPECT_EQ(1u, NumberOf(pOne, propINTERFACE_CONSTANT));
  // The first request found the handle as the module makes it: the host's operations are told of those that follow.
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(pShared, m_Host.Make(kSharedInstance));
    EXPECT_EQ((std::map<HostObject*, int>{{&pShared->Handle, i}}), m_Host.m_References);
  }
  LumbraInstance* const pNew = m_Host.Make(kNewSharedInstance);
  EXPECT_NE(pShared, pNew);
  EXPECT_EQ(pNew, m_Host.Make(kSharedInstance));
  EXPECT_EQ((std::map<HostObject*, int>{{&pShared->Handle, 3}, {&pNew->Handle, 1}}), m_Host.m_References);
  pShared->pLifecycle->ObjectFree(pShared);  // no longer the shared one: its end changes nothing
  EXPECT_EQ(pNew, m_Host.Make(kSharedInstance));
  EXPECT_EQ(3, m_Host.m_nBlocks);
  for (LumbraInstance* const pInstance : {pOne, pOther, pNew}) pInstance->pLifecycle->ObjectFree(pInstance);
}

}  // namespace
}  // namespace lumbra::test
