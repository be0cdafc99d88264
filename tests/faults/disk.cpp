#include "faults/disk.h"

#include <algorithm>
#include <cstring>
#include <fstream>

#include "faults/findings.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSector = 512;

std::string FolderOf(const std::string& Path) {
  return fs::path(Path).parent_path().string();
}

// Puts bytes into a file that grows as it must; with pPower only some of their sectors.
void Put(std::string* pFile, const DiskChange& Write, Random* pPower) {
  const std::size_t nEnd = Write.nOffset + Write.Bytes.size();
  if (pFile->size() < nEnd) pFile->resize(nEnd);
  for (std::size_t nAt = Write.nOffset; nAt < nEnd;) {
    const std::size_t nPiece = std::min(nEnd, (nAt / kSector + 1) * kSector) - nAt;
    if (pPower == nullptr || (*pPower)() % 2 == 0)
      pFile->replace(nAt, nPiece, Write.Bytes, nAt - Write.nOffset, nPiece);
    nAt += nPiece;
  }
}

// The number of the first segment in the bytes of a header; 0: none.
std::uint32_t FirstOf(const std::optional<std::string>& Header) {
  std::uint32_t nFirst = 0;
  if (Header && Header->size() >= 12) std::memcpy(&nFirst, Header->data() + 4, sizeof(nFirst));
  return nFirst;
}

std::string EventsOf(const std::string& Folder, std::uint32_t nSegment) {
  char Name[30];
  std::snprintf(Name, sizeof(Name), "/%08X_events.dat", nSegment);
  return Folder + Name;
}

}  // namespace

// ---- The disk ---------------------------------------------------------------------------------------------

void Disk::Apply(const DiskChange& Change) {
  Name& Of = m_Names[Change.Path];
  switch (Change.What) {
    case DiskChange::Create:
    case DiskChange::MakeFolder:
      Of.Since.push_back(std::make_shared<File>());
      Of.Since.back()->bFolder = Change.What == DiskChange::MakeFolder;
      break;
    case DiskChange::Remove:
      Of.Since.push_back(nullptr);
      break;
    case DiskChange::Write:
    case DiskChange::SetSize:
      if (Of.Last() != nullptr) Of.Last()->Since.push_back(Change);
      break;
    case DiskChange::Sync:
      if (Of.Last() == nullptr) break;
      Of.Last()->Synced = Of.Last()->Content(nullptr, false);
      Of.Last()->Since.clear();
      break;
    case DiskChange::SyncFolder:
      for (auto& [Path, Inside] : m_Names) {
        if (FolderOf(Path) != Change.Path) continue;
        Inside.pSynced = Inside.Last();
        Inside.Since.clear();
      }
      break;
  }
}

std::string Disk::File::Content(Random* pPower, bool bNothing) const {
  std::string Bytes = Synced;
  for (const DiskChange& One : Since) {
    const std::uint64_t nFate = pPower == nullptr ? 0 : (*pPower)() % 4;  // there, there, torn or not there
    if (bNothing || nFate == 3) continue;
    if (One.What == DiskChange::SetSize) {
      Bytes.resize(One.nOffset);
    } else {
      Put(&Bytes, One, nFate == 2 ? pPower : nullptr);
    }
  }
  return Bytes;
}

void Disk::Build(const fs::path& Folder, Random* pPower) const {
  fs::remove_all(Folder);
  fs::create_directories(Folder);
  // In one of four, nothing is there that was not synced.
  const bool bNothing = pPower != nullptr && (*pPower)() % 4 == 0;
  for (const auto& [Path, Of] : m_Names) {
    std::shared_ptr<File> pFile = Of.Last();
    if (pPower != nullptr) {
      const std::size_t nHappened = bNothing ? 0 : (*pPower)() % (Of.Since.size() + 1);
      pFile = nHappened == 0 ? Of.pSynced : Of.Since[nHappened - 1];
    }
    if (pFile == nullptr || !fs::exists((Folder / Path).parent_path())) continue;
    if (pFile->bFolder) {
      fs::create_directory(Folder / Path);
    } else {
      std::ofstream(Folder / Path, std::ios::binary) << pFile->Content(pPower, bNothing);
    }
  }
}

std::optional<std::string> Disk::Now(const std::string& Path) const {
  const auto Found = m_Names.find(Path);
  if (Found == m_Names.end() || Found->second.Last() == nullptr) return {};
  return Found->second.Last()->Content(nullptr, false);
}

std::optional<std::string> Disk::Synced(const std::string& Path) const {
  const auto Found = m_Names.find(Path);
  if (Found == m_Names.end() || Found->second.Last() == nullptr) return {};
  return Found->second.Last()->Synced;
}

// ---- The order --------------------------------------------------------------------------------------------

void OrderWatch::Apply(const Fact& Of) {
  if (Of.Kind != Fact::Begin) return;
  m_nOperation = Of.Of.nTag;
  ++m_nOperations;
  m_LastCleared.clear();
}

void OrderWatch::Apply(const DiskChange& Change) {
  const std::string Folder = FolderOf(Change.Path);
  const std::string File = fs::path(Change.Path).filename().string();
  const bool bHeader = File == "segments.dat";
  if (const auto Owed = m_Owed.find(Folder); Owed != m_Owed.end()) {
    const bool bPaid = bHeader && Change.What == DiskChange::Write;
    const bool bDue = Owed->second != m_nOperations && (m_nOperation == kAddOrLimit || m_nOperation == kFlush);
    if (bDue && !bPaid) Found("before the header that is owed: " + Change.Path);
    if (bPaid || bDue || m_nOperation == kClear) m_Owed.erase(Owed);
  }
  if (Change.What == DiskChange::Remove) CheckRemoval(Folder, File);
  m_Disk.Apply(Change);
  if ((bHeader && Change.What == DiskChange::Write) || Change.What == DiskChange::Remove) CheckFirst(Folder);
}

void OrderWatch::ApplyFailed(const DiskChange& Change) {
  (Change.What == DiskChange::Sync ? m_Unsynced : m_Owed)[FolderOf(Change.Path)] = m_nOperations;
}

void OrderWatch::CheckRemoval(const std::string& Folder, const std::string& File) {
  const bool bOfSegment = File.size() > 9 && File[8] == '_';
  if (m_nOperation == kClear) {
    const auto Rank = [](const std::string& Name) {
      return Name.size() > 9 && Name[8] == '_' ? Name.substr(0, 8) : "0";
    };
    if (!m_LastCleared.empty() && Rank(File) > Rank(m_LastCleared)) Found("cleared too late: " + Folder + '/' + File);
    if (m_LastCleared == "segments.dat") Found("cleared behind the header: " + Folder + '/' + File);
    m_LastCleared = File;
    return;
  }
  const auto Unsynced = m_Unsynced.find(Folder);
  const bool bGoesOn = Unsynced != m_Unsynced.end() && Unsynced->second == m_nOperations;
  if (!bOfSegment || m_Owed.contains(Folder) || bGoesOn) return;
  const auto nSegment = static_cast<std::uint32_t>(std::stoul(File.substr(0, 8), nullptr, 16));
  constexpr std::size_t kHeaderSize = 12;
  const std::optional<std::string> Events = m_Disk.Now(EventsOf(Folder, nSegment));
  if (!Events || Events->size() <= kHeaderSize) return;  // what is left of one that never had an event
  const std::string Header = Folder + "/segments.dat";
  if (FirstOf(m_Disk.Synced(Header)) <= nSegment)
    Found("removed before its header is on the disk: " + Folder + '/' + File);
}

void OrderWatch::CheckFirst(const std::string& Folder) const {
  const std::uint32_t nFirst = FirstOf(m_Disk.Now(Folder + "/segments.dat"));
  if (m_nOperation == kClear || m_Owed.contains(Folder)) return;
  if (nFirst == 0 || m_Disk.Now(EventsOf(Folder, nFirst))) return;
  Found("the header names a segment that is not there: " + EventsOf(Folder, nFirst));
}

}  // namespace lumbra::test
