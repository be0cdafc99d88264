// One file of a sound store is replaced by what anybody may have written there. Whatever it holds, every operation
// answers, and what is acknowledged from then on is there after the next start.
//
// The input: which file, options, and then the file's bytes, or changes to the sound file.
#include <iterator>

#include "faults/driver.h"
#include "format/crc32.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "fuzz.h"

namespace lumbra::fuzz {
namespace {

using test::Driver;

enum Options : std::uint64_t {
  optionCheckedStore = 1,  // the sound store has every CRC
  optionCheckMode = 2,     // new files get them
  optionChanges = 4,       // the input changes the sound file
  optionSeal = 8,          // id records get CRCs that fit
  optionTrace = 16,        // every trace line is formatted
};

struct Sound {
  explicit Sound(bool bChecked) {
    Driver Work({.Folder = Folder(), .bChecked = bChecked});
    Require(Work.Open(), "a fresh store opens");
    for (int i = 0; i < 40; ++i) Work.Step();
    Work.Close();
    All = test::ReadFiles(Folder());
    Known = Work.Known();
  }
  test::Files All;
  test::Record Known;
};

// Changes are an offset (two bytes, from the end where the third says so), and bytes to write there; none cut the file
// off there.
void Change(Input* pFrom, std::string* pFile) {
  while (!pFrom->IsDone()) {
    std::size_t nAt = pFrom->Number(2) % (pFile->size() + 16);
    const std::uint64_t nKind = pFrom->Number();
    if ((nKind & 0x80) != 0) nAt = pFile->size() - std::min(pFile->size(), nAt);
    const std::string Written = pFrom->Bytes(nKind % 33);
    if (Written.empty() || nAt + Written.size() > pFile->size()) pFile->resize(nAt + Written.size());
    pFile->replace(nAt, Written.size(), Written);
  }
}

// Gives every id record the CRC that fits, so that its content is looked at.
void Seal(std::string* pFile) {
  constexpr std::size_t kSize = sizeof(tODB_ID_ENTRY);
  constexpr std::size_t kStoredSize = kSize + kCrcSize;
  for (std::size_t nAt = sizeof(tPLAINDB_HEADER); nAt + kStoredSize <= pFile->size(); nAt += kStoredSize) {
    const std::uint32_t nCrc = Crc32(0, pFile->data() + nAt, kSize);
    pFile->replace(nAt + kSize, kCrcSize, reinterpret_cast<const char*>(&nCrc), kCrcSize);
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  static const Sound Stores[] = {Sound(false), Sound(true)};
  Input From(pData, nSize);
  const std::uint64_t nFile = From.Number();
  const std::uint64_t nOptions = From.Number();
  const Sound& Store = Stores[(nOptions & optionCheckedStore) != 0];
  lumbra::test::Files All = Store.All;
  auto& [Path, Content] = *std::next(All.begin(), static_cast<std::ptrdiff_t>(nFile % All.size()));
  if ((nOptions & optionChanges) != 0) Change(&From, &Content);
  if ((nOptions & optionChanges) == 0) Content = From.Rest();
  if ((nOptions & optionSeal) != 0 && Path.ends_with("objid.dat")) Seal(&Content);
  lumbra::test::WriteFiles(Folder(), All);
  Driver::Setup With{.Folder = Folder(), .bChecked = (nOptions & optionCheckMode) != 0, .nSeed = 2};
  if ((nOptions & optionTrace) != 0)
    With.Trace = [](std::uint32_t, std::string_view) {
    };
  Driver(std::move(With), Store.Known).UseDamaged(Driver::End::Foreign);
  return 0;
}
