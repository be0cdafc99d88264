// An object store over three files of the test's folder.
#pragma once

#include <memory>
#include <string_view>

#include "objects/objdb.h"
#include "support/world.h"

namespace lumbra::test {

class ObjectDbTest : public World {
 protected:
  static constexpr std::uint32_t kNumber = 7;
  static constexpr std::uint8_t kFlags = 1;
  static constexpr std::uint8_t kType = 9;

  // Opens the store, again if it is open.
  ResultCode Open(bool bCheckData, TreeHead Head = TreeHead::Small) {
    Close();
    m_pDb = std::make_unique<ObjectDB>(bCheckData);
    ObjectFiles Files{OpenFile(u"bt"), OpenFile(u"id"), OpenFile(u"dt")};
    return m_pDb->Open(kNumber, Files, Head);
  }
  void Close() { m_pDb.reset(); }

  // A store of its own, with nothing in it.
  ResultCode Fresh(bool bCheckData, const char* pMagic = "") {
    Close();
    for (const char* const pName : {"bt", "id"}) std::filesystem::remove(Folder() / pName);
    WriteFile("dt", FromHex(pMagic));
    return Open(bCheckData);
  }

  // The same store again, with changes made to the bytes of a file meanwhile.
  template <class Change>
  ResultCode Reopen(const char* pFile, Change Do) {
    Close();
    Bytes Content = ReadFile(pFile);
    Do(Content);
    WriteFile(pFile, Content);
    const ResultCode nCode = Open(true);
    TakeTrace();
    return nCode;
  }

  static tObjectId Id(std::uint32_t nShortId) { return MakeObjectId(kNumber, nShortId); }

  // The object of a hash, created with a name where it is not there; 0 on failure.
  tObjectId Create(std::uint64_t nHash, std::string_view Name, bool bForce = false) {
    tObjectId id = 0;
    m_nLast = m_pDb->FindOrCreateObject(nHash, 5, kFlags, kType, Name.data(), static_cast<std::uint32_t>(Name.size()),
                                        bForce, &id, &m_bExisted);
    return Succeeded(m_nLast) ? id : 0;
  }

  tObjectId Find(std::uint64_t nHash) {
    tObjectId id = 0;
    m_nLast = m_pDb->FindObject(nHash, &id);
    return Succeeded(m_nLast) ? id : 0;
  }

  // The name, or the code of the failure.
  std::string NameOf(tObjectId id) {
    char Buffer[100];
    std::uint32_t nSize = 0;
    const ResultCode nCode =
        m_pDb->GetObjectName(id, Buffer, sizeof(Buffer), &nSize, nullptr, nullptr, nullptr, nullptr);
    return Succeeded(nCode) ? std::string(Buffer, nSize) : Name(nCode);
  }

  ResultCode SetData(tObjectId id, std::uint32_t nKey, std::string_view Data) {
    return m_pDb->SetObjectData(id, Data.empty() ? nullptr : Data.data(), static_cast<std::uint32_t>(Data.size()),
                                nKey);
  }

  // The data, or the code of the failure as text.
  std::string DataOf(tObjectId id, std::uint32_t nKey) {
    Bytes Buffer(200000);
    std::uint32_t nSize = 0;
    const ResultCode nCode =
        m_pDb->GetObjectData(id, Buffer.data(), static_cast<std::uint32_t>(Buffer.size()), &nSize, nKey);
    return Succeeded(nCode) ? std::string(Buffer.begin(), Buffer.begin() + nSize) : Name(nCode);
  }

  static std::string FailedCheck(const std::string& Check, ResultCode nCode) {
    return "300 ObjectDB failed check (Failed check: " + Check + "). Err: " + Name(nCode);
  }

  std::unique_ptr<ObjectDB> m_pDb;
  ResultCode m_nLast = errOK;
  bool m_bExisted = false;
};

}  // namespace lumbra::test
