#include "platform/storage_file.h"

#include <utility>

#include "platform/io_priority.h"
#include "platform/result.h"

namespace lumbra {

StorageFile::StorageFile(os::FileHandle Handle, std::u16string Path) : m_Handle(Handle), m_Path(std::move(Path)) {}

StorageFile::~StorageFile() {
  (void)os::Close(m_Handle);  // what was written has reached the system before
}

bool StorageFile::SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  IoPriorityGuard::BeforeFileAccess();
  std::uint32_t nRead = 0;
  const os::SystemError nError = os::ReadAt(m_Handle, nOffset, pBuffer, nSize, &nRead);
  if (nError != os::kSuccess) return Fail(nError);
  if (pnRead != nullptr) *pnRead = nRead;
  return true;
}

bool StorageFile::SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  IoPriorityGuard::BeforeFileAccess();
  m_bModified = true;
  std::uint32_t nWritten = 0;
  const os::SystemError nError = os::WriteAt(m_Handle, nOffset, pData, nSize, &nWritten);
  if (nError != os::kSuccess) return Fail(nError);
  if (pnWritten != nullptr) *pnWritten = nWritten;
  return true;
}

bool StorageFile::GetSize(std::uint64_t* pnSize) {
  const os::SystemError nError = os::GetSize(m_Handle, pnSize);
  if (nError != os::kSuccess) return Fail(nError);
  m_nLastResult = errOK;
  return true;
}

bool StorageFile::SetSize(std::uint64_t nSize) {
  IoPriorityGuard::BeforeFileAccess();
  m_bModified = true;
  const os::SystemError nError = os::SetSize(m_Handle, nSize);
  if (nError != os::kSuccess) return Fail(nError);
  m_nLastResult = errOK;
  return true;
}

bool StorageFile::Flush() {
  if (!m_bModified) return true;
  const os::SystemError nError = os::Flush(m_Handle);
  if (nError != os::kSuccess) return Fail(nError);
  m_nLastResult = errOK;
  m_bModified = false;
  return true;
}

bool StorageFile::GetCreationTime(std::uint64_t* pnTime) {
  const os::SystemError nError = os::GetCreationTime(m_Handle, pnTime);
  return nError == os::kSuccess || Fail(nError);
}

bool StorageFile::Fail(os::SystemError nError) {
  m_nLastResult = ResultFromSystemError(nError);
  m_nLastSystemError = nError;
  return false;
}

}  // namespace lumbra
