// The hash tree: its shape, its node CRCs, and the mending of its file.
#include "objects/hash_tree.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <random>

#include "objects/crc32.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

class HashTreeTest : public World {
 protected:
  ResultCode Open(bool bNodeCrcs, bool bSeeded = true, bool bLargeHead = false) {
    m_Tree.Close();
    m_pFile.reset();
    m_pFile = OpenFile(u"t");
    return m_Tree.Open(m_pFile.get(), {bNodeCrcs, bSeeded, bLargeHead});
  }

  // Enters a short id as the object store does, with the hashes of what is there already.
  ResultCode Insert(std::uint64_t nHash, std::uint32_t nShortId) {
    HashTree::Place At;
    for (;;) {
      tODB_BT_OFFSET nEntry = 0;
      ResultCode nCode = m_Tree.ReadSlot(At, nHash, &nEntry);
      if (Failed(nCode)) return nCode;
      if (nEntry == 0) break;
      if (HashTree::IsChild(nEntry)) {
        HashTree::Descend(&At, nEntry);
        continue;
      }
      nCode = m_Tree.Split(&At, nHash, m_Hashes[nEntry], nEntry);
      if (Failed(nCode)) return nCode;
    }
    m_Hashes[nShortId] = nHash;
    return m_Tree.WriteSlot(At, nHash, nShortId);
  }

  std::uint32_t Find(std::uint64_t nHash) {
    std::uint32_t nShortId = 0;
    const ResultCode nCode = m_Tree.Find(nHash, &nShortId);
    return Succeeded(nCode) ? nShortId : 0;
  }

  // A slot as it stands in the file.
  std::uint32_t Slot(std::uint32_t nNode, std::uint32_t nEntry) {
    std::uint32_t nValue = 0;
    std::memcpy(&nValue, ReadFile("t").data() + nNode + 4 * nEntry, 4);
    return nValue;
  }

  std::unique_ptr<StorageFile> m_pFile;
  HashTree m_Tree;
  std::map<std::uint32_t, std::uint64_t> m_Hashes;
};

TEST_F(HashTreeTest, TakesDigitsOffTheHash) {
  constexpr std::uint64_t kHash = 0xFEDCBA9876543210u;
  const std::pair<std::uint32_t, std::uint32_t> kDigits[] = {{0, 0x10}, {1, 0x2}, {2, 0x3}, {3, 0},  {4, 0}, {5, 0},
                                                             {6, 0},    {7, 1},   {52, 1},  {53, 0}, {64, 0}};
  for (const auto& [nLevel, nDigit] : kDigits) EXPECT_EQ(nDigit, HashTree::GetHashDigit(kHash, nLevel)) << nLevel;
}

TEST_F(HashTreeTest, NewFilesHoldAnEmptyRoot) {
  ASSERT_CODE(errOK, Open(false));
  EXPECT_EQ("4f444254100000001004000000000000", ToHex(ReadFile("t")).substr(0, 32));
  EXPECT_EQ(1040u, FileSize("t"));
  m_Tree.Close();
  std::filesystem::remove(Folder() / "t");
  ASSERT_CODE(errOK, Open(true));
  EXPECT_EQ("4f444243100000001404000000000000", ToHex(ReadFile("t")).substr(0, 32));
  EXPECT_EQ(1044u, FileSize("t"));
  ASSERT_CODE(errOK, Open(false));  // an existing file keeps its kind
  EXPECT_EQ(1044u, m_Tree.Size());
}

TEST_F(HashTreeTest, SplitsWhereHashesPart) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_CODE(errOK, Insert(0x0101, 1));
  EXPECT_EQ(1u, Slot(16, 1));
  ASSERT_CODE(errOK, Insert(0x0201, 2));
  EXPECT_EQ(0x80000000u | 1040, Slot(16, 1));
  EXPECT_EQ(1u, Slot(1040, 1));
  EXPECT_EQ(2u, Slot(1040, 2));

  // The lowest 12 bits alike: two levels further down.
  ASSERT_CODE(errOK, Insert(0x0002, 3));
  ASSERT_CODE(errOK, Insert(0x1002, 4));
  EXPECT_EQ(0x80000000u | 1104, Slot(16, 2));
  EXPECT_EQ(0x80000000u | 1168, Slot(1104, 0));
  EXPECT_EQ(3u, Slot(1168, 0));
  EXPECT_EQ(4u, Slot(1168, 1));
  EXPECT_EQ(1184u, FileSize("t"));
  for (std::uint32_t nId = 1; nId <= 4; ++nId) EXPECT_EQ(nId, Find(m_Hashes[nId]));
  EXPECT_EQ(0u, Find(0x0301));

  // Hashes that differ in the last bit alone part at the deepest level.
  ASSERT_CODE(errOK, Insert(0x00000000000000FF, 5));
  ASSERT_CODE(errOK, Insert(0x80000000000000FF, 6));
  EXPECT_EQ(5u, Find(m_Hashes[5]));
  EXPECT_EQ(6u, Find(m_Hashes[6]));
}

TEST_F(HashTreeTest, FindsEverythingInEveryForm) {
  for (const bool bNodeCrcs : {false, true}) {
    for (const bool bLargeHead : {false, true}) {
      m_Hashes.clear();
      std::filesystem::remove(Folder() / "t");
      ASSERT_CODE(errOK, Open(bNodeCrcs, true, bLargeHead));
      std::mt19937_64 Random(1);
      for (std::uint32_t nId = 1; nId <= 3000; ++nId) ASSERT_CODE(errOK, Insert(Random(), nId));
      const auto Hashes = m_Hashes;
      for (const auto& [nId, nHash] : Hashes) ASSERT_EQ(nId, Find(nHash));
      ASSERT_CODE(errOK, Open(false, true, bLargeHead));
      for (const auto& [nId, nHash] : Hashes) ASSERT_EQ(nId, Find(nHash));
      EXPECT_EQ(m_Tree.Size(), FileSize("t"));
    }
  }
  EXPECT_TRUE(TakeTrace().empty());
}

TEST_F(HashTreeTest, MendsAWrongSize) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_CODE(errOK, Insert(0x0101, 1));
  m_Tree.Close();
  m_pFile.reset();
  Bytes Content = ReadFile("t");
  Content.resize(2002);
  Content[8] = 0xD0;  // 2000
  Content[9] = 0x07;
  WriteFile("t", Content);
  ASSERT_CODE(errOK, Open(false));
  EXPECT_EQ((std::vector<std::string>{"300 Wrong BT size in header, actual: 7D2, from header: 7D0",
                                      "300 BT file size unaligned: 7D2, after align: 7D4"}),
            TakeTrace());
  EXPECT_EQ(2004u, FileSize("t"));
  EXPECT_EQ(2004u, Slot(8, 0));
  EXPECT_EQ(1u, Find(0x0101));
}

TEST_F(HashTreeTest, StartsADamagedTreeAnew) {
  const auto Damage = [this](auto Change, std::vector<std::string> Lines) {
    std::filesystem::remove(Folder() / "t");
    ASSERT_CODE(errOK, Open(true));
    ASSERT_CODE(errOK, Insert(0x0101, 1));
    m_Tree.Close();
    m_pFile.reset();
    Bytes Content = ReadFile("t");
    Change(Content);
    WriteFile("t", Content);
    TakeTrace();
    ASSERT_CODE(errOK, Open(true));
    EXPECT_EQ(Lines, TakeTrace());
    EXPECT_EQ(1044u, FileSize("t"));
    EXPECT_EQ(0u, Find(0x0101));
    EXPECT_CODE(errOK, Insert(0x0101, 2));
    EXPECT_EQ(2u, Find(0x0101));
  };
  Damage([](Bytes& Content) { Content[3] = 'X'; }, {});
  Damage([](Bytes& Content) { Content[4] = 17; }, {});
  Damage([](Bytes& Content) { Content[20] ^= 1; }, {});    // an entry of the root
  Damage([](Bytes& Content) { Content[1040] ^= 1; }, {});  // its CRC
  Damage([](Bytes& Content) { Content.resize(12); }, {});
  Damage([](Bytes& Content) { Content.resize(1000); },
         {"300 Wrong BT size in header, actual: 3E8, from header: 414",
          "300 Too small BT size, rewrite it it. BT size: 3E8, minimal size: 414"});
}

TEST_F(HashTreeTest, TiesNodesToTheirParents) {
  for (const bool bSeeded : {true, false}) {
    std::filesystem::remove(Folder() / "t");
    m_Hashes.clear();
    ASSERT_CODE(errOK, Open(true, bSeeded));
    ASSERT_CODE(errOK, Insert(0x0101, 1));
    ASSERT_CODE(errOK, Insert(0x0201, 2));  // a node of level 1 at 1044, below the root at 16
    const std::uint32_t nSeed = bSeeded ? 16 : 0;
    const Bytes Content = ReadFile("t");
    std::uint32_t nStored = 0;
    std::memcpy(&nStored, Content.data() + 1044 + 64, 4);
    EXPECT_EQ(Crc32(nSeed, Content.data() + 1044, 64), nStored);

    // The same node, byte for byte, as the child of another: under seeds it is not taken for that one's own.
    ASSERT_CODE(errOK, Insert(0x1101, 3));  // a node of level 2 at 1112, below 1044
    m_Tree.Close();
    m_pFile.reset();
    Bytes Forged = ReadFile("t");
    const std::size_t nSlot = 1044 + 4 * 1;
    const std::uint32_t nRootChild = 0x80000000u | 1044;
    std::memcpy(Forged.data() + nSlot, &nRootChild, 4);
    const std::uint32_t nCrc = Crc32(nSeed, Forged.data() + 1044, 64);
    std::memcpy(Forged.data() + 1044 + 64, &nCrc, 4);
    WriteFile("t", Forged);
    ASSERT_CODE(errOK, Open(true, bSeeded));
    TakeTrace();
    std::uint32_t nShortId = 0;
    EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0x0101, &nShortId));
    const std::string kLine =
        "300 ObjectDB failed check (Failed check: ValidDataCrc(nPreviousOffset, offsets, offsetsSize, "
        "&crc32)). "
        "Err: errDATA_CORRUPTED (0x800000D8)";
    EXPECT_EQ(std::vector<std::string>{kLine}, TakeTrace());
    EXPECT_EQ(2u, Find(0x0201));
  }
}

TEST_F(HashTreeTest, TellsDamageFromFailingReads) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_CODE(errOK, Insert(0x0101, 1));
  ASSERT_CODE(errOK, Insert(0x0201, 2));  // a node at 1040, beyond the head that is held in memory
  std::uint32_t nShortId = 0;
  FailCalls(SystemCall::ReadAt, EIO);
  EXPECT_CODE(errREAD_FAILED, m_Tree.Find(0x0101, &nShortId));
  HashTree::Place At;
  ASSERT_CODE(errOK, m_Tree.WriteSlot(At, 0x05, 0x80000000u | 5000));  // a child where the file has ended
  EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0x05, &nShortId));
  ASSERT_CODE(errOK, m_Tree.WriteSlot(At, 0x05, 0x80000000u | 8));
  EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0x05, &nShortId));
  ASSERT_CODE(errOK, m_Tree.WriteSlot(At, 0x00, 0x80000000u | 16));  // a circle
  EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0x00, &nShortId));
  EXPECT_CODE(errPARAMETER_INVALID, m_Tree.Detach(At, 0x05));

  FailCalls(SystemCall::WriteAt, ENOSPC);
  EXPECT_CODE(errWRITE_FAILED, m_Tree.WriteSlot(At, 0x07, 7));
  EXPECT_EQ(0u, Find(0x07));
  EXPECT_EQ(2u, Find(0x0201));
}

}  // namespace
}  // namespace lumbra::test
