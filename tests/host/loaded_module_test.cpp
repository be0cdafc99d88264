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
  void SetUp() override { Unload(); }
};

// Twice, and then with the component that is linked in: each finds what the one before has left.
TEST_F(LoadedModuleTest, RunsAStoreAndLeavesTheProcess) {
  host::ModuleFile File;
  ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
  for (const Ids& Before : {Ids{}, Ids{0}}) {
    host::LoadedModule Module;
    EXPECT_FALSE(IsInProcess());
    ASSERT_EQ("", Module.Load(File).Text);
    EXPECT_TRUE(IsInProcess());
    m_Host.emplace(Module.Entry());
    m_Host->SetPlaceholder(u"%Report%", WideFolder());
    ASSERT_CODE(errOK, Open());
    ASSERT_CODE(errOK, InitDb(5));
    EXPECT_EQ(Before, Times(5, 0, 9));
    EXPECT_CODE(errOK, Add(5, Before.size(), Find(5, u"C:\\a.txt")));
    Unload();
  }
  EXPECT_FALSE(IsInProcess());
  Load();
  ASSERT_CODE(errOK, Open());
  ASSERT_CODE(errOK, InitDb(5));
  EXPECT_EQ((Ids{0, 1}), Times(5, 0, 9));
  EXPECT_EQ(u"C:\\a.txt", NameOf(Events(5, 1, 1).at(0).nObject));
}

// Whatever has its name by then.
TEST_F(LoadedModuleTest, LoadsTheFileThatWasRead) {
  fs::copy_file(LUMBRA_MODULE, Folder() / "module");
  fs::create_directory(Folder() / "other");
  fs::copy_file(LUMBRA_REFUSING_MODULE, Folder() / "other/module");
  const fs::path Before = fs::current_path();
  fs::current_path(Folder());
  host::ModuleFile Read;
  EXPECT_EQ("", host::ReadModuleFile("module", &Read).Text);
  fs::current_path(Folder() / "other");
  std::error_code Refused;
  fs::rename(Folder() / "module", Folder() / "other name", Refused);  // which Windows does not allow
  if (!Refused) fs::copy_file(LUMBRA_REFUSING_MODULE, Folder() / "module");
  host::LoadedModule Module;
  const std::string Problem = Module.Load(Read).Text;
  fs::current_path(Before);
  ASSERT_EQ("", Problem);
  Read = {};
  m_Host.emplace(Module.Entry());
  EXPECT_CODE(errOK, m_Host->LoadResult());
  Unload();
}

// The loader keeps every name that a file was loaded by, for as long as the file is in the process.
TEST_F(LoadedModuleTest, TakesNoModuleForAnotherOne) {
  const auto Load = [](const char* pPath, host::LoadedModule* pModule) {
    host::ModuleFile Read;
    ASSERT_EQ("", host::ReadModuleFile(pPath, &Read).Text);
    ASSERT_EQ("", pModule->Load(Read).Text);
  };
  host::LoadedModule First;
  host::LoadedModule Other;
  Load(LUMBRA_MODULE, &First);
  {
    host::LoadedModule Again;
    Load(LUMBRA_MODULE, &Again);
    EXPECT_EQ(First.Entry(), Again.Entry());
  }
  Load(LUMBRA_REFUSING_MODULE, &Other);
  EXPECT_NE(First.Entry(), Other.Entry());
}

#ifndef _WIN32
TEST_F(LoadedModuleTest, RefusesWhatOthersMayWriteTo) {
  const fs::path Copy = Folder() / "module";
  fs::copy_file(LUMBRA_MODULE, Copy);
  const auto TextOfLoad = [&] {
    host::ModuleFile Read;
    host::LoadedModule Module;
    return host::ReadModuleFile(Copy, &Read) ? "not read" : Module.Load(Read).Text;
  };
  fs::permissions(Copy, fs::perms::others_write, fs::perm_options::add);
  Step("a module that all may write to", TextOfLoad()).Is("can be written by others");
  fs::permissions(Copy, fs::perms::others_write, fs::perm_options::remove);
  fs::permissions(Folder(), fs::perms::others_write, fs::perm_options::add);
  Step("in a folder that all may write to", TextOfLoad()).Is("lies in a folder that can be written by others");
  host::ModuleFile Read;
  ASSERT_EQ("", host::ReadModuleFile(Copy, &Read).Text);
  fs::remove(Copy);
  fs::create_symlink(LUMBRA_MODULE, Copy);
  EXPECT_EQ("lies in a folder that can be written by others", host::LoadedModule().Load(Read).Text);
}

// The loader's words hold names that the module has chosen.
TEST_F(LoadedModuleTest, LetsNoModuleWriteToTheTerminal) {
  std::string Content = ReadText(LUMBRA_MODULE);
  Content.at(Content.find(std::string("\0openat\0", 8)) + 1) = 0x1b;
  WriteFile("module", Bytes(Content.begin(), Content.end()));
  host::ModuleFile Read;
  ASSERT_EQ("", host::ReadModuleFile(Folder() / "module", &Read).Text);
  const std::string Expected = "cannot be loaded: " + (Folder() / "module").string() + ": undefined symbol: \\x1bpenat";
  EXPECT_EQ(Expected, host::LoadedModule().Load(Read).Text.substr(0, Expected.size()));
}
#endif

}  // namespace
}  // namespace lumbra::test
