// A host that works with a store in every way, and keeps a record of what was acknowledged. What disturbs the store is
// none of its business: the fault programme and the fuzz targets stand around it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "faults/record.h"
#include "host/standalone_host.h"

namespace lumbra::test {

// A number below the end, which is not 0.
using Source = std::function<std::uint64_t(std::uint64_t nEnd)>;
Source SourceOf(std::uint64_t nSeed);

// A store that is loaded into a host; one at a time in a process.
struct Instance {
  host::StandaloneHost Host;
  host::Store Store;
  bool bOpen = false;
};

// Called with what a driver finds, on any thread. Whoever uses a driver says what becomes of it: the fault programme
// prints it with what reproduces it, a fuzz target ends.
void Found(const std::string& What);

class Driver {
 public:
  struct Setup {
    std::filesystem::path Folder;
    bool bChecked = false;
    std::uint64_t nSeed = 1;                         // numbers what it writes
    Source Choose = {};                              // decides what it does; otherwise the seed does
    bool bExact = false;                             // nothing disturbs the store: every answer is known
    std::function<void(const Fact&)> Tell = {};      // receives every fact, before the call that it stands before
    host::StandaloneHost::TraceCallback Trace = {};  // receives every line of the store's trace
    host::Heal What = host::Heal::Off;               // before it is opened
    std::uint32_t nCacheSize = 16384;                // propCACHE_SIZE
    void (*pPause)(bool bOutside) = nullptr;         // called when the store is left, and with false when it is entered
    std::uint32_t nFirst = 1;                        // its numbered databases: this one and the next
    std::shared_ptr<Instance> pInstance = nullptr;   // that others use as well; then no limit reaches over databases
  };
  explicit Driver(Setup With, Record Known = {});
  ~Driver() { Close(); }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // Opens what is not open: the store, the databases, and their limits. False when something failed.
  enum class Limits { No, Yes };
  bool Open(Limits Set = Limits::Yes);
  void Close();

  // One operation; sometimes a flush, or the end of the store and a new start.
  void Step();
  void Flush();
  // Creates a name and adds an event in each database, and a shared name. A failure is told as a finding.
  void AddToEach(const char* pWhen);

  // Compares the store with the record. Whole: everything is there; Power: the disk may have lost some of what no flush
  // covered; Damage: anything may be lost, and where CRCs vouch for it only what is delivered counts; Foreign: any
  // bytes may be delivered. Lookups that may fail are those in a tree that was cut short; a repair makes up for them.
  enum class End { Whole, Power, Damage, Foreign };
  enum class Lookups { MustSucceed, MayFail };
  void Verify(End Of, Lookups Which);
  // Everything with a store that is damaged or foreign, if it opens: reading, adding, clearing. What is acknowledged
  // from then on is there after a new start.
  void UseDamaged(End Of);
  // Opens a store of which one file was lost or damaged, if that is allowed: everything is there that stands elsewhere,
  // and no id is given again. The names of a file that is shorter than it was are those that they were, or zeros, or
  // gone. Where a chain starts one or two segments later, those are taken for dropped.
  enum class Shape { Altered, Shorter, StartsLater };
  void VerifyHealed(const std::string& File, Shape Damaged);
  bool IsMarkedCorrupted() const;

  const Record& Known() const { return m_Known; }

 private:
  using Ops = LumbraOperations;
  struct Act;
  static const Act kActs[];
  struct Database {
    std::uint32_t nId;
    std::u16string Name;  // empty: numbered
    std::uint32_t nSegmentEvents;
    std::uint32_t nMaxEvents;  // 0: the limit over all databases
  };
  using Chain = std::map<Id, std::uint32_t>;  // whole records by segment

  auto InStore(auto Work) const;
  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const;
  bool Done(ResultCode nCode, const std::string& What);
  void Expect(bool bTrue, const std::string& What) const;  // of an undisturbed store
  void Tell(const Fact& Of);
  void Begin(OperationKind Kind) { Tell({Fact::Begin, {Key::Event, 0, Kind}}); }
  const Database* OwnerOf(const std::string& File) const;
  bool StandsIn(const Key& Of, const std::string& File) const;
  bool StandsBeforeChain(const Key& Of, const std::string& File) const;
  bool IsShared() const { return m_With.pInstance != nullptr; }
  std::uint64_t Below(std::uint64_t nEnd) { return m_With.Choose(nEnd); }
  const Database& Any() { return m_Databases[Below(m_Databases.size())]; }
  std::optional<Key> Pick(Key::Kinds Kind);

  bool OpenStore();
  bool OpenDatabase(Database* pDatabase, Limits Set);
  void TellDrops(const Database& Of);
  void LearnDrops(const Database& Of);
  ResultCode Look(std::uint32_t nDatabase, const std::string& Path, std::uint32_t nMode, Id* pnId) const;
  std::string AnyPath();
  std::optional<Id> Find(std::uint32_t nDatabase, const std::string& Path);
  bool Add(const Database& To);

  void AddOne() { (void)Add(Any()); }  // its failure was told where nothing may fail
  void FindShared() { (void)Find(kSystemDatabase, AnyPath()); }
  void Replace(const Key& Of, const std::string& Content, auto Write);
  void Update();
  void SetData();
  void RemoveData();
  void Read();
  void ReadRow();
  void Compact();
  void ClearOne() { (void)Clear(Any()); }  // half of it is no less than was told
  bool Clear(const Database& Which);
  void Reopen();

  std::optional<std::string> ValueOf(const Key& Of) const;
  std::uint32_t RecordsOf(std::uint32_t nDatabase) const;
  std::filesystem::path FolderOf(const Database& Of) const;
  std::filesystem::path EventFile(const Database& Of, Id nSegment) const;
  Chain ChainOf(const Database& Of) const;
  void VerifyValue(const Key& Of, const std::string* pMust, End How);
  void VerifyLookups(const std::set<Id>& Segments, const Promises& Must, End How, Lookups Which);

  Setup m_With;
  Record m_Known;
  std::shared_ptr<Instance> m_pInstance;
  std::vector<Database> m_Databases;
  std::uint64_t m_nSerial;
  End m_Compared = End::Whole;  // as what it was compared last: it decides which ids may come back
  std::string m_LastFailure;
  const char* m_pAct = "";
};

// The files of a folder by their paths below it.
using Files = std::map<std::string, std::string>;
Files ReadFiles(const std::filesystem::path& Folder);
void WriteFiles(const std::filesystem::path& Folder, const Files& All);  // in place of what is there

}  // namespace lumbra::test
