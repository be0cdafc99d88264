// What can be done about lost and damaged files of a store, in steps: made by looking (look.h), shown to the user, and
// carried out (apply.h). One plan serves the dry run, the healing and the tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumbra::salvage {

struct Step {
  enum class Kind {
    Report,    // nothing is done: what is lost, or what a person has to decide
    Patch,     // bytes of a file become others, in place
    Create,    // a file that is missing
    Replace,   // a whole file becomes another one
    SetAside,  // a file moves out of the way, into "set-aside"
    Rename,    // a file gets another name in its folder, which stands in After
    Rebuild,   // a tree is built anew from the id records
  };

  Kind What = Kind::Report;
  std::u16string Folder = {};  // of the database, within the store's; empty: the store's own
  std::u16string File = {};    // in that folder; empty: the database as a whole
  std::uint64_t nOffset = 0;   // of a patch
  std::string Before = {};     // the bytes that a patch or a whole new file takes the place of; of a rename, the digest
  std::string After = {};      // and what they become; of a file that is created, its content
  std::string Why;             // what was found and what becomes of it, in words
  bool bDone = false;          // it was carried out

  bool Acts() const { return What != Kind::Report; }
};

// What a look is to find beside the damage that opening the store would make worse.
struct Wishes {
  bool bThorough = false;    // what can be had back, too: names that a lost tree finds no more, ends of old segments
  bool bDropped = false;     // files of segments that were dropped, which no damage is: they are set aside
  bool bStartEmpty = false;  // shared objects whose id file is lost are set aside, and begin anew
};

struct Plan {
  std::vector<Step> Steps;
  bool bHeld = false;   // another process holds the store: it was left alone
  std::string Refusal;  // why the store must not be opened as it is, or could not be looked at; empty when it may

  // The compacted pair is taking the place of the live one: the plan is to finish that, or to refuse the store where it
  // is being taken back, and nothing else was looked at.
  // The name is that of the folder in "set-aside"; empty where none was begun.
  std::optional<std::string> Replacing;

  bool Acts() const;  // whether a step does
};

// One line: the file, and why. Names in it are UTF-8, and not made printable.
std::string Describe(const Step& Of);

// How many files are healed, set aside and left as they are, in one line.
std::string Summary(const Plan& Of);

// Whether it is the name of such a folder: "20261125T190000Z-1".
bool IsTimeOfHealing(const std::string& Name);

// What the file says by which the compacted pair takes the place of the live one, or the old pair is put back: the
// name of the folder in "set-aside", empty for a text that has none, and which of both.
struct Replacement {
  std::string Time;
  bool bBack = false;
};
std::string WriteReplacement(const Replacement& Of);
Replacement ReadReplacement(const std::string& Text);

// Steps as a file of their own, by which they can be undone; and back. Empty for a text that is none.
std::string WriteSteps(const std::vector<Step>& Steps);
std::vector<Step> ReadSteps(const std::string& Text);

}  // namespace lumbra::salvage
