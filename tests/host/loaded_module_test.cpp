// A module in the process, and the host that uses it.
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "component/component_fixture.h"
#include "host/loaded_module.h"

namespace lumbra::test {
namespace {

bool IsInProcess() {
#ifdef _WIN32
  return GetModuleHandleW(fs::path(LUMBRA_MODULE).filename().c_str()) != nullptr;
#else
  const std::unique_ptr<void, int (*)(void*)> pFound(dlopen(LUMBRA_MODULE, RTLD_NOW | RTLD_NOLOAD), &dlclose);
  return pFound != nullptr;
#endif
}

class LoadedModuleTest : public ComponentTest {
 protected:
  void SetUp() override {
    Unload();
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &m_File).Text);
  }

  host::ModuleFile m_File;
};

// Twice, and then with the component that is linked in: each finds what the one before has left.
TEST_F(LoadedModuleTest, RunsAStoreAndLeavesTheProcess) {
  for (const Ids& Before : {Ids{}, Ids{0}}) {
    host::LoadedModule Module;
    EXPECT_FALSE(IsInProcess());
    ASSERT_EQ("", Module.Load(m_File).Text);
    EXPECT_TRUE(IsInProcess());
    m_Host.emplace(Module.Entry());
    EXPECT_CODE(errOK, m_Host->LoadResult());
    m_Host->SetPlaceholder(u"%Report%", WideFolder());
    Expect({errOK, errOK, Before, errOK},
           {Open(), InitDb(5), Times(5, 0, 9), Add(5, Before.size(), Find(5, u"C:\\a.txt"))});
    Unload();
  }
  EXPECT_FALSE(IsInProcess());
  Load();
  Expect({errOK, errOK, Ids{0, 1}, u"C:\\a.txt"},
         {Open(), InitDb(5), Times(5, 0, 9), NameOf(Events(5, 1, 1).at(0).nObject)});
}

TEST_F(LoadedModuleTest, RefusesWhatIsForeignBeforeLoadingIt) {
  const std::string kHere = ", this program for " + m_File.Format + " on " + m_File.Machine;
  for (const auto& [Format, Machine] : {std::pair(m_File.Format, std::string("0x1234")), {"another", m_File.Machine}}) {
    host::LoadedModule Module;
    const host::ModuleProblem Problem = Module.Load({LUMBRA_MODULE, Format, Machine, m_File.Metadata});
    EXPECT_EQ("is for " + Format + " on " + Machine + kHere, Problem.Text);
    EXPECT_CODE(errNOT_SUPPORTED, Problem.nCode);
    EXPECT_EQ(nullptr, Module.Entry());
    EXPECT_FALSE(IsInProcess());
  }
}

ResultCode g_nAnswer = errOK;
std::vector<std::uint32_t> g_Reasons;

// Registers its interfaces, and refuses the host then.
int LUMBRA_ENTRY_CALL RefuseHost(void* pRoot, std::uint32_t nReason, void* pError) {
  g_Reasons.push_back(nReason);
  LumbraModuleEntry(pRoot, nReason, pError);
  if (nReason != kModuleLoad) return 1;
  *static_cast<ResultCode*>(pError) = g_nAnswer;
  return 0;
}

TEST_F(LoadedModuleTest, GivesNoStoreOfAModuleThatRefusesItsHost) {
  for (const auto& [nAnswer, nExpected] : {std::pair{errACCESS_DENIED, errACCESS_DENIED}, {errOK, errUNSPECIFIED}}) {
    g_nAnswer = nAnswer;
    g_Reasons.clear();
    m_Host.emplace(&RefuseHost);
    EXPECT_CODE(nExpected, m_Host->LoadResult());
    EXPECT_FALSE(m_Host->Create());
    m_Host.reset();
    EXPECT_EQ((std::vector{kModuleLoad, kModuleUnload}), g_Reasons);
  }
}

}  // namespace
}  // namespace lumbra::test
