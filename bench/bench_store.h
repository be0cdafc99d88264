// A store for a benchmark: in a fresh folder, without a trace, driven through the operation table.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "host/standalone_host.h"

namespace lumbra::bench {

struct Event {
  std::uint64_t nTime;
  std::uint64_t nObject;
  std::uint8_t Rest[48];
};
static_assert(sizeof(Event) == 64);

class BenchStore {
 public:
  static constexpr std::uint32_t kDatabase = 1;
  static constexpr std::uint32_t kNameLength = 20;  // characters, and bytes as UTF-8
  static constexpr std::uint32_t kBlockSize = 100;

  BenchStore() : m_Folder(MakeFolder()) {
    m_Host.SetPlaceholder(u"%Report%", m_Folder.u16string());
    Open();
  }
  ~BenchStore() {
    m_Store = host::Store();
    std::filesystem::remove_all(m_Folder);
  }
  BenchStore(const BenchStore&) = delete;
  BenchStore& operator=(const BenchStore&) = delete;

  // A new instance over the same files; by itself the opening alone is measured.
  void Open(host::Heal What = host::Heal::Off) {
    m_Store = host::Store();
    m_Store = m_Host.Create();
    Require(m_Store.Init(What));
    Require(Call(&LumbraOperations::InitDB, kDatabase, sizeof(Event)));
  }

  template <class... Parameters>
  ResultCode Call(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

  void Add(std::uint64_t nCount) const {
    const Event Added{};
    for (std::uint64_t i = 0; i < nCount; ++i) {
      Require(Call(&LumbraOperations::AddEvent, kDatabase, &Added, sizeof(Added), nullptr));
    }
  }

  std::uint64_t Find(const std::u16string& Path) const {
    std::uint64_t nId = 0;
    const auto nSize = static_cast<std::int32_t>(Path.size() * sizeof(char16_t));
    Require(Call(&LumbraOperations::FindObjectSimple, kDatabase, typeFile, Path.data(), nSize, 1, 0, &nId));
    return nId;
  }

  // Creates shared objects with names of their own, and gives every other one a block of 100 bytes under the key 1.
  // Answers the id of the last.
  std::uint64_t AddSharedObjects(std::uint32_t nCount) const {
    const std::string Block(kBlockSize, 'd');
    std::uint64_t nId = 0;
    for (std::uint32_t i = 0; i < nCount; ++i) {
      std::u16string Name(kNameLength, u'0');
      for (std::uint32_t n = i, nAt = kNameLength; n != 0; n /= 10) Name[--nAt] = static_cast<char16_t>(u'0' + n % 10);
      Require(Call(&LumbraOperations::FindObjectSimple, kSystemDatabase, typeName, Name.c_str(), kZeroTerminated, 1, 0,
                   &nId));
      if (i % 2 == 0) continue;
      Require(Call(&LumbraOperations::SetObjectData, nId, Block.data(), kBlockSize, 1));
    }
    return nId;
  }

  std::filesystem::path File(const char* pName) const { return m_Folder / pName; }

  static void Require(ResultCode nCode) {
    if (Failed(nCode)) throw std::runtime_error("an operation failed");
  }

 private:
  static std::filesystem::path MakeFolder() {
    std::string Pattern = (std::filesystem::temp_directory_path() / "lumbra-bench-XXXXXX").string();
    if (mkdtemp(Pattern.data()) == nullptr) throw std::runtime_error("no folder for a benchmark");
    return Pattern;
  }

  std::filesystem::path m_Folder;
  host::StandaloneHost m_Host;
  host::Store m_Store;
};

}  // namespace lumbra::bench
