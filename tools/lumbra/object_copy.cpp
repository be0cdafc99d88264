#include "object_copy.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "failure.h"
#include "format/data_crc.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "host/text.h"
#include "platform/result.h"

namespace lumbra::tool {

using inspect::Answer;
using inspect::Objects;

// ---- Files ------------------------------------------------------------------------------------------------

NewFile::NewFile(const os::FolderHandle& pFolder, const std::u16string& Name, std::string What)
    : m_What(std::move(What)) {
  const os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericWrite, 0, os::Disposition::CreateAlways, 0, &m_Handle);
  if (nError != os::kSuccess) throw Failure(m_What, ResultFromSystemError(nError));
}

NewFile::~NewFile() {
  if (m_Handle != nullptr) (void)os::Close(m_Handle);  // what it was written for has failed
}

void NewFile::Append(const void* pBytes, std::size_t nSize) {
  constexpr std::size_t kPiece = 1 << 18;
  const auto* const pFrom = static_cast<const char*>(pBytes);
  m_Waiting.insert(m_Waiting.end(), pFrom, pFrom + nSize);
  if (m_Waiting.size() >= kPiece) Write();
}

void NewFile::Write() {
  std::uint32_t nDone = 0;
  const auto nSize = static_cast<std::uint32_t>(m_Waiting.size());
  const os::SystemError nError = os::WriteAt(m_Handle, m_nWritten, m_Waiting.data(), nSize, &nDone);
  if (nError != os::kSuccess) throw Failure(m_What, ResultFromSystemError(nError));
  m_nWritten += nSize;
  m_Waiting.clear();
}

void NewFile::TakeFrom(const inspect::File& Other, std::uint64_t nSize) {
  const os::SystemError nCopied = os::CopyStart(Other.Handle(), m_Handle, nSize);
  if (nCopied == os::kSuccess) m_nWritten = nSize;
  if (nCopied == os::kSuccess) return;
  if (nCopied != os::kNotSupported) throw Failure(m_What, ResultFromSystemError(nCopied));
  std::vector<char> Bytes(1 << 18);
  for (std::uint64_t nAt = 0; nAt < nSize;) {
    const auto nPiece = static_cast<std::uint32_t>(std::min<std::uint64_t>(Bytes.size(), nSize - nAt));
    std::uint32_t nRead = 0;
    const os::SystemError nError = Other.Read(nAt, Bytes.data(), nPiece, &nRead);
    if (nError != os::kSuccess || nRead != nPiece)
      throw Failure(m_What, nError == os::kSuccess ? errREAD_FAILED : ResultFromSystemError(nError));
    Append(Bytes.data(), nPiece);
    nAt += nPiece;
  }
}

void NewFile::Close() {
  Write();
  os::SystemError nError = os::Flush(m_Handle);
  const os::SystemError nClosed = os::Close(std::exchange(m_Handle, nullptr));
  if (nError == os::kSuccess) nError = nClosed;
  if (nError != os::kSuccess) throw Failure(m_What, ResultFromSystemError(nError));
}

// ---- Objects ----------------------------------------------------------------------------------------------

namespace {

class Copier {
 public:
  Copier(Objects* pFrom, const os::FolderHandle& pTo, const inspect::ObjectFileNames& Names)
      : m_pFrom(pFrom),
        m_nFeatures(pFrom->Features()),
        m_Crcs((m_nFeatures & featureNameCrc) != 0),
        m_Ids(pTo, Names.Ids, "copy " + host::ToUtf8(Names.Ids)),
        m_Data(pTo, Names.Data, "copy " + host::ToUtf8(Names.Data)) {}

  ObjectCopy Run() {
    WriteHeads();
    const std::uint32_t nCount = m_pFrom->Count();
    ObjectCopy Copied;
    for (std::uint32_t nShortId = 1; nShortId <= nCount; ++nShortId) {
      ++Copied.nCopied;
      if (!CopyObject(nShortId)) ++Copied.nLeftOut;
    }
    m_Data.Close();
    m_Ids.Close();
    return Copied;
  }

 private:
  void WriteHeads() {
    const bool bCrcs = m_pFrom->HasRecordCrcs();
    tPLAINDB_HEADER Header{
        {}, sizeof(tPLAINDB_HEADER), static_cast<std::uint32_t>(sizeof(tODB_ID_ENTRY)) + (bCrcs ? kCrcSize : 0)};
    std::memcpy(Header.Magic, bCrcs ? kCheckedRecordMagic : kRecordMagic, sizeof(Header.Magic));
    m_Ids.Append(&Header, sizeof(Header));
    m_Data.Append(&MagicOf(m_nFeatures), sizeof(FILE_MAGIC));
  }

  // False when something of it is missing in the copy. One without its name keeps its id, as after a compaction.
  bool CopyObject(std::uint32_t nShortId) {
    tODB_ID_ENTRY Record{};
    std::span<const std::uint8_t> Name;
    const bool bRead =
        m_pFrom->ReadRecord(nShortId, &Record) == Answer::Read && m_pFrom->ReadName(Record, &Name) == Answer::Read;
    if (!bRead) {
      Record = {};
      Record.nObjectHash = kInvalidHash;
      AppendRecord(Record);
      return false;
    }
    if (Record.nNameSize != 0) {
      Record.nName = Place();
      AppendWithCrc(Record.nObjectHash, Name, featureNameCrc);
    }
    const bool bHadData = Record.nDataEntriesCount != 0;
    Record.nDataEntriesOffset = 0;
    Record.nDataEntriesCount = 0;
    const bool bAll = !bHadData || CopyData(nShortId, &Record);
    AppendRecord(Record);
    return bAll;
  }

  bool CopyData(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord) {
    std::vector<inspect::DataBlock> Blocks;
    bool bAll = m_pFrom->ListData(nShortId, &Blocks) == Answer::Read;
    std::vector<tODB_DATA_ENTRY> Entries;
    for (const inspect::DataBlock& One : Blocks) {
      std::vector<std::uint8_t> Bytes;
      const Answer Found = m_pFrom->ReadData(nShortId, One.nKey, &Bytes);
      if (Found == Answer::Missing) continue;  // it was removed meanwhile
      if (Found == Answer::Read) {
        Entries.push_back(CopyBlock(nShortId, One.nKey, std::move(Bytes)));
      } else {
        bAll = false;
      }
    }
    if (Entries.empty()) return bAll;
    pRecord->nDataEntriesOffset = Place();
    pRecord->nDataEntriesCount = static_cast<std::uint8_t>(Entries.size());
    const auto* const pEntries = reinterpret_cast<const std::uint8_t*>(Entries.data());
    AppendWithCrc(nShortId, {pEntries, Entries.size() * sizeof(tODB_DATA_ENTRY)}, featureArrayCrc);
    return bAll;
  }

  tODB_DATA_ENTRY CopyBlock(std::uint32_t nShortId, std::uint32_t nKey, std::vector<std::uint8_t> Bytes) {
    if ((m_nFeatures & featureBlockCrc) != 0) {
      const std::uint32_t nCrc = m_Crcs.Of(nShortId, Bytes.data(), Bytes.size());
      Bytes.resize(Bytes.size() + kCrcSize);
      std::memcpy(Bytes.data() + Bytes.size() - kCrcSize, &nCrc, kCrcSize);
    }
    const auto nStored = static_cast<std::uint32_t>(Bytes.size());
    if ((m_nFeatures & featureMask) != 0) MaskDataBlock(Bytes.data(), nStored);
    const tODB_DATA_ENTRY Entry{nKey, Place(), DataSize{nStored, nStored}.Encode()};
    m_Data.Append(Bytes.data(), Bytes.size());
    return Entry;
  }

  // Where the next block stands. The copy has no holes, and is no longer than what it was copied from.
  std::uint32_t Place() const { return static_cast<std::uint32_t>(m_Data.Size()); }

  void AppendWithCrc(std::uint64_t nSeed, std::span<const std::uint8_t> Bytes, StoreFeatures Feature) {
    m_Data.Append(Bytes.data(), Bytes.size());
    if ((m_nFeatures & Feature) == 0) return;
    const std::uint32_t nCrc = m_Crcs.Of(nSeed, Bytes.data(), Bytes.size());
    m_Data.Append(&nCrc, kCrcSize);
  }

  void AppendRecord(const tODB_ID_ENTRY& Record) {
    m_Ids.Append(&Record, sizeof(Record));
    if (!m_pFrom->HasRecordCrcs()) return;
    const std::uint32_t nCrc = DataCrc().Of(0, &Record, sizeof(Record));
    m_Ids.Append(&nCrc, kCrcSize);
  }

  Objects* const m_pFrom;
  const std::uint32_t m_nFeatures;
  const DataCrc m_Crcs;
  NewFile m_Ids;
  NewFile m_Data;
};

}  // namespace

ObjectCopy CopyObjectsOneByOne(Objects* pFrom, const os::FolderHandle& pTo, const inspect::ObjectFileNames& Names) {
  return Copier(pFrom, pTo, Names).Run();
}

}  // namespace lumbra::tool
