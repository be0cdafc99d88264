// One file of a sound store is replaced by what anybody may have written there. Whatever it holds, all that reads a
// store without its component ends: verification, dumps, events forwards, backwards and from a cursor on, names, data.
//
// The input: which file, options, and then the file's bytes, or changes to the sound file.
#include <iterator>

#include "faults/driver.h"
#include "fuzz.h"
#include "inspect/cursor.h"
#include "inspect/dump.h"
#include "inspect/event_reader.h"
#include "inspect/horizon.h"
#include "inspect/objects.h"
#include "inspect/paths.h"
#include "inspect/verify.h"

namespace lumbra::fuzz {
namespace {

using test::Driver;

enum Options : std::uint64_t {
  optionChecked = 1,  // the sound store has every CRC
  optionChanges = 2,  // the input changes the sound file
};

test::Files MakeSound(bool bChecked) {
  Driver Work({.Folder = Folder(), .bChecked = bChecked});
  Require(Work.Open(), "a fresh store opens");
  for (int i = 0; i < 40; ++i) Work.Step();
  Work.Close();
  return test::ReadFiles(Folder());
}

// An offset, and bytes to write there; none cut the file off there.
void Change(Input* pFrom, std::string* pFile) {
  while (!pFrom->IsDone()) {
    const std::size_t nAt = pFrom->Number(2) % (pFile->size() + 16);
    const std::string Written = pFrom->Bytes(pFrom->Number() % 33);
    if (Written.empty() || nAt + Written.size() > pFile->size()) pFile->resize(nAt + Written.size());
    pFile->replace(nAt, Written.size(), Written);
  }
}

const inspect::Report kIgnore = [](const inspect::Finding&) {
};

void VerifyAll(const inspect::Store& Store) {
  inspect::Verified Totals;
  const auto IdFields = [](const inspect::Database&, std::uint32_t) {
    return std::vector<std::uint32_t>{0, 8};
  };
  (void)inspect::Verify(Store, {{}, IdFields}, kIgnore, nullptr, &Totals);  // what it says is not compared
  Require(Totals.bWhole, "a verification ends with the store");
}

void DumpFile(const std::filesystem::path& File) {
  os::FolderHandle pFolder;
  if (os::OpenFolder(File.parent_path().u16string(), {}, &pFolder) != os::kSuccess) return;
  const inspect::DumpRequest What{[](const std::string&) { return true; }, nullptr};
  bool bSound = true;
  (void)inspect::Dump(pFolder, File.filename().u16string(), What, &bSound);
}

// Everything is delivered or counted, and no more than the files have room for.
void ReadEvents(const inspect::Store& Store, const inspect::Database& Of, std::uint64_t nBytes) {
  inspect::EventReader Reader(Store, Of, kIgnore);
  if (Failed(Reader.Refresh())) return;
  inspect::Batch Read;
  inspect::Cursor Last{};
  std::uint64_t nEvents = 0;
  Reader.MoveToOldest();
  while (Reader.Next(7, &Read)) {
    if (Read.Lost) continue;
    nEvents += Read.nCount;
    Last = Reader.CursorBehind(Read, Read.nCount / 2);
    Require(nEvents <= nBytes, "there are not more events than bytes");
  }
  std::uint64_t nBack = 0;
  inspect::EventReader Backwards(Store, Of, kIgnore);
  if (Failed(Backwards.Refresh())) return;
  while (Backwards.Previous(7, &Read)) nBack += Read.Lost ? 0 : Read.nCount;
  Require(nBack == nEvents, "as many events are read backwards");
  const std::optional<inspect::Cursor> Kept = inspect::ParseCursor(inspect::FormatCursor(Last));
  Require(Kept == Last, "a cursor is read as it was written");
  inspect::EventReader Again(Store, Of, kIgnore);
  if (Failed(Again.Refresh())) return;
  (void)Again.Resume(*Kept);
  while (Again.Next(1000, &Read)) {
  }
}

void ReadObjects(const inspect::Store& Store, std::uint64_t nDatabase, const os::FolderHandle& pFolder,
                 std::uint32_t nSegment, inspect::Paths* pPaths, std::uint64_t nBytes) {
  inspect::BlockCache Cache(1 << 16);
  inspect::Objects All(Store, pFolder, nSegment == 0 ? inspect::SharedObjectFiles() : inspect::ObjectFilesOf(nSegment),
                       &Cache);
  std::vector<std::uint64_t> Ids;
  for (std::uint32_t i = 1; i <= All.Count(); ++i) {
    std::vector<inspect::DataBlock> Blocks;
    if (All.ListData(i, &Blocks) == inspect::Answer::Read) {
      for (const inspect::DataBlock& One : Blocks) {
        std::vector<std::uint8_t> Bytes;
        if (All.ReadData(i, One.nKey, &Bytes) == inspect::Answer::Read)
          Require(Bytes.size() <= nBytes, "a block is not longer than all files");
      }
    }
    Ids.push_back(nDatabase << 56 | MakeObjectId(nSegment, i));
  }
  Require(pPaths->Resolve(Ids).size() == Ids.size(), "each id is answered");
}

void ReadAll(std::uint64_t nBytes) {
  std::unique_ptr<inspect::Store> pStore;
  Require(inspect::Store::Open(Folder().u16string(), &pStore) == os::kSuccess, "the folder opens");
  VerifyAll(*pStore);
  inspect::Paths Names(*pStore, 1 << 16);
  ReadObjects(*pStore, 0, pStore->Folder(), 0, &Names, nBytes);
  for (const inspect::Database& One : pStore->Databases()) {
    ReadEvents(*pStore, One, nBytes);
    os::FolderHandle pFolder;
    inspect::Horizon Seen;
    if (pStore->OpenFolder(One, &pFolder) != os::kSuccess) continue;
    if (Failed(inspect::TakeHorizon(*pStore, One, kIgnore, &Seen))) continue;
    for (const inspect::SegmentExtent& Segment : Seen.Segments)
      ReadObjects(*pStore, One.Id.value_or(0), pFolder, Segment.nNumber, &Names, nBytes);
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  static const lumbra::test::Files Stores[] = {MakeSound(false), MakeSound(true)};
  Input From(pData, nSize);
  const std::uint64_t nFile = From.Number();
  const std::uint64_t nOptions = From.Number();
  lumbra::test::Files All = Stores[(nOptions & optionChecked) != 0];
  auto& [Path, Content] = *std::next(All.begin(), static_cast<std::ptrdiff_t>(nFile % All.size()));
  if ((nOptions & optionChanges) != 0) Change(&From, &Content);
  if ((nOptions & optionChanges) == 0) Content = From.Rest();
  lumbra::test::WriteFiles(Folder(), All);
  std::uint64_t nBytes = 0;
  for (const auto& One : All) nBytes += One.second.size();
  ReadAll(nBytes);
  DumpFile(Folder() / Path);
  return 0;
}
