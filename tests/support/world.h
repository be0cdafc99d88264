// The world of a test: a fresh folder, the trace lines that were written, and the boundary to the system
// reset.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumbra/result_code.h"
#include "platform/storage_environment.h"
#include "platform/storage_file.h"

namespace lumbra::test {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// A code by its name, so that a failed comparison reads well.
std::string Name(ResultCode nCode);

// A code that has a number alone.
constexpr ResultCode CodeOfNumber(std::uint32_t nNumber) {
  return static_cast<ResultCode>(static_cast<std::int32_t>(nNumber));
}

#define EXPECT_CODE(expected, actual) EXPECT_EQ(::lumbra::test::Name(expected), ::lumbra::test::Name(actual))
#define ASSERT_CODE(expected, actual) ASSERT_EQ(::lumbra::test::Name(expected), ::lumbra::test::Name(actual))

// Bytes from the digits of a hex dump; blanks do not count.
Bytes FromHex(std::string_view Digits);
std::string ToHex(const Bytes& Data);

class World : public ::testing::Test, public StorageOwner {
 protected:
  World();
  ~World() override;

  bool ExactFileSizes() override { return m_bExactSizes; }
  os::FolderRules RulesOfFolders() override { return m_Rules; }

  const fs::path& Folder() const { return m_Folder; }
  std::u16string WideFolder() const { return m_Folder.u16string(); }
  std::u16string Path(const char* pName) const { return (m_Folder / pName).u16string(); }

  std::string ReadText(const fs::path& Name) const;
  Bytes ReadFile(const fs::path& Name) const {
    const std::string Text = ReadText(Name);
    return Bytes(Text.begin(), Text.end());
  }
  // Puts a file in the folder; the store must not have it open, which Windows would not allow.
  void WriteFile(const fs::path& Name, const Bytes& Content) const;
  std::uint64_t FileSize(const fs::path& Name) const { return fs::file_size(m_Folder / Name); }
  // Changes bytes in place, from an offset on.
  void Patch(const fs::path& Name, std::uint64_t nOffset, const Bytes& Content) const;

  // Opens a file of the folder for reading and writing, creating it where it is missing.
  std::unique_ptr<StorageFile> OpenFile(const char16_t* pName);

  StorageEnvironment m_Environment;  // on the folder
  bool m_bExactSizes = false;
  os::FolderRules m_Rules;

 private:
  fs::path m_Folder;
};

// The lines that were traced since the last call, "LEVEL text", without the "lmb\t" in front and without the place of a
// failed check in the source; with a level, those up to it.
std::vector<std::string> TakeTrace(std::uint32_t nLevel = UINT32_MAX);

// Adds a line to what TakeTrace gives; for tests whose lines come through a host.
void NoteTraceLine(std::uint32_t nLevel, std::string_view Line);

}  // namespace lumbra::test
