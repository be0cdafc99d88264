// The command-line tool on a store in the test's folder, run as a user runs it.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/run_program.h"
#include "support/world.h"

namespace lumbra::test {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ToolTest : public World {
 protected:
  // Runs a program in the test's folder; what it wrote to standard output.
  std::string RunProgram(const Arguments& What, int nStatus = 0, const std::string& Input = "") {
    WriteFile("in", Bytes(Input.begin(), Input.end()));
    EXPECT_EQ(nStatus, RunIn(Folder(), What)) << ::testing::PrintToString(What) << '\n' << Errors();
    return ReadText("out");
  }
  // Runs the tool on the test's store, with words of which those with blanks or nothing in them stand between '. What
  // it may read are lines of JSON, with ' for ".
  std::string Run(const std::string& Words, int nStatus = 0, std::string Input = "{'name':'x'}") {
    std::replace(Input.begin(), Input.end(), '\'', '"');
    Arguments What = {LUMBRA_TOOL, "--store", "store", "--host", "h"};
    std::istringstream Line(Words);
    for (std::string Word; Line >> std::quoted(Word, '\'', '\0');) What.push_back(Word);
    return RunProgram(What, nStatus, Input);
  }
  // Runs it where it has to fail, for this reason.
  void Fails(const std::string& Words, const std::string& Reason = "") {
    Run(Words, 1);
    EXPECT_THAT(Errors(), HasSubstr(Reason)) << Words;
  }
  // What it wrote to standard error, the last time.
  std::string Errors() const { return ReadText("err"); }

  // Records an event about each of some names.
  void Record(const std::string& DatabaseAndOptions, const std::vector<std::string>& Names) {
    std::string Lines;
    for (const std::string& Name : Names) Lines += json({{"name", Name}, {"type", "name"}}).dump() + '\n';
    Run("record --db " + DatabaseAndOptions, 0, Lines);
  }
  // The events of a database, or one thing of each.
  json Events(const std::string& Database, const std::string& Pointer = "") {
    std::istringstream Lines(Run("events --json --db " + Database));
    json Shown = json::array();
    for (std::string Line; std::getline(Lines, Line);) Shown.push_back(json::parse(Line)[json::json_pointer(Pointer)]);
    return Shown;
  }
  json Names(const std::string& Database) { return Events(Database, "/name"); }
  // The id of the first object that is found, and what is told of one.
  std::string Find(const std::string& Database) { return Run("find --db " + Database).substr(0, 18); }
  std::string Described(const std::string& Id) { return Run("name " + Id).substr(20); }

  // A path in the test's folder, as the system writes it.
  std::string At(const std::string& Name) const { return (Folder() / Name).make_preferred().string(); }

  // A folder "tree" of nine entries.
  void MakeTree() {
    for (const std::string Name : {"Makefile", "a/deep/er/file", "\xC3\xA9t\xC3\xA9", "two  spaces"}) {
      WriteFile(fs::u8path("tree/" + Name), Bytes(Name.size()));
    }
    fs::create_directory(Folder() / "tree/empty");
  }

  // Scans it into a database, and finds each of its entries there.
  void ExpectScanned(const std::string& Options) {
    json All = json::array({At("tree")});
    for (const auto& Entry : fs::recursive_directory_iterator(At("tree"))) All.push_back(Entry.path().string());
    const std::string Told = Run("scan tree/ --db " + Options);
    EXPECT_THAT(Told, StartsWith("recorded " + std::to_string(All.size()) + " events in "));
    const std::string Database = Options.substr(0, Options.find(' '));
    EXPECT_THAT(Names(Database), ::testing::UnorderedElementsAreArray(All)) << Options;
    for (const json& One : Events(Database)) {
      const fs::path Path = fs::u8path(One["name"].get<std::string>());
      const int nKind = fs::is_symlink(Path) ? 3 : fs::is_directory(Path) ? 2 : 1;
      EXPECT_EQ(nKind, One["kind"]) << Path;
      EXPECT_EQ(nKind == 2 ? 2 : 1, One["type"]) << Path;
      if (nKind == 1) {
        EXPECT_EQ(fs::file_size(Path), One["value"]) << Path;
      }
    }
  }
};

}  // namespace lumbra::test
