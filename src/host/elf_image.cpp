// Shared objects: the metadata is a section with a name of its own.
#include <cstring>

#include "host/module_image.h"

namespace lumbra::host {
namespace {

constexpr std::uint8_t k32Bit = 1;
constexpr std::uint8_t k64Bit = 2;
constexpr std::uint8_t kLittleEndian = 1;
constexpr std::uint16_t kSharedObject = 3;
constexpr std::uint32_t kWithoutBytes = 8;

struct tELF_IDENT {
  char Magic[4];            // 0
  std::uint8_t nClass;      // 4: k32Bit or k64Bit
  std::uint8_t nByteOrder;  // 5
  std::uint8_t Unused[10];  // 6
};
static_assert(sizeof(tELF_IDENT) == 16);

// The fields are the same for both classes, whose words differ.
template <class Word>
struct tELF_HEADER {
  tELF_IDENT Ident;             //  0  0 (with words of 32 and of 64 bits)
  std::uint16_t nType;          // 16 16
  std::uint16_t nMachine;       // 18 18
  std::uint32_t nVersion;       // 20 20
  Word nEntry;                  // 24 24
  Word nSegmentTable;           // 28 32
  Word nSectionTable;           // 32 40: its offset in the file
  std::uint32_t nFlags;         // 36 48
  std::uint16_t nHeaderSize;    // 40 52
  std::uint16_t nSegmentSize;   // 42 54
  std::uint16_t nSegmentCount;  // 44 56
  std::uint16_t nSectionSize;   // 46 58: bytes of a tELF_SECTION
  std::uint16_t nSectionCount;  // 48 60
  std::uint16_t nNamesSection;  // 50 62: the index of the section that holds the names of all
};
static_assert(sizeof(tELF_HEADER<std::uint32_t>) == 52 && sizeof(tELF_HEADER<std::uint64_t>) == 64);

template <class Word>
struct tELF_SECTION {
  std::uint32_t nName;  //  0  0: where among the names its own one starts
  std::uint32_t nType;  //  4  4: kWithoutBytes: the file has nothing of it
  Word nFlags;          //  8  8
  Word nAddress;        // 12 16
  Word nOffset;         // 16 24: in the file
  Word nSize;           // 20 32
  std::uint32_t nLink;  // 24 40
  std::uint32_t nInfo;  // 28 44
  Word nAlignment;      // 32 48
  Word nEntrySize;      // 36 56
};
static_assert(sizeof(tELF_SECTION<std::uint32_t>) == 40 && sizeof(tELF_SECTION<std::uint64_t>) == 64);

template <class Word>
bool LiesInFile(const FileBytes& File, const tELF_SECTION<Word>& Section) {
  return Section.nType == kWithoutBytes || File.Has(Section.nOffset, Section.nSize);
}

template <class Word>
bool IsMetadata(FileBytes* pFile, const tELF_SECTION<Word>& Names, const tELF_SECTION<Word>& Section) {
  char Name[sizeof(kMetadataSection)];
  return Section.nType != kWithoutBytes && Section.nName <= Names.nSize &&
         sizeof(Name) <= Names.nSize - Section.nName && pFile->Read(Names.nOffset + Section.nName, &Name) &&
         std::memcmp(Name, kMetadataSection, sizeof(Name)) == 0;
}

template <class Word>
ModuleProblem Read(FileBytes* pFile, ModuleImage* pImage) {
  tELF_HEADER<Word> Header;
  if (!pFile->Read(0, &Header)) return CutShort();
  if (Header.nType != kSharedObject) return NoModule("no shared object");
  pImage->nMachine = Header.nMachine;
  pImage->nPointerSize = sizeof(Word);

  if (Header.nSectionCount == 0) return NoMetadata();
  if (Header.nSectionSize != sizeof(tELF_SECTION<Word>)) return Damaged("its table of sections is damaged");
  std::vector<tELF_SECTION<Word>> Sections;
  if (!pFile->ReadTable(Header.nSectionTable, Header.nSectionCount, &Sections)) return CutShort();
  for (const tELF_SECTION<Word>& Section : Sections) {
    if (!LiesInFile(*pFile, Section)) return CutShort();
  }
  if (Header.nNamesSection >= Sections.size()) return Damaged("its table of sections is damaged");
  for (const tELF_SECTION<Word>& Section : Sections) {
    if (!IsMetadata(pFile, Sections[Header.nNamesSection], Section)) continue;
    pImage->Metadata = {Section.nOffset, Section.nSize};
    return {};
  }
  return NoMetadata();
}

}  // namespace

ModuleProblem ReadElfImage(FileBytes* pFile, ModuleImage* pImage) {
  tELF_IDENT Ident;
  if (!pFile->Read(0, &Ident)) return CutShort();
  if (Ident.nByteOrder != kLittleEndian) return NoModule("its numbers are not little-endian");
  if (Ident.nClass == k32Bit) return Read<std::uint32_t>(pFile, pImage);
  if (Ident.nClass == k64Bit) return Read<std::uint64_t>(pFile, pImage);
  return NoModule("neither for 32 nor for 64 bits");
}

}  // namespace lumbra::host
