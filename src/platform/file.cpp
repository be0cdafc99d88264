#include "platform/file.h"

#include <atomic>
#include <utility>

#include "platform/result.h"

namespace lumbra {
namespace {

std::atomic<bool (*)()> g_pRelief{nullptr};

std::uint32_t AccessOf(std::uint32_t nFlags) {
  return ((nFlags & fileRead) != 0 ? os::kGenericRead : 0u) | ((nFlags & fileWrite) != 0 ? os::kGenericWrite : 0u) |
         ((nFlags & fileExecute) != 0 ? os::kGenericExecute : 0u);
}

std::uint32_t ShareOf(std::uint32_t nFlags) {
  return ((nFlags & fileShareRead) != 0 ? os::kShareRead : 0u) |
         ((nFlags & fileShareWrite) != 0 ? os::kShareWrite : 0u) |
         ((nFlags & fileShareDelete) != 0 ? os::kShareDelete : 0u);
}

os::Disposition DispositionOf(std::uint32_t nDisposition) {
  switch (nDisposition) {
    case createAlways:
      return os::Disposition::CreateAlways;
    case createNew:
      return os::Disposition::CreateNew;
    case openAlways:
      return os::Disposition::OpenAlways;
    case truncateExisting:
      return os::Disposition::TruncateExisting;
    default:
      return os::Disposition::OpenExisting;
  }
}

os::SeekOrigin OriginOf(std::uint32_t nOrigin) {
  switch (nOrigin) {
    case 1:
      return os::SeekOrigin::Current;
    case 2:
      return os::SeekOrigin::End;
    default:
      return os::SeekOrigin::Start;
  }
}

}  // namespace

void SetDescriptorRelief(bool (*pRelief)()) {
  g_pRelief = pRelief;
}

bool RelieveDescriptors() {
  bool (*const pRelief)() = g_pRelief;
  return pRelief != nullptr && pRelief();
}

File::~File() {
  (void)Close();  // who wants to know closes it before
}

// Holds what an opening has come to, in place of what was open before.
ResultCode File::Take(os::SystemError nOpened, os::FileHandle Opened) {
  (void)Close();
  m_Handle = Opened;
  return ResultFromSystemError(nOpened);
}

ResultCode File::Create(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare,
                        os::Disposition nDisposition, std::uint32_t nFlags) {
  os::FileHandle Opened = nullptr;
  const os::SystemError nError = os::Open(Path, nAccess, nShare, nDisposition, nFlags, &Opened);
  return Take(nError, Opened);
}

ResultCode File::OpenWithFlags(std::u16string_view Path, std::uint32_t nFlags, std::uint32_t nDisposition) {
  return Create(Path, AccessOf(nFlags), ShareOf(nFlags), DispositionOf(nDisposition), 0);
}

ResultCode File::OpenWithFlags(const FilePlace& Place, std::uint32_t nFlags, std::uint32_t nDisposition) {
  os::FileHandle Opened = nullptr;
  const os::SystemError nError = Relieved([&] {
    return os::Open(Place.pFolder, Place.Name, AccessOf(nFlags), ShareOf(nFlags), DispositionOf(nDisposition), 0,
                    &Opened);
  });
  return Take(nError, Opened);
}

ResultCode File::Read(void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  std::uint32_t nRead = 0;
  const os::SystemError nError = os::Read(m_Handle, pBuffer, nSize, &nRead);
  if (nError == os::kSuccess) *pnRead = nRead;
  return ResultFromSystemError(nError);
}

ResultCode File::Write(const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  std::uint32_t nWritten = 0;
  const os::SystemError nError = os::Write(m_Handle, pData, nSize, &nWritten);
  if (nError == os::kSuccess) *pnWritten = nWritten;
  return ResultFromSystemError(nError);
}

ResultCode File::Seek(std::uint32_t nOrigin, std::int64_t nDistance, std::uint64_t* pnPosition) {
  std::uint64_t nPosition = 0;
  const os::SystemError nError = os::Seek(m_Handle, OriginOf(nOrigin), nDistance, &nPosition);
  if (nError == os::kSuccess && pnPosition != nullptr) *pnPosition = nPosition;
  return ResultFromSystemError(nError);
}

ResultCode File::Flush() {
  return ResultFromSystemError(os::Flush(m_Handle));
}

ResultCode File::SetSize(std::uint64_t nSize) {
  return ResultFromSystemError(os::SetSize(m_Handle, nSize));
}

ResultCode File::Close() {
  const os::FileHandle Held = Release();
  return Held == nullptr ? errOK : ResultFromSystemError(os::Close(Held));
}

os::FileHandle File::Release() {
  return std::exchange(m_Handle, nullptr);
}

}  // namespace lumbra
