#include "events/named_index.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "platform/failed_step.h"
#include "platform/file_content.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// Codes stand as plain numbers in the lines of these files.
std::uint32_t Number(ResultCode nCode) {
  return static_cast<std::uint32_t>(nCode);
}

// Not errPATH_NOT_FOUND: the folder was there before, and is away for a moment.
bool IsMissing(ResultCode nOpened) {
  return nOpened == errFILE_NOT_FOUND;
}

// What one transfer came to: a short one has the code of success and is a failure all the same.
struct Transfer {
  ResultCode nCode = errOK;
  std::uint32_t nBytes = 0;

  bool Complete(std::size_t nWanted) const { return Succeeded(nCode) && nBytes == nWanted; }
};

Transfer ReadSome(File& From, void* pBuffer, std::size_t nSize) {
  Transfer Done;
  Done.nCode = From.Read(pBuffer, static_cast<std::uint32_t>(nSize), &Done.nBytes);
  return Done;
}

Transfer WriteAll(File& To, const void* pData, std::size_t nSize) {
  Transfer Done;
  Done.nCode = To.Write(pData, static_cast<std::uint32_t>(nSize), &Done.nBytes);
  return Done;
}

// ---- The index --------------------------------------------------------------------------------------------

FileContent ReadSignature(File& Index, const FilePlace& Place, bool* pbCorrupted) {
  IndexBlock Signature{};
  const Transfer Done = ReadSome(Index, Signature.data(), Signature.size());
  if (!Done.Complete(Signature.size())) {
    Trace(kHostRoot, traceDamage,
          "lmb\tTryLoadPersistentIndexes: failed to read signature from file, ulo res = %u, bytesRead = %u",
          Number(Done.nCode), Done.nBytes);
    return Failed(Done.nCode) ? FileContent::Unread(errUNSPECIFIED) : FileContent::Foreign();
  }
  *pbCorrupted = Signature == kCorruptedIndexSignature;
  if (*pbCorrupted || Signature == kIndexSignature) return FileContent::Ours();
  (void)Index.Close();  // nothing was written
  Trace(kHostRoot, traceDamage, "lmb\tTryLoadPersistentIndexes: file signature is not valid");
  Trace(kHostRoot, traceDamage, "lmb\tTryLoadPersistentIndexes: corrupted persistent index file (%S) content: %S",
        Place.Path.c_str(), u"none");
  return FileContent::Foreign();
}

// The names are all that leads to the named databases: they are given up only where the file is known to be missing, or
// what was read of it is no index.
FileContent TryLoadPersistentIndexes(const FilePlace& Place, PersistentIndex* pNames, bool* pbCorrupted) {
  File Index;
  const ResultCode nOpened = Index.OpenWithFlags(Place, fileRead, openExisting);
  if (Failed(nOpened)) {
    Trace(kHostRoot, traceNotable, "lmb\tTryLoadPersistentIndexes: failed to open file, ulo res = %u", Number(nOpened));
    return IsMissing(nOpened) ? FileContent::Foreign() : FileContent::Unread(errUNSPECIFIED);
  }
  const FileContent Signature = ReadSignature(Index, Place, pbCorrupted);
  if (!Signature.IsOurs()) return Signature;

  std::vector<IndexBlock> Items(kMaxIndexNames);
  const Transfer Done = ReadSome(Index, Items.data(), Items.size() * kIndexBlockSize);
  if (Failed(Done.nCode) || Done.nBytes % kIndexBlockSize != 0) {
    Trace(kHostRoot, traceDamage,
          "lmb\tTryLoadPersistentIndexes: failed to read data from file, ulo res = %u, bytesRead = %u",
          Number(Done.nCode), Done.nBytes);
    return Failed(Done.nCode) ? FileContent::Unread(errUNSPECIFIED) : FileContent::Foreign();
  }
  Items.resize(Done.nBytes / kIndexBlockSize);
  for (const IndexBlock& Item : Items) pNames->emplace_back(Item.data(), strnlen(Item.data(), kMaxIndexNameLength));
  Trace(kHostRoot, traceRoutine, "lmb\tTryLoadPersistentIndexes: successful, %u items read, %s",
        static_cast<std::uint32_t>(pNames->size()), *pbCorrupted ? "DB Corrupted" : "DB Ok");
  return FileContent::Ours();
}

bool TryCreatePersistentIndexesFile(const FilePlace& Place) {
  File Index;
  const ResultCode nOpened = Index.OpenWithFlags(Place, fileWrite, createAlways);
  if (Failed(nOpened)) {
    Trace(kHostRoot, traceFailure, "lmb\tTryCreatePersistentIndexesFile: failed to open file, ulo res = %u",
          Number(nOpened));
    return false;
  }
  const IndexBlock& Signature = kIndexSignature;
  const Transfer Done = WriteAll(Index, Signature.data(), Signature.size());
  if (!Done.Complete(Signature.size())) {
    Trace(kHostRoot, traceFailure,
          "lmb\tTryCreatePersistentIndexesFile: failed to write signature to file, ulo res = %u, "
          "bytesWritten = %u",
          Number(Done.nCode), Done.nBytes);
    return false;
  }
  const ResultCode nFlushed = Index.Flush();
  if (Failed(nFlushed)) {
    Trace(kHostRoot, traceFailure, "lmb\tTryCreatePersistentIndexesFile: failed to flush file, ulo res = %u",
          Number(nFlushed));
    return false;
  }
  Trace(kHostRoot, traceRoutine, "lmb\tTryCreatePersistentIndexesFile: successful");
  return true;
}

}  // namespace

ResultCode LoadPersistentIndexes(const FilePlace& Place, PersistentIndex* pNames, bool* pbCorrupted) {
  pNames->clear();
  try {
    return TryLoadPersistentIndexes(Place, pNames, pbCorrupted).OrStartAnew([&] {
      Trace(kHostRoot, traceNotable, "lmb\tLoadPersistentIndexes: file is absent or invalid, creating new one..");
      if (!TryCreatePersistentIndexesFile(Place)) {
        Trace(kHostRoot, traceFailure, "lmb\tLoadPersistentIndexes: failed to create index file");
        return errUNSPECIFIED;
      }
      *pbCorrupted = false;
      return errOK;
    });
  } catch (const std::bad_alloc&) {
    Trace(kHostRoot, traceFailure, "lmb\tLoadPersistentIndexes: not enough memory");
    return errOUT_OF_MEMORY;
  }
}

namespace {

// Takes an item that could not be saved off the file again, so that the next attempt finds it as this one did. Should
// that fail, too, the next one finds what is left.
void CutBack(File& Index, std::uint64_t nSize) {
  (void)Index.SetSize(nSize);
}

// Whether what stands behind a position is an item, or the beginning of it, and nothing else.
bool IsLeftOf(File& Index, std::uint64_t nFrom, std::uint64_t nSize, const IndexBlock& Item) {
  IndexBlock Left{};
  std::uint64_t nPosition = 0;
  if (nSize > Left.size() || Failed(Index.Seek(0, static_cast<std::int64_t>(nFrom), &nPosition))) return false;
  const auto nLeft = static_cast<std::size_t>(nSize);
  return ReadSome(Index, Left.data(), nLeft).Complete(nLeft) && std::memcmp(Left.data(), Item.data(), nLeft) == 0;
}

}  // namespace

ResultCode SavePersistentIndex(const FilePlace& Place, std::uint32_t nIndex, std::string_view Name) {
  File Index;
  ResultCode nCode = Index.OpenWithFlags(Place, fileRead | fileWrite, openExisting);
  if (Failed(nCode)) {
    Trace(kHostRoot, traceFailure, "lmb\tSavePersistentIndex(%u): File Create failed, ulo result = %u", nIndex,
          Number(nCode));
    return nCode;
  }
  constexpr std::uint32_t kFromEnd = 2;
  std::uint64_t nPosition = 0;
  nCode = Index.Seek(kFromEnd, 0, &nPosition);
  if (Failed(nCode)) {
    Trace(kHostRoot, traceFailure, "lmb\tSavePersistentIndex(%u): File Seek(end, 0) failed, ulo result = %u", nIndex,
          Number(nCode));
    return nCode;
  }
  const IndexBlock Item = MakeIndexBlock(Name);
  const std::uint64_t nExpected = std::uint64_t{kIndexBlockSize} * (std::uint64_t{nIndex} + 1);
  // What an attempt to save this item has left, and could not take back.
  const bool bLeft = nPosition > nExpected && IsLeftOf(Index, nExpected, nPosition - nExpected, Item);
  if (bLeft && Succeeded(Index.SetSize(nExpected))) nCode = Index.Seek(kFromEnd, 0, &nPosition);
  // A name never lands at a position that would give it another id.
  if (nPosition != nExpected) {
    Trace(kHostRoot, traceFailure,
          "lmb\tSavePersistentIndex(%u): currentPos = %u (file size) is not equal to expected write pos = %u", nIndex,
          static_cast<std::uint32_t>(nPosition), static_cast<std::uint32_t>(nExpected));
    return errUNSPECIFIED;
  }
  const Transfer Done = WriteAll(Index, Item.data(), Item.size());
  if (!Done.Complete(Item.size())) {
    CutBack(Index, nExpected);
    Trace(kHostRoot, traceFailure,
          "lmb\tSavePersistentIndex(%u): File Write failed, ulo result = %u, bytesWritten = %u", nIndex,
          Number(Done.nCode), Done.nBytes);
    return Failed(Done.nCode) ? Done.nCode : errWRITE_FAILED;
  }
  nCode = Index.Flush();
  if (Failed(nCode)) {
    CutBack(Index, nExpected);
    Trace(kHostRoot, traceFailure, "lmb\tSavePersistentIndex(%u): File flush failed, ulo result = %u", nIndex,
          Number(nCode));
    return nCode;
  }
  (void)Index.Close();  // it is on the disk
  Trace(kHostRoot, traceRoutine, "lmb\tSavePersistentIndex: successful");
  return errOK;
}

bool SaveCorruptedFlag(const FilePlace& Place) {
  File Index;
  const ResultCode nOpened = Index.OpenWithFlags(Place, fileWrite | fileShareRead, openExisting);
  if (Failed(nOpened)) {
    Trace(kHostRoot, traceFailure, "lmb\tSaveCorruptedFlag: failed to open file, ulo res = %u", Number(nOpened));
    return false;
  }
  const IndexBlock& Signature = kCorruptedIndexSignature;
  const Transfer Done = WriteAll(Index, Signature.data(), Signature.size());
  if (!Done.Complete(Signature.size())) {
    Trace(kHostRoot, traceFailure,
          "lmb\tSaveCorruptedFlag: failed to write signature to file, ulo res = %u, bytesWritten = %u",
          Number(Done.nCode), Done.nBytes);
    return false;
  }
  if (Failed(Index.Flush())) {
    TraceFailedStep(errWRITE_FAILED);
    return false;
  }
  Trace(kHostRoot, traceRoutine, "lmb\tSaveCorruptedFlag: successful");
  return true;
}

bool FindPersistentIndex(const PersistentIndex& Names, std::string_view Name, std::uint32_t* pnPosition) {
  const auto Found = std::find(Names.begin(), Names.end(), Name);
  if (Found == Names.end()) return false;
  *pnPosition = static_cast<std::uint32_t>(Found - Names.begin());
  return true;
}

bool IsPersistentIndexFull(const PersistentIndex& Names) {
  return Names.size() >= kMaxIndexNames;
}

// ---- The identity file ------------------------------------------------------------------------------------

namespace {

FileContent TryReadDatabaseId(const FilePlace& Place, std::uint32_t* pnId) {
  File Identity;
  const ResultCode nOpened = Identity.OpenWithFlags(Place, fileRead, openExisting);
  if (Failed(nOpened)) return IsMissing(nOpened) ? FileContent::Foreign() : FileContent::Unread(nOpened);
  IdentityBytes Bytes{};
  const Transfer Done = ReadSome(Identity, Bytes.data(), sizeof(Bytes));
  if (Failed(Done.nCode)) return FileContent::Unread(Done.nCode);
  if (!Done.Complete(sizeof(Bytes))) return FileContent::Foreign();
  *pnId = DecodeIdentity(Bytes);
  (void)Identity.Close();  // nothing was written
  if (*pnId >= kFirstNamedDatabase) return FileContent::Ours();
  Trace(kHostRoot, traceFailure,
        "lmb\tTryReadDatabaseId: read index (%u) from file is less, than minimum named db index (%u)", *pnId,
        kFirstNamedDatabase);
  if (*pnId != 0) {
    Trace(kHostRoot, traceDamage, "lmb\tTryReadDatabaseId: corrupted index file (%S) content: %S", Place.Path.c_str(),
          u"none");
  }
  return FileContent::Foreign();
}

bool TrySaveDatabaseId(const FilePlace& Place, std::uint32_t nId) {
  Trace(kHostRoot, traceRoutine, "lmb\tTrySaveDatabaseId: indexFilePath = '%S', databaseId = %u", Place.Path.c_str(),
        nId);
  File Identity;
  if (Failed(Identity.OpenWithFlags(Place, fileWrite, createAlways))) return false;
  const IdentityBytes Bytes = EncodeIdentity(nId);
  if (!WriteAll(Identity, Bytes.data(), sizeof(Bytes)).Complete(sizeof(Bytes))) return false;
  return Succeeded(Identity.Flush()) && Succeeded(Identity.Close());
}

}  // namespace

void ValidateDatabaseId(const FilePlace& Place, std::uint32_t nAssigned) {
  std::uint32_t nPrevious = 0;
  const FileContent Found = TryReadDatabaseId(Place, &nPrevious);
  if (Found.IsOurs()) {
    Trace(kHostRoot, traceRoutine,
          "lmb\tValidateDatabaseId: indexFilePath = '%S', previousDatabaseId = %u, assignedDatabaseId = %u",
          Place.Path.c_str(), nPrevious, nAssigned);
    return;
  }
  const bool bSaved =
      Succeeded(Found.OrStartAnew([&] { return TrySaveDatabaseId(Place, nAssigned) ? errOK : errWRITE_FAILED; }));
  const char* const pOutcome = bSaved ? "succeeded" : "failed";
  Trace(kHostRoot, bSaved ? traceNotable : traceFailure,
        "lmb\tValidateDatabaseId: indexFilePath = '%S', assignedDatabaseId = %u, TrySaveDatabaseIndex %s",
        Place.Path.c_str(), nAssigned, pOutcome);
}

}  // namespace lumbra
