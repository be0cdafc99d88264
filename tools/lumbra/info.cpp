// lumbra info: every database of a store.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

struct DatabaseInfo {
  std::optional<std::uint32_t> Id;  // none for a folder whose name the store does not know yet
  DatabaseName Name;
  std::uint32_t nEventSize;
  std::uint32_t nRecords;
  std::uint64_t nBytes;
  std::size_t nSegments;
  std::uint64_t nOldest;  // FILETIME, 0 without a segment
};

DatabaseInfo Describe(Session& Store, const DatabaseName& Database) {
  DatabaseInfo Info{};
  Info.Name = Database;
  const bool bHasId = Store.Files().HasId(Database);
  if (bHasId) Info.Id = Store.OpenDatabase(Database, Missing::Refuse);
  const std::optional<DatabaseFiles> Files = Store.Files().Read(Database);
  if (!Files) throw Failure("list " + Database.Describe(), errDATA_CORRUPTED, "its segments.dat is damaged");
  Info.nEventSize = Files->nEventSize;
  Info.nSegments = Files->Segments.size();
  if (bHasId) {
    Check(Store.Call(&LumbraOperations::GetDBInfo, *Info.Id, &Info.nRecords, &Info.nBytes, &Info.nOldest),
          "describe " + Database.Describe());
    return Info;
  }
  // To open it would give its name one of the ids for ever; its files tell enough.
  for (const SegmentFile& Segment : Files->Segments) Info.nRecords += static_cast<std::uint32_t>(Segment.nEvents);
  Info.nBytes = Store.Files().SizeOf(Database);
  return Info;
}

void PrintJson(const Session& Store, const std::vector<DatabaseInfo>& Databases) {
  nlohmann::ordered_json Listed = nlohmann::ordered_json::array();
  for (const DatabaseInfo& Info : Databases) {
    nlohmann::ordered_json One = {{"id", nullptr}, {"name", nullptr}, {"folder", Info.Name.Folder()}};
    if (Info.Id) One["id"] = *Info.Id;
    if (!Info.Name.Number) One["name"] = Info.Name.Name;
    One["event_size"] = Info.nEventSize;
    One["records"] = Info.nRecords;
    One["bytes"] = Info.nBytes;
    One["segments"] = Info.nSegments;
    One["oldest"] = nullptr;
    if (const auto Oldest = FormatTime(Info.nOldest); Oldest && Info.nOldest != 0) One["oldest"] = *Oldest;
    Listed.push_back(One);
  }
  const nlohmann::ordered_json All = {{"store", TextOf(Store.Files().Folder())},
                                      {"corrupted", Store.IsCorrupted()},
                                      {"set_aside", Store.Files().SetAsideSize()},
                                      {"databases", Listed}};
  std::puts(host::PrintableJson(All.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)).c_str());
}

void PrintText(const Session& Store, const std::vector<DatabaseInfo>& Databases) {
  std::printf("%s%s\n\n", Printable(TextOf(Store.Files().Folder())).c_str(),
              Store.IsCorrupted() ? "  (damaged; see lumbra check)" : "");
  if (const std::uint64_t nAside = Store.Files().SetAsideSize(); nAside != 0)
    std::printf("set aside by healing: %llu bytes; see lumbra repair\n\n", static_cast<unsigned long long>(nAside));
  std::printf("%3s  %-16s  %-16s  %10s  %10s  %14s  %8s  %s\n", "id", "name", "folder", "event size", "records",
              "bytes", "segments", "oldest segment");
  for (const DatabaseInfo& Info : Databases) {
    std::printf("%3s  %-16s  %-16s  %10u  %10u  %14llu  %8zu  %s\n", Info.Id ? std::to_string(*Info.Id).c_str() : "-",
                Info.Name.Number ? "-" : Printable(Info.Name.Name).c_str(), Printable(Info.Name.Folder()).c_str(),
                Info.nEventSize, Info.nRecords, static_cast<unsigned long long>(Info.nBytes), Info.nSegments,
                Info.nOldest != 0 ? DescribeTime(Info.nOldest).c_str() : "-");
  }
}

}  // namespace

int Info(const CommonOptions& Common, const InfoOptions& Options) {
  Session Store(Common, Missing::Refuse);
  std::vector<DatabaseInfo> Databases;
  int nStatus = kExitOk;
  for (const DatabaseName& Database : Store.Files().Databases()) {
    try {
      Databases.push_back(Describe(Store, Database));
    } catch (const Failure& Reason) {  // one that cannot be opened does not hide the others
      ReportFailure(Reason);
      nStatus = kExitIncomplete;
    }
  }
  Options.bJson ? PrintJson(Store, Databases) : PrintText(Store, Databases);
  return Store.StatusOfReading(Store.IsCorrupted() ? kExitIncomplete : nStatus);
}

}  // namespace lumbra::tool
