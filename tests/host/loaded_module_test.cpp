// A module in the process, and the host that uses it.
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "host/loaded_module.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Ops = LumbraOperations;

bool IsInProcess(const fs::path& Module) {
#ifdef _WIN32
  return GetModuleHandleW(Module.filename().c_str()) != nullptr;
#else
  const std::unique_ptr<void, int (*)(void*)> pFound(dlopen(Module.c_str(), RTLD_NOW | RTLD_NOLOAD), &dlclose);
  return pFound != nullptr;
#endif
}

class LoadedModuleTest : public World {
 protected:
  // Adds an event about a file, and shows what the newest ones are about.
  std::u16string AddAndShow(host::StandaloneHost* pHost) {
    pHost->SetPlaceholder(u"%Report%", WideFolder());
    host::Store Store = pHost->Create();
    std::uint64_t Event[2] = {};
    std::uint32_t nDb = 0;
    EXPECT_CODE(errOK, Store.Init());
    EXPECT_CODE(errOK, Store.Call(&Ops::InitDBByName, u"named", sizeof(Event), &nDb));
    EXPECT_CODE(errOK,
                Store.Call(&Ops::FindObjectSimple, nDb, typeFile, u"C:\\a.txt", kZeroTerminated, 1, 0, &Event[1]));
    EXPECT_CODE(errOK, Store.Call(&Ops::AddEvent, nDb, Event, sizeof(Event), nullptr));
    std::uint64_t Events[2 * 9] = {};
    std::uint32_t nRead = 0;
    Store.Call(&Ops::GetEvents, nDb, 0, Events, sizeof(Events), 9, &nRead, nullptr);
    char16_t Shown[20] = {};
    Store.Call(&Ops::GetObjectName, Events[1], Shown, sizeof(Shown), nullptr, 0, nullptr);
    return static_cast<char16_t>(u'0' + nRead) + std::u16string(Shown);
  }
};

// Twice, and then with the component that is linked in: each finds what the one before has left.
TEST_F(LoadedModuleTest, RunsAStoreAndLeavesTheProcess) {
  for (const char16_t* const pShown : {u"1C:\\a.txt", u"2C:\\a.txt"}) {
    {
      host::ModuleFile File;
      host::LoadedModule Module;
      ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
      EXPECT_FALSE(IsInProcess(LUMBRA_MODULE));
      ASSERT_EQ("", Module.Load(File).Text);
      EXPECT_TRUE(IsInProcess(LUMBRA_MODULE));
      host::StandaloneHost Host(Module.Entry());
      EXPECT_CODE(errOK, Host.LoadResult());
      EXPECT_EQ(pShown, AddAndShow(&Host));
    }
    EXPECT_FALSE(IsInProcess(LUMBRA_MODULE));
  }
  host::StandaloneHost Host;
  EXPECT_EQ(u"3C:\\a.txt", AddAndShow(&Host));
}

TEST_F(LoadedModuleTest, RefusesWhatIsForeignBeforeLoadingIt) {
  host::ModuleFile File;
  ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
  const std::string kHere = ", this program for " + File.Format + " on " + File.Machine;
  for (const auto& [Format, Machine] : {std::pair{File.Format, "0x1234"}, {"another", "x86"}}) {
    host::LoadedModule Module;
    const host::ModuleProblem Problem = Module.Load({LUMBRA_MODULE, Format, Machine, File.Metadata});
    EXPECT_EQ("is for " + Format + " on " + Machine + kHere, Problem.Text);
    EXPECT_CODE(errNOT_SUPPORTED, Problem.nCode);
    EXPECT_EQ(nullptr, Module.Entry());
    EXPECT_FALSE(IsInProcess(LUMBRA_MODULE));
  }
}

ResultCode g_nAnswer = errOK;
std::vector<std::uint32_t> g_Reasons;

// Registers an interface, and refuses the host then.
int LUMBRA_ENTRY_CALL RefuseHost(void* pRoot, std::uint32_t nReason, void* pError) {
  g_Reasons.push_back(nReason);
  if (nReason != kModuleLoad) return 1;
  auto* const pHost = static_cast<HostObject*>(pRoot);
  const HostFactory pFactory = [](std::uint32_t, HostObject*, std::uint32_t) -> void* {
    ADD_FAILURE();
    return nullptr;
  };
  static_cast<const HostRootOperations*>(pHost->pOperations)
      ->RegisterInterface(pHost, kSharedInstance, kLumbraPluginId, 0, 0, pFactory);
  *static_cast<ResultCode*>(pError) = g_nAnswer;
  return 0;
}

TEST_F(LoadedModuleTest, GivesNoStoreOfAModuleThatRefusesItsHost) {
  for (const auto& [nAnswer, nExpected] : {std::pair{errACCESS_DENIED, errACCESS_DENIED}, {errOK, errUNSPECIFIED}}) {
    g_nAnswer = nAnswer;
    g_Reasons.clear();
    {
      host::StandaloneHost Host(&RefuseHost);
      EXPECT_CODE(nExpected, Host.LoadResult());
      EXPECT_FALSE(Host.Create(kSharedInstance));
      EXPECT_FALSE(Host.Create());
    }
    EXPECT_EQ((std::vector{kModuleLoad, kModuleUnload}), g_Reasons);
  }
}

}  // namespace
}  // namespace lumbra::test
