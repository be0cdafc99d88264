// Who holds a store, on posix: the system lists the locks on files with the processes that took them.
#include <pwd.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <set>
#include <tuple>

#include "format/file_names.h"
#include "inspect/store.h"

namespace lumbra::inspect {
namespace {

using FileIdentity = std::tuple<std::uint64_t, std::uint64_t>;  // as os::FileLook has it: device, number

// The files that every process with the store holds, and those that healing and compaction hold.
std::set<FileIdentity> HeldFiles(const Store& Of) {
  std::set<FileIdentity> Found;
  const auto Note = [&Found](const os::FolderHandle& pFolder, std::u16string_view Name) {
    os::FileLook Look{};
    if (os::LookAt(pFolder, Name, &Look) == os::kSuccess && Look.bPlain) Found.emplace(Look.nDevice, Look.nNumber);
  };
  for (const char16_t* const pName : {kSharedIdsFile, kSharedDataFile, kSharedTreeFile}) Note(Of.Folder(), pName);
  for (const Database& One : Of.Databases()) {
    os::FolderHandle pFolder;
    if (Of.OpenFolder(One, &pFolder) == os::kSuccess) Note(pFolder, kSegmentsFile);
  }
  return Found;
}

std::string ProgramOf(std::uint32_t nProcess) {
  std::string Name;
  std::ifstream File("/proc/" + std::to_string(nProcess) + "/comm");
  std::getline(File, Name);
  return Name;
}

std::string UserOf(std::uint32_t nProcess) {
  struct stat Status {};
  if (stat(("/proc/" + std::to_string(nProcess)).c_str(), &Status) != 0) return {};
  char Buffer[4096];
  struct passwd Entry {};
  struct passwd* pFound = nullptr;
  if (getpwuid_r(Status.st_uid, &Entry, Buffer, sizeof(Buffer), &pFound) == 0 && pFound != nullptr)
    return pFound->pw_name;
  return std::to_string(Status.st_uid);
}

// "1: FLOCK  ADVISORY  WRITE 4711 fe:00:1234 0 EOF"; who only waits for a lock has "->" behind the number.
bool ParseLock(const std::string& Line, std::uint32_t* pnProcess, FileIdentity* pFile) {
  char Kind[16] = {};
  long nProcess = 0;
  unsigned int nMajor = 0;
  unsigned int nMinor = 0;
  std::uint64_t nNumber = 0;
  const int nFields =
      std::sscanf(Line.c_str(), "%*u: %15s %*s %*s %ld %x:%x:%" SCNu64, Kind, &nProcess, &nMajor, &nMinor, &nNumber);
  if (nFields != 5 || std::string_view(Kind) != "FLOCK" || nProcess <= 0) return false;  // 0: not of this container
  *pnProcess = static_cast<std::uint32_t>(nProcess);
  *pFile = {std::uint64_t{nMajor} << 32 | nMinor, nNumber};
  return true;
}

}  // namespace

std::vector<Holder> Store::Holders() const {
  const std::set<FileIdentity> Files = HeldFiles(*this);
  std::set<std::uint32_t> Processes;
  std::ifstream Locks("/proc/locks");
  for (std::string Line; std::getline(Locks, Line);) {
    std::uint32_t nProcess = 0;
    FileIdentity File;
    if (ParseLock(Line, &nProcess, &File) && Files.contains(File)) Processes.insert(nProcess);
  }
  std::vector<Holder> Found;
  Found.reserve(Processes.size());
  for (const std::uint32_t nProcess : Processes) Found.push_back({nProcess, ProgramOf(nProcess), UserOf(nProcess)});
  return Found;
}

}  // namespace lumbra::inspect
