// lumbra data: the blocks of bytes that objects have under keys.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "commands.h"
#include "failure.h"
#include "ids.h"
#include "machine.h"
#include "open_objects.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

using Bytes = std::vector<char>;

struct FileCloser {
  void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};
using FilePointer = std::unique_ptr<std::FILE, FileCloser>;

std::string BlockOf(const DataOptions& Options) {
  char Key[16];
  std::snprintf(Key, sizeof(Key), "0x%08x", Options.nKey);
  return "the data of " + FormatId(Options.nId) + " under " + Key;
}

// Opens a file; none for an empty name, which stands for one of the standard streams.
FilePointer OpenFile(const std::string& Path, const char* pMode, const char* pWhat) {
  if (Path.empty()) return nullptr;
  FilePointer File(OpenStream(Path, pMode));
  if (File == nullptr) {
    throw Failure(pWhat + Printable(Path), errno == ENOENT ? errFILE_NOT_FOUND : errACCESS_DENIED,
                  std::strerror(errno));
  }
  return File;
}

Bytes ReadAll(const std::string& Path) {
  const FilePointer Opened = OpenFile(Path, "rb", "read ");
  std::FILE* const pFile = Opened ? Opened.get() : stdin;
  Bytes Content;
  char Piece[65536];
  while (const std::size_t nRead = std::fread(Piece, 1, sizeof(Piece), pFile)) {
    Content.insert(Content.end(), Piece, Piece + nRead);
    if (Content.size() > INT32_MAX) throw Failure("store what is read", errSIZE_INVALID);
  }
  if (std::ferror(pFile) != 0) {
    throw Failure("read " + (Path.empty() ? "standard input" : Printable(Path)), errREAD_FAILED, std::strerror(errno));
  }
  return Content;
}

void WriteAll(const std::string& Path, const Bytes& Content) {
  FilePointer Opened = OpenFile(Path, "wb", "write ");
  std::FILE* const pFile = Opened ? Opened.get() : stdout;
  bool bWritten = std::fwrite(Content.data(), 1, Content.size(), pFile) == Content.size();
  if (Opened) bWritten &= std::fclose(Opened.release()) == 0;
  if (!bWritten) {
    throw Failure("write " + (Path.empty() ? "standard output" : Printable(Path)), errWRITE_FAILED,
                  std::strerror(errno));
  }
}

}  // namespace

namespace {

int GetThroughComponent(const CommonOptions& Common, const DataOptions& Options) {
  Session Store(Common, Missing::Refuse);
  Store.OpenDatabaseOf(Options.nId);
  const std::string What = "read " + BlockOf(Options);
  std::uint32_t nSize = 0;
  Check(Store.Call(&LumbraOperations::GetObjectData, Options.nId, nullptr, 0, &nSize, Options.nKey), What);
  Bytes Content(nSize);
  if (nSize != 0) {
    Check(Store.Call(&LumbraOperations::GetObjectData, Options.nId, Content.data(), nSize, &nSize, Options.nKey), What);
  }
  WriteAll(Options.File, Content);
  return Store.StatusOfReading(kExitOk);
}

ResultCode CodeOf(inspect::Answer Read) {
  switch (Read) {
    case inspect::Answer::Read:
      return errOK;
    case inspect::Answer::Missing:
      return errNOT_FOUND;
    case inspect::Answer::Damaged:
    case inspect::Answer::Unsettled:
      return errDATA_CORRUPTED;
    case inspect::Answer::Unreadable:
      break;
  }
  return errREAD_FAILED;
}

}  // namespace

int GetData(const CommonOptions& Common, const DataOptions& Options) {
  if (ReadsThroughComponent(Common)) return GetThroughComponent(Common, Options);
  Findings Found;
  const std::unique_ptr<inspect::Store> pStore = OpenToRead(Common);
  ObjectStores Stores(*pStore, Common, &Found);
  const std::uint64_t nId = Options.nId == kHostObjectAlias ? Stores.HostObject() : Options.nId;
  OpenObjects In = Stores.StoreOf(nId);
  std::vector<std::uint8_t> Content;
  const bool bOpened = nId != 0 && Stores.Open(&In);
  const ResultCode nCode =
      bOpened ? CodeOf(In.pObjects->ReadData(static_cast<std::uint32_t>(nId), Options.nKey, &Content)) : errNOT_FOUND;
  if (Failed(nCode)) {
    ReportFailure(Failure("read " + BlockOf(Options), nCode));
    const bool bDamaged = nCode == errDATA_CORRUPTED || Found.StatusOfReading(kExitOk) != kExitOk;
    return bDamaged ? kExitIncomplete : kExitFailed;
  }
  WriteAll(Options.File, Bytes(Content.begin(), Content.end()));
  return Found.StatusOfReading(kExitOk);
}

int SetData(const CommonOptions& Common, const DataOptions& Options) {
  const Bytes Content = ReadAll(Options.File);
  Session Store(Common, Missing::Refuse);
  Store.OpenDatabaseOf(Options.nId);
  Check(Store.Call(&LumbraOperations::SetObjectData, Options.nId, Content.empty() ? nullptr : Content.data(),
                   static_cast<std::uint32_t>(Content.size()), Options.nKey),
        "store " + BlockOf(Options));
  std::uint32_t nSize = 0;
  if (Content.empty() &&
      Store.Call(&LumbraOperations::GetObjectData, Options.nId, nullptr, 0, &nSize, Options.nKey) == errNOT_FOUND) {
    throw Failure("store " + BlockOf(Options), errNOT_SUPPORTED,
                  "this store keeps no block of no bytes under a new key");
  }
  Store.Flush();
  return kExitOk;
}

int ClearData(const CommonOptions& Common, const DataOptions& Options) {
  Session Store(Common, Missing::Refuse);
  Store.OpenDatabaseOf(Options.nId);
  Check(Store.Call(&LumbraOperations::RemoveAllObjectData, Options.nId), "clear the data of " + FormatId(Options.nId));
  Store.Flush();
  return kExitOk;
}

}  // namespace lumbra::tool
