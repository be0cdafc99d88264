// The texts of failed checks, as they stand in the trace. They are a contract with whoever reads traces: the list is
// complete, and a check whose text is not in it does not compile. Where a text names variables, they need not be those
// of the code.
#pragma once

#include <cstddef>
#include <string_view>

namespace lumbra {

inline constexpr const char* kCheckTexts[] = {
    "Failed check: (bytesWritten == sizeof(crc32))",
    "Failed check: (bytesWritten == write_size)",
    "Failed check: (crc32Value == realCrc32Value)",
    "Failed check: (m_nRecordSize == bytesRead)",
    "Failed check: (pos + UserRecordSize + CheckedAdditionSize <= GetSize() + sizeof(tPLAINDB_HEADER))",
    "Failed check: (pos + m_nRecordSize <= GetSize() + sizeof(tPLAINDB_HEADER))",
    "Failed check: (pos + nDataBuffSize <= GetSize() + sizeof(tPLAINDB_HEADER))",
    "Failed check: (sizeof(hdr) == bytesRead)",
    "Failed check: (tObjectId)(MAKE_SHORT_OBJECT_ID(id)-1) < m_IdDB.GetRecordCount()",
    "Failed check: 0 == next_offset",
    "Failed check: BT_SeekRead(0, &hdr, sizeof(hdr), &bytesRead)",
    "Failed check: BT_SeekRead(nCrcOffset, &crc32, sizeof(crc32), &bytes)",
    "Failed check: BT_SeekRead(nNodeOffset+nEntryNo*sizeof(tODB_BT_OFFSET), pOffset, sizeof(tODB_BT_OFFSET), &bytes)",
    "Failed check: BT_SeekRead(nNodeOffset, offsets, offsetsSize, &bytes)",
    "Failed check: BT_SeekWrite(0, &hdr, sizeof(hdr), NULL)",
    "Failed check: BT_SeekWrite(nNodeOffset+nEntryNo*sizeof(tODB_BT_OFFSET), &nOffset, sizeof(nOffset), &bytes)",
    "Failed check: BT_SeekWrite(nNodeOffset+offsetsSize, &crc32, sizeof(crc32), &bytes)",
    "Failed check: BT_SeekWrite(nNodeOffset, &crc32, sizeof(crc32), &bytesWritten)",
    "Failed check: BT_SeekWrite(nNodeOffset, offsets, write_size, &bytesWritten)",
    "Failed check: BT_SeekWrite(offsetof(tODB_BT_HEADER, nFirstNodeOffset), &nFirstNodeOffset, sizeof(nFirstNodeOffset), NULL)",
    "Failed check: Entry.nDataOffset >= sizeof(FILE_MAGIC)",
    "Failed check: FindObject(objectEntry.nObjectHash, &idFromBt)",
    "Failed check: MAKE_SHORT_OBJECT_ID(idFromBt) == nObjectId + 1",
    "Failed check: Succeeded(GetIdEntry(Other, &object_entry, TraceMiss::No))",
    "Failed check: Succeeded(m_IdDB.FastConsistencyCheck())",
    "Failed check: Succeeded(m_Tree.ReadSlot(At, nHash, &next_offset))",
    "Failed check: Succeeded(m_Tree.Split(&At, nHash, object_entry.nObjectHash, next_offset))",
    "Failed check: Succeeded(m_Tree.WriteSlot(At, nHash, static_cast<std::uint32_t>(nObjectId + 1)))",
    "Failed check: ValidDataCrc(nObjectId + 1, buffer.Get(), userDataSize, buffer.Get() + userDataSize)",
    "Failed check: ValidDataCrc(nObjectId + 1, dataEntries, objectEntry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), dataEntries + objectEntry.nDataEntriesCount)",
    "Failed check: ValidDataCrc(nObjectId, data_entries, object_entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), data_entries + object_entry.nDataEntriesCount)",
    "Failed check: ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize)",
    "Failed check: ValidDataCrc(nPreviousOffset, offsets, offsetsSize, &crc32)",
    "Failed check: ValidDataCrc(objectEntry.nObjectHash, buffer.Get(), objectEntry.nNameSize, buffer.Get() + objectEntry.nNameSize)",
    "Failed check: ValidDataCrc(object_entry.nObjectHash, buffer.Get(), object_entry.nNameSize, buffer.Get() + object_entry.nNameSize)",
    "Failed check: bytes == OffsetsSize",
    "Failed check: bytes == offsetsSize",
    "Failed check: bytes == sizeof(crc32)",
    "Failed check: bytes == sizeof(tODB_BT_OFFSET)",
    "Failed check: bytesRead == bytesToRead",
    "Failed check: bytesRead == dataEntriesBytesCount",
    "Failed check: bytesRead == sizeof(tODB_ID_ENTRY)",
    "Failed check: bytesToRead == bytesRead",
    "Failed check: dataFileSize > pde->nDataOffset",
    "Failed check: dataFileSize >= nDataSize",
    "Failed check: dataToWrite.size() == bytesWritten",
    "Failed check: m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)",
    "Failed check: m_pFile->GetSize(&pos)",
    "Failed check: m_pFile->SeekRead(pos + UserRecordSize, &crc32Value, CheckedAdditionSize, &nDataRead)",
    "Failed check: m_pFile->SeekRead(pos, localBuffer.Get(), m_nRecordSize, &bytesRead)",
    "Failed check: m_pFile->SeekRead(pos, pDataBuff, nDataBuffSize, &bytesRead)",
    "Failed check: m_pFile->SeekWrite(pos + sizeof(tPLAINDB_HEADER), pData, nDataSize, 0)",
    "Failed check: m_pFile->SeekWrite(pos, pData, nDataSize, 0)",
    "Failed check: m_pFileData->GetSize(&dataFileSize)",
    "Failed check: m_pFileData->GetSize(&m_nSizeDT)",
    "Failed check: m_pFileData->GetSize(&nOffset)",
    "Failed check: m_pFileData->SeekRead(dataEntries[nEntry].nDataOffset, buffer.Get(), bytesToRead, &bytesRead)",
    "Failed check: m_pFileData->SeekRead(objectEntry.nDataEntriesOffset, dataEntries, dataEntriesBytesCount, &bytesRead)",
    "Failed check: m_pFileData->SeekRead(objectEntry.nName, buffer.Get(), bytesToRead, &bytesRead)",
    "Failed check: m_pFileData->SeekRead(object_entry.nDataEntriesOffset, data_entries, bytesToRead, &bytesRead)",
    "Failed check: m_pFileData->SeekRead(object_entry.nName, buffer.Get(), bytesToRead, &bytesRead)",
    "Failed check: m_pFileData->SeekRead(pde->nDataOffset, readBuf, nDataSize, &bytesRead)",
    "Failed check: m_pFileData->SeekWrite(nOffset, pData, nDataSize, &bytesWritten)",
    "Failed check: m_pFileData->SeekWrite(object_entry.nDataEntriesOffset+nEntry*sizeof(tODB_DATA_ENTRY), pde, sizeof(tODB_DATA_ENTRY), &bytesWritten)",
    "Failed check: m_pFileData->SeekWrite(object_entry.nDataEntriesOffset, data_entries, sizeToWrite, &bytesWritten)",
    "Failed check: m_pFileData->SeekWrite(pde->nDataOffset, dataToWrite.begin(), dataToWrite.size(), &bytesWritten)",
    "Failed check: nDataRead == CheckedAdditionSize",
    "Failed check: nDataSize == bytesRead",
    "Failed check: nDataSize == bytesWritten",
    "Failed check: objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT",
    "Failed check: objectEntry.nName + objectEntry.nNameSize <= m_nSizeDT",
    "Failed check: object_entry.nDataEntriesOffset >= sizeof(FILE_MAGIC)",
    "Failed check: object_entry.nObjectHash != objectEntry.nObjectHash",
    "Failed check: pFile->SeekWrite(nOffset, zeroes, n, NULL)",
    "Failed check: pFileBT->GetSize(&actualSize)",
    "Failed check: pFileBT->SeekRead(0, &hdr, sizeof(hdr), &bytes)",
    "Failed check: pFileBT->SeekRead(FirstNodeOffset, offsets, OffsetsSize, &bytes)",
    "Failed check: pFileBT->SeekRead(nCrcOffset, &crc32, sizeof(crc32), &bytes)",
    "Failed check: pFileBT->SeekWrite(0, &hdr, sizeof(hdr), 0)",
    "Failed check: pFileBT->SeekWrite(0, &newHdr, sizeof(newHdr), NULL)",
    "Failed check: pFileBT->SetSize(0)",
    "Failed check: pFileBT->SetSize(hdr.nDBSize)",
    "Failed check: pFileData->SeekRead(0, fileMagic, sizeof(FILE_MAGIC), &bytesRead)",
    "Failed check: pFileData->SeekWrite(0, newFileMagic, sizeof(FILE_MAGIC), &bytesWritten)",
    "Failed check: sizeToWrite == bytesWritten",
    "Failed check: sizeof(tODB_DATA_ENTRY) == bytesWritten",
    "Failed check: sizeof(tODB_ID_ENTRY) == bytesRead",
    "Failed check: userDataSize >= sizeof(uint32_t)",
};

// Not defined: a check whose text is not listed calls it while it is compiled.
void ThisCheckTextIsNotListed();

// A listed text; made from the literal behind "Failed check: ".
class CheckText {
 public:
  // Implicit, so that a check takes a plain literal.
  consteval CheckText(const char* pText) {
    constexpr std::size_t kPrefix = std::string_view("Failed check: ").size();
    for (const char* const pListed : kCheckTexts) {
      if (std::string_view(pListed).substr(kPrefix) == pText) m_pListed = pListed;
    }
    if (m_pListed == nullptr) ThisCheckTextIsNotListed();
  }
  const char* Get() const { return m_pListed; }

 private:
  const char* m_pListed = nullptr;
};

}  // namespace lumbra
