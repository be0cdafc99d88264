// Modules as files: what is read of them, and what is refused.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>

#include "events/md5.h"
#include "host/module_file.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

// The metadata as a host expects it, with the digest that md5sum gives for what stands before.
const Bytes kMetadata = FromHex(
    "5a656c6d617200 6d6574616461746100"                              // the signature
    "14000000 01000000 00000000 00000000 8ebf0000 f4ffffff"          // the module
    "24000000 02000000 8ebf0000 00000000 01000000 4f000000"          // the interface
    "00000000 00000000 8cbf0000 f4ffffff"                            //
    "8200a021 04000000 01000000 83009020 09000000 224c756d62726122"  // its constant and its comment
    "00 59648ed64ec20fef4cc565fc8dcee677");

void Put(Bytes* pTarget, std::size_t nOffset, std::uint64_t nValue, std::size_t nSize) {
  if (pTarget->size() < nOffset + nSize) pTarget->resize(nOffset + nSize);
  std::memcpy(pTarget->data() + nOffset, &nValue, nSize);
}

void Put(Bytes* pTarget, std::size_t nOffset, const Bytes& Content) {
  if (pTarget->size() < nOffset + Content.size()) pTarget->resize(nOffset + Content.size());
  std::copy(Content.begin(), Content.end(), pTarget->begin() + static_cast<std::ptrdiff_t>(nOffset));
}

// The metadata with a byte changed, and a digest that fits.
Bytes Signed(std::size_t nOffset, std::uint8_t nValue) {
  Bytes Changed = kMetadata;
  Changed[nOffset] = nValue;
  Md5 Digest;
  Digest.Update(Changed.data(), 109);
  const auto Computed = Digest.Digest();
  Put(&Changed, 109, {Computed.begin(), Computed.end()});
  return Changed;
}

// A shared object of nothing but metadata: header, metadata, names of sections, table of sections.
Bytes MakeElf(std::size_t nWord, std::uint16_t nMachine) {
  const std::size_t nHeader = nWord == 4 ? 52 : 64;
  const std::size_t nSection = nWord == 4 ? 40 : 64;
  Bytes File = FromHex("7f454c46");
  File.push_back(nWord == 4 ? 1 : 2);
  Put(&File, 5, 1, 1);
  Put(&File, 16, 3, 2);
  Put(&File, 18, nMachine, 2);
  Put(&File, 24 + 2 * nWord, 250, nWord);
  Put(&File, nHeader - 6, nSection, 2);
  Put(&File, nHeader - 4, 3, 2);  // with the empty one
  Put(&File, nHeader - 2, 2, 2);
  Put(&File, 100, kMetadata);
  const char Names[] = "\0.lumbra.metadata";
  Put(&File, 230, Bytes(Names, Names + sizeof(Names)));
  Put(&File, 250 + 3 * nSection - 1, 0, 1);
  const auto PutSection = [&](std::size_t nIndex, std::uint32_t nName, std::uint64_t nOffset, std::uint64_t nSize) {
    const std::size_t nAt = 250 + nIndex * nSection;
    Put(&File, nAt, nName, 4);
    Put(&File, nAt + 4, 1, 4);
    Put(&File, nAt + 8 + 2 * nWord, nOffset, nWord);
    Put(&File, nAt + 8 + 3 * nWord, nSize, nWord);
  };
  PutSection(1, 1, 100, 125);
  PutSection(2, 0, 230, sizeof(Names));
  return File;
}

// A DLL of nothing but resources: a DOS header, the headers, and one section at 0x200, 0x1000 in memory, with folders
// of types, of ids, of languages, and the metadata.
Bytes MakePe(std::size_t nWord, std::uint16_t nMachine) {
  const std::size_t nOptional = nWord == 4 ? 96 + 128 : 112 + 128;
  Bytes File = {'M', 'Z'};
  Put(&File, 0x3C, 0x40, 4);
  Put(&File, 0x40, 0x4550, 4);
  Put(&File, 0x44, nMachine, 2);
  Put(&File, 0x46, 1, 2);
  Put(&File, 0x54, nOptional, 2);
  Put(&File, 0x56, 0x2000, 2);
  Put(&File, 0x58, nWord == 4 ? 0x10B : 0x20B, 2);
  Put(&File, 0x58 + nOptional - 132, 16, 4);  // directories; the third is that of the resources
  Put(&File, 0x58 + nOptional - 112, 0x1000, 4);
  Put(&File, 0x58 + nOptional - 108, 0x100, 4);
  Put(&File, 0x58 + nOptional + 12, 0x1000, 4);
  Put(&File, 0x58 + nOptional + 16, 0x100, 4);
  Put(&File, 0x58 + nOptional + 20, 0x200, 4);
  Put(&File, 0x20C, 0x00020000, 4);  // types: another one, and RCDATA
  Put(&File, 0x210, FromHex("03000000 20000080 0A000000 20000080"));
  Put(&File, 0x22C, 0x00010000, 4);  // ids
  Put(&File, 0x230, FromHex("01000000 38000080"));
  Put(&File, 0x244, 0x00010000, 4);  // languages
  Put(&File, 0x248, FromHex("07040000 50000000"));
  Put(&File, 0x250, FromHex("60100000 7D000000"));
  Put(&File, 0x260, kMetadata);
  Put(&File, 0x2FF, 0, 1);
  return File;
}

class ModuleFileTest : public World {
 protected:
  // What reading a file of these bytes comes to: the code and the reason, or the format and the machine.
  std::string Read(const Bytes& Content) {
    WriteFile("module", Content);
    return ReadAt(Folder() / "module");
  }
  static std::string ReadAt(const fs::path& Path) {
    host::ModuleFile File;
    const host::ModuleProblem Problem = host::ReadModuleFile(Path, &File);
    if (Problem) return Name(Problem.nCode) + ' ' + Problem.Text;
    Bytes Found(sizeof(File.Metadata));
    std::memcpy(Found.data(), &File.Metadata, sizeof(File.Metadata));
    EXPECT_EQ(ToHex(kMetadata), ToHex(Found));
    return File.Format + ' ' + File.Machine;
  }
  // The same with a number changed.
  std::string ReadWith(Bytes Content, std::size_t nOffset, std::uint64_t nValue, std::size_t nSize) {
    Put(&Content, nOffset, nValue, nSize);
    return Read(Content);
  }
};

const std::string kCutShort = Name(errDATA_CORRUPTED) + " is cut short";
const std::string kDamagedTable = Name(errDATA_CORRUPTED) + " its table of sections is damaged";
const std::string kNoMetadata = Name(errMETA_INFORMATION_NOT_FOUND) + " has no Lumbra metadata";
const std::string kNoModule = Name(errIMAGE_BAD_SIGNATURE) + " is no module: ";

TEST_F(ModuleFileTest, ReadsBothFormatsOfEveryMachine) {
  EXPECT_EQ("ELF x86", Read(MakeElf(4, 3)));
  EXPECT_EQ("ELF x86-64", Read(MakeElf(8, 62)));
  EXPECT_EQ("ELF ARM", Read(MakeElf(4, 40)));
  EXPECT_EQ("ELF 0x3E", Read(MakeElf(4, 62)));
  EXPECT_EQ("PE x86", Read(MakePe(4, 0x14C)));
  EXPECT_EQ("PE x86-64", Read(MakePe(8, 0x8664)));
  EXPECT_EQ("PE ARM64", Read(MakePe(8, 0xAA64)));
  EXPECT_EQ("PE 0x1234", Read(MakePe(8, 0x1234)));
  host::ModuleFile File;
  ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
  EXPECT_EQ("", host::WhyForeign(File).Text);
  EXPECT_THAT(ReadAt(LUMBRA_MODULE), ::testing::AnyOf("ELF " + File.Machine, "PE " + File.Machine));
}

TEST_F(ModuleFileTest, RefusesWhatIsNoModule) {
  EXPECT_EQ(Name(errFILE_NOT_FOUND) + " does not exist", ReadAt(Folder() / "none"));
  EXPECT_EQ(Name(errMODULE_NOT_FOUND) + " is no file", ReadAt(Folder()));
  for (const Bytes& Content : {Bytes{}, Bytes{'E', 'L', 'F'}, Bytes(5000, 'x')}) {
    EXPECT_EQ(kNoModule + "neither ELF nor PE", Read(Content));
  }
  const Bytes kElf = MakeElf(8, 62);
  EXPECT_EQ(kNoModule + "neither for 32 nor for 64 bits", ReadWith(kElf, 4, 3, 1));
  EXPECT_EQ(kNoModule + "its numbers are not little-endian", ReadWith(kElf, 5, 2, 1));
  EXPECT_EQ(kNoModule + "no shared object", ReadWith(kElf, 16, 2, 2));
  EXPECT_EQ(kNoMetadata, ReadWith(kElf, 60, 0, 2));
  EXPECT_EQ(kNoMetadata, ReadWith(kElf, 240, 'X', 1));
  const Bytes kPe = MakePe(8, 0x8664);
  EXPECT_EQ(kNoModule + "neither ELF nor PE", ReadWith(kPe, 0x40, 'X', 1));
  EXPECT_EQ(kNoModule + "no DLL", ReadWith(kPe, 0x56, 0, 2));
  EXPECT_EQ(kNoMetadata, ReadWith(kPe, 0x54, 128, 2));  // no room for the directory
  EXPECT_EQ(kNoMetadata, ReadWith(kPe, 0xC4, 2, 4));    // not among the directories
  EXPECT_EQ(kNoMetadata, ReadWith(kPe, 0x218, 11, 4));  // another type
  EXPECT_EQ(kNoMetadata, ReadWith(kPe, 0x230, 2, 4));   // another id
  EXPECT_EQ(kNoMetadata, ReadWith(kPe, 0x246, 0, 2));   // no language
}

TEST_F(ModuleFileTest, RefusesWhatLeadsNowhere) {
  const Bytes kElf = MakeElf(8, 62);
  EXPECT_EQ(kDamagedTable, ReadWith(kElf, 58, 40, 2));
  EXPECT_EQ(kDamagedTable, ReadWith(kElf, 62, 3, 2));
  EXPECT_EQ(kCutShort, ReadWith(kElf, 60, 0xFFFF, 2));
  for (const std::uint64_t nFar : {400ull, 1ull << 32, ~0ull - 63, ~0ull}) {
    EXPECT_EQ(kCutShort, ReadWith(kElf, 40, nFar, 8)) << nFar;         // the table
    EXPECT_EQ(kCutShort, ReadWith(kElf, 250 + 64 + 24, nFar, 8));      // the metadata
    EXPECT_EQ(kCutShort, ReadWith(kElf, 250 + 2 * 64 + 32, nFar, 8));  // the names' size
  }
  for (const std::uint32_t nName : {2u, 19u, 0xFFFFFFFFu}) EXPECT_EQ(kNoMetadata, ReadWith(kElf, 250 + 64, nName, 4));
  EXPECT_EQ(kNoMetadata, ReadWith(kElf, 250 + 64 + 4, 8, 4));  // a section without bytes
  const std::string kSize = Name(errDATA_CORRUPTED) + " its metadata is damaged (size)";
  EXPECT_EQ(kSize, ReadWith(kElf, 250 + 64 + 32, 124, 8));
  EXPECT_EQ(kSize, ReadWith(kElf, 250 + 64 + 32, 126, 8));

  const Bytes kPe = MakePe(8, 0x8664);
  EXPECT_EQ(kCutShort, ReadWith(kPe, 0x3C, 0xFFFFFFFF, 4));
  EXPECT_EQ(kCutShort, ReadWith(kPe, 0x46, 0xFFFF, 2));
  EXPECT_EQ(kCutShort, ReadWith(kPe, 0x4C, 0x300, 4));  // symbols
  EXPECT_EQ(Name(errDATA_CORRUPTED) + " its header is damaged", ReadWith(kPe, 0x58, 0x107, 2));
  const std::string kDamagedResources = Name(errDATA_CORRUPTED) + " its resources are damaged";
  for (const std::size_t nFolder : {0x21Cu, 0x234u, 0x24Cu}) {  // leads in a circle, aside, or out of the file
    for (const std::uint32_t nOffset : {0x80000000u, 0x80000010u, 0x90000000u, 0x7FFFFFFFu}) {
      EXPECT_EQ(kNoMetadata, ReadWith(kPe, nFolder, nOffset, 4)) << nFolder << ' ' << nOffset;
    }
    EXPECT_EQ(nFolder == 0x24C ? kDamagedResources : kNoMetadata, ReadWith(kPe, nFolder, 0, 4)) << nFolder;
  }
  for (const std::uint32_t nAddress : {0u, 0xFFFu, 0x1084u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kDamagedResources, ReadWith(kPe, 0x250, nAddress, 4)) << nAddress;
  }
  EXPECT_EQ(kSize, ReadWith(kPe, 0x254, 126, 4));
}

TEST_F(ModuleFileTest, RefusesDamagedAndForeignMetadata) {
  for (const Bytes& File : {MakeElf(4, 3), MakePe(8, 0x8664)}) {
    const auto Found = std::search(File.begin(), File.end(), kMetadata.begin(), kMetadata.end());
    const auto nAt = static_cast<std::size_t>(Found - File.begin());
    for (std::size_t i = 0; i < kMetadata.size(); ++i) {
      EXPECT_EQ(Name(errDATA_CORRUPTED) + " its metadata is damaged " + (i < 16 ? "(signature)" : "(MD5)"),
                ReadWith(File, nAt + i, kMetadata[i] ^ 0x10u, 1))
          << i;
    }
    const auto ReadSigned = [&](std::size_t nOffset, std::uint8_t nValue) {
      Bytes Changed = File;
      Put(&Changed, nAt, Signed(nOffset, nValue));
      return Read(Changed);
    };
    for (const std::size_t nOffset : {16u, 20u, 40u, 44u, 80u, 84u, 92u, 96u, 108u}) {
      EXPECT_EQ(Name(errVERSION_INVALID) + " its metadata has records that are not known here",
                ReadSigned(nOffset, 77));
    }
    for (const std::size_t nOffset : {32u, 48u}) {
      EXPECT_EQ(Name(errINTERFACE_NOT_SUPPORTED) + " is a module, but not Lumbra's", ReadSigned(nOffset, 77));
    }
  }
}

// Also the one that is built here, whatever its linker puts at its end.
TEST_F(ModuleFileTest, RefusesWhatIsCutShort) {
  const std::string Whole = ReadText(LUMBRA_MODULE);
  for (const Bytes& File : {MakeElf(4, 3), MakeElf(8, 62), MakePe(4, 0x14C), Bytes(Whole.begin(), Whole.end())}) {
    WriteFile("module", File);
    const std::size_t nStep = File.size() / 500 + 1;
    for (std::size_t nSize = File.size() - 1; nSize >= 4; nSize -= std::min(nStep, nSize)) {
      fs::resize_file(Folder() / "module", nSize);
      ASSERT_EQ(kCutShort, ReadAt(Folder() / "module")) << nSize;
    }
  }
}

}  // namespace
}  // namespace lumbra::test
