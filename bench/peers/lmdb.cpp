// LMDB without syncs and without a writable map: a commit hands its pages to the system by pwrite.
#include <lmdb.h>

#include <cstring>
#include <vector>

#include "peer.h"

namespace lumbra::peers {
namespace {

constexpr std::size_t kMapSize = std::size_t{1} << 36;  // address space alone

void Check(int nResult) {
  Require(nResult == 0, "LMDB: an operation failed");
}

MDB_val Value(const void* pData, std::size_t nSize) {
  return {nSize, const_cast<void*>(pData)};
}

struct Environment {
  explicit Environment(const std::filesystem::path& File) {
    Check(mdb_env_create(&pHandle));
    Check(mdb_env_set_maxdbs(pHandle, 3));
    Check(mdb_env_set_mapsize(pHandle, kMapSize));
    Check(mdb_env_open(pHandle, File.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_NOTLS, 0666));
    MDB_txn* pOpening = nullptr;
    Check(mdb_txn_begin(pHandle, nullptr, 0, &pOpening));
    Check(mdb_dbi_open(pOpening, "events", MDB_CREATE | MDB_INTEGERKEY, &nEvents));
    Check(mdb_dbi_open(pOpening, "ids", MDB_CREATE, &nIds));
    Check(mdb_dbi_open(pOpening, "paths", MDB_CREATE | MDB_INTEGERKEY, &nPaths));
    Check(mdb_txn_commit(pOpening));
  }
  ~Environment() { mdb_env_close(pHandle); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  MDB_env* pHandle = nullptr;
  MDB_dbi nEvents = 0;  // by number
  MDB_dbi nIds = 0;     // by path
  MDB_dbi nPaths = 0;   // by id
};

class LmdbSession final : public Session {
 public:
  explicit LmdbSession(const Environment& Of) : m_Of(Of) {
    Check(mdb_txn_begin(m_Of.pHandle, nullptr, MDB_RDONLY, &m_pReading));
    Check(mdb_cursor_open(m_pReading, m_Of.nEvents, &m_pCursor));
    mdb_txn_reset(m_pReading);
  }
  ~LmdbSession() override {
    mdb_cursor_close(m_pCursor);
    mdb_txn_abort(m_pReading);
  }

  void Append(const Event& Added) override {
    if (m_nNextEvent == 0) m_nNextEvent = NextKey(m_Of.nEvents);
    MDB_txn* const pWriting = BeginWriting();
    Put(pWriting, m_Of.nEvents, Value(&m_nNextEvent, sizeof(m_nNextEvent)), Value(&Added, sizeof(Added)), MDB_APPEND);
    Check(mdb_txn_commit(pWriting));
    ++m_nNextEvent;
  }
  void Read(std::uint64_t nFirst, std::span<Event> Into) override {
    const Snapshot Now(m_pReading);
    if (Into.size() == 1) return Copy(Get(m_Of.nEvents, ++nFirst), &Into[0]);
    Check(mdb_cursor_renew(m_pReading, m_pCursor));
    MDB_val Key = Value(&++nFirst, sizeof(nFirst));
    MDB_val Found{};
    for (MDB_cursor_op Where = MDB_SET_KEY; Event & One : Into) {
      Check(mdb_cursor_get(m_pCursor, &Key, &Found, Where));
      Copy(Found, &One);
      Where = MDB_NEXT;
    }
  }
  Event ReadLast() override {
    const Snapshot Now(m_pReading);
    Check(mdb_cursor_renew(m_pReading, m_pCursor));
    MDB_val Key{};
    MDB_val Found{};
    Check(mdb_cursor_get(m_pCursor, &Key, &Found, MDB_LAST));
    Event Last;
    Copy(Found, &Last);
    return Last;
  }
  std::uint64_t Intern(const Path& Name) override {
    MDB_val Key = Value(Name.Utf8.data(), Name.Utf8.size());
    std::uint64_t nId = 0;
    {
      const Snapshot Now(m_pReading);
      MDB_val Found{};
      const int nResult = mdb_get(m_pReading, m_Of.nIds, &Key, &Found);
      if (nResult == 0) {
        std::memcpy(&nId, Found.mv_data, sizeof(nId));
        return nId;
      }
      Require(nResult == MDB_NOTFOUND, "LMDB: mdb_get");
    }
    if (m_nNextId == 0) m_nNextId = NextKey(m_Of.nPaths);
    nId = m_nNextId;
    MDB_txn* const pWriting = BeginWriting();
    Put(pWriting, m_Of.nIds, Key, Value(&nId, sizeof(nId)), 0);
    Put(pWriting, m_Of.nPaths, Value(&nId, sizeof(nId)), Key, MDB_APPEND);
    Check(mdb_txn_commit(pWriting));
    ++m_nNextId;
    return nId;
  }
  std::string_view PathOf(std::uint64_t nId, std::span<char> Into) override {
    const Snapshot Now(m_pReading);
    const MDB_val Found = Get(m_Of.nPaths, nId);
    const std::string_view Name(static_cast<const char*>(Found.mv_data), Found.mv_size);
    return {Into.data(), Name.copy(Into.data(), Into.size())};
  }

 private:
  // What is committed now, for one operation.
  struct Snapshot {
    explicit Snapshot(MDB_txn* pOf) : pReading(pOf) { Check(mdb_txn_renew(pReading)); }
    ~Snapshot() { mdb_txn_reset(pReading); }
    MDB_txn* pReading;
  };

  static void Copy(const MDB_val& Found, Event* pInto) { std::memcpy(pInto, Found.mv_data, sizeof(*pInto)); }
  MDB_val Get(MDB_dbi nTable, const std::uint64_t& nKey) {
    MDB_val Key = Value(&nKey, sizeof(nKey));
    MDB_val Found{};
    Check(mdb_get(m_pReading, nTable, &Key, &Found));
    return Found;
  }
  MDB_txn* BeginWriting() {
    MDB_txn* pWriting = nullptr;
    Check(mdb_txn_begin(m_Of.pHandle, nullptr, 0, &pWriting));
    return pWriting;
  }
  static void Put(MDB_txn* pWriting, MDB_dbi nTable, MDB_val Key, MDB_val Data, unsigned nFlags) {
    Check(mdb_put(pWriting, nTable, &Key, &Data, nFlags));
  }
  // Keys count from 1.
  std::uint64_t NextKey(MDB_dbi nTable) {
    const Snapshot Now(m_pReading);
    MDB_stat Status{};
    Check(mdb_stat(m_pReading, nTable, &Status));
    return Status.ms_entries + 1;
  }

  const Environment& m_Of;
  MDB_txn* m_pReading = nullptr;
  MDB_cursor* m_pCursor = nullptr;
  std::uint64_t m_nNextEvent = 0;
  std::uint64_t m_nNextId = 0;
};

class Lmdb final : public Peer {
 public:
  explicit Lmdb(const Place& Where) {
    for (std::uint32_t nDatabase = 1; nDatabase <= Where.nDatabases; ++nDatabase) {
      m_Open.push_back(std::make_unique<Environment>(Where.Folder / std::to_string(nDatabase)));
    }
  }
  std::unique_ptr<Session> Use(std::uint32_t nDatabase) override {
    return std::make_unique<LmdbSession>(*m_Open[nDatabase - 1]);
  }

 private:
  std::vector<std::unique_ptr<Environment>> m_Open;
};

}  // namespace

std::unique_ptr<Peer> OpenLmdb(const Place& Where) {
  return std::make_unique<Lmdb>(Where);
}

}  // namespace lumbra::peers
