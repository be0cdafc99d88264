// What the package says of the command line: the manual page and the completion, held against --help.
#include <map>
#include <set>

#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

std::string Replaced(std::string_view Text, std::string_view What, std::string_view By) {
  std::string All;
  for (std::size_t nAt = 0; (nAt = Text.find(What)) != std::string_view::npos; Text.remove_prefix(nAt + What.size()))
    All.append(Text.substr(0, nAt)).append(By);
  return All.append(Text);
}

// The options of a command, and what it is said to do with them: "-n,--lines" and "The newest N events".
using Descriptions = std::map<std::string, std::string>;

class ManualTest : public ToolTest {
 protected:
  // Options and positionals of a command, and the names of the commands below it, as --help shows them.
  Descriptions Help(const std::string& Command, std::vector<std::string>* pCommands) {
    std::istringstream Lines(Run(Command + " --help"));
    Descriptions All;
    std::string Part;
    std::string Name;
    for (std::string Line; std::getline(Lines, Line);) {
      if (Line.ends_with(':') && !Line.starts_with(' ')) {
        Part = Line;
      } else if (Line.starts_with("  ") && Part != "Exit status:") {
        if (Line[2] != ' ') Name = Line.substr(2, Line.find(' ', 2) - 2);
        // What is too long for the first column is followed by a line of its own.
        const std::string Text = Line.size() > 30 && Line[29] == ' ' ? Line.substr(30) : "";
        if (Part == "Subcommands:") {
          pCommands->push_back(Name);
        } else if (!Text.empty()) {
          All[Name] = Text;
        }
      }
    }
    return All;
  }

  // The same of the page's section that begins with a line.
  Descriptions Page(const std::string& Heading) {
    std::string Text = Run("--help-manual");
    for (const char* const pMarkup : {"\\&", "\\fB", "\\fI", "\\fR"}) Text = Replaced(Text, pMarkup, "");
    std::istringstream Lines(Replaced(Replaced(Text, "\\-", "-"), "\\e", "\\"));
    Descriptions All;
    bool bHere = false;
    for (std::string Line; std::getline(Lines, Line);) {
      if (Line.starts_with(".S")) bHere = (Line + ' ').starts_with(Heading + ' ');
      if (!bHere || Line != ".TP") continue;
      std::string Head;
      std::getline(Lines, Head);
      std::getline(Lines, Text);
      Head = Replaced(Head, ", ", ",");
      All[Head.substr(0, Head.find(' '))] = Text;
    }
    return All;
  }

  // What stands in the completion's place of the last word.
  std::set<std::string> Complete(const std::string& Words) {
    WriteText("completion", Run("--help-bash-completion"));
    WriteText("ask", "PATH='" + std::string(LUMBRA_TOOL).substr(0, std::string(LUMBRA_TOOL).rfind('/')) +
                         "':$PATH\n. ./completion\nCOMP_WORDS=(" + Words +
                         ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_lumbra\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n");
    std::istringstream Lines(RunProgram({"/bin/bash", "ask"}));
    std::set<std::string> All;
    for (std::string Line; std::getline(Lines, Line);) All.insert(Line);
    return All;
  }

 private:
  void WriteText(const std::string& Name, const std::string& Text) { WriteFile(Name, Bytes(Text.begin(), Text.end())); }
};

TEST_F(ManualTest, PageAndCompletionSayWhatHelpDoes) {
  std::vector<std::string> Left = {""};
  int nCommands = 0;
  for (; !Left.empty(); ++nCommands) {
    const std::string Command = Left.back();
    Left.pop_back();
    std::vector<std::string> Below;
    Descriptions Shown = Help(Command, &Below);
    for (const std::string& One : Below) Left.push_back(Command.empty() ? One : Command + ' ' + One);
    if (!Command.empty()) Shown.erase("-h,--help");
    if (Below.empty() || Command.empty()) {
      const Descriptions Told = Page(Command.empty() ? ".SH OPTIONS" : ".SS lumbra " + Command);
      ASSERT_EQ(Shown.size(), Told.size()) << Command;
      for (const auto& [Names, Text] : Shown) {
        EXPECT_TRUE(Told.contains(Names) && Told.at(Names).starts_with(Text))
            << Command << ' ' << Names << ": " << Text;
      }
    }
    const std::set<std::string> Options = Complete("lumbra " + Command + " -");
    for (const auto& [Names, Text] : Shown) {
      std::istringstream Each(Names.starts_with('-') ? Names : "");
      for (std::string Name; std::getline(Each, Name, ',');)
        EXPECT_TRUE(Options.contains(Name)) << Command << ' ' << Name;
    }
    EXPECT_TRUE(Options.contains("--store")) << Command;
    if (!Below.empty()) {
      EXPECT_EQ(std::set(Below.begin(), Below.end()), Complete("lumbra " + Command + " ''"));
    }
  }
  EXPECT_GT(nCommands, 18);
}

TEST_F(ManualTest, CompletionKnowsDatabasesWordsAndFiles) {
  for (const char* const pName : {"7", "visits", "'two words'"}) Run("record --db " + std::string(pName));
  const std::set<std::string> kAll = {"7", "two\\ words", "visits"};
  EXPECT_EQ(kAll, Complete("lumbra --store store events --db ''"));
  EXPECT_EQ(kAll, Complete("lumbra events --store = store -f --db = ''"));
  EXPECT_EQ(std::set<std::string>({"visits"}), Complete("lumbra --store store clear --yes --db v"));
  EXPECT_EQ(std::set<std::string>({""}), Complete("lumbra --store nowhere events --db ''"));
  EXPECT_EQ(std::set<std::string>({"earliest", "error"}), Complete("lumbra events --on-gap e"));
  EXPECT_EQ(std::set<std::string>({"store"}), Complete("lumbra dump st"));
  EXPECT_EQ(std::set<std::string>({"store"}), Complete("lumbra --store st"));
  EXPECT_EQ(std::set<std::string>({"--since", "--show-cursor", "--schema", "--store"}), Complete("lumbra events --s"));
}

TEST_F(ManualTest, VersionTellsFormatAndBuild) {
  EXPECT_THAT(Run("--version"),
              ::testing::MatchesRegex("lumbra [0-9.]+\nfile format 1\nbuilt with .+, .+, for .+ Linux.*\n"));
}

}  // namespace
}  // namespace lumbra::test
