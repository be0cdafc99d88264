// A host that works with a store in every way, and keeps a record of what was acknowledged.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "faults/record.h"
#include "host/standalone_host.h"

namespace lumbra::test {

using Random = std::mt19937_64;

// A store that is loaded into a host; one at a time in a process.
struct Instance {
  host::StandaloneHost Host;
  host::Store Store;
  bool bOpen = false;
};

class Driver {
 public:
  struct Setup {
    std::filesystem::path Folder;
    bool bChecked = false;
    std::uint64_t nSeed = 1;
    std::function<void(const Fact&)> Tell = {};     // receives every fact, before the call that it stands before
    std::uint32_t nFirst = 1;                       // its numbered databases: this one and the next
    std::shared_ptr<Instance> pInstance = nullptr;  // that others use as well; then no limit reaches over databases
    std::function<std::uint64_t(std::uint64_t nEnd)> Choose = {};  // a number below the end; otherwise the seed decides
  };
  explicit Driver(Setup With, Record Known = {});
  ~Driver() { Close(); }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // Opens what is not open: the store, the databases, and their limits. False when something failed.
  enum class Limits { No, Yes };
  bool Open(Limits Set = Limits::Yes);
  void Close();

  // One operation, which the seed and the number decide; sometimes a flush, or the end of the store and a new start.
  void Step(std::uint64_t nStep);
  bool Flush();
  // Creates a name and adds an event in each database, and a shared name. A failure is told as a finding.
  void AddToEach(const char* pWhen);

  // Compares the store with the record. Whole: everything is there; Power: the disk may have lost some of what no flush
  // covered; Damage: anything may be lost, and only what is delivered counts. Lookups that may fail are those in a tree
  // that was cut short; a repair makes up for them.
  enum class End { Whole, Power, Damage };
  enum class Lookups { MustSucceed, MayFail };
  void Verify(End Of, Lookups Which);
  bool IsMarkedCorrupted() const;

  Record& Known() { return m_Known; }

 private:
  using Ops = LumbraOperations;
  struct Database {
    std::uint32_t nId;
    std::u16string Name;  // empty: numbered
    std::uint32_t nSegmentEvents;
    std::uint32_t nMaxEvents;  // 0: the limit over all databases
  };
  using Chain = std::map<Id, std::uint32_t>;  // whole records by segment

  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const;
  void Tell(const Fact& Of);
  void TellOwnObjects();
  void Begin(OperationKind Kind, Id nWhere) { Tell({Fact::Begin, {Key::Event, nWhere, Kind}}); }
  std::uint64_t Below(std::uint64_t nEnd) { return m_With.Choose ? m_With.Choose(nEnd) : m_Random() % nEnd; }
  const Key* Pick(Key::Kinds Kind);

  bool OpenDatabase(Database* pDatabase, Limits Set);
  std::optional<Id> Find(std::uint32_t nDatabase);
  bool Add(const Database& To);
  void TellDrops(const Database& Of);
  void LearnDrops(const Database& Of);
  void Update();
  void SetData();
  void RemoveData();
  void Clear(const Database& Which);
  void Read();

  std::optional<std::string> EventOf(Id nId) const;
  std::optional<std::string> ValueOf(const Key& Of) const;
  std::pair<std::uint32_t, std::uint64_t> Info(std::uint32_t nDatabase) const;  // records, bytes
  std::filesystem::path FolderOf(const Database& Of) const;
  Chain ChainOf(const Database& Of) const;
  void VerifyEvents(const Database& Of, const Chain& There, const Promises& Must, End How);
  void VerifyEvent(Id nId, const Promises& Must, End How);
  void VerifyObjects(const Promises& Must, End How);
  void VerifyLookups(const std::set<Id>& Stores, const Promises& Must, End How, Lookups Which);

  Setup m_With;
  Record m_Known;
  std::shared_ptr<Instance> m_pInstance;
  std::vector<Database> m_Databases;
  Random m_Random;
  std::uint64_t m_nSerial;
  End m_Compared = End::Whole;  // as what it was compared last: it decides which ids may come back
  std::string m_LastFailure;    // of finding or adding
};

}  // namespace lumbra::test
