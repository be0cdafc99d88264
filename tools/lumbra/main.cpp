// lumbra: the command-line tool.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "commands.h"
#include "failure.h"

namespace lumbra::tool {
namespace {

// Options of several commands.

void AddDatabaseOption(CLI::App* pCommand, DatabaseName* pDatabase) {
  const auto Take = [pDatabase](const CLI::results_t& Values) {
    std::string Reason;
    const std::optional<DatabaseName> Parsed = ParseDatabaseName(Values.front(), &Reason);
    if (!Parsed) throw CLI::ValidationError("--db", Reason);
    *pDatabase = *Parsed;
    return true;
  };
  pCommand->add_option("--db", Take, "Database: a number from 1 to 47, or a name")->required()->type_name("DB");
}

void AddLimitOptions(CLI::App* pCommand, LimitOptions* pLimits) {
  pCommand->add_option("--segment-events", pLimits->SegmentEvents, "Start a new segment at so many events")
      ->group("Limits");
  pCommand->add_option("--segment-size", pLimits->SegmentSize, "... at so many bytes")->group("Limits");
  pCommand->add_option("--segment-age", pLimits->SegmentAge, "... when the newest is so many seconds old")
      ->group("Limits");
  pCommand->add_option("--max-events", pLimits->MaxEvents, "Drop the oldest segments above so many events")
      ->group("Limits");
  pCommand->add_option("--max-size", pLimits->MaxSize, "... above so many bytes")->group("Limits");
  pCommand->add_option("--max-age", pLimits->MaxAge, "... when they are older than so many seconds")->group("Limits");
  pCommand->add_option("--global-size", pLimits->GlobalSize, "Keep all databases together below so many bytes")
      ->group("Limits");
}

// An event id as it is printed, with or without "0x" in front.
std::uint64_t ParseId(const std::string& Text) {
  const std::string Digits = Text.starts_with("0x") || Text.starts_with("0X") ? Text.substr(2) : Text;
  const bool bHex =
      !Digits.empty() && Digits.size() <= 16 && Digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  if (!bHex) throw CLI::ValidationError("--from", "an event id has up to 16 hexadecimal digits");
  return std::stoull(Digits, nullptr, 16);
}

int Run(int nCount, char** ppArguments) {
  CLI::App App("Records events about files and other named objects, and shows them again.", "lumbra");
  App.require_subcommand(1);
  App.fallthrough();  // the common options may stand behind a command, too

  CommonOptions Common;
  App.add_option("--store", Common.Store, "Folder of the store")->envname("LUMBRA_STORE")->capture_default_str();
  App.add_flag("--check-mode", Common.bCheckMode, "Create new files with every kind of CRC");
  App.add_option("--host", Common.Host, "Name of the host in the store (default: this machine's)");
  App.add_option("--trace", Common.nTraceLevel,
                 "Write trace lines up to this level to stderr: 300 failures, 350 damage, "
                 "400 notable, 500 routine, 600 all");

  ScanOptions ScanWith;
  CLI::App* const pScan = App.add_subcommand("scan", "Record an event for each entry of real folders");
  AddDatabaseOption(pScan, &ScanWith.Database);
  pScan->add_option("PATH", ScanWith.Paths, "What to walk, with all that is below it")->required();
  AddLimitOptions(pScan, &ScanWith.Limits);

  RecordOptions RecordWith;
  CLI::App* const pRecord = App.add_subcommand("record", "Record events from JSON Lines");
  AddDatabaseOption(pRecord, &RecordWith.Database);
  pRecord->add_option("FILE", RecordWith.File, "Where the lines are (default: standard input)");
  AddLimitOptions(pRecord, &RecordWith.Limits);

  EventsOptions EventsWith;
  CLI::App* const pEvents = App.add_subcommand("events", "Show events, oldest to newest");
  AddDatabaseOption(pEvents, &EventsWith.Database);
  CLI::Option* const pLast = pEvents->add_option("--last", EventsWith.Last, "The newest N events");
  const auto TakeFrom = [&EventsWith](const CLI::results_t& Values) {
    EventsWith.From = ParseId(Values.front());
    return true;
  };
  pEvents->add_option("--from", TakeFrom, "Events from this id on")->type_name("ID")->excludes(pLast);
  pEvents->add_option("--count", EventsWith.Count, "At most N events");
  pEvents->add_flag("--json", EventsWith.bJson, "One JSON object a line");

  bool bInfoJson = false;
  CLI::App* const pInfo = App.add_subcommand("info", "Describe every database of the store");
  pInfo->add_flag("--json", bInfoJson, "As a JSON object");

  try {
    App.parse(nCount, ppArguments);
  } catch (const CLI::ParseError& Error) {
    return App.exit(Error) == 0 ? kExitOk : kExitUsage;
  }
  if (pScan->parsed()) return Scan(Common, ScanWith);
  if (pRecord->parsed()) return Record(Common, RecordWith);
  if (pEvents->parsed()) return Events(Common, EventsWith);
  return Info(Common, bInfoJson);
}

}  // namespace
}  // namespace lumbra::tool

int main(int nCount, char** ppArguments) {
  try {
    const int nStatus = lumbra::tool::Run(nCount, ppArguments);
    if (std::fflush(stdout) == 0) return nStatus;
    std::fputs("lumbra: standard output cannot be written\n", stderr);
  } catch (const std::exception& Error) {
    std::fflush(stdout);
    std::fprintf(stderr, "lumbra: %s\n", Error.what());
  }
  return lumbra::tool::kExitFailed;
}
