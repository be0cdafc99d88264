// DLLs: the metadata is a resource.
#include <algorithm>
#include <cstring>
#include <optional>

#include "host/module_image.h"

namespace lumbra::host {
namespace {

constexpr std::uint64_t kHeaderPointer = 0x3C;  // a u32: the offset of the tPE_HEADER
constexpr char kMagic[4] = {'P', 'E', 0, 0};
constexpr std::uint16_t kDll = 0x2000;
constexpr std::uint64_t kSymbolSize = 18;

struct tPE_HEADER {
  char Magic[4];                   //  0
  std::uint16_t nMachine;          //  4
  std::uint16_t nSectionCount;     //  6
  std::uint32_t nTime;             //  8
  std::uint32_t nSymbolTable;      // 12: its offset in the file, 0 without one; behind it texts, with their size first
  std::uint32_t nSymbolCount;      // 16
  std::uint16_t nOptionalSize;     // 20: bytes of the optional header, between this one and the tPE_SECTIONs
  std::uint16_t nCharacteristics;  // 22
};
static_assert(sizeof(tPE_HEADER) == 24);

struct tPE_SECTION {
  char Name[8];               //  0
  std::uint32_t nMemorySize;  //  8
  std::uint32_t nAddress;     // 12: in memory, from the start of the image
  std::uint32_t nFileSize;    // 16: 0: the file has nothing of it
  std::uint32_t nFileOffset;  // 20
  std::uint32_t Unused[4];    // 24
};
static_assert(sizeof(tPE_SECTION) == 40);

// The optional header starts with a magic that tells where in it things are.
struct OptionalHeader {
  std::uint16_t nMagic;
  std::uint16_t nPointerSize;
  std::uint16_t nDirectories;  // offset of a u32, the number of the tPE_DIRECTORYs that follow it
};
constexpr OptionalHeader kOptionalHeaders[] = {{0x10B, 4, 92}, {0x20B, 8, 108}};
constexpr std::uint32_t kResources = 2;  // which of them is that of the resources

struct tPE_DIRECTORY {
  std::uint32_t nAddress;  // 0: in memory, from the start of the image
  std::uint32_t nSize;     // 4
};

// Resources stand in folders of types, with folders of ids, with folders of languages. Offsets count from the first.
struct tRESOURCE_FOLDER {
  std::uint32_t Unused[3];       //  0
  std::uint16_t nNamedCount;     // 12: entries with a name for an id, which come first
  std::uint16_t nNumberedCount;  // 14
};
static_assert(sizeof(tRESOURCE_FOLDER) == 16);

struct tRESOURCE_ENTRY {
  std::uint32_t nId;      // 0: with kFlag the offset of a name
  std::uint32_t nOffset;  // 4: with kFlag of a folder, otherwise of a tRESOURCE_DATA

  static constexpr std::uint32_t kFlag = 0x80000000;
};
static_assert(sizeof(tRESOURCE_ENTRY) == 8);

struct tRESOURCE_DATA {
  std::uint32_t nAddress;   //  0: in memory, from the start of the image
  std::uint32_t nSize;      //  4
  std::uint32_t Unused[2];  //  8
};
static_assert(sizeof(tRESOURCE_DATA) == 16);

using Sections = std::vector<tPE_SECTION>;

// Whether the file has the sections' bytes, and the symbols that a linker may leave behind them.
bool IsWhole(FileBytes* pFile, const tPE_HEADER& Header, const Sections& All) {
  for (const tPE_SECTION& Section : All) {
    if (Section.nFileSize != 0 && !pFile->Has(Section.nFileOffset, Section.nFileSize)) return false;
  }
  if (Header.nSymbolTable == 0) return true;
  const std::uint64_t nTexts = Header.nSymbolTable + Header.nSymbolCount * kSymbolSize;
  std::uint32_t nTextsSize = 0;
  return pFile->Read(nTexts, &nTextsSize) && pFile->Has(nTexts, nTextsSize);
}

// Where the file has what comes to stand at an address; nothing when it is not all in one section.
std::optional<FilePlace> PlaceOf(const Sections& All, std::uint32_t nAddress, std::uint32_t nSize) {
  for (const tPE_SECTION& Section : All) {
    const std::uint64_t nWithin = std::uint64_t{nAddress} - Section.nAddress;  // in front of it: a huge one
    const std::uint32_t nHeld =
        Section.nMemorySize == 0 ? Section.nFileSize : std::min(Section.nFileSize, Section.nMemorySize);
    if (nWithin < nHeld && nSize <= nHeld - nWithin) {
      return FilePlace{Section.nFileOffset + nWithin, nSize};
    }
  }
  return {};
}

// The offset that a folder has under an id, without one under the first; nothing when there is none.
std::optional<std::uint32_t> Find(FileBytes* pFile, std::uint64_t nFolder, std::optional<std::uint32_t> Id) {
  tRESOURCE_FOLDER Folder;
  std::vector<tRESOURCE_ENTRY> Entries;
  if (!pFile->Read(nFolder, &Folder)) return {};
  if (!pFile->ReadTable(nFolder + sizeof(Folder), Folder.nNamedCount + std::size_t{Folder.nNumberedCount}, &Entries))
    return {};
  for (const tRESOURCE_ENTRY& Entry : Entries) {
    if (!Id || Entry.nId == *Id) return Entry.nOffset;
  }
  return {};
}

// Three folders deep, whatever the file says: folders that lead in a circle lead nowhere.
std::optional<tRESOURCE_DATA> FindMetadata(FileBytes* pFile, std::uint64_t nFolders) {
  std::uint32_t nOffset = tRESOURCE_ENTRY::kFlag;
  for (const std::optional<std::uint32_t> Id :
       {std::optional(kMetadataResourceType), std::optional(kMetadataResourceId), std::optional<std::uint32_t>()}) {
    if ((nOffset & tRESOURCE_ENTRY::kFlag) == 0) return {};
    const auto Next = Find(pFile, nFolders + (nOffset & ~tRESOURCE_ENTRY::kFlag), Id);
    if (!Next) return {};
    nOffset = *Next;
  }
  tRESOURCE_DATA Data;
  if ((nOffset & tRESOURCE_ENTRY::kFlag) != 0 || !pFile->Read(nFolders + nOffset, &Data)) return {};
  return Data;
}

const OptionalHeader* FormOf(FileBytes* pFile, std::uint64_t nOptional) {
  std::uint16_t nMagic = 0;
  pFile->Read(nOptional, &nMagic);  // where there is nothing the form is unknown
  for (const OptionalHeader& Known : kOptionalHeaders) {
    if (Known.nMagic == nMagic) return &Known;
  }
  return nullptr;
}

}  // namespace

ModuleProblem ReadPeImage(FileBytes* pFile, ModuleImage* pImage) {
  std::uint32_t nHeader = 0;
  tPE_HEADER Header;
  if (!pFile->Read(kHeaderPointer, &nHeader) || !pFile->Read(nHeader, &Header)) return CutShort();
  if (std::memcmp(Header.Magic, kMagic, sizeof(kMagic)) != 0) return NoModule("neither ELF nor PE");
  if ((Header.nCharacteristics & kDll) == 0) return NoModule("no DLL");

  const std::uint64_t nOptional = std::uint64_t{nHeader} + sizeof(Header);
  Sections All;
  if (!pFile->ReadTable(nOptional + Header.nOptionalSize, Header.nSectionCount, &All)) return CutShort();
  if (!IsWhole(pFile, Header, All)) return CutShort();
  const OptionalHeader* const pForm = FormOf(pFile, nOptional);
  if (pForm == nullptr) return Damaged("its header is damaged");
  pImage->nMachine = Header.nMachine;
  pImage->nPointerSize = pForm->nPointerSize;

  std::uint32_t nDirectories = 0;
  std::vector<tPE_DIRECTORY> Directories;
  if (pForm->nDirectories + sizeof(nDirectories) + (kResources + 1) * sizeof(tPE_DIRECTORY) > Header.nOptionalSize) {
    return NoMetadata();
  }
  if (!pFile->Read(nOptional + pForm->nDirectories, &nDirectories)) return CutShort();
  if (nDirectories <= kResources) return NoMetadata();
  if (!pFile->ReadTable(nOptional + pForm->nDirectories + sizeof(nDirectories), kResources + 1, &Directories)) {
    return CutShort();
  }
  const tPE_DIRECTORY& Directory = Directories[kResources];
  const auto Folders = PlaceOf(All, Directory.nAddress, Directory.nSize);
  const auto Data = Folders ? FindMetadata(pFile, Folders->nOffset) : std::nullopt;
  if (!Data) return NoMetadata();
  const auto Bytes = PlaceOf(All, Data->nAddress, Data->nSize);
  if (!Bytes) return Damaged("its resources are damaged");
  pImage->Metadata = *Bytes;
  return {};
}

}  // namespace lumbra::host
