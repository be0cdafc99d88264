#include "support/world.h"

#include <fstream>
#include <mutex>
#include <random>

#include "host/trace_format.h"
#include "platform/trace.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

std::mutex g_TraceLock;
std::vector<std::pair<std::uint32_t, std::string>> g_Lines;

void Capture(HostObject*, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
  NoteTraceLine(nLevel, host::FormatTraceLine(pFormat, Arguments));
}

}  // namespace

std::string Name(ResultCode nCode) {
  return host::DescribeCode(nCode);
}

Bytes FromHex(std::string_view Digits) {
  std::string Packed(Digits);
  std::erase_if(Packed, [](char c) { return c == ' ' || c == '\n'; });
  Bytes Data(Packed.size() / 2);
  for (std::size_t i = 0; i < Data.size(); ++i) {
    Data[i] = static_cast<std::uint8_t>(std::stoi(Packed.substr(2 * i, 2), nullptr, 16));
  }
  return Data;
}

std::string ToHex(const Bytes& Data) {
  std::string Digits;
  for (const std::uint8_t n : Data) {
    for (const int nDigit : {n >> 4, n & 15}) Digits += "0123456789abcdef"[nDigit];
  }
  return Digits;
}

void NoteTraceLine(std::uint32_t nLevel, std::string_view Line) {
  if (Line.starts_with("lmb\t")) Line.remove_prefix(4);
  std::string Text(Line);
  // Where a check stands moves with the source; that it names a file of the source tree stays.
  for (const auto& [pFrom, pBy] : {std::pair{", file: src/", ""}, {"Failed in ", "Failed step"}}) {
    const std::size_t nFrom = Text.find(pFrom);
    const std::size_t nTo = Text.find(". Err: ");
    if (nFrom != std::string::npos && nTo != std::string::npos) Text.replace(nFrom, nTo - nFrom, pBy);
  }
  const std::lock_guard Hold(g_TraceLock);
  g_Lines.emplace_back(nLevel, Text);
}

World::World() {
  std::random_device Random;
  do {
    m_Folder = fs::temp_directory_path() / ("lumbra-test-" + std::to_string(Random()));
  } while (!fs::create_directory(m_Folder));
  ResetSystem();
  g_Lines.clear();
  SetTraceSink(&Capture);
  EXPECT_TRUE(m_Environment.Init(this, m_Folder.u16string().c_str(), FolderContent::Keep, false));
}

World::~World() {
  SetTraceSink(nullptr);
  ResetSystem();
  std::error_code Failure;
  fs::remove_all(m_Folder, Failure);
  EXPECT_FALSE(Failure) << Failure.message();  // on Windows also when a file has been left open
}

std::string World::ReadText(const fs::path& Name) const {
  std::ifstream File(m_Folder / Name, std::ios::binary);
  EXPECT_TRUE(File.is_open()) << Name;
  return {std::istreambuf_iterator<char>(File), std::istreambuf_iterator<char>()};
}

void World::WriteFile(const fs::path& Name, const Bytes& Content) const {
  fs::create_directories((m_Folder / Name).parent_path());
  std::ofstream File(m_Folder / Name, std::ios::binary);
  File << std::string(Content.begin(), Content.end());
  EXPECT_TRUE(File.flush()) << Name;
}

void World::Patch(const fs::path& Name, std::uint64_t nOffset, const Bytes& Content) const {
  Bytes Whole = ReadFile(Name);
  ASSERT_LE(nOffset + Content.size(), Whole.size());
  std::copy(Content.begin(), Content.end(), Whole.begin() + static_cast<std::ptrdiff_t>(nOffset));
  WriteFile(Name, Whole);
}

std::unique_ptr<StorageFile> World::OpenFile(const char16_t* pName) {
  std::unique_ptr<StorageFile> pFile;
  EXPECT_CODE(errOK, m_Environment.OpenFile(pName, 0, true, true, &pFile));
  return pFile;
}

std::vector<std::string> TakeTrace(std::uint32_t nLevel) {
  const std::lock_guard Hold(g_TraceLock);
  std::vector<std::string> Lines;
  for (const auto& [nLineLevel, Line] : g_Lines) {
    if (nLineLevel <= nLevel) Lines.push_back(std::to_string(nLineLevel) + ' ' + Line);
  }
  g_Lines.clear();
  return Lines;
}

}  // namespace lumbra::test
