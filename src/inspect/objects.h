// The objects of one store, a segment's or the shared ones, by their short ids: what they are called, what belongs to
// them. The tree is not asked: whoever looks for a name passes over the records, so that a lost tree hides nothing.
//
// A record's name never changes once it is there. Its data does: a record is read with what it leads to, and once more;
// where the two are equal that is good. What nobody can see who takes no locks: a block of data that is rewritten in
// place meanwhile may be read half old, in a store without CRCs.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "format/object_files.h"
#include "inspect/file.h"
#include "inspect/horizon.h"
#include "inspect/store.h"
#include "platform/os.h"

namespace lumbra::inspect {

enum class [[nodiscard]] Answer{
    Read,
    Missing,     // no such object or block at the horizon, or no such file
    Damaged,     // what was read contradicts itself
    Unsettled,   // the same, while somebody has the store
    Unreadable,  // the system refuses
};

struct ObjectFileNames {
  std::u16string Ids;
  std::u16string Tree;
  std::u16string Data;
};
ObjectFileNames SharedObjectFiles();
ObjectFileNames ObjectFilesOf(std::uint32_t nSegment);

// A block of data of an object, as its entry has it.
struct DataBlock {
  std::uint32_t nKey;
  std::uint32_t nOffset;
  std::uint32_t nSize;  // the user's bytes
};

// One thread at a time.
class Objects {
 public:
  // The store and the cache outlive it.
  Objects(const Store& Of, os::FolderHandle pFolder, ObjectFileNames Names, BlockCache* pCache);

  // Opens the files, and takes their sizes. Where the id records were born at another time than is expected, they are
  // another life's, and Missing; 0 is any.
  Answer Open(std::uint64_t nIdsBirth = 0);

  // Whether it was deleted since: another store may have its place.
  bool IsDeleted() const;

  // How many objects there were then; their short ids are 1 to this. An id beyond is looked for once more.
  std::uint32_t Count() const { return m_nCount; }

  // A record. Its CRC, where it has one, is right.
  Answer ReadRecord(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord);

  // The stored bytes of a name that a record of this store has: UTF-8 or UTF-16, as its flags say. Good until the next
  // call.
  Answer ReadName(const tODB_ID_ENTRY& Of, std::span<const std::uint8_t>* pName);

  // The blocks of an object in the order in which they stand, and the bytes of one of them.
  Answer ListData(std::uint32_t nShortId, std::vector<DataBlock>* pBlocks);
  // One that is longer than the most is Missing.
  Answer ReadData(std::uint32_t nShortId, std::uint32_t nKey, std::vector<std::uint8_t>* pBytes,
                  std::uint32_t nMost = UINT32_MAX);

  bool HasRecordCrcs() const { return m_nStored != sizeof(tODB_ID_ENTRY); }
  std::uint32_t Features() const { return m_nFeatures; }  // StoreFeatures of the data file

 private:
  struct Half {  // one of the two files
    std::u16string Name;
    std::unique_ptr<File> pFile;
    std::uint64_t nSize = 0;  // as far as is known
  };

  Answer OpenHalf(Half* pHalf);
  Answer ReadHeads();
  void Measure();
  Answer Get(Half& From, std::uint64_t nOffset, std::uint32_t nSize, std::span<const std::uint8_t>* pBytes);
  Answer Contradiction();
  Answer TryRecord(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord);
  Answer TryName(const tODB_ID_ENTRY& Of, std::span<const std::uint8_t>* pName);
  Answer TryEntries(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord, std::vector<tODB_DATA_ENTRY>* pEntries);
  Answer TryBlock(std::uint32_t nShortId, const tODB_DATA_ENTRY& Of, std::vector<std::uint8_t>* pBytes);
  bool IsStill(std::uint32_t nShortId, const tODB_ID_ENTRY& Record);
  template <class TryOnce>
  Answer UntilSettled(std::uint32_t nShortId, TryOnce Try);
  void ForgetRecord(std::uint32_t nShortId);

  const Store& m_Store;
  const os::FolderHandle m_pFolder;
  BlockCache* const m_pCache;
  Half m_Ids;
  Half m_Data;
  std::uint32_t m_nStored = sizeof(tODB_ID_ENTRY);  // bytes of a record in the file
  std::uint32_t m_nFeatures = 0;
  std::uint32_t m_nCount = 0;
  bool m_bHeads = false;  // the heads were read
  bool m_bHeld = false;   // whether somebody had the store, when that was last asked
  std::chrono::steady_clock::time_point m_HeldAsked{};
};

}  // namespace lumbra::inspect
