// Modules as files: what is read of them, and what is refused.
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "format/md5.h"
#include "host/module_file.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

// A file with bytes written over, as a dump in hex tells: "OFFSET: BYTES OFFSET: BYTES (what for)".
Bytes With(Bytes File, const std::string& Dump) {
  std::istringstream Text(Dump);
  std::size_t nAt = 0;
  for (std::string Digits; Text >> std::hex >> nAt && Text.ignore() >> Digits;) {
    for (const std::uint8_t n : FromHex(Digits)) File.at(nAt++) = n;
  }
  return File;
}

// The metadata as a host expects it, with the digest that md5sum gives for what stands before.
const std::string kMetadata =
    "5a656c6d6172006d6574616461746100"                                                  // the signature
    "140000000100000000000000000000008ebf0000f4ffffff"                                  // the module
    "24000000020000008ebf000000000000010000004f00000000000000000000008cbf0000f4ffffff"  // the interface
    "8200a02104000000010000008300902009000000224c756d6272612200"                        // its constant and its comment
    "59648ed64ec20fef4cc565fc8dcee677";

// Shared objects of nothing but metadata: header, metadata, names of sections, table of sections, the first one empty.
const std::string kElf = "0: 7f454c460001 10: 0300 64: " + kMetadata + " e6: 002e6c756d6272612e6d6574616461746100 ";
const Bytes kElf32 = With(Bytes(0x172), kElf + "4: 01 20: fa 2e: 280003000200 122: 01 132: 64 136: 7d 15a: e6 15e: 12");
const Bytes kElf64 = With(Bytes(0x1ba), kElf + "4: 02 28: fa 3a: 400003000200 13a: 01 152: 64 15a: 7d 192: e6 19a: 12");

// DLLs of nothing but resources: DOS header, headers, and a section at 200, 1000 in memory, with folders of types
// (another one, and RCDATA), of ids, of languages, and the metadata.
const std::string kPe =
    "0: 4d5a 3c: 40 40: 50450000 46: 01 54: e000 56: 0020 20e: 0200 210: 03000000200000800a00000020000080 22e: 0100 "
    "230: 0100000038000080 246: 0100 248: 070400005000000060100000 254: 7d 260: " +
    kMetadata;
const Bytes kPe32 = With(Bytes(0x300), kPe + " 58: 0b01 b4: 10 c9: 10 cd: 01 145: 10 149: 01 14d: 02");
const Bytes kPe64 = With(Bytes(0x300), kPe + " 54: f0 58: 0b02 c4: 10 d9: 10 dd: 01 155: 10 159: 01 15d: 02");

const std::string kDamaged = Name(errDATA_CORRUPTED) + " its ";
const std::string kCutShort = Name(errDATA_CORRUPTED) + " is cut short";
const std::string kForeign = Name(errINTERFACE_NOT_SUPPORTED) + " is a module, but not Lumbra's";
const std::string kNoMetadata = Name(errMETA_INFORMATION_NOT_FOUND) + " has no Lumbra metadata";
const std::string kNoModule = Name(errIMAGE_BAD_SIGNATURE) + " is no module: ";
const std::string kUnknown = Name(errVERSION_INVALID) + " its metadata has records that are not known here";

class ModuleFileTest : public World {
 protected:
  // What reading a file comes to: the code and the reason, or the format and the machine.
  static std::string ReadAt(const fs::path& Path) {
    host::ModuleFile File;
    const host::ModuleProblem Problem = host::ReadModuleFile(Path, &File);
    if (Problem) return Name(Problem.nCode) + ' ' + Problem.Text;
    const auto* const pMetadata = reinterpret_cast<const std::uint8_t*>(&File.Metadata);
    EXPECT_EQ(FromHex(kMetadata), Bytes(pMetadata, pMetadata + sizeof(File.Metadata)));
    return File.Format + ' ' + File.Machine;
  }
  std::string Read(const Bytes& Content) {
    WriteFile("module", Content);
    return ReadAt(Folder() / "module");
  }
  // Each change by itself is a reason to refuse the file.
  void ExpectRefused(const std::string& Reason, const Bytes& File, const std::vector<std::string>& Changes) {
    for (const std::string& Change : Changes) EXPECT_EQ(Reason, Read(With(File, Change))) << Change;
  }
};

TEST_F(ModuleFileTest, ReadsBothFormatsOfEveryMachine) {
  // The last one is no machine's: the number of one whose pointers are larger.
  const std::tuple<std::string, Bytes, Bytes> kMachines[] = {
      {"x86", With(kElf32, "12: 0300"), With(kPe32, "44: 4c01")},
      {"x86-64", With(kElf64, "12: 3e00"), With(kPe64, "44: 6486")},
      {"0x3E", With(kElf32, "12: 3e00"), With(kPe32, "44: 3e00")}};
  for (const auto& [Machine, Elf, Pe] : kMachines) {
    EXPECT_EQ("ELF " + Machine, Read(Elf));
    EXPECT_EQ("PE " + Machine, Read(Pe));
  }
  EXPECT_THAT(ReadAt(LUMBRA_MODULE), ::testing::AnyOf(::testing::StartsWith("ELF "), ::testing::StartsWith("PE ")));
}

TEST_F(ModuleFileTest, RefusesWhatIsNoModule) {
  EXPECT_EQ(Name(errFILE_NOT_FOUND) + " does not exist", ReadAt(Folder() / "none"));
  EXPECT_EQ(Name(errMODULE_NOT_FOUND) + " is no file", ReadAt(Folder()));
  for (const Bytes& Content : {Bytes{}, Bytes(5000, 'x')}) EXPECT_EQ(kNoModule + "neither ELF nor PE", Read(Content));
  ExpectRefused(kNoModule + "no shared object", kElf64, {"10: 0200"});
  ExpectRefused(kNoModule + "no DLL", kPe64, {"56: 0000"});
}

TEST_F(ModuleFileTest, RefusesWhatHasNoMetadata) {
  ExpectRefused(
      kNoMetadata, kElf64,
      {"3c: 0000 (no sections)", "f0: 58 (another name)", "13a: ffffffff (a name that starts behind the names)"});
  ExpectRefused(kNoMetadata, kPe64,
                {"c4: 02 (no directory)", "230: 02 (another id)", "21c: 00000080 (a folder of ids in a circle)",
                 "24c: ffffff7f (data out of the file)"});
}

TEST_F(ModuleFileTest, RefusesWhatLeadsNowhere) {
  ExpectRefused(
      kCutShort, kElf64,
      {"28: 0000000001 (the table of sections)", "152: 9001 (the metadata)", "19a: ffffffffffffffff (names)"});
  ExpectRefused(kCutShort, kPe64, {"3c: ffffffff (headers)", "46: ffff (too many sections)"});
  ExpectRefused(kDamaged + "resources are damaged", kPe64,
                {"250: ff0f (in front of the section)", "250: 8410 (behind it in the file)"});
}

TEST_F(ModuleFileTest, RefusesDamagedAndForeignMetadata) {
  ExpectRefused(kDamaged + "metadata is damaged (size)", kElf64, {"15a: 7c"});
  for (std::size_t i = 0; i < sizeof(tMODULE_METADATA); ++i) {
    Bytes File = kElf64;
    File[100 + i] ^= 0x10;
    EXPECT_EQ(kDamaged + "metadata is damaged " + (i < 16 ? "(signature)" : "(MD5)"), Read(File)) << i;
  }
  // What a digest that fits does not make ours.
  for (const auto& [nOffset, Reason] : {std::pair{32, kForeign}, {80, kUnknown}}) {
    Bytes File = kElf64;
    File[100 + nOffset] = 77;
    Md5 Digest;
    Digest.Update(&File[100], 109);
    std::ranges::copy(Digest.Digest(), &File[209]);
    EXPECT_EQ(Reason, Read(File)) << nOffset;
  }
}

// Also the one that is built here, whatever its linker puts at its end.
TEST_F(ModuleFileTest, RefusesWhatIsCutShort) {
  for (const Bytes& File : {kElf32, kElf64, kPe32, ReadFile(LUMBRA_MODULE)}) {
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
