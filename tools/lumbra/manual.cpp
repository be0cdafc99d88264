#include "manual.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <vector>

#include "commands.h"
#include "format/format_version.h"

namespace lumbra::tool {
namespace {

constexpr struct {
  int nStatus;
  const char* pMeaning;
} kExitStatuses[] = {
    {kExitOk, "It was done"},
    {kExitFailed, "It failed, or a part of it did: stderr says what, and what that means"},
    {kExitUsage, "Wrong usage"},
    {kExitIncomplete, "It was read, and something was damaged or missing"},
    {kExitUnsettled, "It contradicts itself, and another process has the store: try again"},
    {kExitCursorInvalid, "The cursor is none of this database"},
    {kExitCursorGone, "What the cursor points to was dropped or cleared (--on-gap error)"},
    {kExitInterrupted, "Ctrl-C ended it"},
};

constexpr char kDescription[] =
    "A store is a folder that keeps events, which are records of a fixed size, and the files and other named objects\n"
    "that they are about. A program writes it, through the library or the module. Beside it lumbra shows, follows,\n"
    "verifies and backs up the store, and while nobody else has it lumbra records and mends.\n";

constexpr struct {
  const char* pCommand;
  const char* pMeaning;
} kExamples[] = {
    {"lumbra scan --db files /etc", "Records what is in a folder"},
    {"lumbra events --db files --under /etc/ssl -n 20", "Shows the newest events about what lies below another"},
    {"lumbra events --db files -f --json", "Follows what is recorded, for a program to read"},
    {"lumbra info --segments", "Shows how large the databases are, and who has the store"},
    {"lumbra verify", "Looks for damage"},
    {"lumbra backup /var/backups/lumbra", "Copies the store as it is now"},
};

using Options = std::vector<const CLI::Option*>;
using Apps = std::vector<const CLI::App*>;

bool IsShown(const CLI::Option* pOption) {
  return !pOption->get_group().empty();
}

Options OptionsOf(const CLI::App& App) {
  return App.get_options([](const CLI::Option* pOne) { return IsShown(pOne) && !pOne->get_positional(); });
}

Options PositionalsOf(const CLI::App& App) {
  return App.get_options([](const CLI::Option* pOne) { return IsShown(pOne) && pOne->get_positional(); });
}

Apps CommandsOf(const CLI::App& App) {
  return App.get_subcommands([](const CLI::App* pOne) { return !pOne->get_group().empty(); });
}

// As it is typed: "-o", "--output".
std::vector<std::string> NamesOf(const CLI::Option& Option) {
  std::vector<std::string> Names;
  for (const std::string& Name : Option.get_snames()) Names.push_back('-' + Name);
  for (const std::string& Name : Option.get_lnames()) Names.push_back("--" + Name);
  return Names;
}

bool TakesValue(const CLI::Option& Option) {
  return Option.get_items_expected_max() > 0;
}

bool MayBeRepeated(const CLI::Option& Option) {
  return Option.get_items_expected_max() > 1;
}

// ---- Manual page ------------------------------------------------------------------------------------------

// A text as roff shows it.
std::string Roff(const std::string& Text) {
  std::string Escaped;
  for (const char c : Text) {
    if (c == '\\') {
      Escaped += "\\e";
    } else if (c == '-') {
      Escaped += "\\-";
    } else if ((c == '.' || c == '\'') && (Escaped.empty() || Escaped.back() == '\n')) {
      Escaped += "\\&";  // else a request
      Escaped += c;
    } else {
      Escaped += c;
    }
  }
  return Escaped;
}

std::string Bold(const std::string& Text) {
  return "\\fB" + Roff(Text) + "\\fR";
}

std::string Italic(const std::string& Text) {
  return "\\fI" + Roff(Text) + "\\fR";
}

std::string Entry(const std::string& Head, const std::string& Text) {
  return ".TP\n" + Head + '\n' + Roff(Text) + '\n';
}

std::string Joined(const std::vector<std::string>& Texts) {
  std::string All;
  for (const std::string& Text : Texts) All += (All.empty() ? "" : ", ") + Text;
  return All;
}

// What --help puts beside an option, in words.
std::string RemarksOn(const CLI::Option& Option) {
  std::string Remarks;
  if (Option.get_required() && !Option.get_positional()) Remarks += " Required.";
  if (MayBeRepeated(Option) && !Option.get_positional()) Remarks += " May be given several times.";
  if (!Option.get_default_str().empty()) Remarks += " Default: " + Option.get_default_str() + '.';
  if (!Option.get_envname().empty()) Remarks += " Otherwise " + Option.get_envname() + " says it.";
  std::vector<std::string> Others;
  for (const CLI::Option* const pOther : Option.get_excludes()) Others.push_back(NamesOf(*pOther).back());
  std::ranges::sort(Others);
  if (!Others.empty()) Remarks += " Not with " + Joined(Others) + '.';
  return Remarks;
}

std::string Paragraph(const CLI::Option& Option) {
  std::string Head;
  for (const std::string& Name : NamesOf(Option)) Head += (Head.empty() ? "" : ", ") + Bold(Name);
  if (Option.get_positional()) Head = Italic(Option.get_name(true));
  const std::string Type = Option.get_type_name();
  if (!Option.get_positional() && TakesValue(Option)) Head += ' ' + Italic(Type);
  const std::string Remarks = RemarksOn(Option);
  return Entry(Head, Option.get_description() + (Remarks.empty() ? "" : "." + Remarks));
}

std::string Paragraphs(const CLI::App& App) {
  std::string All;
  for (const CLI::Option* const pOne : PositionalsOf(App)) All += Paragraph(*pOne);
  for (const CLI::Option* const pOne : OptionsOf(App)) {
    if (pOne != App.get_help_ptr() || App.get_parent() == nullptr) All += Paragraph(*pOne);
  }
  return All;
}

std::string Heading(const CLI::App& Command, const std::string& Path) {
  std::string Text = Path + " [OPTIONS]";
  for (const CLI::Option* const pOne : PositionalsOf(Command)) {
    const std::string Name = pOne->get_name(true) + (MayBeRepeated(*pOne) ? "..." : "");
    Text += ' ' + (pOne->get_required() ? Name : '[' + Name + ']');
  }
  return Text;
}

std::string Sections(const CLI::App& Parent, const std::string& Path) {
  std::string All;
  for (const CLI::App* const pOne : CommandsOf(Parent)) {
    const std::string Own = Path + ' ' + pOne->get_name();
    if (CommandsOf(*pOne).empty())
      All += ".SS " + Roff(Heading(*pOne, Own)) + '\n' + Roff(pOne->get_description()) + ".\n" + Paragraphs(*pOne);
    All += Sections(*pOne, Own);
  }
  return All;
}

// ---- Completion -------------------------------------------------------------------------------------------

// What stands for an option's or a positional's value: databases, files, words to choose from, or nothing that is
// known.
std::string ValueKind(const std::string& Type) {
  if (Type == "DB") return "databases";
  if (Type == "FILE" || Type == "DIR" || Type == "PATH") return "files";
  std::string Words = Type;
  std::ranges::replace(Words, '|', ' ');
  return Words != Type ? "words " + Words : "nothing";
}

// The lines of three tables: the commands below one, its options, and what comes behind an option or as a positional.
struct CompletionTables {
  std::string Commands;
  std::string Options;
  std::string Values;

  void Add(const CLI::App& App, const std::string& Path) {
    std::string Names;
    for (const CLI::App* const pOne : CommandsOf(App)) {
      Add(*pOne, Path.empty() ? pOne->get_name() : Path + ' ' + pOne->get_name());
      Names += (Names.empty() ? "" : " ") + pOne->get_name();
    }
    if (!Names.empty()) Commands += Line("'" + Path + "'", Names);
    Names.clear();
    const std::string Where = Path.empty() ? "*' " : "'" + Path + ' ';  // those of all commands behind each
    for (const CLI::Option* const pOne : OptionsOf(App)) {
      for (const std::string& Name : NamesOf(*pOne)) {
        Names += (Names.empty() ? "" : " ") + Name;
        if (!TakesValue(*pOne)) continue;
        Values += Line(Where + Name + "'", ValueKind(pOne->get_type_name()));
      }
    }
    Options += Line("'" + Path + "'", Names);
    for (const CLI::Option* const pOne : PositionalsOf(App)) {
      if (ValueKind(pOne->get_name(true)) == "files") Values += Line("'" + Path + " positional'", "files");
    }
  }

  static std::string Line(const std::string& Pattern, const std::string& Words) {
    return "    " + Pattern + ") echo '" + Words + "' ;;\n";
  }
};

constexpr char kCompletion[] = R"bash(
_lumbra() {
  local current=${COMP_WORDS[COMP_CWORD]} command= option= store= behind= word kind i
  local -a names
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ $option ]]; then
      [[ $word == = ]] && continue
      [[ $option == --store ]] && store=${word/#\~\//$HOME/}
      option=
    elif [[ $behind ]]; then
      continue
    elif [[ $word == -- ]]; then
      behind=yes
    elif [[ $word == -* ]]; then
      [[ $(_lumbra_value "$command $word") ]] && option=$word
    elif [[ " $(_lumbra_commands "$command") " == *" $word "* ]]; then
      command=${command:+$command }$word
    fi
  done
  [[ $option && $current == = ]] && current=

  if [[ $option ]]; then
    kind=$(_lumbra_value "$command $option")
  elif [[ $current == -* && ! $behind ]]; then
    kind="words $(_lumbra_options "$command") $([[ $command ]] && _lumbra_options '')"
  else
    kind="words $(_lumbra_commands "$command")"
    [[ $kind == 'words ' ]] && kind=$(_lumbra_value "$command positional")
  fi
  case $kind in
    files)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    databases)
      mapfile -t names < <("${COMP_WORDS[0]/#\~\//$HOME/}" ${store:+--store "$store"} databases 2>/dev/null)
      for word in "${names[@]}"; do
        [[ $word == "$current"* ]] && COMPREPLY+=("$(printf %q "$word")")
      done
      ;;
    words*) mapfile -t COMPREPLY < <(compgen -W "${kind#words}" -- "$current") ;;
  esac
}
complete -F _lumbra lumbra
)bash";

}  // namespace

std::string VersionText() {
  return "lumbra " LUMBRA_VERSION "\nfile format " + std::to_string(kFormatVersion) + "\nbuilt with " LUMBRA_BUILD;
}

std::string ExitStatusText() {
  std::string Text = "Exit status:\n";
  for (const auto& One : kExitStatuses) {
    const std::string Status = "  " + std::to_string(One.nStatus);
    Text += Status + std::string(30 - Status.size(), ' ') + One.pMeaning + '\n';
  }
  return Text;
}

std::string ManualPage(const CLI::App& App) {
  std::string Summary = App.get_description();
  Summary.front() = static_cast<char>(std::tolower(Summary.front()));
  Summary.pop_back();  // the point
  std::string Page = ".TH LUMBRA 1 \"\" \"lumbra " LUMBRA_VERSION "\" \"User commands\"\n";
  Page += ".SH NAME\nlumbra \\- " + Roff(Summary) + '\n';
  Page += ".SH SYNOPSIS\n" + Bold("lumbra") + " [OPTIONS] COMMAND ...\n";
  Page += ".SH DESCRIPTION\n" + Roff(kDescription);
  Page += ".SH OPTIONS\nEvery command has these, before or behind it.\n" + Paragraphs(App);
  Page += ".SH COMMANDS\n" + Sections(App, "lumbra");
  Page += ".SH EXIT STATUS\n";
  for (const auto& One : kExitStatuses) Page += Entry(Bold(std::to_string(One.nStatus)), One.pMeaning);
  Page += ".SH ENVIRONMENT\n" + Entry(Bold("LUMBRA_STORE"), "Folder of the store, unless --store says it");
  Page += ".SH FILES\n" + Entry(Italic("./lumbra-store"), "Folder of the store, unless one of these says it");
  Page += ".SH EXAMPLES\n";
  for (const auto& One : kExamples) Page += Entry(Bold(One.pCommand), One.pMeaning);
  Page += ".SH SEE ALSO\nThe pages tool.md and operations.md, on Debian in /usr/share/doc/lumbra/docs.\n";
  return Page;
}

std::string BashCompletion(const CLI::App& App) {
  const auto Function = [](const std::string& Name, const std::string& Lines) {
    return "_lumbra_" + Name + "() {\n  case $1 in\n" + Lines + "  esac\n}\n";
  };
  CompletionTables Tables;
  Tables.Add(App, "");
  return "# Completion of lumbra's command line for bash: commands, options, and the databases of the store at hand.\n\n"
         "# The commands below one.\n" +
         Function("commands", Tables.Commands) + "\n# The options of a command; those of '' stand behind every one.\n" +
         Function("options", Tables.Options) +
         "\n# What comes behind an option, or as a positional; nothing behind a flag.\n" +
         Function("value", Tables.Values) + kCompletion;
}

}  // namespace lumbra::tool
