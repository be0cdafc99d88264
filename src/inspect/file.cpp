#include "inspect/file.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <thread>

#include "platform/file.h"

namespace lumbra::inspect {

File::File(os::FileHandle Handle) : m_Handle(Handle) {
  static std::atomic<std::uint32_t> s_nLast = 0;
  m_nKey = ++s_nLast;
}

os::SystemError File::Open(const os::FolderHandle& pFolder, std::u16string_view Name, std::unique_ptr<File>* ppFile) {
  os::FileHandle Opened = nullptr;
  const os::SystemError nError = Relieved([&] { return os::OpenToLook(pFolder, Name, &Opened); });
  if (nError == os::kSuccess) ppFile->reset(new File(Opened));
  return nError;
}

os::SystemError ReadSmall(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nMost,
                          std::string* pBytes, os::FileLook* pLook) {
  std::unique_ptr<File> pFile;
  os::SystemError nError = os::kSuccess;
  Patience Waiting;
  do {
    nError = File::Open(pFolder, Name, &pFile);
  } while (nError == os::kSharingViolation && Waiting.Wait());  // the writer has it alone for a moment, on Windows
  if (nError == os::kSuccess && pLook != nullptr) nError = pFile->Look(pLook);
  if (nError != os::kSuccess) return nError;
  pBytes->assign(nMost, '\0');
  std::uint32_t nRead = 0;
  nError = pFile->Read(0, pBytes->data(), nMost, &nRead);
  pBytes->resize(nRead);
  return nError;
}

// ---- Blocks -----------------------------------------------------------------------------------------------

// A power of two, at least as many as what stands in two blocks and its neighbours take, and at most 1 GiB.
BlockCache::BlockCache(std::uint64_t nBytes)
    : m_Blocks(static_cast<std::size_t>(std::bit_floor(std::clamp<std::uint64_t>(nBytes / kBlockSize, 16, 1u << 18)))) {
}

std::size_t BlockCache::HomeOf(std::uint32_t nFile, std::uint64_t nNumber) const {
  return static_cast<std::size_t>((nNumber + nFile * std::uint64_t{0x9E3779B97F4A7C15}) & (m_Blocks.size() - 1));
}

// A block of which the bytes up to nEnd are wanted; null when the system does not read it.
const std::uint8_t* BlockCache::Hold(const File& From, std::uint64_t nNumber, std::uint32_t nEnd,
                                     std::uint32_t* pnValid, os::SystemError* pnError) {
  if (m_Bytes.empty()) m_Bytes.resize(m_Blocks.size() * kBlockSize);
  const std::size_t nHome = HomeOf(From.Key(), nNumber);
  Block& Held = m_Blocks[nHome];
  std::uint8_t* const pBytes = m_Bytes.data() + nHome * kBlockSize;
  if (Held.nFile != From.Key() || Held.nNumber != nNumber || Held.nValid < nEnd) {
    Held = {};
    *pnError = From.Read(nNumber * kBlockSize, pBytes, kBlockSize, pnValid);
    if (*pnError != os::kSuccess) return nullptr;
    Held = {From.Key(), *pnValid, nNumber};
  }
  *pnValid = Held.nValid;
  return pBytes;
}

std::span<const std::uint8_t> BlockCache::Get(const File& From, std::uint64_t nOffset, std::uint32_t nSize,
                                              os::SystemError* pnError) {
  *pnError = os::kSuccess;
  std::uint64_t nNumber = nOffset / kBlockSize;
  auto nStart = static_cast<std::uint32_t>(nOffset % kBlockSize);
  std::uint32_t nValid = 0;
  if (nStart + std::uint64_t{nSize} <= kBlockSize) {
    const std::uint8_t* const pBlock = Hold(From, nNumber, nStart + nSize, &nValid, pnError);
    if (pBlock == nullptr || nValid <= nStart) return {};
    return {pBlock + nStart, std::min(nSize, nValid - nStart)};
  }
  m_Joined.clear();
  for (; nSize != 0; ++nNumber, nStart = 0) {
    const std::uint32_t nPiece = std::min(nSize, kBlockSize - nStart);
    const std::uint8_t* const pBlock = Hold(From, nNumber, nStart + nPiece, &nValid, pnError);
    if (pBlock == nullptr) return {};
    if (nValid > nStart) m_Joined.insert(m_Joined.end(), pBlock + nStart, pBlock + std::min(nStart + nPiece, nValid));
    if (nValid < nStart + nPiece) break;
    nSize -= nPiece;
  }
  return m_Joined;
}

void BlockCache::Forget(const File& Of, std::uint64_t nOffset, std::uint32_t nSize) {
  const std::uint64_t nEnd = nOffset + std::max(nSize, 1u);
  for (std::uint64_t nNumber = nOffset / kBlockSize; nNumber * kBlockSize < nEnd; ++nNumber) {
    Block& Held = m_Blocks[HomeOf(Of.Key(), nNumber)];
    if (Held.nFile == Of.Key() && Held.nNumber == nNumber) Held = {};
  }
}

// ---- Waiting ----------------------------------------------------------------------------------------------

bool Patience::Wait() {
  const auto Now = std::chrono::steady_clock::now();
  if (m_End == std::chrono::steady_clock::time_point()) m_End = Now + kSettleTime;
  if (Now >= m_End) return false;
  std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(m_End - Now, m_Next));
  m_Next *= 2;
  return true;
}

}  // namespace lumbra::inspect
