// The module as its host sees it: loaded from its file, bound through its entry.
#include <utility>

#include "host/loaded_module.h"
#include "host/trace_format.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

using Numbers = std::vector<std::uint32_t>;

// A module, and a host that notes what is asked of it when it is loaded, and refuses one call.
class ModuleTest : public World {
 protected:
  void SetUp() override {
    s_pTest = this;
    host::ModuleFile File;
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
    ASSERT_EQ("", m_Module.Load(File).Text);
  }

  int Load() { return m_Module.Entry()(&m_Root, kModuleLoad, &m_nError); }

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
                                      std::uint32_t nReserved1, std::uint32_t nReserved2, HostFactory) {
    return Note(pRoot, {nInterfaceId, nPluginId, nReserved1, nReserved2});
  }
  static ResultCode BindFunction(HostObject*, void** ppSlot, std::uint32_t nExporter, std::uint32_t nFunctionId,
                                 std::uint32_t nOption) {
    EXPECT_EQ((Numbers{1, 0x5EC5256C, 2}), (Numbers{nExporter, nFunctionId, nOption}));
    *ppSlot = reinterpret_cast<void*>(&Trace);
    return errOK;
  }
  static ResultCode Trace(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
    EXPECT_EQ(&s_pTest->m_Root, pObject);
    NoteTraceLine(nLevel, host::FormatTraceLine(pFormat, Arguments));
    return errOK;
  }

  inline static ModuleTest* s_pTest = nullptr;
  HostRootOperations m_RootOperations{ResolveImports, RegisterInterface, BindFunction, nullptr, nullptr};
  HostObject m_Root{&m_RootOperations, nullptr};
  ResultCode m_nError = errOK;
  std::vector<Numbers> m_Calls;
  std::size_t m_nRefused = 0;  // the number of the call that fails, from 1
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
    Step(pReason, Load()).Is(0).Says({pReason});
    EXPECT_CODE(errACCESS_DENIED, m_nError);
    EXPECT_EQ(Expected, std::exchange(m_Calls, {}));
  }
  m_nRefused = 0;
  Step("one that goes well", Load()).Is(1).Says({});
  EXPECT_CODE(errOK, m_nError);
  EXPECT_EQ(Expected, m_Calls);
}

}  // namespace
}  // namespace lumbra::test
