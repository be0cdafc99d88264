// Files: positions, sizes, sharing, and what failing system calls come to.
#include "platform/file.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

class FileTest : public World {
 protected:
  ResultCode Open(std::uint32_t nFlags, std::uint32_t nDisposition = openExisting) {
    return File().OpenWithFlags(Path("a"), nFlags, nDisposition);
  }
};

TEST_F(FileTest, ReadsAndWritesAtOffsets) {
  const auto pFile = OpenFile(u"a");
  std::uint32_t nDone = 9;
  const auto Read = [&](std::uint64_t nOffset) {
    std::string Text(8, '?');
    EXPECT_TRUE(pFile->SeekRead(nOffset, Text.data(), 8, &nDone));
    return Text.substr(0, nDone);
  };
  EXPECT_TRUE(pFile->SeekWrite(6, "abcd", 4, &nDone));  // past the end: the file grows
  EXPECT_EQ(4u, nDone);
  EXPECT_EQ(std::string(6, 0) + "abcd", ReadText("a"));
  EXPECT_EQ("bcd", Read(7));
  EXPECT_EQ("", Read(10));
  EXPECT_TRUE(pFile->SetSize(7));
  EXPECT_EQ("a", Read(6));
  EXPECT_TRUE(pFile->SetSize(9));
  EXPECT_EQ(std::string("a\0\0", 3), Read(6));
  std::uint64_t nSize = 0;
  EXPECT_TRUE(pFile->GetSize(&nSize));
  EXPECT_EQ(9u, nSize);
}

TEST_F(FileTest, FlushesOnlyWhatWasWritten) {
  const auto pFile = OpenFile(u"a");
  Step("nothing", pFile->Flush()).Is(true).Calls(SystemCall::Sync, 0);
  ASSERT_TRUE(pFile->SeekWrite(0, "x", 1, nullptr));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  Step("what cannot be flushed", pFile->Flush()).Is(false);
  EXPECT_TRUE(pFile->Modified());
  Step("the same again", pFile->Flush()).Is(true).Calls(SystemCall::Sync, kSyncsOfANewFile);
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
  EXPECT_FALSE(pFile->SeekRead(UINT64_MAX, nullptr, 1, nullptr));
  std::uint64_t nSize = 0;
  EXPECT_TRUE(pFile->GetSize(&nSize));
  EXPECT_CODE(errOK, pFile->LastResult());
}

// Whoever reads and lets others read may do so together; every other combination has the file alone.
TEST_F(FileTest, SharesOnlyReading) {
  constexpr std::uint32_t kReader = fileRead | fileShareRead;
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

TEST_F(FileTest, OpensByDisposition) {
  const std::tuple<std::uint32_t, ResultCode, ResultCode, std::uint64_t> kCases[] = {
      // disposition, for a missing file, for an existing one, its size then
      {createAlways, errOK, errOK, 0},  {createNew, errOK, errALREADY_EXISTS, 3},
      {openAlways, errOK, errOK, 3},    {openExisting, errFILE_NOT_FOUND, errOK, 3},
      {9, errFILE_NOT_FOUND, errOK, 3}, {truncateExisting, errFILE_NOT_FOUND, errOK, 0},
  };
  for (const auto& [nDisposition, nMissing, nExisting, nSize] : kCases) {
    fs::remove(Folder() / "a");
    EXPECT_CODE(nMissing, Open(fileRead | fileWrite, nDisposition)) << nDisposition;
    WriteFile("a", {1, 2, 3});
    EXPECT_CODE(nExisting, Open(fileRead | fileWrite, nDisposition)) << nDisposition;
    EXPECT_EQ(nSize, FileSize("a")) << nDisposition;
  }
  EXPECT_CODE(errPATH_NOT_FOUND, File().OpenWithFlags(Path("none/a"), fileWrite, createAlways));
  EXPECT_CODE(errACCESS_DENIED, File().OpenWithFlags(Path("."), fileRead, openExisting));
}

}  // namespace
}  // namespace lumbra::test
