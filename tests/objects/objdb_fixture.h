// An object store over three files of the test's folder.
#pragma once

#include <algorithm>
#include <cstring>

#include "objects/objdb.h"
#include "support/steps.h"
#include "support/world.h"

namespace lumbra::test {

using Lines = std::vector<std::string>;
using Hashes = std::vector<std::uint64_t>;

// The two configurations: stores with every kind of CRC, and without.
inline constexpr bool kChecked = true;
inline constexpr bool kPlain = false;

class ObjectDbTest : public World {
 protected:
  static constexpr std::uint32_t kNumber = 7;
  static tObjectId Id(std::uint32_t nShortId) { return MakeObjectId(kNumber, nShortId); }
  // So many hashes, spread over the tree.
  static Hashes Spread(std::uint32_t nCount) {
    Hashes All;
    for (std::uint64_t i = 1; i <= nCount; ++i) All.push_back(i * 0x9E3779B97F4A7C15 | 1);
    return All;
  }
  static std::string FailedCheck(const std::string& Check) {
    return "300 ObjectDB failed check (Failed check: " + Check + "). Err: " + Name(errDATA_CORRUPTED);
  }

  // ---- What a test builds on ----

  // Opens the store, again if it is open.
  void Open(bool bChecked, TreeHead Head = TreeHead::Small) {
    m_pDb.reset();
    m_pDb = std::make_unique<ObjectDB>(bChecked);
    ObjectFiles Files{OpenFile(u"bt"), OpenFile(u"id"), OpenFile(u"dt")};
    m_pDataFile = Files.pData.get();
    Must(m_pDb->Open(kNumber, Files, Head));
  }
  // A store of its own, with objects of these hashes, "name1" and so on, and data under key 1 of the last one.
  void Start(bool bChecked, const Hashes& Objects = {}, std::string_view Data = "", const char* pMagic = "") {
    m_pDb.reset();
    ResetSystem();
    for (const auto& [pFile, pHex] : {std::pair{"bt", ""}, {"id", ""}, {"dt", pMagic}}) WriteFile(pFile, FromHex(pHex));
    Open(bChecked);
    for (std::size_t i = 0; i < Objects.size(); ++i) Must(TryCreate(Objects[i], "name" + std::to_string(i + 1)));
    if (!Data.empty()) Must(SetData(m_Found, Data));
  }
  // The same store again, with another content of a file.
  void Replace(const char* pFile, const Bytes& Content) {
    m_pDb.reset();
    WriteFile(pFile, Content);
    TakeTrace();
    Open(kChecked);
  }
  // With other bytes from an offset on; without any, the file ends there.
  void Damage(const char* pFile, std::uint64_t nPlace, const std::string& Hex) {
    Bytes Content = ReadFile(pFile);
    const Bytes Others = FromHex(Hex);
    const auto nOffset = static_cast<std::size_t>(nPlace);
    if (Others.empty()) Content.resize(nOffset);
    std::copy(Others.begin(), Others.end(), Content.begin() + static_cast<std::ptrdiff_t>(nOffset));
    Replace(pFile, Content);
  }

  // ---- Calls ----

  // Each leaves the object in m_Found.
  ResultCode TryFind(std::uint64_t nHash) { return m_pDb->FindObject(nHash, &m_Found); }
  ResultCode TryCreate(std::uint64_t nHash, std::string_view Name = "new", bool bForce = false) {
    const auto nSize = static_cast<std::uint32_t>(Name.size());
    return m_pDb->FindOrCreateObject(nHash, 5, 1, 9, Name.data(), nSize, bForce, &m_Found, nullptr);
  }
  // The object, or 0.
  tObjectId Find(std::uint64_t nHash) { return Failed(TryFind(nHash)) ? 0 : m_Found; }
  tObjectId Create(std::uint64_t nHash, bool bForce = false) {
    return Failed(TryCreate(nHash, "new", bForce)) ? 0 : m_Found;
  }

  // The name, or the code of the failure.
  std::string NameOf(tObjectId id) {
    std::string Text(100, '\0');
    ObjectDescription About{};
    ResultCode nCode = m_pDb->Describe(id, &About);
    if (nCode == errOK) nCode = m_pDb->ReadName(id, {reinterpret_cast<std::uint8_t*>(Text.data()), Text.size()});
    return nCode == errOK ? Text.substr(0, About.nNameSize) : Name(nCode);
  }
  ResultCode SetData(tObjectId id, std::string_view Data, std::uint32_t nKey = 1) {
    const void* const pData = Data.empty() ? nullptr : Data.data();
    return m_pDb->SetObjectData(id, pData, static_cast<std::uint32_t>(Data.size()), nKey);
  }
  // The data, or the code of the failure.
  std::string DataOf(tObjectId id, std::uint32_t nKey = 1) {
    std::string Data(1000, '\0');
    std::uint32_t nSize = 0;
    const ResultCode nCode = m_pDb->GetObjectData(id, Data.data(), 1000, &nSize, nKey);
    return nCode == errOK ? Data.substr(0, nSize) : Name(nCode);
  }

  // ---- What must hold ----

  // Each of these hashes leads to the object that has its place in the list.
  void ExpectAll(const Hashes& Objects) {
    std::string Others;
    for (std::uint32_t i = 1; i <= Objects.size(); ++i) {
      if (Find(Objects[i - 1]) != Id(i)) Others += std::to_string(i) + ' ';
    }
    EXPECT_EQ("", Others) << "not found, of " << Objects.size();
  }
  // What the store says of its size is true.
  void ExpectItsSize() { EXPECT_EQ(FileSize("bt") + FileSize("id") + FileSize("dt"), m_pDb->GetSize()); }

  std::unique_ptr<ObjectDB> m_pDb;
  StorageFile* m_pDataFile = nullptr;  // of the open store
  tObjectId m_Found = 0;
};

}  // namespace lumbra::test
