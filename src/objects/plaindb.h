// A file of fixed-size records (format/record_file.h), addressed by index. Events are kept in one, id records in
// another.
//
// The CRC of a record in a checked file is looked at on every read. An existing file's own kind wins over the one asked
// for.
//
// It takes no lock: its owner serialises all calls. A failed check writes a trace line and answers the code
// that the line names; arguments are refused without one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "format/crc32.h"
#include "format/record_file.h"
#include "lumbra/result_code.h"
#include "objects/block_table.h"
#include "platform/file_content.h"
#include "platform/storage_file.h"

namespace lumbra {

class PlainDB {
 public:
  // Bytes that a checked record has behind the user's.
  static constexpr std::uint32_t CheckedAdditionSize = kCrcSize;

  // With a table, whose owner's lock serialises the calls, records are read through its blocks.
  explicit PlainDB(BlockTable* pBlocks = nullptr, std::uint32_t nFile = 0) : m_File(pBlocks, nFile) {}
  ~PlainDB() { Close(); }
  PlainDB(const PlainDB&) = delete;
  PlainDB& operator=(const PlainDB&) = delete;

  // Takes the file over, or answers false and leaves it with the caller. A file whose header was read and is short,
  // foreign or of another record size is started anew, empty; one that could not be read stays as it is.
  bool Open(std::unique_ptr<StorageFile>& pFile, std::uint32_t nUserRecordSize, bool bCheckedIfCreated);

  // The two steps of Open, for an owner who looks at more files before any is written. Look changes nothing; of a file
  // that is ours, its kind and counts are known from then on. Take goes on with what Look found in the same file.
  FileContent Look(StorageFile& File, std::uint32_t nUserRecordSize);
  bool Take(const FileContent& Found, std::unique_ptr<StorageFile>& pFile, std::uint32_t nUserRecordSize,
            bool bCheckedIfCreated);
  bool Close();  // always true
  bool Flush();  // always true; a failure is traced, and stays in the file object
  bool IsFlushed() const { return m_pFile == nullptr || !m_pFile->Modified(); }

  std::uint64_t GetRecordCount() const { return m_nRecordCount; }
  std::uint64_t GetSize() const { return m_nRecordCount * m_nRecordSize; }  // of whole records, without the header
  std::uint32_t UserRecordSize() const { return m_nRecordSize - (m_bChecked ? CheckedAdditionSize : 0); }
  std::uint32_t StoredRecordSize() const { return m_nRecordSize; }
  bool IsChecked() const { return m_bChecked; }
  std::uint64_t OpenFileSize() const { return m_nOpenFileSize; }  // bytes of the whole file when it was opened

  // Whether the file held a whole number of records when it was opened: errOK or errDATA_CORRUPTED.
  ResultCode FastConsistencyCheck() const;

  // Appends a record; nDataSize must be UserRecordSize. pnIndex may be null.
  ResultCode AddRecord(const void* pData, std::uint32_t nDataSize, std::uint64_t* pnIndex);

  // Rewrites a record; errNOT_FOUND for an index that is not there.
  ResultCode SetRecord(std::uint64_t nIndex, const void* pData, std::uint32_t nDataSize);

  // Reads a record into a buffer of exactly UserRecordSize bytes, which is filled also when the CRC is wrong.
  // *pnRecordSize (may be null) is set whatever follows.
  ResultCode GetRecord(std::uint64_t nIndex, void* pDataBuff, std::uint32_t nDataBuffSize, std::uint32_t* pnRecordSize);

  // Reads as many whole records as fit, from nFirst on. Reaching the end of the file is errOK with fewer
  // records. A bad record in a checked file is an error, and leaves *pnCount (may be null) unwritten.
  ResultCode GetRecords(std::uint64_t nFirst, void* pDataBuff, std::uint32_t nDataBuffSize, std::uint32_t* pnCount);

  // Whether the last GetRecords stopped where a read failed, and not at the end of the file: its answer is the same.
  bool ReadFailed() const { return m_bReadFailed; }

 private:
  std::uint64_t PositionOf(std::uint64_t nIndex) const { return sizeof(tPLAINDB_HEADER) + nIndex * m_nRecordSize; }
  ResultCode Recreate(StorageFile& File, std::uint32_t nUserRecordSize, bool bChecked);
  ResultCode WriteCheckedRecord(std::uint64_t nPosition, const void* pData, std::uint32_t nDataSize);
  ResultCode GetUncheckedRecord(std::uint64_t nIndex, void* pDataBuff, std::uint32_t nDataBuffSize);
  ResultCode GetCheckedRecord(std::uint64_t nIndex, void* pDataBuff);
  ResultCode GetCheckedRecords(std::uint64_t nFirst, void* pDataBuff, std::uint32_t nDataBuffSize,
                               std::uint32_t* pnCount);

  ResultCode EndOfFile(std::uint64_t* pnEnd);
  bool WriteAt(std::uint64_t nPosition, const void* pData, std::uint32_t nSize);

  std::unique_ptr<StorageFile> m_pFile;
  BlockFile m_File;                  // the same
  std::uint64_t m_nFileSize = 0;     // bytes, where it is known
  bool m_bSizeKnown = false;         // not after a write that may have left a part of itself
  std::uint32_t m_nRecordSize = 0;   // as in the header
  std::uint64_t m_nRecordCount = 0;  // whole records
  bool m_bChecked = false;
  bool m_bReadFailed = false;         // in the last GetRecords
  std::uint64_t m_nOpenFileSize = 0;  // what Open saw; 12 for a file that it created
};

}  // namespace lumbra
