// lumbra check: what the store's quick check of the shared objects finds. It runs whenever a store is opened that is
// not marked corrupted; this command listens to its trace and says in words what happened.
#include <cstdio>

#include "commands.h"
#include "failure.h"
#include "host/trust.h"
#include "machine.h"
#include "salvage/look.h"

namespace lumbra::tool {
namespace {

// What a line of the trace means; the first whose start or part fits. The check looks at the two newest objects.
struct Meaning {
  std::string_view Part;
  const char* pWords;
  bool bLost = false;  // something is gone for good
};
constexpr Meaning kMeanings[] = {
    {"Wrong BT size", "a tree of hashes recorded another size than its file has; the file's was taken"},
    {"Too small BT size", "a tree of hashes was too small to be one and was started anew"},
    {"BT file size unaligned", "a tree of hashes ended within a slot and was filled up"},
    {"hash not found in BT", nullptr},  // the lines about the repair as a whole say it
    {"trying to repair BT", nullptr},
    {"object hashes were added", "objects were missing from the tree of hashes and have been put back"},
    {"ValidDataCrc(objectEntry.nObjectHash", "the name of one of the newest objects is damaged"},
    {"ValidDataCrc(nObjectId + 1, dataEntries", "the data of one of the newest objects is damaged"},
    {"ValidDataCrc(nObjectId + 1, buffer", "the data of one of the newest objects is damaged"},
    {"MAKE_SHORT_OBJECT_ID(idFromBt)", "two objects claim one hash"},
    {"file signature is not valid", nullptr},
    {"left as it is: ", nullptr},            // said by the look before
    {"the store is not opened: ", nullptr},  // the command ends with that
    {"corrupted persistent index", "the index of named databases was damaged and has been replaced by an empty one",
     true},
    {"from file, ulo res = 0, bytesRead",
     "the index of named databases was cut off and has been replaced by an empty one", true},
    {"TryLoadPersistentIndexes: failed to read",
     "the index of named databases could not be read and was left as it is"},
    {"failed check", "an object, or what leads to it, is damaged or could not be written", true},
};

class Findings {
 public:
  void Note(std::string_view Line) {
    for (const Meaning& Known : kMeanings) {
      if (Line.find(Known.Part) == std::string_view::npos) continue;
      if (Known.pWords != nullptr) Print(Known.pWords, Line);
      m_bAnyLost |= Known.bLost;
      return;
    }
    Print("something else was reported", Line);
  }

  bool Any() const { return m_bAny; }
  bool AnyLost() const { return m_bAnyLost; }

 private:
  void Print(const char* pWords, std::string_view Line) {
    m_bAny = true;
    std::printf("- %s\n    (%.*s)\n", pWords, static_cast<int>(Line.size()), Line.data());
  }

  bool m_bAny = false;
  bool m_bAnyLost = false;
};

// Whether files are lost or damaged in a way that costs more once the store is opened: then it is not opened. *pbFound
// tells whether anything is.
bool IsBetterRepaired(const StoreFiles& Files, bool* pbFound) {
  salvage::Plan Found;
  const ResultCode nLooked = salvage::Look(Files.Folder().u16string(), {.bThorough = true}, &Found);
  if (Failed(nLooked)) throw Failure("look at " + Printable(TextOf(Files.Folder())), nLooked, Printable(Found.Refusal));
  for (const salvage::Step& One : Found.Steps) std::printf("- %s\n", Printable(salvage::Describe(One)).c_str());
  *pbFound = !Found.Steps.empty();
  if (!Found.Acts() && Found.Refusal.empty()) return false;
  std::printf("%s: %s.\n",
              Files.IsHeldByAnotherProcess() ? "Another process has the store, and these may be moving"
                                             : "The store was not opened. By lumbra repair --yes",
              salvage::Summary(Found).c_str());
  return true;
}

}  // namespace

int CheckStore(const CommonOptions& Common, const NoOptions& /*Options*/) {
  bool bFound = false;
  if (IsBetterRepaired(FilesOf(Common), &bFound)) return kExitIncomplete;
  Findings Found;
  Session Store(InModeOfStore(Common), Missing::Refuse, [&Found](std::string_view Line) { Found.Note(Line); });
  const StoreFiles& Files = Store.Files();
  std::printf("%s: %llu shared objects\n", Printable(TextOf(Files.Folder())).c_str(),
              static_cast<unsigned long long>(Files.SharedObjectCount()));
  if (const host::Exposure Open = host::ExposureOf(Files.Folder()); Open.nCount != 0) {
    std::printf("%llu of its files and folders can be read or changed by others than their owner, %s first\n",
                static_cast<unsigned long long>(Open.nCount), Printable(Open.First).c_str());
  }
  if (Files.IsMarkedCorrupted()) {
    std::puts("The store is marked corrupted: damaged data was met at some time. The quick check is not run on it.");
    return kExitIncomplete;
  }
  if (Store.IsCorrupted()) {
    std::puts("The quick check found damage. What is damaged is refused; the rest can be read.");
    return kExitIncomplete;
  }
  if (Found.AnyLost()) {
    std::puts("What is said above is lost. Named databases whose ids were lost get new ones when they are opened.");
    return kExitIncomplete;
  }
  if (!Files.SharedObjectsHaveCrcs()) {
    std::puts("The shared objects have no CRCs (their files were not created in check mode): nothing to check.");
    return bFound ? kExitIncomplete : kExitOk;
  }
  std::puts(Found.Any() ? "The newest objects are sound now." : "The newest objects are sound.");
  return Found.Any() || bFound ? kExitIncomplete : kExitOk;
}

}  // namespace lumbra::tool
