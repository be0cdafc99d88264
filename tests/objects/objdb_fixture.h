// An object store over three files of the test's folder.
#pragma once

#include <cstring>
#include <stdexcept>

#include "objects/objdb.h"
#include "support/steps.h"
#include "support/world.h"

namespace lumbra::test {

using Lines = std::vector<std::string>;

// Codes by their names, to compare some at a time.
inline Lines Names(std::initializer_list<ResultCode> Codes) {
  Lines Found;
  for (const ResultCode nCode : Codes) Found.push_back(Name(nCode));
  return Found;
}

class ObjectDbTest : public World {
 protected:
  static constexpr std::uint32_t kNumber = 7;

  // Opens the store, again if it is open; what follows needs it, so a failure ends the test.
  void Open(bool bCheckData, TreeHead Head = TreeHead::Small) {
    m_pDb.reset();
    m_pDb = std::make_unique<ObjectDB>(bCheckData);
    ObjectFiles Files{OpenFile(u"bt"), OpenFile(u"id"), OpenFile(u"dt")};
    m_pDataFile = Files.pData.get();
    if (Failed(m_pDb->Open(kNumber, Files, Head))) throw std::runtime_error("the store does not open");
  }

  // A store of its own, with objects of these hashes and names, and with data under key 1 of the last one.
  void Start(bool bCheckData, const std::vector<std::pair<std::uint64_t, std::string>>& Objects = {},
             std::string_view Data = "", const char* pMagic = "") {
    m_pDb.reset();
    for (const auto& [pFile, pHex] : {std::pair{"bt", ""}, {"id", ""}, {"dt", pMagic}}) WriteFile(pFile, FromHex(pHex));
    Open(bCheckData);
    std::uint32_t nShortId = 0;
    for (const auto& [nHash, ObjectName] : Objects) ASSERT_EQ(Id(++nShortId), Create(nHash, ObjectName));
    ASSERT_CODE(errOK, Data.empty() ? errOK : SetData(Id(nShortId), 1, Data));
  }

  // The same store again, with another content of a file.
  void Replace(const char* pFile, const Bytes& Content) {
    m_pDb.reset();
    WriteFile(pFile, Content);
    TakeTrace();
    Open(true);
  }

  // The same with other bytes from an offset on; without any, the file ends there.
  void Damage(const char* pFile, std::size_t nOffset, const char* pHex) {
    Bytes Content = ReadFile(pFile);
    const Bytes Others = FromHex(pHex);
    if (Others.empty()) Content.resize(nOffset);
    std::copy(Others.begin(), Others.end(), Content.begin() + static_cast<std::ptrdiff_t>(nOffset));
    Replace(pFile, Content);
  }

  static tObjectId Id(std::uint32_t nShortId) { return MakeObjectId(kNumber, nShortId); }
  static std::uint64_t HashOf(std::uint32_t nShortId) { return nShortId * 0x9E3779B97F4A7C15 | 1; }

  // The object of a hash, created with a name where it is not there; 0 on failure.
  tObjectId Create(std::uint64_t nHash, std::string_view Name, bool bForce = false) {
    tObjectId id = 0;
    const auto nSize = static_cast<std::uint32_t>(Name.size());
    m_nLast = m_pDb->FindOrCreateObject(nHash, 5, 1, 9, Name.data(), nSize, bForce, &id, &m_bExisted);
    return id;
  }
  tObjectId Find(std::uint64_t nHash) {
    tObjectId id = 0;
    m_nLast = m_pDb->FindObject(nHash, &id);
    return id;
  }
  ResultCode CodeOf(tObjectId) const { return m_nLast; }  // what the call that gave the object answered

  // The name, or the code of the failure.
  std::string NameOf(tObjectId id) {
    std::string Text(100, '\0');
    ObjectDescription About{};
    ResultCode nCode = m_pDb->Describe(id, &About);
    if (nCode == errOK) nCode = m_pDb->ReadName(id, {reinterpret_cast<std::uint8_t*>(Text.data()), Text.size()});
    return nCode == errOK ? Text.substr(0, About.nNameSize) : Name(nCode);
  }

  ResultCode SetData(tObjectId id, std::uint32_t nKey, std::string_view Data) {
    const void* const pData = Data.empty() ? nullptr : Data.data();
    return m_pDb->SetObjectData(id, pData, static_cast<std::uint32_t>(Data.size()), nKey);
  }

  // The data, or the code of the failure.
  std::string DataOf(tObjectId id, std::uint32_t nKey) {
    std::string Data(200000, '\0');
    std::uint32_t nSize = 0;
    const ResultCode nCode = m_pDb->GetObjectData(id, Data.data(), 200000, &nSize, nKey);
    return nCode == errOK ? Data.substr(0, nSize) : Name(nCode);
  }

  // The last line that was traced, or nothing.
  std::string LastLine() {
    const Lines Traced = TakeTrace(400);
    return Traced.empty() ? "" : Traced.back();
  }

  std::uint64_t FileSizes() const { return FileSize("bt") + FileSize("id") + FileSize("dt"); }

  static std::string FailedCheck(const std::string& Check) {
    return "300 ObjectDB failed check (Failed check: " + Check + "). Err: " + Name(errDATA_CORRUPTED);
  }

  std::unique_ptr<ObjectDB> m_pDb;
  StorageFile* m_pDataFile = nullptr;  // of the open store
  ResultCode m_nLast = errOK;
  bool m_bExisted = false;
};

}  // namespace lumbra::test
