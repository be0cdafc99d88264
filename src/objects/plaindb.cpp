#include "objects/plaindb.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "objects/failed_check.h"
#include "platform/failed_step.h"
#include "platform/scratch_buffer.h"

namespace lumbra {
namespace {

using plaindb::FailedCheck;

// Room without an allocation for the id records of the object store, 33 bytes stored, and for most events.
using RecordBuffer = ScratchBuffer<128>;

std::uint32_t StoredCrc(const std::uint8_t* pCrc) {
  std::uint32_t nCrc = 0;
  std::memcpy(&nCrc, pCrc, sizeof(nCrc));
  return nCrc;
}

}  // namespace

bool PlainDB::Open(std::unique_ptr<StorageFile>& pFile, std::uint32_t nUserRecordSize, bool bCheckedIfCreated) {
  constexpr std::uint32_t kMaxUserSize = UINT32_MAX - CheckedAdditionSize;
  if (pFile == nullptr || nUserRecordSize == 0 || nUserRecordSize > kMaxUserSize) return false;
  return Take(Look(*pFile, nUserRecordSize), pFile, nUserRecordSize, bCheckedIfCreated);
}

FileContent PlainDB::Look(StorageFile& File, std::uint32_t nUserRecordSize) {
  m_nRecordCount = 0;
  tPLAINDB_HEADER Header{};
  std::uint32_t nRead = 0;
  if (!File.SeekRead(0, &Header, sizeof(Header), &nRead)) return FileContent::Unread(errREAD_FAILED);
  if (nRead != sizeof(Header) || Header.nHeaderSize != sizeof(Header)) return FileContent::Foreign();
  const bool bUnchecked = std::memcmp(Header.Magic, kRecordMagic, sizeof(Header.Magic)) == 0;
  const bool bChecked = std::memcmp(Header.Magic, kCheckedRecordMagic, sizeof(Header.Magic)) == 0;
  if (!bUnchecked && !bChecked) return FileContent::Foreign();
  if (std::uint64_t{Header.nRecordSize} != std::uint64_t{nUserRecordSize} + (bChecked ? CheckedAdditionSize : 0)) {
    return FileContent::Foreign();
  }
  std::uint64_t nFileSize = 0;
  if (!File.GetSize(&nFileSize)) return FileContent::Unread(errREAD_FAILED);

  m_nRecordSize = Header.nRecordSize;
  m_bChecked = bChecked;
  m_nOpenFileSize = nFileSize;
  m_nRecordCount = RecordCountOfSize(nFileSize, m_nRecordSize);
  return FileContent::Ours();
}

bool PlainDB::Take(const FileContent& Found, std::unique_ptr<StorageFile>& pFile, std::uint32_t nUserRecordSize,
                   bool bCheckedIfCreated) {
  if (Failed(Found.OrStartAnew([&] { return Recreate(*pFile, nUserRecordSize, bCheckedIfCreated); }))) return false;
  m_pFile = std::move(pFile);
  m_File.Use(m_pFile.get(), m_nOpenFileSize);
  m_nFileSize = m_nOpenFileSize;
  m_bSizeKnown = Found.IsOurs();
  return true;
}

ResultCode PlainDB::Recreate(StorageFile& File, std::uint32_t nUserRecordSize, bool bChecked) {
  m_nRecordSize = nUserRecordSize + (bChecked ? CheckedAdditionSize : 0);
  m_bChecked = bChecked;
  m_nRecordCount = 0;
  tPLAINDB_HEADER Header{{}, sizeof(Header), m_nRecordSize};
  std::memcpy(Header.Magic, bChecked ? kCheckedRecordMagic : kRecordMagic, sizeof(Header.Magic));
  if (!File.SetSize(0) || !File.SeekWrite(0, &Header, sizeof(Header), nullptr)) return errWRITE_FAILED;
  m_nOpenFileSize = sizeof(Header);
  return errOK;
}

bool PlainDB::Close() {
  m_File.Use(nullptr);
  m_pFile.reset();
  return true;
}

bool PlainDB::Flush() {
  if (m_pFile != nullptr && !m_pFile->Flush()) TraceFailedStep(errWRITE_FAILED);
  return true;
}

ResultCode PlainDB::FastConsistencyCheck() const {
  return (m_nOpenFileSize - sizeof(tPLAINDB_HEADER)) % m_nRecordSize == 0 ? errOK : errDATA_CORRUPTED;
}

ResultCode PlainDB::AddRecord(const void* pData, std::uint32_t nDataSize, std::uint64_t* pnIndex) {
  if (pData == nullptr || nDataSize != UserRecordSize()) return errPARAMETER_INVALID;
  std::uint64_t nPosition = 0;
  const ResultCode nMeasured = EndOfFile(&nPosition);
  if (Failed(nMeasured)) return nMeasured;
  // From the file's size, not from the count: so the end of a torn append is overwritten.
  const std::uint64_t nIndex = RecordCountOfSize(nPosition, m_nRecordSize);
  if (nIndex >= kMaxRecords) return errTOO_MANY_RECORDS;
  nPosition = nIndex * m_nRecordSize;
  if (m_bChecked) {
    const ResultCode nCode = WriteCheckedRecord(PositionOf(nIndex), pData, nDataSize);
    if (Failed(nCode)) return nCode;
  } else {
    if (!WriteAt(nPosition + sizeof(tPLAINDB_HEADER), pData, nDataSize))
      return FailedCheck("m_pFile->SeekWrite(pos + sizeof(tPLAINDB_HEADER), pData, nDataSize, 0)", errWRITE_FAILED);
  }
  m_nRecordCount = nIndex + 1;
  if (pnIndex != nullptr) *pnIndex = nIndex;
  return errOK;
}

ResultCode PlainDB::WriteCheckedRecord(std::uint64_t nPosition, const void* pData, std::uint32_t nDataSize) {
  RecordBuffer Record;
  if (!Record.Resize(nDataSize + CheckedAdditionSize)) return errOUT_OF_MEMORY;
  const std::uint32_t nCrc = Crc32(0, pData, nDataSize);
  std::memcpy(Record.Get(), pData, nDataSize);
  std::memcpy(Record.Get() + nDataSize, &nCrc, sizeof(nCrc));
  return WriteAt(nPosition, Record.Get(), Record.size()) ? errOK : errWRITE_FAILED;
}

// The file is ours alone, so its size is what our writes have made it. After one that failed or came up short the
// system is asked.
ResultCode PlainDB::EndOfFile(std::uint64_t* pnEnd) {
  if (!m_bSizeKnown && !m_pFile->GetSize(&m_nFileSize)) return FailedCheck("m_pFile->GetSize(&pos)", errREAD_FAILED);
  m_bSizeKnown = true;
  *pnEnd = m_nFileSize;
  return errOK;
}

bool PlainDB::WriteAt(std::uint64_t nPosition, const void* pData, std::uint32_t nSize) {
  std::uint32_t nWritten = 0;
  const bool bWritten = m_File.SeekWrite(nPosition, pData, nSize, &nWritten);
  m_bSizeKnown = m_bSizeKnown && bWritten && nWritten == nSize;
  m_nFileSize = std::max(m_nFileSize, nPosition + nSize);
  return bWritten;
}

ResultCode PlainDB::SetRecord(std::uint64_t nIndex, const void* pData, std::uint32_t nDataSize) {
  if (pData == nullptr || nDataSize != UserRecordSize()) return errPARAMETER_INVALID;
  if (nIndex >= m_nRecordCount) return errNOT_FOUND;
  const std::uint64_t nPosition = PositionOf(nIndex);
  if (m_bChecked) return WriteCheckedRecord(nPosition, pData, nDataSize);
  if (!WriteAt(nPosition, pData, nDataSize))
    return FailedCheck("m_pFile->SeekWrite(pos, pData, nDataSize, 0)", errWRITE_FAILED);
  return errOK;
}

ResultCode PlainDB::GetRecord(std::uint64_t nIndex, void* pDataBuff, std::uint32_t nDataBuffSize,
                              std::uint32_t* pnRecordSize) {
  if (pnRecordSize != nullptr) *pnRecordSize = UserRecordSize();
  if (pDataBuff == nullptr || nDataBuffSize != UserRecordSize()) return errPARAMETER_INVALID;
  if (nIndex >= m_nRecordCount) return errNOT_FOUND;
  return m_bChecked ? GetCheckedRecord(nIndex, pDataBuff) : GetUncheckedRecord(nIndex, pDataBuff, nDataBuffSize);
}

ResultCode PlainDB::GetUncheckedRecord(std::uint64_t nIndex, void* pDataBuff, std::uint32_t nDataBuffSize) {
  const std::uint64_t nPosition = PositionOf(nIndex);
  if (nPosition + nDataBuffSize > GetSize() + sizeof(tPLAINDB_HEADER))
    return FailedCheck("(pos + nDataBuffSize <= GetSize() + sizeof(tPLAINDB_HEADER))", errDATA_CORRUPTED);
  std::uint32_t nRead = 0;
  if (!m_File.SeekRead(nPosition, pDataBuff, nDataBuffSize, &nRead))
    return FailedCheck("m_pFile->SeekRead(pos, pDataBuff, nDataBuffSize, &bytesRead)", errREAD_FAILED);
  if (m_nRecordSize != nRead) return FailedCheck("(m_nRecordSize == bytesRead)", errREAD_FAILED);
  return errOK;
}

ResultCode PlainDB::GetCheckedRecord(std::uint64_t nIndex, void* pDataBuff) {
  const std::uint64_t nPosition = PositionOf(nIndex);
  RecordBuffer Record;
  if (!Record.Resize(m_nRecordSize)) return errOUT_OF_MEMORY;
  if (nPosition + m_nRecordSize > GetSize() + sizeof(tPLAINDB_HEADER))
    return FailedCheck("(pos + m_nRecordSize <= GetSize() + sizeof(tPLAINDB_HEADER))", errDATA_CORRUPTED);
  std::uint32_t nRead = 0;
  if (!m_File.SeekRead(nPosition, Record.Get(), m_nRecordSize, &nRead))
    return FailedCheck("m_pFile->SeekRead(pos, localBuffer.Get(), m_nRecordSize, &bytesRead)", errREAD_FAILED);
  if (m_nRecordSize != nRead) return FailedCheck("(m_nRecordSize == bytesRead)", errREAD_FAILED);
  std::memcpy(pDataBuff, Record.Get(), UserRecordSize());
  const std::uint32_t nStoredCrc = StoredCrc(Record.Get() + UserRecordSize());
  const std::uint32_t nCrc = Crc32(0, Record.Get(), UserRecordSize());
  if (nStoredCrc != nCrc) return FailedCheck("(crc32Value == realCrc32Value)", errDATA_CORRUPTED);
  return errOK;
}

ResultCode PlainDB::GetRecords(std::uint64_t nFirst, void* pDataBuff, std::uint32_t nDataBuffSize,
                               std::uint32_t* pnCount) {
  m_bReadFailed = false;
  if (pDataBuff == nullptr) return errPARAMETER_INVALID;
  nDataBuffSize -= nDataBuffSize % UserRecordSize();
  if (nFirst >= kMaxRecords) nDataBuffSize = 0;  // no record stands there, and the position would not fit
  if (m_bChecked) return GetCheckedRecords(nFirst, pDataBuff, nDataBuffSize, pnCount);
  std::uint32_t nRead = 0;
  m_bReadFailed = !m_File.SeekRead(PositionOf(nFirst), pDataBuff, nDataBuffSize, &nRead);
  if (pnCount != nullptr) *pnCount = m_bReadFailed ? 0 : nRead / m_nRecordSize;
  return errOK;
}

ResultCode PlainDB::GetCheckedRecords(std::uint64_t nFirst, void* pDataBuff, std::uint32_t nDataBuffSize,
                                      std::uint32_t* pnCount) {
  const std::uint32_t nUserSize = UserRecordSize();
  auto* pCursor = static_cast<std::uint8_t*>(pDataBuff);
  std::uint64_t nPosition = PositionOf(nFirst);
  std::uint32_t nCount = 0;
  for (; nDataBuffSize >= nUserSize; nDataBuffSize -= nUserSize) {
    std::uint32_t nRead = 0;
    m_bReadFailed = !m_File.SeekRead(nPosition, pCursor, nUserSize, &nRead);
    if (m_bReadFailed || nRead != nUserSize) break;
    if (nPosition + nUserSize + CheckedAdditionSize > GetSize() + sizeof(tPLAINDB_HEADER))
      return FailedCheck("(pos + UserRecordSize + CheckedAdditionSize <= GetSize() + sizeof(tPLAINDB_HEADER))",
                         errDATA_CORRUPTED);
    std::uint32_t nStoredCrc = 0;
    if (!m_File.SeekRead(nPosition + nUserSize, &nStoredCrc, CheckedAdditionSize, &nRead))
      return FailedCheck("m_pFile->SeekRead(pos + UserRecordSize, &crc32Value, CheckedAdditionSize, &nDataRead)",
                         errREAD_FAILED);
    if (nRead != CheckedAdditionSize) return FailedCheck("nDataRead == CheckedAdditionSize", errREAD_FAILED);
    const std::uint32_t nCrc = Crc32(0, pCursor, nUserSize);
    if (nStoredCrc != nCrc) return FailedCheck("(crc32Value == realCrc32Value)", errDATA_CORRUPTED);
    ++nCount;
    nPosition += m_nRecordSize;
    pCursor += nUserSize;
  }
  if (pnCount != nullptr) *pnCount = nCount;
  return errOK;
}
}  // namespace lumbra
