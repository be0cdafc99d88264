#include "faults/disk.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

std::string FolderOf(const std::string& Path) {
  return fs::path(Path).parent_path().string();
}

std::uint64_t AllThere(std::uint64_t nEnd) {
  return nEnd - 1;
}

// Puts bytes into a file that grows as it must, sector by sector.
void Put(std::string* pFile, const DiskChange& Write, const Source& Choose) {
  constexpr std::size_t kSector = 512;
  const std::size_t nEnd = Write.nOffset + Write.Bytes.size();
  if (pFile->size() < nEnd) pFile->resize(nEnd);
  for (std::size_t nAt = Write.nOffset; nAt < nEnd;) {
    const std::size_t nPiece = std::min(nEnd, (nAt / kSector + 1) * kSector) - nAt;
    if (Choose(2) == 1) pFile->replace(nAt, nPiece, Write.Bytes, nAt - Write.nOffset, nPiece);
    nAt += nPiece;
  }
}

// The number of the first segment in the bytes of a header; 0: none.
std::uint32_t FirstOf(const std::optional<std::string>& Header) {
  std::uint32_t nFirst = 0;
  if (Header && Header->size() >= 12) std::memcpy(&nFirst, Header->data() + 4, sizeof(nFirst));
  return nFirst;
}

// "" of a file that belongs to no segment.
std::string SegmentOf(const std::string& File) {
  return File.size() > 9 && File[8] == '_' ? File.substr(0, 8) : "";
}

}  // namespace

// ---- The disk ---------------------------------------------------------------------------------------------

void Disk::Apply(const DiskChange& Change) {
  std::vector<File>& Of = m_Names[Change.Path];
  if (Of.empty()) Of.emplace_back();
  switch (Change.What) {
    case DiskChange::Create:
    case DiskChange::MakeFolder:
      Of.push_back({true, Change.What == DiskChange::MakeFolder});
      break;
    case DiskChange::Remove:
      Of.emplace_back();
      break;
    case DiskChange::Write:
    case DiskChange::SetSize:
      Of.back().Pending.push_back(Change);
      break;
    case DiskChange::Sync:
      Of.back().Synced = ContentOf(Of.back(), &AllThere);
      Of.back().Pending.clear();
      break;
    case DiskChange::SyncFolder:
      for (auto& [Path, Inside] : m_Names) {
        if (FolderOf(Path) == Change.Path) Inside.erase(Inside.begin(), Inside.end() - 1);
      }
      break;
  }
}

std::string Disk::ContentOf(const File& Of, const Source& Choose) {
  std::string Bytes = Of.Synced;
  for (const DiskChange& One : Of.Pending) {
    const std::uint64_t nFate = Choose(4);  // not there, torn, there, there
    if (nFate == 0) continue;
    if (One.What == DiskChange::SetSize) {
      Bytes.resize(One.nOffset);
    } else {
      Put(&Bytes, One, nFate == 1 ? Choose : &AllThere);
    }
  }
  return Bytes;
}

void Disk::Build(const fs::path& Folder, const Source& Choose) const {
  fs::remove_all(Folder);
  fs::create_directories(Folder);
  for (const auto& [Path, Of] : m_Names) {
    const File& Chosen = Of[Choose(Of.size())];
    if (!Chosen.bThere || !fs::exists((Folder / Path).parent_path())) continue;
    if (Chosen.bFolder) {
      fs::create_directory(Folder / Path);
    } else {
      std::ofstream(Folder / Path, std::ios::binary) << ContentOf(Chosen, Choose);
    }
  }
}

std::optional<std::string> Disk::Now(const std::string& Path) const {
  const auto Found = m_Names.find(Path);
  if (Found == m_Names.end() || !Found->second.back().bThere) return {};
  return ContentOf(Found->second.back(), &AllThere);
}

std::optional<std::string> Disk::Synced(const std::string& Path) const {
  const auto Found = m_Names.find(Path);
  if (Found == m_Names.end() || !Found->second.back().bThere) return {};
  return Found->second.back().Synced;
}

// ---- The order --------------------------------------------------------------------------------------------

void OrderWatch::Apply(const Fact& Of) {
  if (Of.Kind != Fact::Begin) return;
  m_nKind = Of.Of.nTag;
  ++m_nOperation;
  m_LastCleared.clear();
}

void OrderWatch::Apply(const FailedChange& Change) {
  (Change.What == DiskChange::Sync ? m_Unsynced : m_Owed)[FolderOf(Change.Path)] = m_nOperation;
}

void OrderWatch::Apply(const DiskChange& Change) {
  const std::string Folder = FolderOf(Change.Path);
  const std::string File = fs::path(Change.Path).filename().string();
  CheckDebt(Folder, Change);
  if (Change.What == DiskChange::Remove && m_nKind == kClear) CheckClear(Folder, File);
  if (Change.What == DiskChange::Remove && m_nKind != kClear) CheckRemoval(Folder, File);
  m_Disk.Apply(Change);
  const bool bHeader = File == "segments.dat" && Change.What == DiskChange::Write;
  if (m_nKind != kClear && (bHeader || Change.What == DiskChange::Remove)) CheckFirst(Folder);
}

void OrderWatch::CheckDebt(const std::string& Folder, const DiskChange& Change) {
  const auto Owed = m_Owed.find(Folder);
  if (Owed == m_Owed.end()) return;
  const bool bPaid = Change.What == DiskChange::Write && Change.Path.ends_with("segments.dat");
  const bool bDue = Owed->second != m_nOperation && (m_nKind == kAddOrLimit || m_nKind == kFlush);
  if (bDue && !bPaid) Found("before the header that is owed: " + Change.Path);
  if (bPaid || bDue || m_nKind == kClear) m_Owed.erase(Owed);
}

void OrderWatch::CheckClear(const std::string& Folder, const std::string& File) {
  if (!m_LastCleared.empty() && SegmentOf(File) > SegmentOf(m_LastCleared))
    Found("cleared too late: " + Folder + '/' + File);
  if (m_LastCleared == "segments.dat") Found("cleared behind the header: " + Folder + '/' + File);
  m_LastCleared = File;
}

void OrderWatch::CheckRemoval(const std::string& Folder, const std::string& File) const {
  const std::string Segment = SegmentOf(File);
  const auto Unsynced = m_Unsynced.find(Folder);
  const bool bGoesOn = Unsynced != m_Unsynced.end() && Unsynced->second == m_nOperation;
  if (Segment.empty() || m_Owed.contains(Folder) || bGoesOn) return;
  constexpr std::size_t kHeaderSize = 12;
  const std::optional<std::string> Events = m_Disk.Now(Folder + '/' + Segment + "_events.dat");
  if (!Events || Events->size() <= kHeaderSize) return;  // what is left of one that never had an event
  if (FirstOf(m_Disk.Synced(Folder + "/segments.dat")) <= std::stoul(Segment, nullptr, 16))
    Found("removed before its header is on the disk: " + Folder + '/' + File);
}

void OrderWatch::CheckFirst(const std::string& Folder) const {
  const std::uint32_t nFirst = FirstOf(m_Disk.Now(Folder + "/segments.dat"));
  if (nFirst == 0 || m_Owed.contains(Folder)) return;
  char Name[30];
  std::snprintf(Name, sizeof(Name), "/%08X_events.dat", nFirst);
  if (!m_Disk.Now(Folder + Name)) Found("the header names a segment that is not there: " + Folder + Name);
}

}  // namespace lumbra::test
