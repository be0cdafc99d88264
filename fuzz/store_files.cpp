// One file of a sound store is replaced by what anybody may have written there. Whatever it holds, every operation
// answers, and what is acknowledged from then on is there after the next start.
//
// The input: which file, options, and then the file's bytes, or changes to the sound file.
#include <iterator>
#include <map>

#include "fuzz.h"
#include "objects/crc32.h"

namespace lumbra::fuzz {
namespace {

constexpr const char* kFiles[] = {"g_objbt.dat",
                                  "g_objid.dat",
                                  "g_objdt.dat",
                                  "g_db_id.dat",
                                  "01/segments.dat",
                                  "01/00000001_events.dat",
                                  "01/00000002_events.dat",
                                  "01/00000002_objbt.dat",
                                  "01/00000002_objid.dat",
                                  "01/00000002_objdt.dat",
                                  "named/segments.dat",
                                  "named/00000001_objid.dat",
                                  "named/g_db_id_val.log",
                                  "00/segments.dat"};
constexpr std::uint32_t kEventSize = 16;
constexpr std::uint64_t kFromEnd = 0xFFFFFFFF'00000000u;

enum Options : std::uint8_t {
  optionCheckedStore = 1,  // the sound store has every CRC
  optionCheckMode = 2,     // new files get them
  optionChanges = 4,       // the input changes the sound file
  optionSeal = 8,          // id records get CRCs that fit
  optionTrace = 16,        // every trace line is formatted
  optionItsSize = 32,      // database 1 is opened with the event size that it claims to have
};

struct Databases {
  std::uint32_t Ids[3];
};

ResultCode Find(const FuzzStore& Store, std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                std::uint32_t nCreate, std::uint64_t* pnId) {
  return Store.Call(&Ops::FindObjectSimple, nDatabase, nType, pName, kZeroTerminated, nCreate, 0, pnId);
}

// False where the store, or a database of it, cannot be opened.
bool OpenAll(FuzzStore* pStore, bool bCheckMode, std::uint32_t nEventSize, Databases* pOpened) {
  if (Failed(pStore->Open(bCheckMode))) return false;
  *pOpened = {{kSystemDatabase, 1, 0}};
  return Succeeded(pStore->Call(&Ops::InitDB, 1, nEventSize)) &&
         Succeeded(pStore->Call(&Ops::InitDBByName, u"named", kEventSize, &pOpened->Ids[2]));
}

void Fill(const FuzzStore& Store, std::uint32_t nDatabase) {
  std::uint64_t Event[2] = {};
  for (const char16_t* const pName : {u"C:\\Dir\\file.txt", u"D:/Dir/other.txt", u"\\\\server\\share\\third"}) {
    (void)Find(Store, nDatabase, typeFile, pName, 1, &Event[1]);
    Store.Try(&Ops::SetObjectData, Event[1], "some bytes", 10, 1);
    Store.Try(&Ops::SetObjectData, Event[1], pName, 6, 2);
    Store.Try(&Ops::AddEvent, nDatabase, Event, kEventSize, nullptr);
  }
  std::uint64_t nKey = 0;
  (void)Find(Store, nDatabase, typeRegistryKey, u"HKLM\\Software", 1, &nKey);
  const std::uint64_t nLink = WithoutDatabase(nKey) - 1;
  Store.Try(&Ops::SetObjectData, nKey, &nLink, sizeof(nLink), kObjectLinkTag);
}

std::map<std::string, Bytes> MakeSoundStore(bool bCheckMode) {
  EmptyFolder();
  FuzzStore Store;
  Databases Opened;
  Require(OpenAll(&Store, bCheckMode, kEventSize, &Opened), "a fresh store opens");
  Store.Try(&Ops::SetDBParams, 1, limitSegmentEvents, 2);
  for (const std::uint32_t nDatabase : Opened.Ids) Fill(Store, nDatabase);
  Store.Close();
  std::map<std::string, Bytes> Files;
  for (const auto& Entry : fs::recursive_directory_iterator(Folder())) {
    if (!Entry.is_regular_file()) continue;
    std::ifstream Stream(Entry.path(), std::ios::binary);
    Files[fs::relative(Entry.path(), Folder()).string()] = Bytes(std::istreambuf_iterator<char>(Stream), {});
  }
  return Files;
}

// ---- The damage -------------------------------------------------------------------------------------------

// Changes are an offset (two bytes, from the end where the third says so), and bytes to write there; none cut the file
// off there.
void Change(Input* pFrom, Bytes* pFile) {
  while (!pFrom->IsDone()) {
    std::size_t nAt = pFrom->Take<std::uint16_t>() % (pFile->size() + 16);
    const std::uint8_t nKind = pFrom->Byte();
    if ((nKind & 0x80) != 0) nAt = pFile->size() - std::min(pFile->size(), nAt);
    const auto Written = pFrom->TakeBytes(nKind % 33);
    if (Written.empty() || nAt + Written.size() > pFile->size()) pFile->resize(nAt + Written.size());
    std::copy(Written.begin(), Written.end(), pFile->begin() + static_cast<std::ptrdiff_t>(nAt));
  }
}

// Gives every record of 29 bytes the CRC that fits, so that its content is looked at.
void Seal(Bytes* pFile) {
  for (std::size_t nAt = 12; nAt + 33 <= pFile->size(); nAt += 33) {
    const std::uint32_t nCrc = Crc32(0, pFile->data() + nAt, 29);
    std::memcpy(pFile->data() + nAt + 29, &nCrc, sizeof(nCrc));
  }
}

void PutFiles(Input From, const char* pDamaged, std::uint8_t nOptions) {
  static const std::map<std::string, Bytes> Sound[] = {MakeSoundStore(false), MakeSoundStore(true)};
  EmptyFolder();
  for (const auto& [Name, Content] : Sound[nOptions & optionCheckedStore]) {
    fs::create_directories((Folder() / Name).parent_path());
    Bytes File = Content;
    if (Name == pDamaged) {
      if ((nOptions & optionChanges) != 0) {
        Change(&From, &File);
      } else {
        const auto All = From.TakeAll();
        File.assign(All.begin(), All.end());
      }
      if ((nOptions & optionSeal) != 0 && Name.ends_with("objid.dat")) Seal(&File);
    }
    WriteFile(Folder() / Name, File);
  }
}

// ---- The use ----------------------------------------------------------------------------------------------

void ReadObject(const FuzzStore& Store, std::uint64_t nId) {
  char16_t Name[200];
  std::uint32_t nSize = 0;
  std::uint32_t nType = 0;
  for (const std::uint32_t nRoom : {0u, 7u, std::uint32_t{sizeof(Name)}}) {
    Store.Try(&Ops::GetObjectName, nId, nRoom == 0 ? nullptr : Name, nRoom, &nSize, 0, &nType);
  }
  std::uint8_t Data[40];
  Store.Try(&Ops::GetObjectData, nId, Data, sizeof(Data), &nSize, 1);
  host::ByteBlob Blob;
  Store.Try(&Ops::GetObjectDataInto, nId, Blob.Handle(), 2);
  host::IdContainer Ancestors;
  Store.Try(&Ops::GetObjectDataInto, nId, Ancestors.Handle(), 0);
}

void ReadAll(const FuzzStore& Store, const Databases& Opened) {
  for (const std::uint32_t nDatabase : Opened.Ids) {
    for (const std::uint64_t nStart : {std::uint64_t{0}, kFromEnd | 0xFFFFFFFE, WithDatabase(2ull << 32, nDatabase)}) {
      std::uint8_t Events[8 * kEventSize];
      std::uint32_t nRead = 0;
      host::IdContainer Parents;
      Store.Try(&Ops::GetEvents, nDatabase, nStart, Events, sizeof(Events), 8, &nRead, Parents.Handle());
    }
    for (std::uint64_t nShortId = 0; nShortId <= 10; ++nShortId) {
      ReadObject(Store, WithDatabase(nShortId, nDatabase));
      if (nDatabase != kSystemDatabase) ReadObject(Store, WithDatabase(1ull << 32 | nShortId, nDatabase));
      if (nDatabase == 1) ReadObject(Store, WithDatabase(2ull << 32 | nShortId, nDatabase));
    }
  }
}

void WriteAll(const FuzzStore& Store, const Databases& Opened) {
  for (const std::uint32_t nDatabase : Opened.Ids) {
    for (std::uint32_t nCreate = 0; nCreate <= 2; ++nCreate) {
      for (const char16_t* const pName : {u"C:\\Dir\\file.txt", u"D:/Dir/new.txt", u"E:\\x"}) {
        std::uint64_t nId = 0;
        if (Failed(Find(Store, nDatabase, typeFile, pName, nCreate, &nId))) continue;
        Store.Try(&Ops::SetObjectData, nId, "more bytes than before", 6 + nCreate * 6, 1 + nCreate);
        host::ByteBlob Blob(Bytes(600, 'b'));
        Store.Try(&Ops::SetObjectDataFrom, nId, Blob.Handle(), 2);
      }
    }
    const std::uint64_t nSecond = WithDatabase(nDatabase == 0 ? 4 : (2ull << 32) + 2, nDatabase);
    Store.Try(&Ops::RemoveAllObjectData, nSecond);
    Store.Try(&Ops::UpdateEvent, nSecond - 1, "updated to this", kEventSize);
  }
  Store.Try(&Ops::Compact, kSystemDatabase);
}

// What the header of database 1 claims; as much as there is of it.
std::uint32_t ClaimedEventSize() {
  std::uint32_t nSize = 0;
  std::ifstream Header(Folder() / "01/segments.dat", std::ios::binary);
  Header.seekg(8).read(reinterpret_cast<char*>(&nSize), sizeof(nSize));
  return nSize;
}

// What the store acknowledges after the damage: an event, and an object, of every database.
struct Promise {
  std::uint64_t nEvent = 0;
  std::uint64_t nObject = 0;
};

Promise MakePromise(const FuzzStore& Store, std::uint32_t nDatabase) {
  Promise Made;
  if (Failed(Find(Store, nDatabase, typeName, u"promised", 2, &Made.nObject))) Made.nObject = 0;
  if (Failed(Store.Call(&Ops::AddEvent, nDatabase, "promised event ", kEventSize, &Made.nEvent))) Made.nEvent = 0;
  return Made;
}

void RequireKept(const FuzzStore& Store, const Promise& Made) {
  char16_t Name[20] = {};
  char Event[kEventSize] = {};
  if (Made.nObject != 0) {
    RequireCode(errOK, Store.Call(&Ops::GetObjectName, Made.nObject, Name, sizeof(Name), nullptr, 0, nullptr), "name");
    Require(std::u16string_view(Name) == u"promised", "an object keeps its name");
  }
  if (Made.nEvent != 0) {
    RequireCode(errOK, Store.Call(&Ops::GetEvents, 0, Made.nEvent, Event, kEventSize, 1, nullptr, nullptr), "event");
    Require(std::string_view(Event) == "promised event ", "an event stays as it is");
  }
}

void Use(FuzzStore* pStore, bool bCheckMode, std::uint32_t nEventSize) {
  Databases Opened;
  if (!OpenAll(pStore, bCheckMode, nEventSize, &Opened)) return;
  ReadAll(*pStore, Opened);
  WriteAll(*pStore, Opened);
  Promise Made[std::size(Opened.Ids)];
  for (std::size_t i = 0; i < std::size(Made); ++i) Made[i] = MakePromise(*pStore, Opened.Ids[i]);
  pStore->Flush();
  Require(OpenAll(pStore, !bCheckMode, nEventSize, &Opened), "what was opened once opens again");
  for (const Promise& One : Made) RequireKept(*pStore, One);
  ReadAll(*pStore, Opened);
  for (const std::uint32_t nDatabase : {Opened.Ids[1], Opened.Ids[2]}) {
    const ResultCode nCleared = pStore->Call(&Ops::ClearDB, nDatabase);
    if (nEventSize == kEventSize) RequireCode(errOK, nCleared, "clearing");
    RequireKept(*pStore, MakePromise(*pStore, nDatabase));
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  Input From(pData, nSize);
  const char* const pDamaged = kFiles[From.Byte() % std::size(kFiles)];
  const std::uint8_t nOptions = From.Byte();
  PutFiles(From, pDamaged, nOptions);
  FuzzStore Store((nOptions & optionTrace) != 0 ? 600 : 400);
  Use(&Store, (nOptions & optionCheckMode) != 0, (nOptions & optionItsSize) != 0 ? ClaimedEventSize() : kEventSize);
  return 0;
}
