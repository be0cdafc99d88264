// Files: positions, sizes, sharing, and what failing system calls come to.
#include "platform/file.h"

#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using FileTest = World;

TEST_F(FileTest, ReadsAndWritesAtOffsets) {
  const auto pFile = OpenFile(u"a");
  std::uint32_t nDone = 9;
  const auto Read = [&](std::uint64_t nOffset, std::uint32_t nSize) {
    Bytes Data(nSize);
    EXPECT_TRUE(pFile->SeekRead(nOffset, Data.data(), nSize, &nDone));
    Data.resize(nDone);
    return Data;
  };
  EXPECT_EQ(Bytes(), Read(10, 0));
  EXPECT_TRUE(pFile->SeekWrite(6, "abcd", 4, &nDone));  // past the end: the file grows
  EXPECT_EQ(4u, nDone);
  EXPECT_EQ(std::string(6, 0) + "abcd", ReadText("a"));
  EXPECT_EQ((Bytes{'b', 'c', 'd'}), Read(7, 8));
  EXPECT_EQ(Bytes(), Read(10, 8));
  std::uint64_t nSize = 0;
  EXPECT_TRUE(pFile->SetSize(2) && pFile->GetSize(&nSize));
  EXPECT_EQ(2u, nSize);
  EXPECT_TRUE(pFile->SetSize(5));
  EXPECT_EQ(Bytes(5), ReadFile("a"));
}

TEST_F(FileTest, FlushesOnlyWhatWasWrittenAndKeepsTheReasonOfAFailure) {
  const auto pFile = OpenFile(u"a");
  EXPECT_TRUE(pFile->Flush());
  EXPECT_EQ(0u, CallsOf(SystemCall::Sync));
  EXPECT_TRUE(pFile->SeekWrite(0, "x", 1, nullptr));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  EXPECT_FALSE(pFile->Flush());
  EXPECT_EQ(os::kIoDevice, pFile->LastSystemError());
  EXPECT_TRUE(pFile->Modified());
  EXPECT_TRUE(pFile->Flush());
  EXPECT_EQ(1 + kSyncsOfANewFile, CallsOf(SystemCall::Sync));
  EXPECT_TRUE(pFile->SetSize(0) && pFile->Flush() && pFile->Flush());
  EXPECT_EQ(2 + kSyncsOfANewFile, CallsOf(SystemCall::Sync));

  constexpr ResultCode kDiskFails = CodeOfNumber(0x8007045D);
  const std::pair<os::SystemError, ResultCode> kCases[] = {
      {os::kDiskFull, errOUT_OF_SPACE},         {os::kAccessDenied, errACCESS_DENIED},
      {os::kNotEnoughMemory, errOUT_OF_MEMORY}, {os::kInvalidParameter, errPARAMETER_INVALID},
      {os::kGeneralFailure, errUNSPECIFIED},    {os::kIoDevice, kDiskFails},
  };
  for (const auto& [nError, nCode] : kCases) {
    FailCalls(SystemCall::WriteAt, nError);
    EXPECT_FALSE(pFile->SeekWrite(0, "x", 1, nullptr));
    EXPECT_EQ(nError, pFile->LastSystemError());
    EXPECT_CODE(nCode, pFile->LastResult());
  }
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
      EXPECT_CODE(nCode, File().OpenWithFlags(Path("a"), nSecond, openExisting)) << nFirst << ' ' << nSecond;
    }
    // A file that somebody holds is not even truncated.
    EXPECT_CODE(errSHARING_VIOLATION, File().OpenWithFlags(Path("a"), fileWrite, createAlways)) << nFirst;
    EXPECT_EQ(1u, FileSize("a")) << nFirst;
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
    EXPECT_CODE(nMissing, File().OpenWithFlags(Path("a"), fileRead | fileWrite, nDisposition)) << nDisposition;
    WriteFile("a", {1, 2, 3});
    EXPECT_CODE(nExisting, File().OpenWithFlags(Path("a"), fileRead | fileWrite, nDisposition)) << nDisposition;
    EXPECT_EQ(nSize, FileSize("a")) << nDisposition;
  }
  EXPECT_CODE(errPATH_NOT_FOUND, File().OpenWithFlags(Path("none/a"), fileWrite, createAlways));
  EXPECT_CODE(errACCESS_DENIED, File().OpenWithFlags(Path("."), fileRead, openExisting));
}

TEST_F(FileTest, SeeksAndCloses) {
  WriteFile("a", {1, 2, 3, 4});
  File Opened;
  EXPECT_CODE(errOK, Opened.Close());
  ASSERT_CODE(errOK, Opened.OpenWithFlags(Path("a"), fileRead | fileWrite, openExisting));
  std::uint64_t nPosition = 0;
  for (const auto& [nOrigin, nDistance, nReached] : {std::tuple{2u, -1, 3u}, {1u, -2, 1u}, {7u, 2, 2u}}) {
    EXPECT_CODE(errOK, Opened.Seek(nOrigin, nDistance, &nPosition));  // an unknown origin is the start
    EXPECT_EQ(nReached, nPosition);
  }
  std::uint8_t nByte = 0;
  std::uint32_t nRead = 0;
  EXPECT_CODE(errOK, Opened.Read(&nByte, 1, &nRead));
  EXPECT_EQ(3, nByte);
  EXPECT_CODE(errOK, Opened.Close());
  ASSERT_CODE(errOK, Opened.OpenWithFlags(Path("a"), fileRead, openExisting));
  EXPECT_CODE(errACCESS_DENIED, Opened.Write(&nByte, 1, &nRead));
  EXPECT_TRUE(Failed(Opened.SetSize(0)));  // for the same reason, which Wine does not tell
  EXPECT_EQ(4u, FileSize("a"));
  EXPECT_CODE(errOK, Opened.Close());
  EXPECT_CODE(errHANDLE_INVALID, Opened.Read(&nByte, 1, &nRead));
}

}  // namespace
}  // namespace lumbra::test
