// From the ids of objects to what they are called, for many ids at once: in the order of the ids, so that each block of
// the files is read once for all of them, however large the store is.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "inspect/objects.h"
#include "inspect/store.h"

namespace lumbra::inspect {

// The longest name that is put together, in UTF-16 units: the longest path of Windows. A store can hold longer ones, of
// any number of components, which would cost whoever looks at them as much.
inline constexpr std::size_t kMaxNameUnits = 32767;

// Aligned, so that each one is in one line of the processor's cache.
struct alignas(32) ObjectView {
  enum class State : std::uint8_t {
    Named,
    Nothing,    // the id is 0, which stands for no object
    Gone,       // it, or the store of another segment, is not there: that was dropped, say
    Lost,       // the store of the segment that the ids come from is not there
    TooLong,    // longer than kMaxNameUnits, or one too many of very long ones: the type is good
    Damaged,    // it, or one of its parents, contradicts itself
    Unsettled,  // the same, while somebody has the store
    Unreadable,
  };

  State Of = State::Gone;
  std::uint8_t nType = 0;
  std::uint64_t nParent = 0;  // with its database; 0 for none
  std::string_view Name;      // the whole path: UTF-8, or the bytes of a file's name that is none
};

// Where ids of objects come from. The number of a segment may be given to another one when its database is cleared:
// what was opened while the segment was there is known by a token, and otherwise it must have been born when its was.
struct ObjectsOrigin {
  std::uint32_t nDatabase = 0;
  std::uint32_t nSegment = 0;
  std::uint64_t nIdsBirth = 0;    // of the segment's id records (horizon.h); 0: not known
  std::uint64_t nToken = 0;       // of its objects; 0: they were not opened
  std::uint64_t nChainToken = 0;  // the first that can be of a segment of the same life of the database
};
inline constexpr std::uint64_t kNoObjects = UINT64_MAX;  // the token of objects that nobody can see any more

// All the object stores of a store, those opened that were used lately. One thread at a time.
class Paths {
 public:
  // What is kept of blocks, and of names of parents: bytes, each.
  Paths(const Store& Of, std::uint64_t nCacheBytes);

  // Opens the objects of a segment, so that they can be read when it is dropped meanwhile; their token.
  std::uint64_t Keep(std::uint32_t nDatabase, std::uint32_t nSegment);
  std::uint64_t NextToken() const { return m_nOpened + 1; }

  // The objects with these ids, which bear their database, in the same order. The views are good until the call
  // after the next one, so that another thread can use them while the next ones are looked up.
  const std::vector<ObjectView>& Resolve(std::span<const std::uint64_t> Ids, const ObjectsOrigin& From = {});

  // The store that an id leads to, opened; null when there is none.
  Objects* Find(std::uint64_t nId, const ObjectsOrigin& From = {});

  // Closes what would be in the writer's way, where a deleted file does not free its name. For those who wait.
  void Rest();

  // The object that kHostObjectAlias stands for; 0: none is known.
  void SetHostObject(std::uint64_t nId) { m_nHostObject = nId; }

 private:
  // Texts one behind another, which stay where they are.
  class Texts {
   public:
    char* Take(std::size_t nSize);
    void Clear() { m_nChunk = m_nUsed = m_nSize = 0; }
    std::size_t Size() const { return m_nSize; }  // bytes

   private:
    std::vector<std::vector<char>> m_Chunks;
    std::size_t m_nChunk = 0;
    std::size_t m_nUsed = 0;  // in that chunk
    std::size_t m_nSize = 0;
  };
  struct Key {
    std::uint32_t nDatabase;
    std::uint32_t nSegment;
    std::uint64_t nToken;  // 0: what has the number

    bool operator<(const Key& Other) const {
      return std::tie(nDatabase, nSegment, nToken) < std::tie(Other.nDatabase, Other.nSegment, Other.nToken);
    }
  };
  struct Held {
    std::unique_ptr<Objects> pObjects;  // null: it was not opened
    Answer Opened = Answer::Missing;
    std::uint64_t nNumber = 0;  // of those that were opened
    std::uint64_t nUsed = 0;    // in which call
  };
  struct Path {
    ObjectView::State State = ObjectView::State::Named;
    std::uint32_t nUnits = 0;  // of UTF-16
    std::string_view Text;
  };

  // The paths of parents by a key that is not 0, in one piece of memory: most lookups of a large store miss what the
  // processor keeps, so that each of them is to touch two places and not five.
  class KnownPaths {
   public:
    const Path* Find(std::uint64_t nKey) const;
    const Path& Add(std::uint64_t nKey, Path Known);  // whose text is copied
    void Clear();

    // Has the processor bring near what Find will look at, and what it finds.
    void Approach(std::uint64_t nKey) const;
    void ApproachText(std::uint64_t nKey) const;
    std::uint64_t Size() const { return m_Entries.size() * sizeof(Entry) + m_nTextBytes; }  // bytes

   private:
    struct alignas(32) Entry {
      std::uint64_t nKey = 0;
      Path Known;
    };

    std::size_t HomeOf(std::uint64_t nKey) const;
    Entry* FreeFor(std::uint64_t nKey);

    std::vector<Entry> m_Entries;  // a power of two, at least twice what is known
    std::size_t m_nKnown = 0;
    Texts m_Texts;
    std::uint64_t m_nTextBytes = 0;
  };
  struct Order {
    std::uint64_t nId;
    std::uint32_t nIndex;
  };
  // An object on its way to its view.
  struct Work {
    ObjectView Seen;
    const Held* pStore = nullptr;
    std::uint32_t nShortId = 0;
    bool bVolumes = false;
    tODB_ID_ENTRY Record;
  };

  Held& Open(const Key& Of, std::uint64_t nIdsBirth);
  Held& OpenByName(Key Of, const ObjectsOrigin& From);
  Held& HeldOf(std::uint64_t nId, const ObjectsOrigin& From);
  Held* FindKept(const Key& Of, const ObjectsOrigin& From);
  Answer OpenFolderOf(const Key& Of, os::FolderHandle* ppFolder);
  void Sort(std::span<const std::uint64_t> Ids);
  void Begin(std::uint64_t nId, const ObjectsOrigin& From, Work* pWork);
  void Finish(Work* pWork);
  std::uint64_t ParentKey(const Work& Of) const;
  const Path& ParentPath(const Held& In, std::uint32_t nShortId, bool bVolumes);
  ObjectView::State BuildPath(const Held& In, std::uint32_t nShortId, bool bVolumes, std::string* pText,
                              std::size_t* pnUnits);
  ObjectView::State ReadLinked(Objects& In, std::uint32_t* pnShortId, bool bVolumes, tODB_ID_ENTRY* pRecord);
  std::string_view Join(const Path& Parent, const tODB_ID_ENTRY& Record, std::string_view Name);

  const Store& m_Store;
  const std::uint64_t m_nCacheBytes;
  BlockCache m_Cache;
  std::map<std::uint32_t, os::FolderHandle> m_Folders;
  std::map<Key, Held> m_Stores;
  std::uint64_t m_nOpened = 0;
  std::uint64_t m_nCalls = 1;
  std::uint64_t m_nLastStore = 0;  // the upper half of the id that was asked for last ...
  Held* m_pLast = nullptr;         // ... and its store, within a call
  std::uint64_t m_nHostObject = 0;
  KnownPaths m_Parents;
  Path m_Failed;  // a path that is not kept, since it may come
  std::vector<Order> m_Order;
  std::vector<Order> m_Spare;
  struct Answers {
    std::vector<ObjectView> Views;
    Texts Shown;
  };
  Answers m_Answers[2];  // of this call and of the one before
  Answers* m_pNow = &m_Answers[0];
};

}  // namespace lumbra::inspect
