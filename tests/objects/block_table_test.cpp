// Blocks of files in memory: what is read through them is what the file holds, and how many there are.
#include "objects/block_table.h"

#include <random>
#include <thread>

#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

constexpr std::uint64_t kBlock = FileBlock::kSize;

class BlockTableTest : public World {
 protected:
  BlockTableTest() {
    for (const auto& [pName, pOpened] : {std::pair{"a", u"a"}, {"b", u"b"}}) {
      WriteFile(pName, Bytes(8 * kBlock, static_cast<std::uint8_t>(*pName)));
      m_Files.push_back(OpenFile(pOpened));
    }
    m_A.Use(m_Files[0].get(), 8 * kBlock);
    m_B.Use(m_Files[1].get(), 8 * kBlock);
  }
  ~BlockTableTest() override { BlockBudget::SetLimit(std::uint64_t{BlockBudget::kUsualKib} * 1024); }

  // Reads a byte of each of so many blocks. Answers how many calls that took.
  std::uint64_t CallsToRead(BlockFile& File, std::uint64_t nBlocks) {
    MarkCalls();
    for (std::uint64_t n = 0; n < nBlocks; ++n) {
      char c = 0;
      EXPECT_TRUE(File.SeekRead(n * kBlock + 7, &c, 1, nullptr));
    }
    return CallsSinceMark(SystemCall::ReadAt);
  }

  std::vector<std::unique_ptr<StorageFile>> m_Files;
  os::CriticalSection m_LockA;
  os::CriticalSection m_LockB;
  BlockTable m_TableA{m_LockA};
  BlockTable m_TableB{m_LockB};
  BlockFile m_A{&m_TableA, 0};
  BlockFile m_B{&m_TableB, 0};
};

// Reads and writes at random places, some of which fail or move the end of the file.
TEST_F(BlockTableTest, AnswersWhatTheFileHolds) {
  for (const std::uint64_t nLimit : {std::uint64_t{0}, 4 * kBlock, 100 * kBlock}) {
    BlockBudget::SetLimit(nLimit);
    std::mt19937 Chance(17);
    for (int i = 0; i < 3000; ++i) {
      const std::uint64_t nEnd = FileSize("a");
      const std::uint64_t nOffset = Chance() % (nEnd + 100);
      const auto nLength = static_cast<std::size_t>(1 + Chance() % (i % 7 == 0 ? 2 * kBlock : 50));
      Bytes Piece(nLength, static_cast<std::uint8_t>(i));
      const auto nSize = static_cast<std::uint32_t>(Piece.size());
      if (i % 200 == 0) Must(m_A.SetSize(nEnd / 2) ? errOK : errWRITE_FAILED);
      if (i % 3 == 0) {
        if (i % 30 == 0) FailCalls(SystemCall::WriteAt, os::kDiskFull);
        EXPECT_EQ(i % 30 != 0, m_A.SeekWrite(nOffset, Piece.data(), nSize, nullptr));
        continue;
      }
      std::uint32_t nRead = 0;
      ASSERT_TRUE(m_A.SeekRead(nOffset, Piece.data(), nSize, &nRead));
      Piece.resize(nRead);
      const Bytes All = ReadFile("a");
      const auto nFrom = static_cast<std::size_t>(std::min<std::uint64_t>(nOffset, All.size()));
      const auto nTo = static_cast<std::size_t>(std::min<std::uint64_t>(nOffset + nSize, All.size()));
      ASSERT_EQ(Bytes(All.begin() + static_cast<std::ptrdiff_t>(nFrom), All.begin() + static_cast<std::ptrdiff_t>(nTo)),
                Piece)
          << "limit " << nLimit << ", step " << i;
    }
  }
}

TEST_F(BlockTableTest, LeavesNothingOfAFailedRead) {
  FailCalls(SystemCall::ReadAt, os::kIoDevice);
  char c = 0;
  EXPECT_FALSE(m_A.SeekRead(0, &c, 1, nullptr));
  EXPECT_EQ(1u, CallsToRead(m_A, 1));
  EXPECT_EQ(0u, CallsToRead(m_A, 1));
}

TEST_F(BlockTableTest, SharesOneBudget) {
  BlockBudget::SetLimit(6 * kBlock);
  EXPECT_EQ(6u, CallsToRead(m_A, 6));
  EXPECT_EQ(0u, CallsToRead(m_A, 6));
  EXPECT_EQ(3u, CallsToRead(m_B, 3));  // which has less than its half, and takes it
  EXPECT_EQ(0u, CallsToRead(m_B, 3));
  BlockBudget::SetLimit(0);
  EXPECT_EQ(3u, CallsToRead(m_A, 3));
  EXPECT_EQ(3u, CallsToRead(m_A, 3));
}

TEST_F(BlockTableTest, ComesDownToALimitThatFellWhileItWasAtWork) {
  for (const bool bAll : {false, true}) {
    BlockBudget::SetLimit(4 * kBlock);
    EXPECT_EQ(4u, CallsToRead(m_A, 4));
    m_LockA.lock();
    std::thread([&] { BlockBudget::SetLimit(bAll ? 0 : 2 * kBlock); }).join();
    m_LockA.unlock();
    EXPECT_EQ(1u, CallsToRead(m_B, 1));
    EXPECT_EQ(bAll ? 1u : 0u, CallsToRead(m_B, 1));
    BlockBudget::SetLimit(0);
  }
}

TEST_F(BlockTableTest, TakesNothingFromWhoIsAtWork) {
  BlockBudget::SetLimit(4 * kBlock);
  EXPECT_EQ(4u, CallsToRead(m_A, 4));
  m_LockA.lock();
  std::thread([&] {
    for (int i = 0; i < 2; ++i) EXPECT_EQ(4u, CallsToRead(m_B, 4)) << "past the blocks, of which there are none";
  }).join();
  m_LockA.unlock();
  EXPECT_EQ(0u, CallsToRead(m_A, 4));
}

}  // namespace
}  // namespace lumbra::test
