#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "host/printed_text.h"
#include "ids.h"
#include "machine.h"
#include "manual.h"
#include "nearest.h"
#include "quantities.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

// What the arguments come to.
struct Request {
  CommonOptions Common;
  std::function<int()> Run;
};

// ---- Options of several commands --------------------------------------------------------------------------

CLI::Validator NotEmpty() {
  return CLI::Validator([](const std::string& Text) { return Text.empty() ? "must not be empty" : ""; }, "");
}

// An option whose text is turned into a value, or refused with a reason.
template <class Value, class ParseText>
CLI::Option* AddParsed(CLI::App* pCommand, const std::string& Name, Value* pValue, const std::string& Description,
                       ParseText Parse) {
  const auto Take = [=](const CLI::results_t& Texts) {
    std::string Reason;
    const auto Parsed = Parse(Texts.front(), &Reason);
    if (!Parsed) throw CLI::ValidationError(Name, Reason);
    *pValue = static_cast<Value>(*Parsed);
    return true;
  };
  return pCommand->add_option(Name, Take, Description);
}

std::optional<std::uint64_t> IdOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "an id has up to 16 hexadecimal digits";
  return ParseId(Text);
}

std::optional<std::uint64_t> ObjectOrReason(const std::string& Text, std::string* pReason) {
  const std::optional<std::uint64_t> Id = IdOrReason(Text, pReason);
  if (Id != 0) return Id;
  *pReason = "no object has the id 0";
  return {};
}

std::optional<std::uint64_t> CountOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a whole number from 0 on";
  return ParseNumber(Text, UINT64_MAX);
}

std::optional<std::uint64_t> SizeOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a size is a number of bytes, or has K, M, G or T behind it, like 2G";
  return ParseSize(Text);
}

std::optional<std::uint64_t> AgeOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "an age is a number of seconds, or has s, m, h, d or w behind it, like 7d";
  return ParseAge(Text);
}

std::optional<std::uint64_t> KeyOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a key is a number of 32 bits, decimal or 0x...";
  return ParseNumber(Text, UINT32_MAX);
}

std::optional<std::uint64_t> TypeOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a type is file, folder, key, value, volume, name or a number from 0 to 255";
  if (const std::optional<std::uint32_t> Named = TypeOfName(Text)) return *Named;
  return ParseNumber(Text, UINT8_MAX);
}

std::optional<DatabaseName> DatabaseOrShared(const std::string& Text, std::string* pReason) {
  return Text == "0" ? DatabaseName{kSystemDatabase, {}} : ParseDatabaseName(Text, pReason);
}

CLI::Option* AddId(CLI::App* pCommand, const std::string& Name, std::uint64_t* pnId, const std::string& Description) {
  return AddParsed(pCommand, Name, pnId, Description, ObjectOrReason)->type_name("ID");
}

void AddDatabase(CLI::App* pCommand, DatabaseName* pDatabase) {
  AddParsed(pCommand, "--db", pDatabase, "Database: a number from 1 to 47, or a name", ParseDatabaseName)
      ->required()
      ->type_name("DB");
}

void AddLimits(CLI::App* pCommand, LimitOptions* pLimits) {
  for (std::size_t i = 0; i < std::size(kLimits); ++i) {
    const std::string_view Unit = kLimits[i].pUnit;
    const bool bSize = Unit == "bytes";
    const bool bAge = Unit == "seconds";
    AddParsed(pCommand, std::string("--") + kLimits[i].pName, &pLimits->Values[i], kLimits[i].pMeaning,
              bSize  ? SizeOrReason
              : bAge ? AgeOrReason
                     : CountOrReason)
        ->type_name(bSize  ? "SIZE"
                    : bAge ? "AGE"
                           : "N")
        ->group("Limits");
  }
}

void AddCommon(CLI::App* pApp, CommonOptions* pCommon) {
  const auto TakeStore = [pCommon](const std::string& Folder) {
    pCommon->Store = Folder;
    pCommon->bStoreGiven = true;
  };
  pApp->add_option_function<std::string>("--store", TakeStore, "Folder of the store (default: " + pCommon->Store + ')')
      ->envname("LUMBRA_STORE")
      ->type_name("DIR")
      ->check(NotEmpty());
  pApp->add_flag("--trust-store", pCommon->bTrustStore, "Use the store though others than you may change it");
  pApp->add_flag("--check-mode", pCommon->bCheckMode, "Create new files with every kind of CRC");
  pApp->add_flag("--group-readable", pCommon->bGroupReadable, "Let the group read new files; else you alone can");
  pApp->add_option("--cache", pCommon->nCacheSize, "KiB of the store's files to keep in memory; 0: nothing")
      ->type_name("KIB")
      ->capture_default_str();
  AddParsed(pApp, "--wait", &pCommon->nWait, "How long to wait for another process that has the store",
            [](const std::string& Text, std::string* pReason) {
              *pReason = "seconds, up to a year";
              return ParseNumber(Text, 366 * 86400);
            })
      ->type_name("SECONDS");
  pApp->add_option("--host", pCommon->Host, "Name of the host in the store (default: this machine's)")
      ->type_name("NAME");
  pApp->add_option("--module", pCommon->Module, "Run the command on this module (default: what is built in)")
      ->type_name("FILE")
      ->check(NotEmpty());
  pApp->add_option("--trace", pCommon->nTraceLevel,
                   "Write trace lines up to this level to stderr: 300 failures, 350 damage, 400 notable, 500 routine, "
                   "600 all")
      ->type_name("LEVEL");
}

// ---- The commands -----------------------------------------------------------------------------------------

// A command with its options, which live as long as the parser.
template <class Options>
struct Command {
  CLI::App* pApp;
  Options* pOptions;
};

template <class Options>
Command<Options> AddCommand(CLI::App* pParent, Request* pRequest, const char* pName, const char* pDescription,
                            int (*pRun)(const CommonOptions&, const Options&)) {
  CLI::App* const pApp = pParent->add_subcommand(pName, pDescription);
  const auto pOptions = std::make_shared<Options>();
  pApp->callback([=] {
    pRequest->Run = [=] {
      return pRun(pRequest->Common, *pOptions);
    };
  });
  return {pApp, pOptions.get()};
}

// ---- lumbra events ----------------------------------------------------------------------------------------

std::optional<std::uint64_t> LinesOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a whole number from 0 on, or all";
  return Text == "all" ? UINT64_MAX : ParseNumber(Text, UINT64_MAX);
}

std::optional<std::uint64_t> KindOrReason(const std::string& Text, std::string* pReason) {
  constexpr std::string_view kNames[] = {"file", "folder", "link", "other"};
  *pReason = "a kind is file, folder, link, other or a whole number";
  for (std::size_t i = 0; i < std::size(kNames); ++i) {
    if (kNames[i] == Text) return i + 1;
  }
  return ParseNumber(Text, UINT64_MAX);
}

std::optional<std::string> MomentOrReason(const std::string& Text, std::string* pReason) {
  *pReason = "a time is like 2026-11-25T18:17:00Z, 2026-11-25 18:17, 2026-11-25, 18:17, today, yesterday or -2h";
  return ParseMoment(Text, Zone::Utc) ? std::optional(Text) : std::nullopt;
}

// An option whose text is one of a few words.
template <class Value>
CLI::Option* AddChoice(CLI::App* pCommand, const std::string& Name, Value* pValue, const std::string& Description,
                       const std::vector<std::pair<std::string, Value>>& Choices) {
  std::string Words;
  for (const auto& [Word, Meaning] : Choices) Words += (Words.empty() ? "" : "|") + Word;
  const auto Parse = [Choices, Words](const std::string& Text, std::string* pReason) -> std::optional<Value> {
    *pReason = "one of " + Words;
    for (const auto& [Word, Meaning] : Choices) {
      if (Word == Text) return Meaning;
    }
    return {};
  };
  return AddParsed(pCommand, Name, pValue, Description, Parse)->type_name(Words);
}

// One that may be given several times.
template <class Value, class ParseText>
void AddRepeated(CLI::App* pCommand, const std::string& Name, std::vector<Value>* pValues,
                 const std::string& Description, const std::string& TypeName, ParseText Parse) {
  const auto Take = [=](const std::vector<std::string>& Texts) {
    for (const std::string& Text : Texts) {
      std::string Reason;
      const std::optional<Value> Parsed = Parse(Text, &Reason);
      if (!Parsed) throw CLI::ValidationError(Name, Reason);
      pValues->push_back(*Parsed);
    }
  };
  pCommand->add_option_function<std::vector<std::string>>(Name, Take, Description)
      ->type_name(TypeName)
      ->allow_extra_args(false)
      ->group("Filters");
}

void AddFilters(CLI::App* pEvents, EventFilterOptions* pFilter) {
  const auto AnyText = [](const std::string& Text, std::string* pReason) {
    *pReason = "must not be empty";
    return Text.empty() ? std::nullopt : std::optional(Text);
  };
  const auto AddMoment = [&](const char* pName, std::string* pMoment, const char* pDescription) {
    AddParsed(pEvents, pName, pMoment, pDescription, MomentOrReason)->type_name("TIME")->group("Filters");
  };
  AddMoment("-S,--since", &pFilter->Since, "Of this time or later; local where no zone is given");
  AddMoment("-U,--until", &pFilter->Until, "Of this time or earlier");
  AddRepeated(pEvents, "--kind", &pFilter->Kinds, "Of one of these kinds: file, folder, link, other or a number", "K",
              KindOrReason);
  AddRepeated(pEvents, "--not-kind", &pFilter->NotKinds, "Of none of these", "K", KindOrReason);
  AddRepeated(pEvents, "--name", &pFilter->Names,
              "About a name like one of these: * and ? and [...], the last part of a path alone without a separator",
              "GLOB", AnyText);
  AddRepeated(pEvents, "--not-name", &pFilter->NotNames, "About no name like one of these", "GLOB", AnyText);
  AddParsed(pEvents, "--under", &pFilter->Under, "About this path or what is below it", AnyText)
      ->type_name("PATH")
      ->group("Filters");
  AddParsed(pEvents, "--object", &pFilter->Object, "About this object", ObjectOrReason)
      ->type_name("ID")
      ->group("Filters");
}

void AddEventOutput(CLI::App* pEvents, EventsOptions* pWith) {
  CLI::Option* const pOutput =
      AddChoice<OutputForm>(pEvents, "-o,--output", &pWith->Form, "How they are written (default: table)",
                            {{"table", OutputForm::Table}, {"json", OutputForm::Json}, {"csv", OutputForm::Csv}});
  const auto AsJson = [pWith](std::int64_t) {
    pWith->Form = OutputForm::Json;
  };
  pEvents->add_flag("--json", AsJson, "One JSON object a line")->excludes(pOutput);
  pEvents->add_option("--fields", pWith->Fields, "These fields in this order: id, type, name, parent or of the schema")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("A,B");
  const auto ReadSchema = [](const std::string& Text, std::string* pReason) {
    return ParseSchema(Text, pReason);
  };
  AddParsed(pEvents, "--schema", &pWith->Layout, "What the bytes of an event mean: NAME:TYPE,...", ReadSchema)
      ->type_name("SCHEMA");
  pEvents->add_flag("--parents", pWith->bParents, "Also the parent of each event's object");
  pEvents->add_flag("--numbers", pWith->bNumbers, "Times as nanoseconds since 1970, ids and kinds as numbers");
  pEvents->add_flag("--utc", pWith->bUtc, "Take and write times in UTC where they bear no zone");
  pEvents->add_flag("--count-only", pWith->bCountOnly, "Only how many there are")
      ->excludes(pEvents->get_option("--follow"));
  pEvents->add_flag("-q,--quiet", pWith->bQuiet, "Say nothing of gaps");
}

void AddEvents(CLI::App* pApp, Request* pRequest) {
  const auto [pEvents, pWith] = AddCommand(pApp, pRequest, "events", "Show events, oldest to newest", Events);
  AddDatabase(pEvents, &pWith->Database);
  CLI::Option* const pLast =
      AddParsed(pEvents, "-n,--lines,--last", &pWith->Lines, "The newest N events, or all", LinesOrReason);
  pLast->type_name("N");
  CLI::Option* const pFrom = AddParsed(pEvents, "--from", &pWith->From, "Events from this id on", IdOrReason);
  pFrom->type_name("ID")->excludes(pLast);
  AddParsed(pEvents, "--count", &pWith->Count, "At most N events", CountOrReason)->type_name("N");
  pEvents->add_flag("--just-one", pWith->bJustOne, "One event; none is a failure");
  CLI::Option* const pReverse = pEvents->add_flag("-r,--reverse", pWith->bReverse, "Newest to oldest");
  CLI::Option* const pFollow =
      pEvents->add_flag("-f,--follow", pWith->bFollow, "The newest 10, and then what comes, until Ctrl-C");
  pFollow->excludes(pReverse);

  CLI::Option* const pAt = pEvents->add_option("--cursor", pWith->Cursor, "From the event that a cursor was behind on");
  CLI::Option* const pAfter = pEvents->add_option("--after-cursor", pWith->AfterCursor, "From where a cursor is on");
  CLI::Option* const pFile = pEvents->add_option(
      "--cursor-file", pWith->CursorFile, "Go on where this file says, if it is there, and keep there how far it came");
  for (CLI::Option* const pCursor : {pAt, pAfter}) pCursor->type_name("CURSOR")->excludes(pFrom)->excludes(pLast);
  pFile->type_name("FILE")->excludes(pAt)->excludes(pAfter)->excludes(pFrom)->check(NotEmpty());
  pAt->excludes(pAfter);
  CLI::Option* const pShow =
      pEvents->add_flag("--show-cursor", pWith->bShowCursor, "A cursor with each line of JSON or CSV, or at the end");
  for (CLI::Option* const pCursor : {pAt, pAfter, pFile, pShow}) pCursor->excludes(pReverse);
  AddChoice<OnGap>(pEvents, "--on-gap", &pWith->IfGone, "Where a cursor's event is gone (default: earliest)",
                   {{"error", OnGap::Error}, {"earliest", OnGap::Earliest}, {"latest", OnGap::Latest}});
  AddFilters(pEvents, &pWith->Filter);
  AddEventOutput(pEvents, pWith);
}

// ---- All of them ------------------------------------------------------------------------------------------

void AddEventCommands(CLI::App* pApp, Request* pRequest) {
  const auto [pScan, pScanWith] =
      AddCommand(pApp, pRequest, "scan", "Record an event for each entry of real folders", Scan);
  AddDatabase(pScan, &pScanWith->Database);
  pScan->add_option("PATH", pScanWith->Paths, "What to walk, with all that is below it")->required()->check(NotEmpty());
  AddLimits(pScan, &pScanWith->Limits);

  const auto [pRecord, pRecordWith] = AddCommand(pApp, pRequest, "record", "Record events from JSON Lines", Record);
  AddDatabase(pRecord, &pRecordWith->Database);
  pRecord->add_option("FILE", pRecordWith->File, "Where the lines are (default: standard input)");
  AddLimits(pRecord, &pRecordWith->Limits);

  AddEvents(pApp, pRequest);

  const auto [pSchema, pSchemaWith] =
      AddCommand(pApp, pRequest, "schema", "Show or keep what the bytes of a database's events mean", ShowOrKeepSchema);
  AddDatabase(pSchema, &pSchemaWith->Database);
  AddParsed(pSchema, "SCHEMA", &pSchemaWith->Text, "NAME:TYPE,... to be kept",
            [](const std::string& Text, std::string* pReason) {
              return ParseSchema(Text, pReason) ? std::optional(Text) : std::nullopt;
            })
      ->type_name("");
}

void AddObjectCommands(CLI::App* pApp, Request* pRequest) {
  const auto [pFind, pFindWith] = AddCommand(pApp, pRequest, "find", "Find objects by name", Find);
  AddParsed(pFind, "--db", &pFindWith->Database, "Database: a number from 1 to 47, a name, or 0 for the shared objects",
            DatabaseOrShared)
      ->required()
      ->type_name("DB");
  AddParsed(pFind, "--type", &pFindWith->nType, "file, folder, key, value, volume, name or a number (default: file)",
            TypeOrReason)
      ->type_name("T");
  AddId(pFind, "--parent", &pFindWith->nParent, "The object below which the names are");
  pFind->add_flag("--create", pFindWith->bCreate, "Create what is not there");
  pFind->add_flag("--escaped", pFindWith->bEscaped, "Read \\xNN and the like in NAME, as names are shown");
  pFind->add_option("NAME", pFindWith->Names, "Names of objects")->required()->check(NotEmpty());

  const auto [pObjects, pObjectsWith] = AddCommand(pApp, pRequest, "objects", "List objects", ListObjects);
  AddParsed(pObjects, "--db", &pObjectsWith->Database,
            "Database: a number from 1 to 47, a name, or 0 for the shared objects (default: all of the store)",
            DatabaseOrShared)
      ->type_name("DB");
  pObjects->add_option("--under", pObjectsWith->Under, "Only this path, and what is below it")
      ->type_name("PATH")
      ->check(NotEmpty());
  CLI::Option* const pTree =
      pObjects->add_flag("--tree", pObjectsWith->bTree, "What belongs to an object indented below it");
  pObjects->add_flag("--data", pObjectsWith->bData, "Also the keys and sizes of their data");
  pObjects->add_flag("--json", pObjectsWith->bJson, "One JSON object a line")->excludes(pTree);

  const auto [pName, pNameWith] = AddCommand(pApp, pRequest, "name", "Show the names and types of objects", Name);
  const auto TakeIds = [pIds = &pNameWith->Ids](const std::vector<std::string>& Texts) {
    for (const std::string& Text : Texts) {
      std::string Reason;
      const std::optional<std::uint64_t> Id = ObjectOrReason(Text, &Reason);
      if (!Id) throw CLI::ValidationError("ID", Reason);
      pIds->push_back(*Id);
    }
  };
  pName->add_option_function<std::vector<std::string>>("ID", TakeIds, "Ids of objects")->required();

  const auto [pLink, pLinkWith] =
      AddCommand(pApp, pRequest, "link", "Let an object stand for another when names are followed", Link);
  AddId(pLink, "ID", &pLinkWith->nId, "The object that gets the link")->required();
  AddId(pLink, "TARGET", &pLinkWith->nTarget, "The object that it stands for")->required();
}

void AddDataCommands(CLI::App* pApp, Request* pRequest) {
  CLI::App* const pData = pApp->add_subcommand("data", "Read and write the data of an object");
  pData->require_subcommand(1);
  pData->fallthrough();
  const auto Add = [&](const char* pName, const char* pDescription, auto pRun) {
    const auto [pCommand, pOptions] = AddCommand(pData, pRequest, pName, pDescription, pRun);
    AddId(pCommand, "ID", &pOptions->nId, "The object")->required();
    return Command<DataOptions>{pCommand, pOptions};
  };
  const auto AddKey = [](const Command<DataOptions>& To, const char* pFile) {
    AddParsed(To.pApp, "KEY", &To.pOptions->nKey, "The key of the block, decimal or 0x...", KeyOrReason)
        ->required()
        ->type_name("KEY");
    To.pApp->add_option("FILE", To.pOptions->File, pFile);
  };
  AddKey(Add("get", "Write a block's bytes", GetData), "Where to (default: standard output)");
  AddKey(Add("set", "Store bytes as a block", SetData), "Where from (default: standard input)");
  Add("clear", "Remove every block", ClearData);
}

void AddStoreCommands(CLI::App* pApp, Request* pRequest) {
  const auto [pInfo, pInfoWith] = AddCommand(pApp, pRequest, "info", "Describe every database of the store", Info);
  using Form = InfoOptions::Form;
  CLI::Option* const pForm =
      AddChoice<Form>(pInfo, "-o,--output", &pInfoWith->Output, "prometheus is for node_exporter's text files",
                      {{"table", Form::Table}, {"json", Form::Json}, {"prometheus", Form::Prometheus}});
  pInfo
      ->add_flag_callback(
          "--json", [pWith = pInfoWith] { pWith->Output = Form::Json; }, "As a JSON object")
      ->excludes(pForm);
  pInfo->add_flag("--segments", pInfoWith->bSegments, "Also every segment");
  pInfo->add_flag("--times", pInfoWith->bTimes, "Also the lowest and the highest time of events, which reads them all");

  AddCommand(pApp, pRequest, "check",
             "Say what is lost or damaged; of a sound store, what the quick check finds and repairs", CheckStore);
  const auto [pCompact, pCompactWith] =
      AddCommand(pApp, pRequest, "compact", "Write the shared objects without the holes between them", Compact);
  pCompact->add_flag("--replace", pCompactWith->bReplace, "And put them in the place of the live ones");
  pCompact->add_flag("--lossy", pCompactWith->bLossy, "Also where something had to be left out");

  const auto [pRepair, pRepairWith] =
      AddCommand(pApp, pRequest, "repair", "Show what can be done about lost and damaged files, and do it", Repair);
  pRepair->add_flag("--yes", pRepairWith->bYes, "Do it");
  pRepair->add_flag("--start-empty", pRepairWith->bStartEmpty, "Also set aside shared objects without their records");
  pRepair->add_flag("--discard-set-aside", pRepairWith->bDiscard, "Delete what was set aside, and nothing else");
  pRepair->add_option("--undo", pRepairWith->Undo, "Take back what was done at this time, a folder in set-aside")
      ->type_name("TIME");

  const auto [pBackup, pBackupWith] =
      AddCommand(pApp, pRequest, "backup", "Copy the store, which may be in use, as it is at one moment", Backup);
  pBackup->add_option("DIR", pBackupWith->Folder, "Where to: a new folder, or one with an earlier backup")
      ->required()
      ->check(NotEmpty());

  const auto [pVerify, pVerifyWith] = AddCommand(
      pApp, pRequest, "verify", "Read everything, and say what is damaged, and what crashes have left", Verify);
  CLI::Option* const pVerifyDatabase =
      AddParsed(pVerify, "--db", &pVerifyWith->Database, "This database alone: a number from 1 to 47, or a name",
                ParseDatabaseName)
          ->type_name("DB");
  CLI::Option* const pVerifyJson = pVerify->add_flag("--json", pVerifyWith->bJson, "A JSON object a line");
  pVerify->add_flag("--manifest", pVerifyWith->bManifest, "The sums of a backup, and nothing else")
      ->excludes(pVerifyDatabase)
      ->excludes(pVerifyJson);

  const auto [pDump, pDumpWith] =
      AddCommand(pApp, pRequest, "dump", "Show a file of a store in words, field by field", Dump);
  pDump->add_option("FILE", pDumpWith->File, "The file")->required()->check(NotEmpty());

  const auto [pModule, pModuleWith] =
      AddCommand(pApp, pRequest, "module", "Show what a module says of itself, without loading it", Module);
  pModule->add_option("FILE", pModuleWith->File, "The module")->required()->check(NotEmpty());

  const auto [pClear, pClearWith] = AddCommand(pApp, pRequest, "clear", "Delete everything in a database", Clear);
  AddDatabase(pClear, &pClearWith->Database);
  pClear->add_flag("--yes", pClearWith->bYes, "Really")->required()->disable_flag_override();
  pClear->add_flag("--force", pClearWith->bForce, "Also files that are not the store's");
}

// What --help does not tell of: texts for the package, and what the completion asks.
void AddForPackages(CLI::App* pApp, Request* pRequest) {
  const auto Add = [=](const char* pName, std::string (*pText)(const CLI::App&)) {
    pApp->add_flag_callback(pName, [=] { throw CLI::CallForVersion(pText(*pApp), 0); })->group("");
  };
  Add("--help-manual", ManualPage);
  Add("--help-bash-completion", BashCompletion);
  AddCommand(pApp, pRequest, "databases", "The names of all databases, a line each", ListDatabases).pApp->group("");
}

// Runs the command. Where it has met a file that is refused, and the file system does not tell why, we do.
int Run(const Request& What) {
  const auto TellReason = [&What] {
    const std::filesystem::path Found = FileWithSecondName(AbsolutePath(What.Common.Store));
    if (!Found.empty())
      std::fprintf(stderr, "lumbra: %s has a second name, a hard link somewhere, and is not opened\n",
                   host::Printable(TextOf(Found)).c_str());
  };
  try {
    const int nStatus = What.Run();
    if (nStatus == kExitIncomplete && ReadsThroughComponent(What.Common)) TellReason();  // others open such files, too
    return nStatus;
  } catch (const Failure& Reason) {
    if (Reason.Code() == errACCESS_DENIED) TellReason();
    throw;
  }
}

// What stands where a command should, and what it was to be; empty when that is not what is wrong.
std::string DescribeUnknownCommand(const CLI::App& App) {
  const CLI::App* pParent = &App;
  while (!pParent->get_subcommands().empty()) pParent = pParent->get_subcommands().front();
  if (pParent->get_require_subcommand_min() == 0) return {};
  const std::vector<std::string> Words = App.remaining(true);
  const auto Typed = std::ranges::find_if(Words, [](const std::string& Word) { return !Word.starts_with('-'); });
  if (Typed == Words.end()) return {};
  std::vector<std::string> Known;
  for (const CLI::App* const pOne : pParent->get_subcommands({})) {
    if (!pOne->get_group().empty()) Known.push_back(pOne->get_name());
  }
  const std::string Meant = Nearest(*Typed, Known);
  return "unknown command " + Printable(*Typed) + (Meant.empty() ? "" : "; did you mean " + Meant + '?');
}

}  // namespace

std::function<int()> ParseCommandLine(const std::vector<std::string>& Arguments) {
  CLI::App App("Records events about files and other named objects, and shows them again.", "lumbra");
  App.require_subcommand(1);
  App.allow_windows_style_options(false);  // names may begin with '/' on every system
  App.set_version_flag("--version", VersionText(), "Print version, format of the files and build, and exit");
  App.fallthrough();  // the common options may stand behind a command, too
  const auto pRequest = std::make_shared<Request>();
  AddCommon(&App, &pRequest->Common);
  AddEventCommands(&App, pRequest.get());
  AddObjectCommands(&App, pRequest.get());
  AddDataCommands(&App, pRequest.get());
  AddStoreCommands(&App, pRequest.get());
  App.footer(ExitStatusText());
  AddForPackages(&App, pRequest.get());
  try {
    App.parse(std::vector<std::string>(Arguments.rbegin(), Arguments.rend() - 1));  // it takes them from the end
  } catch (const CLI::Success& Asked) {                                             // for help, or the version
    App.exit(Asked);
    return [] {
      return kExitOk;
    };
  } catch (const CLI::ParseError& Error) {
    const std::string Unknown = DescribeUnknownCommand(App);
    std::fprintf(stderr, "lumbra: %s\nRun with --help for more information.\n",
                 host::PrintableSentence(Unknown.empty() ? Error.what() : Unknown).c_str());
    return [] {
      return kExitUsage;
    };
  }
  return [pRequest] {
    return Run(*pRequest);
  };
}

}  // namespace lumbra::tool
