// Files: sharing, and what failing system calls come to.
#include "platform/file.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

using FileTest = World;

TEST_F(FileTest, FlushesOnlyWhatWasWritten) {
  const auto pFile = OpenFile(u"a");
  Step("nothing", pFile->Flush()).Is(true).Calls(SystemCall::Sync, 0);
  ASSERT_TRUE(pFile->SeekWrite(0, "x", 1, nullptr));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  Step("what cannot be flushed", pFile->Flush()).Is(false);
  EXPECT_TRUE(pFile->Modified());
  Step("the same again", pFile->Flush()).Is(true).Calls(SystemCall::Sync, 2);
  Step("once more", pFile->Flush()).Is(true).Calls(SystemCall::Sync, 0);
  ASSERT_TRUE(pFile->SetSize(0));
  Step("another size", pFile->Flush()).Is(true).Calls(SystemCall::Sync, 1);
}

TEST_F(FileTest, KeepsTheReasonOfAFailure) {
  const auto pFile = OpenFile(u"a");
  FailCalls(SystemCall::WriteAt, os::kDiskFull);
  EXPECT_FALSE(pFile->SeekWrite(0, "x", 1, nullptr));
  EXPECT_EQ(os::kDiskFull, pFile->LastSystemError());
  EXPECT_CODE(errOUT_OF_SPACE, pFile->LastResult());
  std::uint64_t nSize = 0;
  EXPECT_TRUE(pFile->GetSize(&nSize));
  EXPECT_CODE(errOK, pFile->LastResult());
}

// Whoever reads and lets others read may do so together; every other combination has the file alone.
TEST_F(FileTest, SharesOnlyReading) {
  constexpr std::uint32_t kReader = fileRead | fileShareRead;
  const auto Open = [this](std::uint32_t nFlags, std::uint32_t nDisposition = openExisting) {
    return File().OpenWithFlags(Path("a"), nFlags, nDisposition);
  };
  WriteFile("a", {1});
  for (const std::uint32_t nFirst : {kReader, kReader | fileWrite, +fileRead}) {
    File Holder;
    EXPECT_CODE(errOK, Holder.OpenWithFlags(Path("a"), nFirst, openExisting)) << nFirst;
    for (const std::uint32_t nSecond : {kReader, kReader | fileWrite, +fileRead}) {
      const ResultCode nCode = nFirst == kReader && nSecond == kReader ? errOK : errSHARING_VIOLATION;
      EXPECT_CODE(nCode, Open(nSecond)) << nFirst << ' ' << nSecond;
    }
    EXPECT_CODE(errSHARING_VIOLATION, Open(fileWrite, createAlways)) << nFirst;
    EXPECT_EQ(1u, FileSize("a")) << nFirst;  // nor is it truncated
  }
}

}  // namespace
}  // namespace lumbra::test
