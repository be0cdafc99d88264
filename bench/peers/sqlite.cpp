// SQLite with a write-ahead log that is never synced. A statement is a transaction, and is prepared once a session. The
// session locks the files for good, as Lumbra does, unless there are others beside it.
#include <sqlite3.h>

#include <cstring>

#include "peer.h"

namespace lumbra::peers {
namespace {

void Check(bool bTrue) {
  Require(bTrue, "SQLite: an operation failed");
}

// One run of a statement: it is ready for the next one afterwards.
class Run {
 public:
  explicit Run(sqlite3_stmt* pStatement) : m_pStatement(pStatement) {}
  ~Run() { sqlite3_reset(m_pStatement); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  Run& Bind(int nAt, std::uint64_t nValue) {
    Check(sqlite3_bind_int64(m_pStatement, nAt, static_cast<sqlite3_int64>(nValue)) == SQLITE_OK);
    return *this;
  }
  Run& Bind(int nAt, const Event& Value) {
    Check(sqlite3_bind_blob(m_pStatement, nAt, &Value, sizeof(Value), SQLITE_STATIC) == SQLITE_OK);
    return *this;
  }
  Run& Bind(int nAt, const std::string& Text) {
    Check(sqlite3_bind_text(m_pStatement, nAt, Text.data(), static_cast<int>(Text.size()), SQLITE_STATIC) == SQLITE_OK);
    return *this;
  }
  // True while there is a row.
  bool Step() {
    const int nResult = sqlite3_step(m_pStatement);
    Check(nResult == SQLITE_ROW || nResult == SQLITE_DONE);
    return nResult == SQLITE_ROW;
  }
  std::uint64_t Number() { return static_cast<std::uint64_t>(sqlite3_column_int64(m_pStatement, 0)); }
  std::string_view Bytes() {
    const auto* const pBytes = static_cast<const char*>(sqlite3_column_blob(m_pStatement, 0));
    return {pBytes, static_cast<std::size_t>(sqlite3_column_bytes(m_pStatement, 0))};
  }

 private:
  sqlite3_stmt* m_pStatement;
};

class SqliteSession final : public Session {
 public:
  SqliteSession(const std::filesystem::path& File, bool bAlone) {
    const int nFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    Check(sqlite3_open_v2(File.c_str(), &m_pDatabase, nFlags, nullptr) == SQLITE_OK);
    Check(sqlite3_busy_timeout(m_pDatabase, 10000) == SQLITE_OK);  // while another session sets itself up
    const std::string Setup = std::string(bAlone ? "PRAGMA locking_mode = EXCLUSIVE;" : "") +
                              "PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; PRAGMA cache_size = -" +
                              std::to_string(kCacheSize / 1024) +
                              "; CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY, data BLOB);"
                              "CREATE TABLE IF NOT EXISTS paths(id INTEGER PRIMARY KEY, path TEXT UNIQUE);";
    Check(sqlite3_exec(m_pDatabase, Setup.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
  }
  ~SqliteSession() override {
    for (sqlite3_stmt* const pOne : m_Prepared) sqlite3_finalize(pOne);
    sqlite3_close(m_pDatabase);
  }

  void Append(const Event& Added) override { Run(Ready(kAppend)).Bind(1, Added).Step(); }
  void Read(std::uint64_t nFirst, std::span<Event> Into) override {
    Run Reading(Ready(kRead));
    Reading.Bind(1, nFirst + 1).Bind(2, nFirst + Into.size());
    for (Event& One : Into) {
      Check(Reading.Step());
      std::memcpy(&One, Reading.Bytes().data(), sizeof(One));
    }
  }
  Event ReadLast() override {
    Run Reading(Ready(kLast));
    Check(Reading.Step());
    Event Last;
    std::memcpy(&Last, Reading.Bytes().data(), sizeof(Last));
    return Last;
  }
  std::uint64_t Intern(const Path& Name) override {
    Run Finding(Ready(kFind));
    if (Finding.Bind(1, Name.Utf8).Step()) return Finding.Number();
    Run(Ready(kCreate)).Bind(1, Name.Utf8).Step();
    return static_cast<std::uint64_t>(sqlite3_last_insert_rowid(m_pDatabase));
  }
  std::string_view PathOf(std::uint64_t nId, std::span<char> Into) override {
    Run Reading(Ready(kPathOf));
    Check(Reading.Bind(1, nId).Step());
    const std::string_view Found = Reading.Bytes();
    return {Into.data(), Found.copy(Into.data(), Into.size())};
  }

 private:
  enum Statement { kAppend, kRead, kLast, kFind, kCreate, kPathOf, kStatements };

  sqlite3_stmt* Ready(Statement Which) {
    static constexpr const char* kTexts[] = {"INSERT INTO events(data) VALUES(?1)",
                                             "SELECT data FROM events WHERE id BETWEEN ?1 AND ?2",
                                             "SELECT data FROM events ORDER BY id DESC LIMIT 1",
                                             "SELECT id FROM paths WHERE path = ?1",
                                             "INSERT INTO paths(path) VALUES(?1)",
                                             "SELECT path FROM paths WHERE id = ?1"};
    sqlite3_stmt*& pFound = m_Prepared[Which];
    if (pFound == nullptr) {
      const int nResult =
          sqlite3_prepare_v3(m_pDatabase, kTexts[Which], -1, SQLITE_PREPARE_PERSISTENT, &pFound, nullptr);
      Check(nResult == SQLITE_OK);
    }
    return pFound;
  }

  sqlite3* m_pDatabase = nullptr;
  sqlite3_stmt* m_Prepared[kStatements] = {};  // each when it is first needed
};

// A session is a connection, so that there is nothing else to open.
class Sqlite final : public Peer {
 public:
  explicit Sqlite(const Place& Where) : m_Where(Where) {}
  std::unique_ptr<Session> Use(std::uint32_t nDatabase) override {
    return std::make_unique<SqliteSession>(m_Where.Folder / std::to_string(nDatabase), !m_Where.bManySessions);
  }

 private:
  Place m_Where;
};

}  // namespace

std::unique_ptr<Peer> OpenSqlite(const Place& Where) {
  return std::make_unique<Sqlite>(Where);
}

}  // namespace lumbra::peers
