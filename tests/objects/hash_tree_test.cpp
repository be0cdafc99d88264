// The hash tree: its shape, its node CRCs, and the mending of its file.
#include <random>

#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

// The tree of an object store, which enters its objects.
class HashTreeTest : public ObjectDbTest {
 protected:
  // A slot as it stands in the file.
  std::uint32_t Slot(std::uint32_t nNode, std::uint32_t nEntry) {
    std::uint32_t nValue = 0;
    std::memcpy(&nValue, ReadFile("bt").data() + nNode + 4 * nEntry, 4);
    return nValue;
  }
};

TEST_F(HashTreeTest, TakesDigitsOffTheHash) {
  constexpr std::uint64_t kHash = 0xFEDCBA9876543210;
  const std::pair<std::uint32_t, std::uint32_t> kDigits[] = {{0, 0x10}, {1, 0x2}, {2, 0x3}, {3, 0},  {4, 0},
                                                             {6, 0},    {7, 1},   {52, 1},  {53, 0}, {64, 0}};
  for (const auto& [nLevel, nDigit] : kDigits) EXPECT_EQ(nDigit, GetHashDigit(kHash, nLevel)) << nLevel;
}

TEST_F(HashTreeTest, SplitsWhereHashesPart) {
  // Two that part a level below the root, two of which the lowest 12 bits are alike (two levels), and two that differ
  // in the last bit alone: they part at the deepest level.
  const std::uint64_t kHashes[] = {0x0101, 0x0201, 0x0002, 0x1002, 0xFF, 0x80000000000000FF};
  Start(false);
  for (const std::uint64_t nHash : kHashes) ASSERT_NE(0u, Create(nHash, "x"));
  EXPECT_EQ(
      (std::vector{0x80000000u | 1040, 1u, 2u, 0x80000000u | 1104, 0x80000000u | 1168, 3u, 4u, 0x80000000u | 1184}),
      (std::vector{Slot(16, 1), Slot(1040, 1), Slot(1040, 2), Slot(16, 2), Slot(1104, 0), Slot(1168, 0), Slot(1168, 1),
                   Slot(16, 0xFF)}));
  EXPECT_EQ(1184 + 64 + 16 + 50 * 8u, FileSize("bt"));
  Open(false);
  for (std::uint32_t i = 0; i < 6; ++i) EXPECT_EQ(Id(i + 1), Find(kHashes[i]));
}

TEST_F(HashTreeTest, FindsEverythingInEveryForm) {
  for (const bool bCheckData : {false, true}) {
    for (const TreeHead Head : {TreeHead::Small, TreeHead::Large}) {
      Start(bCheckData);
      for (int nRound = 0; nRound < 3; ++nRound) {
        if (nRound != 1) Open(bCheckData, Head);  // found before and after a restart
        std::mt19937_64 Random(1);
        for (std::uint32_t i = 1; i <= 3000; ++i)
          ASSERT_EQ(Id(i), nRound == 0 ? Create(Random(), "x") : Find(Random()));
      }
    }
  }
  EXPECT_EQ(Lines(), TakeTrace(400));
}

// A wrong size is mended; after other damage the tree is empty, and takes objects again.
TEST_F(HashTreeTest, MendsItsFileOrStartsAnew) {
  const Lines kTooSmall = {"300 Wrong BT size in header, actual: 3E8, from header: 414",
                           "300 Too small BT size, rewrite it it. BT size: 3E8, minimal size: 414"};
  const Lines kMended = {"300 Wrong BT size in header, actual: 7D2, from header: 410",
                         "300 BT file size unaligned: 7D2, after align: 7D4"};
  // In the header, in an entry of the root, in its CRC, cut off, and too long.
  const std::tuple<std::size_t, const char*, Lines> kDamage[] = {
      {3, "58", {}}, {4, "11", {}},         {20, "00", {}},     {1040, "00000000", {}},
      {12, "", {}},  {1000, "", kTooSmall}, {2002, "", kMended}};
  for (const auto& [nOffset, pHex, Told] : kDamage) {
    const bool bMended = Told == kMended;
    Start(!bMended, {{0x0101, "x"}});
    Damage("bt", nOffset, pHex);
    EXPECT_EQ(Told, TakeTrace()) << nOffset;
    const std::uint64_t nSize = bMended ? 2004 : 1044;
    EXPECT_EQ((std::vector{nSize, nSize, bMended ? Id(1) : 0, bMended ? Id(1) : Id(2)}),
              (std::vector{std::uint64_t{Slot(8, 0)}, FileSize("bt"), Find(0x0101), Create(0x0101, "x")}))
        << nOffset;
  }
}

// A node that hangs below another than its own parent, byte for byte as it was, is not taken for that one's.
TEST_F(HashTreeTest, TiesNodesToTheirParents) {
  for (const auto& [nSeed, pMagic] : {std::pair{16u, ""}, {0u, "4f444252"}}) {
    // A node of level 1 at 1044, below the root at 16, and one of level 2 at 1112, below it.
    Start(true, {{0x0101, "x"}, {0x0201, "x"}, {0x1101, "x"}}, "", pMagic);
    Bytes Content = ReadFile("bt");
    const std::uint32_t nItself = 0x80000000 | 1044;
    std::memcpy(&Content[1044 + 4 * 1], &nItself, 4);
    const std::uint32_t nCrc = Crc32(nSeed, &Content[1044], 64);
    std::memcpy(&Content[1044 + 64], &nCrc, 4);
    Replace("bt", Content);
    EXPECT_CODE(errDATA_CORRUPTED, CodeOf(Find(0x0101)));
    EXPECT_EQ(Lines{FailedCheck("ValidDataCrc(nPreviousOffset, offsets, offsetsSize, &crc32)")}, TakeTrace(400));
    EXPECT_EQ(Id(2), Find(0x0201));
  }
}

TEST_F(HashTreeTest, TellsDamageFromFailingReads) {
  Start(false, {{0x0101, "x"}, {0x0201, "x"}});  // a node at 1040, beyond the head that is held in memory
  m_pDb.reset();
  const std::unique_ptr<StorageFile> pFile = OpenFile(u"bt");
  HashTree Tree;
  ASSERT_CODE(errOK, Tree.Open(pFile.get(), {false, true, false}));
  std::uint32_t nShortId = 0;
  EXPECT_CODE(errOBJECT_NOT_FOUND, Tree.Find(0x07, &nShortId));
  FailCalls(SystemCall::ReadAt, os::kIoDevice);
  EXPECT_CODE(errREAD_FAILED, Tree.Find(0x0101, &nShortId));
  const HashTree::Place kRoot;
  for (const std::uint32_t nChild : {5000u, 8u, 16u}) {  // where the file has ended, in the header, in a circle
    ASSERT_CODE(errOK, Tree.WriteSlot(kRoot, 0, 0x80000000u | nChild));
    EXPECT_CODE(errDATA_CORRUPTED, Tree.Find(0, &nShortId)) << nChild;
  }
  EXPECT_CODE(errPARAMETER_INVALID, Tree.Detach(kRoot, 0x05));
  FailCalls(SystemCall::WriteAt, os::kDiskFull);
  EXPECT_CODE(errWRITE_FAILED, Tree.WriteSlot(kRoot, 0x07, 7));
  EXPECT_EQ(Names({errOBJECT_NOT_FOUND, errOK}), Names({Tree.Find(0x07, &nShortId), Tree.Find(0x0201, &nShortId)}));
  EXPECT_EQ(2u, nShortId);
}

}  // namespace
}  // namespace lumbra::test
