// The hash tree: its shape, its node CRCs, and the mending of its file.
#include <sstream>

#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

// The tree of an object store, which enters its objects.
class HashTreeTest : public ObjectDbTest {
 protected:
  // The slots of a node that are not empty: "DIGIT=OBJECT", or "DIGIT>NODE" for a node below it.
  std::string Node(std::uint64_t nPlace, std::size_t nSlots) const {
    const Bytes Content = ReadFile("bt");
    const auto nOffset = static_cast<std::size_t>(nPlace);
    std::ostringstream Text;
    for (std::size_t nDigit = 0; nDigit < nSlots; ++nDigit) {
      std::uint32_t nSlot = 0;
      std::memcpy(&nSlot, &Content.at(nOffset + 4 * nDigit), 4);
      const char cLeads = (nSlot & 0x80000000) != 0 ? '>' : '=';
      if (nSlot != 0) Text << nDigit << cLeads << (nSlot & 0x7FFFFFFF) << ' ';
    }
    return Text.str();
  }
};

TEST_F(HashTreeTest, SplitsWhereHashesPart) {
  // Pairs that part with their second digit, their third and their fourth, and in their last bit alone.
  Start(kPlain, {0x0101, 0x0201, 0x0002, 0x1002, 0x0003, 0x4003, 0xFF, 0x80000000000000FF});
  EXPECT_EQ("1>1040 2>1104 3>1184 255>1272 ", Node(16, 256));
  EXPECT_EQ("1=1 2=2 ", Node(1040, 16));
  EXPECT_EQ("0>1168 ", Node(1104, 16));
  EXPECT_EQ("0=3 1=4 ", Node(1168, 4));
  EXPECT_EQ("0>1248 ", Node(1184, 16));
  EXPECT_EQ("0>1264 ", Node(1248, 4));
  EXPECT_EQ("0=5 1=6 ", Node(1264, 2));
  EXPECT_EQ(1272u + 64 + 16 + 50 * 8, FileSize("bt"));  // down to the deepest node
  EXPECT_EQ("0=7 1=8 ", Node(FileSize("bt") - 8, 2));
}

// Name, record, header, the new nodes at once, the slot that leads to them, and the new object's slot; the root's slots
// have their CRC written before.
TEST_F(HashTreeTest, SplitsWithFewWrites) {
  for (const bool bChecked : {kPlain, kChecked}) {
    Start(bChecked, {0x0003});
    Step("an object that parts on the fourth level", TryCreate(0x4003)).Is(errOK).Writes(bChecked ? 7 : 6);
    ExpectAll({0x0003, 0x4003});
  }
}

TEST_F(HashTreeTest, StartsAnewWhatItCannotUse) {
  const std::tuple<const char*, std::size_t, const char*> kDamage[] = {
      {"another magic", 3, "58"},       {"a root elsewhere", 4, "11"}, {"an entry of the root", 20, "00"},
      {"the root's CRC", 1040, "0000"}, {"half a header", 12, ""},     {"half a root", 1000, ""}};
  for (const auto& [pWords, nOffset, pHex] : kDamage) {
    Start(kChecked, {0x0101});
    Damage("bt", nOffset, pHex);
    EXPECT_EQ(Id(2), Create(0x0101)) << pWords;
    EXPECT_EQ(1044u, FileSize("bt")) << pWords;
  }
}

// A node that hangs below another than its own parent, byte for byte as it was, is not taken for that one's.
TEST_F(HashTreeTest, TiesNodesToTheirParents) {
  Start(kChecked, {0x0101, 0x0201, 0x1101});  // a node of level 1 at 1044, and one of level 2 below it
  Bytes Content = ReadFile("bt");
  Content[1044 + 4 * 1] = 1044 & 0xFF;
  const std::uint32_t nCrc = Crc32(16, &Content[1044], 64);
  std::memcpy(&Content[1044 + 64], &nCrc, 4);
  Replace("bt", Content);
  Step("find through a circle", TryFind(0x0101))
      .Is(errDATA_CORRUPTED)
      .Says({FailedCheck("ValidDataCrc(nPreviousOffset, offsets, offsetsSize, &crc32)")});
  EXPECT_EQ(Id(2), Find(0x0201));
}

TEST_F(HashTreeTest, RefusesNodesThatAreNone) {
  for (const auto& [pWords, pSlots] : {std::pair{"behind the end", "8813008088130080"},
                                       {"in the header", "0800008008000080"},
                                       {"a circle", "1000008010000080"}}) {
    Start(kPlain);
    Damage("bt", 16, pSlots);
    EXPECT_CODE(errDATA_CORRUPTED, TryFind(0x0100)) << pWords;
  }
}

}  // namespace
}  // namespace lumbra::test
