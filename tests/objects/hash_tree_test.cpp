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

  // The file anew, as after a restart, with changes made to its bytes meanwhile.
  template <class Change>
  ResultCode Reopen(bool bNodeCrcs, bool bSeeded, Change Do) {
    m_Tree.Close();
    m_pFile.reset();
    Bytes Content = ReadFile("t");
    Do(Content);
    WriteFile("t", Content);
    TakeTrace();
    return Open(bNodeCrcs, bSeeded);
  }

  void Remove() {
    m_Tree.Close();
    m_pFile.reset();
    std::filesystem::remove(Folder() / "t");
    m_Hashes.clear();
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
  const std::pair<std::uint32_t, std::uint32_t> kDigits[] = {{0, 0x10}, {1, 0x2}, {2, 0x3}, {3, 0},  {4, 0},
                                                             {6, 0},    {7, 1},   {52, 1},  {53, 0}, {64, 0}};
  for (const auto& [nLevel, nDigit] : kDigits) EXPECT_EQ(nDigit, HashTree::GetHashDigit(kHash, nLevel)) << nLevel;
}

TEST_F(HashTreeTest, NewFilesHoldAnEmptyRoot) {
  for (const auto& [bNodeCrcs, pHeader, nSize] : {std::tuple{false, "4f444254100000001004000000000000", 1040u},
                                                  {true, "4f444243100000001404000000000000", 1044u}}) {
    Remove();
    ASSERT_CODE(errOK, Open(bNodeCrcs));
    EXPECT_EQ(pHeader, ToHex(ReadFile("t")).substr(0, 32));
    EXPECT_EQ(nSize, FileSize("t"));
    ASSERT_CODE(errOK, Open(!bNodeCrcs));  // an existing file keeps its kind
    EXPECT_EQ(nSize, m_Tree.Size());
  }
}

TEST_F(HashTreeTest, SplitsWhereHashesPart) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_CODE(errOK, Insert(0x0101, 1));
  EXPECT_EQ(1u, Slot(16, 1));
  ASSERT_CODE(errOK, Insert(0x0201, 2));
  EXPECT_EQ((std::tuple{0x80000000u | 1040, 1u, 2u}), (std::tuple{Slot(16, 1), Slot(1040, 1), Slot(1040, 2)}));
  // The lowest 12 bits alike: two levels further down.
  ASSERT_CODE(errOK, Insert(0x0002, 3));
  ASSERT_CODE(errOK, Insert(0x1002, 4));
  EXPECT_EQ((std::tuple{0x80000000u | 1104, 0x80000000u | 1168}), (std::tuple{Slot(16, 2), Slot(1104, 0)}));
  EXPECT_EQ((std::pair{3u, 4u}), (std::pair{Slot(1168, 0), Slot(1168, 1)}));
  EXPECT_EQ(1184u, FileSize("t"));
  // Hashes that differ in the last bit alone part at the deepest level.
  ASSERT_CODE(errOK, Insert(0x00000000000000FF, 5));
  ASSERT_CODE(errOK, Insert(0x80000000000000FF, 6));
  for (std::uint32_t nId = 1; nId <= 6; ++nId) EXPECT_EQ(nId, Find(m_Hashes[nId]));
  EXPECT_EQ(0u, Find(0x0301));
}

TEST_F(HashTreeTest, FindsEverythingInEveryForm) {
  for (const auto& [bNodeCrcs, bLargeHead] : {std::pair{false, false}, {false, true}, {true, false}, {true, true}}) {
    Remove();
    ASSERT_CODE(errOK, Open(bNodeCrcs, true, bLargeHead));
    std::mt19937_64 Random(1);
    for (std::uint32_t nId = 1; nId <= 3000; ++nId) ASSERT_CODE(errOK, Insert(Random(), nId));
    for (int nRound = 0; nRound < 2; ++nRound) {
      for (const auto& [nId, nHash] : m_Hashes) ASSERT_EQ(nId, Find(nHash));
      EXPECT_EQ(m_Tree.Size(), FileSize("t"));
      ASSERT_CODE(errOK, Open(bNodeCrcs, true, bLargeHead));
    }
  }
  EXPECT_TRUE(TakeTrace().empty());
}

TEST_F(HashTreeTest, MendsAWrongSize) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_CODE(errOK, Insert(0x0101, 1));
  ASSERT_CODE(errOK, Reopen(false, true, [](Bytes& Content) {
                Content.resize(2002);
                Content[8] = 0xD0;  // 2000
                Content[9] = 0x07;
              }));
  EXPECT_EQ((std::vector<std::string>{"300 Wrong BT size in header, actual: 7D2, from header: 7D0",
                                      "300 BT file size unaligned: 7D2, after align: 7D4"}),
            TakeTrace());
  EXPECT_EQ((std::pair{2004ul, 2004u}), (std::pair{FileSize("t"), Slot(8, 0)}));
  EXPECT_EQ(1u, Find(0x0101));
}

TEST_F(HashTreeTest, StartsADamagedTreeAnew) {
  const std::pair<void (*)(Bytes&), std::vector<std::string>> kDamage[] = {
      {[](Bytes& Content) { Content[3] = 'X'; }, {}},
      {[](Bytes& Content) { Content[4] = 17; }, {}},
      {[](Bytes& Content) { Content[20] ^= 1; }, {}},    // an entry of the root
      {[](Bytes& Content) { Content[1040] ^= 1; }, {}},  // its CRC
      {[](Bytes& Content) { Content.resize(12); }, {}},
      {[](Bytes& Content) { Content.resize(1000); },
       {"300 Wrong BT size in header, actual: 3E8, from header: 414",
        "300 Too small BT size, rewrite it it. BT size: 3E8, minimal size: 414"}}};
  for (const auto& [Change, Lines] : kDamage) {
    Remove();
    ASSERT_CODE(errOK, Open(true));
    ASSERT_CODE(errOK, Insert(0x0101, 1));
    ASSERT_CODE(errOK, Reopen(true, true, Change));
    EXPECT_EQ(Lines, TakeTrace());
    EXPECT_EQ(1044u, FileSize("t"));
    EXPECT_EQ(0u, Find(0x0101));
    EXPECT_CODE(errOK, Insert(0x0101, 2));
    EXPECT_EQ(2u, Find(0x0101));
  }
}

// A node that hangs below another than its own parent, byte for byte as it was, is not taken for that one's.
TEST_F(HashTreeTest, TiesNodesToTheirParents) {
  for (const std::uint32_t nSeed : {16u, 0u}) {
    Remove();
    ASSERT_CODE(errOK, Open(true, nSeed != 0));
    ASSERT_CODE(errOK, Insert(0x0101, 1));
    ASSERT_CODE(errOK, Insert(0x0201, 2));  // a node of level 1 at 1044, below the root at 16
    ASSERT_CODE(errOK, Insert(0x1101, 3));  // a node of level 2 at 1112, below 1044
    ASSERT_CODE(errOK, Reopen(true, nSeed != 0, [&](Bytes& Content) {
                  std::uint32_t nStored = 0;
                  std::memcpy(&nStored, Content.data() + 1044 + 64, 4);
                  EXPECT_EQ(Crc32(nSeed, Content.data() + 1044, 64), nStored);
                  const std::uint32_t nItself = 0x80000000u | 1044;
                  std::memcpy(Content.data() + 1044 + 4 * 1, &nItself, 4);
                  const std::uint32_t nCrc = Crc32(nSeed, Content.data() + 1044, 64);
                  std::memcpy(Content.data() + 1044 + 64, &nCrc, 4);
                }));
    std::uint32_t nShortId = 0;
    EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0x0101, &nShortId));
    EXPECT_EQ(
        (std::vector<std::string>{"300 ObjectDB failed check (Failed check: ValidDataCrc(nPreviousOffset, offsets, "
                                  "offsetsSize, &crc32)). Err: errDATA_CORRUPTED (0x800000D8)"}),
        TakeTrace());
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
  const HashTree::Place kRoot;
  for (const std::uint32_t nChild : {5000u, 8u, 16u}) {  // where the file has ended, in the header, in a circle
    ASSERT_CODE(errOK, m_Tree.WriteSlot(kRoot, 0, 0x80000000u | nChild));
    EXPECT_CODE(errDATA_CORRUPTED, m_Tree.Find(0, &nShortId)) << nChild;
  }
  EXPECT_CODE(errPARAMETER_INVALID, m_Tree.Detach(kRoot, 0x05));
  FailCalls(SystemCall::WriteAt, ENOSPC);
  EXPECT_CODE(errWRITE_FAILED, m_Tree.WriteSlot(kRoot, 0x07, 7));
  EXPECT_EQ((std::pair{0u, 2u}), (std::pair{Find(0x07), Find(0x0201)}));
}

}  // namespace
}  // namespace lumbra::test
