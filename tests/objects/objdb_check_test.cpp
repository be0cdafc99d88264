// The quick check of an object store, and the repair of a tree that lost its newest objects.
#include <cerrno>
#include <cstring>

#include "objects/objdb_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

class ObjectDbCheckTest : public ObjectDbTest {
 protected:
  // Hashes that all differ in the lowest byte: each has its slot in the root.
  void CreateMany(std::uint32_t nCount) {
    for (std::uint32_t i = 0; i < nCount; ++i) ASSERT_NE(0u, Create(0x1000 + i, "object " + std::to_string(i)));
  }

  // Takes the slots of the newest objects out of the tree, by giving the tree of before they were created
  // back.
  void CreateManyAndLoseSlots(std::uint32_t nKept, std::uint32_t nLost) {
    CreateMany(nKept);
    Close();
    const Bytes Tree = ReadFile("bt");
    ASSERT_CODE(errOK, Open(true));
    CreateMany(nKept + nLost);
    Close();
    WriteFile("bt", Tree);
    ASSERT_CODE(errOK, Open(true));
    TakeTrace();
  }

  using Lines = std::vector<std::string>;
};

TEST_F(ObjectDbCheckTest, LooksAtNothingWithoutCrcs) {
  ASSERT_CODE(errOK, Open(false));
  CreateMany(2);
  Close();
  Patch("dt", 5, {'?', '?', '?'});
  std::filesystem::resize_file(Folder() / "id", FileSize("id") - 1);
  std::filesystem::remove(Folder() / "bt");
  ASSERT_CODE(errOK, Open(false));
  TakeTrace();
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
  EXPECT_CODE(errOK, m_pDb->RefillEmptyTree());
  EXPECT_TRUE(TakeTrace().empty());
  EXPECT_EQ(0u, Find(0x1000));
}

TEST_F(ObjectDbCheckTest, PutsALostObjectBack) {
  ASSERT_CODE(errOK, Open(true));
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());  // of an empty store
  CreateManyAndLoseSlots(0, 1);
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
  EXPECT_EQ((Lines{"350 Object 0 - hash not found in BT", "350 Hash wasn't found for 1 objects, trying to repair BT",
                   "350 Object 1 - hash not found in BT", "350 BT was repaired, 1 object hashes were added"}),
            TakeTrace(400));
  EXPECT_EQ(Id(1), Find(0x1000));
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
  EXPECT_TRUE(TakeTrace(400).empty());
}

TEST_F(ObjectDbCheckTest, StopsAfterSixObjectsThatAreThere) {
  ASSERT_CODE(errOK, Open(true));
  CreateManyAndLoseSlots(97, 3);
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
  EXPECT_EQ((Lines{"350 Object 98 - hash not found in BT", "350 Object 99 - hash not found in BT",
                   "350 Hash wasn't found for 2 objects, trying to repair BT", "350 Object 100 - hash not found in BT",
                   "350 Object 99 - hash not found in BT", "350 Object 98 - hash not found in BT",
                   "350 BT was repaired, 3 object hashes were added"}),
            TakeTrace(400));
  for (std::uint32_t i = 0; i < 100; ++i) EXPECT_EQ(Id(i + 1), Find(0x1000 + i));
}

// A tree that is gone altogether comes back whole, with splits, from the id records.
TEST_F(ObjectDbCheckTest, RebuildsALostTree) {
  ASSERT_CODE(errOK, Open(true));
  for (std::uint64_t i = 0; i < 500; ++i) ASSERT_NE(0u, Create(i * 0x9E3779B97F4A7C15 | 1, "x"));
  Close();
  std::filesystem::remove(Folder() / "bt");
  ASSERT_CODE(errOK, Open(true));
  TakeTrace();
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
  EXPECT_EQ("350 BT was repaired, 500 object hashes were added", TakeTrace(400).back());
  for (std::uint64_t i = 0; i < 500; ++i)
    ASSERT_EQ(Id(static_cast<std::uint32_t>(i + 1)), Find(i * 0x9E3779B97F4A7C15 | 1));
}

// The same at the start, whatever the newest objects look like; and when it is cut short, it begins again.
TEST_F(ObjectDbCheckTest, RefillsAnEmptyTree) {
  const auto LoseTree = [this] {
    Close();
    std::filesystem::remove(Folder() / "bt");
    return Open(true);
  };
  const auto Hash = [](std::uint32_t i) {
    return i * 0x9E3779B97F4A7C15 | 1;
  };
  ASSERT_CODE(errOK, Open(true));
  for (std::uint32_t i = 1; i <= 500; ++i) ASSERT_EQ(Id(i), Create(Hash(i), "x"));
  ASSERT_CODE(errOK, LoseTree());
  FailCalls(SystemCall::WriteAt, ENOSPC, 700);
  EXPECT_TRUE(Failed(m_pDb->RefillEmptyTree()));
  ResetSystem();
  EXPECT_EQ(0u, Find(Hash(1)));
  Close();
  ASSERT_CODE(errOK, Open(true));
  EXPECT_CODE(errOK, m_pDb->RefillEmptyTree());
  for (std::uint32_t i = 1; i <= 500; ++i) ASSERT_EQ(Id(i), Find(Hash(i)));

  ASSERT_EQ(Id(501), Create(Hash(77), "x", true));
  ASSERT_CODE(errOK, LoseTree());
  TakeTrace();
  EXPECT_CODE(errOK, m_pDb->RefillEmptyTree());
  EXPECT_EQ("350 BT was repaired, 500 object hashes were added", TakeTrace(400).back());
  for (std::uint32_t i = 1; i <= 500; ++i) ASSERT_EQ(Id(i == 77 ? 501 : i), Find(Hash(i)));
}

TEST_F(ObjectDbCheckTest, FindsDamageInTheNewestObjects) {
  ASSERT_CODE(errOK, Open(true));
  ASSERT_EQ(Id(1), Create(0x0101, "old"));
  ASSERT_EQ(Id(2), Create(0x0002, "new"));
  ASSERT_EQ(Id(3), Create(0x0003, "newest"));
  ASSERT_CODE(errOK, SetData(Id(3), 1, "data"));
  const std::string kName =
      "ValidDataCrc(objectEntry.nObjectHash, buffer.Get(), objectEntry.nNameSize, buffer.Get() + "
      "objectEntry.nNameSize)";
  constexpr std::size_t kCutOff = 0;
  // Names with CRCs at 4 (old), 11 (new) and 18 (newest), its block at 28, its array at 36; records of 33 bytes.
  const std::tuple<const char*, std::size_t, std::string> kDamage[] = {
      {"dt", 5, ""},  // an old object's name: not looked at
      {"dt", 12, kName},
      {"dt", 20, kName},
      {"dt", 29, "ValidDataCrc(nObjectId + 1, buffer.Get(), userDataSize, buffer.Get() + userDataSize)"},
      {"dt", 40,
       "ValidDataCrc(nObjectId + 1, dataEntries, objectEntry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), "
       "dataEntries + objectEntry.nDataEntriesCount)"},
      {"dt", kCutOff, "objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT"},
      {"id", kCutOff, "Succeeded(m_IdDB.FastConsistencyCheck())"},
      {"id", 12 + 33 + 3, "m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)"}};
  for (const auto& [pFile, nOffset, Check] : kDamage) {
    const Bytes kGood = ReadFile(pFile);
    ASSERT_CODE(errOK, Reopen(pFile, [n = nOffset](Bytes& Content) {
                  if (n == kCutOff) return Content.pop_back();
                  Content[n] ^= 1;
                }));
    EXPECT_CODE(Check.empty() ? errOK : errDATA_CORRUPTED, m_pDb->FastConsistencyCheck()) << Check;
    const Lines Traced = TakeTrace(400);
    EXPECT_EQ(Check.empty() ? "" : FailedCheck(Check, errDATA_CORRUPTED), Traced.empty() ? "" : Traced.back());
    Close();
    WriteFile(pFile, kGood);
  }
}

TEST_F(ObjectDbCheckTest, FindsTwoRecordsWithOneHash) {
  ASSERT_CODE(errOK, Open(true));
  ASSERT_EQ(Id(1), Create(0x0101, "one"));
  ASSERT_EQ(Id(2), Create(0x0101, "one", true));
  // The root slot of both leads to the older one again; the CRC of the root is made to fit.
  ASSERT_CODE(errOK, Reopen("bt", [](Bytes& Content) {
                Content[16 + 4] = 1;
                const std::uint32_t nCrc = Crc32(0, Content.data() + 16, 1024);
                std::memcpy(Content.data() + 1040, &nCrc, 4);
              }));
  EXPECT_CODE(errDATA_CORRUPTED, m_pDb->FastConsistencyCheck());
  EXPECT_EQ((Lines{FailedCheck("MAKE_SHORT_OBJECT_ID(idFromBt) == nObjectId + 1", errDATA_CORRUPTED)}), TakeTrace(400));
}

// Feature sets with fewer CRCs are checked as far as they have them.
TEST_F(ObjectDbCheckTest, ChecksWhatAFeatureSetHas) {
  for (const char* const pMagic : {"4f444251", "4f444252"}) {
    ASSERT_CODE(errOK, Fresh(true, pMagic));
    ASSERT_EQ(Id(1), Create(0x0101, "one"));
    ASSERT_CODE(errOK, SetData(Id(1), 1, "data"));
    EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
    ASSERT_CODE(errOK, Reopen("dt", [](Bytes& Content) { Content[8] = '?'; }));  // the block, after an unchecked name
    EXPECT_CODE(errDATA_CORRUPTED, m_pDb->FastConsistencyCheck());
  }
}

}  // namespace
}  // namespace lumbra::test
