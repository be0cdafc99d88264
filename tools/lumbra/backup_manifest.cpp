#include "backup_manifest.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "inspect/file.h"
#include "sha256.h"

namespace lumbra::tool {
namespace {

using nlohmann::ordered_json;

// More than a manifest of all that a store can hold has is not read.
constexpr std::uint32_t kMostBytes = 1 << 30;

bool ReadText(const os::FolderHandle& pFolder, std::u16string_view Name, std::string* pText) {
  os::FileLook Found{};
  if (os::LookAt(pFolder, Name, &Found) != os::kSuccess || Found.nSize > kMostBytes) return false;
  return inspect::ReadSmall(pFolder, Name, static_cast<std::uint32_t>(Found.nSize), pText) == os::kSuccess;
}

bool IsSum(std::string_view Text) {
  return Text.size() == 2 * Sha256::kSize && Text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace

std::string HexOf(const unsigned char* pBytes, std::size_t nSize) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string Text;
  for (std::size_t i = 0; i < nSize; ++i) {
    Text += kDigits[pBytes[i] >> 4];
    Text += kDigits[pBytes[i] & 0xF];
  }
  return Text;
}

BackupFiles ReadBackupSource(const os::FolderHandle& pBackup, BackupOrigin* pOrigin) {
  BackupFiles Files;
  std::string Text;
  if (!ReadText(pBackup, kSourceFile, &Text)) return Files;
  const ordered_json Read = ordered_json::parse(Text, nullptr, false);
  if (!Read.is_object() || !Read.contains("files") || !Read["files"].is_object()) return Files;
  if (Read.contains("store") && Read["store"].is_string()) pOrigin->Path = Read["store"].get<std::string>();
  if (Read.contains("born") && Read["born"].is_number_unsigned()) pOrigin->nBirth = Read["born"].get<std::uint64_t>();
  for (const auto& File : Read["files"].items()) {
    const ordered_json& One = File.value();
    const auto Number = [&One](const char* pKey) {
      const auto Found = One.find(pKey);
      return Found != One.end() && Found->is_number_unsigned() ? Found->get<std::uint64_t>() : 0;
    };
    if (!One.is_object() || !One.contains("sum") || !One["sum"].is_string() || !IsSum(One["sum"].get<std::string>()))
      continue;
    Files[File.key()] = {One["sum"].get<std::string>(), Number("size"), Number("source_birth"), Number("source_size"),
                         Number("source_written")};
  }
  return Files;
}

std::optional<std::map<std::string, std::string>> ReadManifest(const os::FolderHandle& pBackup) {
  std::string Text;
  if (!ReadText(pBackup, kManifestFile, &Text)) return {};
  std::map<std::string, std::string> Sums;
  for (std::size_t nAt = 0; nAt < Text.size();) {
    const std::size_t nEnd = Text.find('\n', nAt);
    const std::string Line = Text.substr(nAt, nEnd - nAt);
    constexpr std::size_t kName = 2 * Sha256::kSize + 2;  // behind two blanks
    if (nEnd == std::string::npos || Line.size() <= kName || !IsSum(Line.substr(0, 2 * Sha256::kSize))) return {};
    Sums[Line.substr(kName)] = Line.substr(0, 2 * Sha256::kSize);
    nAt = nEnd + 1;
  }
  return Sums;
}

std::string ManifestOf(const BackupFiles& Files) {
  std::string Text;
  for (const auto& [Name, One] : Files) Text += One.Sum + "  " + Name + '\n';
  return Text;
}

std::string SourceOf(const BackupFiles& Files, const BackupOrigin& Origin) {
  ordered_json All = ordered_json::object();
  for (const auto& [Name, One] : Files) {
    All[Name] = {{"sum", One.Sum},
                 {"size", One.nSize},
                 {"source_birth", One.nSourceBirth},
                 {"source_size", One.nSourceSize},
                 {"source_written", One.nSourceWritten}};
  }
  const ordered_json Source = {{"store", Origin.Path}, {"born", Origin.nBirth}, {"files", All}};
  return Source.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

os::SystemError SumOf(const os::FolderHandle& pFolder, std::u16string_view Name, std::string* pSum,
                      std::uint64_t* pnSize) {
  std::unique_ptr<inspect::File> pFile;
  const os::SystemError nError = inspect::File::Open(pFolder, Name, &pFile);
  if (nError != os::kSuccess) return nError;
  constexpr std::uint32_t kPiece = 1 << 18;
  std::vector<char> Bytes(kPiece);
  Sha256 Sum;
  *pnSize = 0;
  for (std::uint32_t nRead = kPiece; nRead == kPiece; *pnSize += nRead) {
    if (const os::SystemError nFailed = pFile->Read(*pnSize, Bytes.data(), kPiece, &nRead); nFailed != os::kSuccess)
      return nFailed;
    Sum.Update(Bytes.data(), nRead);
  }
  *pSum = Sum.Digest();
  return os::kSuccess;
}

}  // namespace lumbra::tool
