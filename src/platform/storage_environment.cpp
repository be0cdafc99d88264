#include "platform/storage_environment.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "format/file_names.h"
#include "platform/exception.h"
#include "platform/file.h"
#include "platform/folders.h"
#include "platform/io_priority.h"
#include "platform/result.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// The files of one segment, in the order in which a dropped or discarded one loses them. Nothing leads to it by then:
// what an interruption leaves stays until the folder is cleared.
constexpr std::u16string_view kSegmentFiles[] = {kTreeFile, kIdsFile, kDataFile, kEventsFile};

// The longest file name that is built, in UTF-16 units.
constexpr std::size_t kMaxFileName = 260;

// Seconds from 1601-01-01, where file times start, to 1970-01-01, and file time units in a second.
constexpr std::int64_t kSecondsTo1970 = 11644473600;
constexpr std::int64_t kFileTimeUnitsPerSecond = 10000000;

std::u16string FileName(std::u16string_view Name, std::uint32_t nId) {
  std::u16string Full = nId == 0 ? std::u16string(Name) : SegmentFileName(nId, Name);
  if (Full.size() > kMaxFileName) Full.resize(kMaxFileName);
  return Full;
}

// The same for a search, whose name may be a pattern, and of any length.
std::u16string PatternOf(std::u16string_view Name, std::uint32_t nId) {
  return nId == 0 ? std::u16string(Name) : SegmentFileName(nId, Name);
}

bool EndsWithSeparator(std::u16string_view Folder) {
  return Folder.ends_with(u'\\') || Folder.ends_with(u'/');
}

// Opens the folder of a store, unless it is open, and with a name that of a database in it; makes what is missing.
ResultCode OpenFolders(os::FolderHandle pStore, std::u16string_view Store, std::u16string_view Name,
                       const os::FolderRules& Rules, os::FolderHandle* ppFolder) {
  os::SystemError nError = os::kSuccess;
  if (pStore == nullptr) nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kFileNotFound || nError == os::kPathNotFound) {
    const ResultCode nThere = CreateDirectories(Store, Rules);
    if (nThere != errOK) return Failed(nThere) ? nThere : errACCESS_DENIED;  // somebody else makes it at this moment
    nError = os::OpenFolder(Store, Rules, &pStore);
  }
  if (nError == os::kSuccess && !Name.empty()) {
    nError = os::OpenFolder(pStore, Name, ppFolder);
    if (nError == os::kFileNotFound) nError = os::MakeFolder(pStore, Name);
    if (nError == os::kSuccess && *ppFolder == nullptr) nError = os::OpenFolder(pStore, Name, ppFolder);
  } else {
    *ppFolder = std::move(pStore);
  }
  return ResultFromSystemError(nError);
}

ResultCode ResultOfSearch(os::SystemError nError) {
  if (nError == os::kSuccess) return errOK;
  return nError == os::kFileNotFound ? errNOT_FOUND : errUNEXPECTED;
}

// Lays down the calling thread's borrowed identity for its own lifetime.
class ThreadTokenSuspension {
 public:
  ThreadTokenSuspension() { ULO_CHECK_RESULT(ResultFromSystemError(os::SuspendImpersonation(&m_pToken))); }
  ~ThreadTokenSuspension() {
    if (m_pToken != nullptr) os::ResumeImpersonation(m_pToken);
  }
  ThreadTokenSuspension(const ThreadTokenSuspension&) = delete;
  ThreadTokenSuspension& operator=(const ThreadTokenSuspension&) = delete;

 private:
  void* m_pToken = nullptr;
};

}  // namespace

bool StorageEnvironment::Init(StorageOwner* pOwner, const char16_t* pFolder, FolderContent Content,
                              bool bEnvironmentFlag) noexcept {
  if (pOwner == nullptr || pFolder == nullptr) return false;
  if (!Open(pOwner, nullptr, pFolder, {}, bEnvironmentFlag)) return false;
  if (Content == FolderContent::Wipe) (void)DeleteFiles(u"*.*", 0);  // answers errOK always
  return true;
}

bool StorageEnvironment::InitBelow(StorageOwner* pOwner, const StorageEnvironment& Store, const char16_t* pStore,
                                   const char16_t* pName, bool bEnvironmentFlag) noexcept {
  if (pOwner == nullptr || pStore == nullptr || pName == nullptr) return false;
  const bool bOpen = Store.m_Folder == pStore;
  return Open(pOwner, bOpen ? Store.m_pFolder : nullptr, pStore, pName, bEnvironmentFlag);
}

bool StorageEnvironment::InitAt(StorageOwner* pOwner, const StorageEnvironment& Other, bool bEnvironmentFlag) noexcept {
  if (pOwner == nullptr || Other.m_pFolder == nullptr) return false;
  return Open(pOwner, Other.m_pFolder, Other.m_Folder, {}, bEnvironmentFlag);
}

bool StorageEnvironment::Open(StorageOwner* pOwner, const os::FolderHandle& pStore, std::u16string_view Store,
                              std::u16string_view Name, bool bEnvironmentFlag) noexcept {
  m_pFolder.reset();
  m_pOwner = pOwner;
  try {
    m_Folder = Store;
    if (m_Folder.empty()) return false;
    if (!Name.empty()) {
      if (!EndsWithSeparator(m_Folder)) m_Folder += u'\\';
      m_Folder.append(Name) += u'\\';
    }
    const os::FolderRules Rules = pOwner->RulesOfFolders();
    const ResultCode nCode = Relieved([&] { return OpenFolders(pStore, Store, Name, Rules, &m_pFolder); });
    m_bEnvironmentFlag = bEnvironmentFlag;
    return Succeeded(nCode);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool StorageEnvironment::HasFolder(std::u16string_view Name) const noexcept try {
  os::FolderHandle pFound;
  return m_pFolder != nullptr && Relieved([&] { return os::OpenFolder(m_pFolder, Name, &pFound); }) == os::kSuccess;
} catch (const std::bad_alloc&) {
  return false;
}

std::uint64_t StorageEnvironment::GetCurrentTime() {
  return os::CurrentTime();
}

ResultCode StorageEnvironment::OpenFile(const char16_t* pName, std::uint32_t nId, bool bCreate, bool bWritable,
                                        std::unique_ptr<StorageFile>* ppFile) {
  IoPriorityGuard::BeforeFileAccess();
  const ThreadTokenSuspension Suspension;
  if (m_pFolder == nullptr) return errSTORE_NOT_INITIALIZED;
  if (pName == nullptr || ppFile == nullptr) return errPARAMETER_INVALID;
  try {
    FilePlace Place = PlaceOf(FileName(pName, nId));
    const std::uint32_t nFlags = fileRead | fileShareRead | (bWritable ? std::uint32_t{fileWrite} : 0u);
    File Opened;
    const ResultCode nCode = ToHostResult(Opened.OpenWithFlags(Place, nFlags, bCreate ? openAlways : openExisting));
    if (Failed(nCode)) return nCode;
    // The handle is released only once nothing can fail any more.
    void* const pMemory = ::operator new(sizeof(StorageFile), std::nothrow);
    if (pMemory == nullptr) return errOUT_OF_MEMORY;
    ppFile->reset(new (pMemory) StorageFile(Opened.Release(), std::move(Place.Path)));
    return nCode;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode StorageEnvironment::DeleteFiles(const char16_t* /*pPattern*/, std::uint32_t nId) noexcept {
  if (m_pFolder == nullptr) return errOK;
  try {
    if (nId != 0) {
      for (const std::u16string_view Name : kSegmentFiles) Delete(FileName(Name, nId));
    } else if (DeleteSegments()) {
      // What says where the chain starts goes last: nothing leads to a segment without it.
      (void)os::RemovePlainFiles(m_pFolder, kSegmentsFile);
    }
  } catch (const std::bad_alloc&) {
    // What was not reached stays, like any other file that could not be deleted.
  }
  return errOK;
}

// Deletes the folder's segments from the newest on, each from its events on, up to the first whose events cannot be
// deleted. So what is left, be it by an interruption, is the beginning of the chain, whole. False when it stopped at
// one, or could not list them.
bool StorageEnvironment::DeleteSegments() {
  std::vector<std::u16string> Names;
  if (Relieved([&] { return os::ListPlainFiles(m_pFolder, &Names); }) != os::kSuccess) return false;
  std::erase_if(Names, [](const std::u16string& Name) { return !IsEventsFileName(Name); });
  std::sort(Names.begin(), Names.end(), std::greater<>());
  for (const std::u16string& Name : Names) {
    if (os::RemoveFile(m_pFolder, Name) != os::kSuccess) return false;
    const std::u16string Number = Name.substr(0, kSegmentPrefixLength);
    for (const std::u16string_view Other : kSegmentFiles) {
      if (Other != kEventsFile) Delete(Number + std::u16string(Other));
    }
  }
  return true;
}

// What cannot be deleted stays; who has to know looks for it afterwards.
void StorageEnvironment::Delete(std::u16string_view FileName) const {
  (void)os::RemoveFile(m_pFolder, FileName);
}

void* StorageEnvironment::Alloc(std::uint32_t nSize) noexcept {
  return std::calloc(1, nSize);
}

bool StorageEnvironment::Free(void* pBlock) noexcept {
  std::free(pBlock);
  return true;
}

bool StorageEnvironment::WideToUtf8(const char16_t* pText, std::uint32_t nTextBytes, char* pBuffer,
                                    std::uint32_t nBufferBytes, std::uint32_t* pnLengthBytes) noexcept {
  const std::uint32_t nLength = os::WideToUtf8(pText, nTextBytes / 2, pBuffer, nBufferBytes);
  if (pnLengthBytes != nullptr) *pnLengthBytes = nLength;
  return nLength != 0;
}

bool StorageEnvironment::Utf8ToWide(const char* pText, std::uint32_t nTextBytes, char16_t* pBuffer,
                                    std::uint32_t nBufferUnits, std::uint32_t* pnLengthBytes) noexcept {
  const std::uint32_t nUnits = os::Utf8ToWide(pText, nTextBytes, pBuffer, nBufferUnits);
  if (pnLengthBytes != nullptr) *pnLengthBytes = nUnits * 2;
  return nUnits != 0;
}

std::uint32_t StorageEnvironment::UpperCase(char16_t* pText, std::uint32_t nUnits) noexcept {
  return os::UpperCase(pText, nUnits);
}

ResultCode StorageEnvironment::GetFileCreationTime(const char16_t* pName, std::uint32_t nId,
                                                   std::uint64_t* pnTime) noexcept {
  if (m_pFolder == nullptr) return errSTORE_NOT_INITIALIZED;
  if (pName == nullptr || pnTime == nullptr) return errPARAMETER_INVALID;
  try {
    const auto Note = [pnTime](const os::FoundFile& Found) {
      *pnTime = static_cast<std::uint64_t>((Found.nCreationTimeSeconds + kSecondsTo1970) * kFileTimeUnitsPerSecond);
      return false;  // the first match is enough
    };
    return ResultOfSearch(Relieved([&] { return os::FindFiles(m_pFolder, PatternOf(pName, nId), Note); }));
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode StorageEnvironment::GetFileSize(const char16_t* pName, std::uint32_t nId, std::uint64_t* pnSize) noexcept {
  if (m_pFolder == nullptr) return errSTORE_NOT_INITIALIZED;
  if (pName == nullptr || pnSize == nullptr) return errPARAMETER_INVALID;
  *pnSize = 0;
  try {
    enum class Exact { Unknown, No, Yes } Measure = Exact::Unknown;  // asked once, when something was found
    ResultCode nFailure = errOK;
    const auto Count = [&](const os::FoundFile& Found) {
      if (Measure == Exact::Unknown) Measure = m_pOwner->ExactFileSizes() ? Exact::Yes : Exact::No;
      if (Found.bFolder) return true;
      std::uint64_t nSize = Found.nSize;
      if (Measure == Exact::Yes) {
        const char16_t* const pFolder = m_Folder.c_str();
        Trace(kHostRoot, traceRoutine,
              "lmb\tGetFileSize: dir entry file size: dirname = '%S'; filename = '%S'; size = %I64d", pFolder,
              Found.Name.c_str(), nSize);
        if (Relieved([&] { return os::MeasureFile(m_pFolder, Found.Name, &nSize); }) != os::kSuccess) {
          nFailure = errUNEXPECTED;
          return false;
        }
        Trace(kHostRoot, traceRoutine,
              "lmb\tGetFileSize: exact file size: dirname = '%S'; filename = '%S'; size = %I64d", pFolder,
              Found.Name.c_str(), nSize);
      }
      *pnSize += nSize;
      return true;
    };
    const os::SystemError nError = Relieved([&] { return os::FindFiles(m_pFolder, PatternOf(pName, nId), Count); });
    return Failed(nFailure) ? nFailure : ResultOfSearch(nError);
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

FilePlace StorageEnvironment::PlaceOf(std::u16string_view FileName) const {
  return {m_pFolder, std::u16string(FileName), PathOf(FileName)};
}

std::u16string StorageEnvironment::PathOf(std::u16string_view FileName) const {
  std::u16string Path = m_Folder;
  if (!EndsWithSeparator(Path)) Path += u'\\';
  Path += FileName;
  return Path;
}

}  // namespace lumbra
