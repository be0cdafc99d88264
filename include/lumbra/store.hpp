// The store for C++ programs: this header and the library lumbra_store (CMake: Lumbra::store), over the tables of
// lumbra.h and a host that comes with it. It needs C++20. Its names are written as the standard library's are.
//
//     auto store = lumbra::Store::open("audit-store");
//     auto visits = store.database<Visit>("visits");
//     auto file = visits.find_or_create(lumbra::Type::file, "/var/log/syslog");
//     visits.add({.time = lumbra::FileClock::now(), .object = file.id(), .bytes = 12});
//     for (const auto& [id, visit] : visits.last(10))
//       std::puts(store.name_of(visit.object).value_or("(gone)").c_str());
//
// Unless a line says otherwise, this holds for every function:
//
// - Any thread may call it at any time, also with the same handle; a Reader is used by one thread at a time.
// - What it has answered survives the end of the process, however that comes; what flush() has brought to the disk
//   survives that of the machine.
// - A failure throws an Error; one to get memory for the program's own side may be a std::bad_alloc instead. What is
//   not there is no failure: it is an empty std::optional, or false.
// - Store, Database, Object and Reader share one store, which stays open until the last of them goes, or until close():
//   from then on they throw. None of them outlives anything it needs. A copy of a handle stands for the same, and a
//   move is a copy; a Reader can only be moved.
// - A process that is forked from one with an open store has none: there every call throws, and close() does nothing.
//   But it keeps the store's files: nobody else can open the store before it has ended too, or run another program.
// - Arguments are looked at during the call alone. Texts are UTF-8. Names of objects are bytes: those that are no UTF-8
//   come back as they were.
//
// A program that does without exceptions, and one whose compiler is another than that of the library, uses the tables:
// they alone are a binary interface that is kept.
#pragma once

#include <chrono>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <ratio>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "lumbra/result_code.h"

namespace lumbra {
inline namespace v1 {

// ---- Values -----------------------------------------------------------------------------------------------

// What an event is known by: its database, segment, and place there. Later events of a database have greater ids, until
// it is cleared: then they begin anew. No event has the id 0.
enum class EventId : std::uint64_t {};

// Behind an event, for Database::from(): where reading goes on.
constexpr EventId after(EventId id) {
  return EventId{static_cast<std::uint64_t>(id) + 1};
}

// What an object is known by, in events and everywhere. No object has the id 0, which an event about nothing has. Those
// of a database begin anew as well when it is cleared.
enum class ObjectId : std::uint64_t {};

// What an object is, which says how its name is read. Paths (file, folder, registry_key) are taken apart: each folder
// is an object, the parent of what is in it. Give them whole, from '/' or a drive on, without "." and "..": others are
// objects as they stand ("x/" is a folder, "a:b" is b on drive a). "/", and a path from '/' on with a '\' in it, are
// objects that are in nothing, and an empty name is a new one each time.
//
// Case counts in paths from '/' on, for registry_root, and for other values than these, which mean nothing to the
// store. Everywhere else, in Type::name as well, "X" and "x" are one object, with the name that came first.
enum class Type : std::uint8_t {
  file = 1,
  folder = 2,
  registry_key = 3,
  registry_value = 4,
  drive = 20,
  volume = 22,
  registry_root = 24,
  server = 27,
  name = 32,
};

// A number of bytes: Bytes{100}, or with lumbra::literals 2_GiB.
struct Bytes {
  std::uint64_t count = 0;

  constexpr auto operator<=>(const Bytes&) const = default;
};

inline namespace literals {
constexpr Bytes operator""_B(unsigned long long count) {
  return {count};
}
constexpr Bytes operator""_KiB(unsigned long long count) {
  return {count << 10};
}
constexpr Bytes operator""_MiB(unsigned long long count) {
  return {count << 20};
}
constexpr Bytes operator""_GiB(unsigned long long count) {
  return {count << 30};
}
}  // namespace literals

// The store's clock, which its tool reads events by: 100 ns since 1601-01-01 UTC, 8 bytes in an event.
struct FileClock {
  using rep = std::int64_t;
  using period = std::ratio<1, 10'000'000>;
  using duration = std::chrono::duration<rep, period>;
  using time_point = std::chrono::time_point<FileClock>;
  static constexpr bool is_steady = false;

  static time_point now() noexcept { return from_sys(std::chrono::system_clock::now()); }

  // To and from the system's time; what is finer than 100 ns is cut off.
  template <class Duration>
  static constexpr time_point from_sys(std::chrono::sys_time<Duration> time) {
    return time_point(std::chrono::floor<duration>(time.time_since_epoch()) + kBefore1970);
  }
  static constexpr std::chrono::sys_time<duration> to_sys(time_point time) {
    return std::chrono::sys_time<duration>(time.time_since_epoch() - kBefore1970);
  }

 private:
  static constexpr std::chrono::seconds kBefore1970{11'644'473'600};
};

// ---- Errors -----------------------------------------------------------------------------------------------

// What may help against a failure. retry: the same call, when what is in the way is gone (another process, a full
// disk). reopen: close() and Store::open. repair: stored data is damaged; `lumbra check` and `lumbra repair` say what
// can be done. nothing: the call was wrong, or the machine is.
enum class Help { nothing, retry, reopen, repair };

// A process that has a store.
struct Holder {
  std::uint32_t process;
  std::string program;  // as it calls itself; may be empty
  std::string user;     // a name, or a number; may be empty
};

// The category of the codes of the store, ResultCode as int. Those that mean the same as one of std::errc compare equal
// to it: no_such_file_or_directory, permission_denied, no_space_on_device, device_or_resource_busy, invalid_argument,
// not_enough_memory, too_many_files_open and others. A write that finds the disk full is errWRITE_FAILED, whatever kept
// it from succeeding, and equal to none of them: help() says retry.
const std::error_category& store_category() noexcept;

// A failure. what() is one line with all of it, whose names hold nothing that could harm a terminal.
class Error : public std::system_error {
 public:
  ResultCode result() const noexcept;  // the code; code() has it as well
  const char* name() const noexcept;   // "errOUT_OF_SPACE"; "" for a code without a name

  // These live as long as the error or a copy of it.
  const std::string& operation() const noexcept;        // the function: "open", "add"
  const std::string& where() const noexcept;            // the folder of the store or of the database
  const std::string& reason() const noexcept;           // what it means
  const std::vector<Holder>& holders() const noexcept;  // of errSHARING_VIOLATION, as far as the system tells
  Help help() const noexcept;

  struct Details;
  explicit Error(std::shared_ptr<const Details> pDetails);

 private:
  std::shared_ptr<const Details> m_pDetails;
};

// ---- What the functions take and answer -------------------------------------------------------------------

// How a store is opened.
struct Options {
  bool check = false;           // files that are made get every kind of CRC, by which damage is noticed
  bool heal = true;             // what is lost or damaged is healed first; without it, it costs what it does
  bool start_empty = false;     // where the records of all shared objects are lost, they begin anew; else it is refused
  bool trust = false;           // also a store that others than the effective user may change
  bool group_readable = false;  // the group may read the files that are made (posix); else their owner alone
  Bytes cache{16u << 20};       // of the files stays in memory; whole KiB; 0: nothing
  std::uint32_t open_segments = 64;   // that have their files open, beside the newest of each database
  std::chrono::milliseconds wait{0};  // for another process to let go of the store

  bool operator==(const Options&) const = default;
};

// How large and old a database may grow; 0 is no limit. They act when they are set, and before an event is added: by
// that one, and objects that come then, a database may be above them. What is dropped is always the oldest segment as a
// whole, with the objects in it; the newest stays. A limit of the database whose segments have none of the same kind
// gives them a sixteenth of it.
struct Limits {
  std::chrono::seconds max_age{0};
  Bytes max_size{};
  std::uint64_t max_events = 0;
  std::chrono::seconds segment_age{0};  // a new segment is started when the newest is so old, ...
  Bytes segment_size{};                 // ... so large,
  std::uint64_t segment_events = 0;     // ... or has so many events

  bool operator==(const Limits&) const = default;
};

// What a database holds.
struct Info {
  std::uint32_t events;                         // modulo 2^32
  Bytes size;                                   // of its files, as far as they hold events and objects
  std::optional<FileClock::time_point> oldest;  // when its oldest segment was started
};

// A class that can be an event as it stands: its bytes are what is stored, those between its members included. An
// ObjectId at byte 8 is what the tool shows the name of, a FileClock::time_point at byte 0 its time.
template <class T>
concept Record =
    std::is_class_v<T> && std::is_trivially_copyable_v<T> && std::default_initializable<T> && !std::is_const_v<T>;

// An event that was read.
template <class T>
struct Event {
  EventId id;
  T value;
};
template <>
struct Event<std::byte> {
  EventId id;
  std::span<const std::byte> value;  // as long as its batch
};

namespace detail {
class State;
struct OpenDatabase;
class Reading;
using Share = std::shared_ptr<State>;
}  // namespace detail

// ---- Objects ----------------------------------------------------------------------------------------------

// One object, and the data that is kept with it: up to 255 blocks, each under a number (tag) of one's own. An object of
// a database goes with the segment in which it was found or created: then name(), type(), parent(), data() are empty.
// Its database must be open: an Error (errPARAMETER_INVALID) otherwise.
class Object {
 public:
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;

  ObjectId id() const noexcept { return m_nId; }

  // The full name: of a path with all that is above it. An Error (errCONVERSION_FAILED) for one with a surrogate that
  // stands for nothing, errSIZE_INVALID for one of more than 32,767 UTF-16 units, as one below a parent can become.
  std::optional<std::string> name() const;
  std::optional<Type> type() const;

  // What it is in: of a path the folder. Empty also for what is in nothing. It is looked up in the files, which takes
  // some hundred times as long as a name.
  std::optional<Object> parent() const;

  // The block under a tag, as bytes or as text.
  std::optional<std::vector<std::byte>> data(std::uint32_t tag) const;
  std::optional<std::string> text(std::uint32_t tag) const;

  // Puts a block in the place of the one under the tag. One without bytes under a new tag is kept in check mode alone.
  // An Error (errOBJECT_NOT_FOUND) for an object that is gone, errOUT_OF_SPACE for a 256th tag.
  void set_data(std::uint32_t tag, std::span<const std::byte> bytes) const;
  void set_data(std::uint32_t tag, std::string_view text) const;

  // Removes all blocks. The tables have no way to remove one. An Error (errOBJECT_NOT_FOUND) for an object that is
  // gone.
  void clear_data() const;

 private:
  friend class Store;
  friend class AnyDatabase;
  Object(detail::Share pState, ObjectId nId) : m_pState(std::move(pState)), m_nId(nId) {}

  detail::Share m_pState;
  ObjectId m_nId;
};

// ---- Reading ----------------------------------------------------------------------------------------------

namespace detail {

// Where a Reader begins.
struct Start {
  enum class Of { All, Last, From } what;
  std::uint64_t value;  // a count, or an id
};

// Reads runs of events: those that are there when it begins a round.
class Reading {
 public:
  Reading(const Share& pState, OpenDatabase* pDatabase, Start from);
  Reading(Reading&&) noexcept;
  Reading& operator=(Reading&&) noexcept;
  ~Reading();

  // The next run: events of one segment, one behind the other; the first has the id *first. Without any at the end of
  // the round; the next call begins another one. What it answers is good until the next call.
  std::span<const std::byte> next(EventId* first);
  std::size_t event_size() const noexcept;  // bytes

 private:
  struct Place;
  std::unique_ptr<Place> m_pPlace;
};

}  // namespace detail

// Events of a database, oldest first, those that are there when reading begins: adding while one reads is no loop
// without an end. An input range, to be gone through once:
//
//     for (const auto& [id, visit] : visits.all()) ...
//
// or, which costs less, batch by batch. One thread at a time; another one may add, and limits may drop what has not
// been read, which is then left out. Of a segment that cannot be read an Error tells; the next call goes on behind it,
// or tries it again where memory or descriptors were short. The event at which a loop is left comes again.
template <class T>
class Reader {
 public:
  using value_type = Event<T>;

  // The next batch, good until the next call and as long as the reader. An empty one is the end of what was there; a
  // call after that gives what has come since, so that following a database is to go on asking, now and then. Where the
  // database was cleared meanwhile it begins with what came after that.
  std::span<const Event<T>> next_batch() & {
    if (at_end()) fetch();
    const std::span<const Event<T>> Rest = std::span<const Event<T>>(m_Batch).subspan(m_nAt);
    m_nAt = m_Batch.size();
    return Rest;
  }

  class iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = Event<T>;
    using difference_type = std::ptrdiff_t;

    iterator() = default;
    explicit iterator(Reader* reader) : m_pReader(reader) {}
    const Event<T>& operator*() const { return m_pReader->m_Batch[m_pReader->m_nAt]; }
    const Event<T>* operator->() const { return &**this; }
    iterator& operator++() {
      ++m_pReader->m_nAt;
      if (m_pReader->at_end()) m_pReader->fetch();
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const iterator& at, std::default_sentinel_t) { return at.at_end(); }

   private:
    bool at_end() const { return m_pReader->at_end(); }

    Reader* m_pReader = nullptr;
  };

  // Iterators are of this reader, where it is now. An event is good until the iterator moves on.
  iterator begin() & {
    if (at_end()) fetch();
    return iterator(this);
  }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  template <class U>
  friend class Database;
  using Wanted = std::function<bool(const T&)>;
  explicit Reader(detail::Reading reading, Wanted wanted = {})
      : m_Reading(std::move(reading)), m_Wanted(std::move(wanted)) {}

  // Of the batch; that of a reader which was moved from is empty.
  bool at_end() const noexcept { return m_nAt >= m_Batch.size(); }

  void fetch() {
    m_nAt = 0;
    do {
      m_Batch.clear();
      EventId nFirst{};
      const std::span<const std::byte> Run = m_Reading.next(&nFirst);
      if (Run.empty()) break;
      take(Run, nFirst);
    } while (m_Batch.empty());  // none of them was wanted
  }

  void take(std::span<const std::byte> run, EventId first) {
    const std::size_t nSize = m_Reading.event_size();
    for (; !run.empty(); run = run.subspan(nSize), first = after(first)) {
      if constexpr (std::is_same_v<T, std::byte>) {
        m_Batch.push_back({first, run.first(nSize)});
      } else {
        Event<T> One{first, T{}};
        std::memcpy(&One.value, run.data(), sizeof(T));
        if (!m_Wanted || m_Wanted(One.value)) m_Batch.push_back(One);
      }
    }
  }

  detail::Reading m_Reading;
  Wanted m_Wanted;
  std::vector<Event<T>> m_Batch;
  std::size_t m_nAt = 0;
};

// ---- Databases --------------------------------------------------------------------------------------------

// What every database has, whatever its events are.
class AnyDatabase {
 public:
  std::uint32_t number() const noexcept;     // 1 to 254
  const std::string& name() const noexcept;  // of a numbered one its digits; lives as long as a handle of the store
  std::size_t event_size() const noexcept;   // bytes

  // Sets all limits, at once and for what is there already; those that are left out are lifted. They are not stored:
  // set them after every start. Segments go as a whole: what was recorded without limits may be one, and all of it. An
  // Error (errPARAMETER_INVALID) for negative ages.
  void set_limits(const Limits& limits) const;

  Info info() const;

  // Deletes all events and objects.
  void clear() const;

  // Finds an object of the newest segment, by its type and name, and what it is in where the name is no whole path:
  // "passwd" in "/etc" is "/etc/passwd", since a path goes on with '/' below one that begins with it. An Error
  // (errSIZE_INVALID) for a name of more than 32,767 UTF-16 units.
  std::optional<Object> find(Type type, std::string_view name, ObjectId parent = {}) const;

  // The same; where it is missing it is created. Do that just before adding the event that refers to it: the object
  // goes with the newest segment of now (add_about() sees to it that the event does as well). An Error
  // (errOBJECT_NOT_FOUND) for a parent that is not there, or not of the same database and its newest segment.
  Object find_or_create(Type type, std::string_view name, ObjectId parent = {}) const;

 protected:
  AnyDatabase(detail::Share pState, detail::OpenDatabase* pDatabase)
      : m_pState(std::move(pState)), m_pDatabase(pDatabase) {}
  AnyDatabase(const AnyDatabase&) = default;
  AnyDatabase& operator=(const AnyDatabase&) = default;
  ~AnyDatabase() = default;

  EventId add_bytes(std::span<const std::byte> event) const;
  EventId add_bytes_about(Type type, std::string_view name, std::span<std::byte> event, std::size_t offset) const;
  bool get_bytes(EventId id, std::span<std::byte> event) const;
  bool update_bytes(EventId id, std::span<const std::byte> event) const;
  detail::Reading read(detail::Start::Of what, std::uint64_t value) const;

 private:
  detail::Share m_pState;
  detail::OpenDatabase* m_pDatabase;  // the state's
};

// A database whose events are of a type T: what Store::database<T>() opens.
template <class T>
class Database : public AnyDatabase {
  static_assert(Record<T>, "an event is stored as its bytes: it must be trivially copyable, and have a default");

 public:
  // Appends an event.
  EventId add(const T& event) const { return add_bytes(bytes_of(event)); }

  // Appends an event about an object, whose id becomes that member: the object is found or created, and it stays as
  // long as the event does, also when a new segment is started between the two. Where that happens the event is
  // rewritten: when the process is killed within that moment, or the second object cannot be created (an Error), the
  // event is there and refers to an object of the segment before, whose name goes some time before the event.
  EventId add_about(Type type, std::string_view name, T event, ObjectId T::*object) const {
    const auto* const pStart = reinterpret_cast<const std::byte*>(&event);
    const auto* const pMember = reinterpret_cast<const std::byte*>(&(event.*object));
    return add_bytes_about(type, name, std::as_writable_bytes(std::span(&event, 1)),
                           static_cast<std::size_t>(pMember - pStart));
  }

  // An event by its id; none when it was dropped, or is not there yet. An Error (errPARAMETER_INVALID) for an id of
  // another database.
  std::optional<T> get(EventId id) const {
    T Found;
    if (!get_bytes(id, std::as_writable_bytes(std::span(&Found, 1)))) return std::nullopt;
    return Found;
  }

  // Rewrites an event in its place; false when it is not there.
  bool update(EventId id, const T& event) const { return update_bytes(id, bytes_of(event)); }

  // All events; the last so many; those from an id on, whether that one is still there or not. Where reading begins and
  // goes on, each segment from there on costs a look at its files, some microseconds.
  Reader<T> all() const { return Reader<T>(read(detail::Start::Of::All, 0)); }
  Reader<T> last(std::uint64_t count) const { return Reader<T>(read(detail::Start::Of::Last, count)); }
  Reader<T> from(EventId id) const { return Reader<T>(read(detail::Start::Of::From, static_cast<std::uint64_t>(id))); }

  // The events of which a member, a time most likely, is at least a and less than b. It reads everything, since the
  // store has no order of its own but that in which events were added.
  template <class M, class C>
  Reader<T> between(M C::*member, std::type_identity_t<M> a, std::type_identity_t<M> b) const {
    static_assert(std::is_base_of_v<C, T>, "a member of the events, or of a class that they derive from");
    return Reader<T>(read(detail::Start::Of::All, 0),
                     [=](const T& event) { return !(event.*member < a) && event.*member < b; });
  }

 private:
  friend class Store;
  Database(detail::Share pState, detail::OpenDatabase* pDatabase) : AnyDatabase(std::move(pState), pDatabase) {}
  static std::span<const std::byte> bytes_of(const T& event) { return std::as_bytes(std::span(&event, 1)); }
};

// A database whose events have a size that is known at run time: what Store::database(name, size) opens. Functions are
// as above; an Error (errSIZE_INVALID) for an event of another size.
template <>
class Database<std::byte> : public AnyDatabase {
 public:
  EventId add(std::span<const std::byte> event) const { return add_bytes(event); }

  // The object's id is written into the event, at an offset in bytes.
  EventId add_about(Type type, std::string_view name, std::span<std::byte> event, std::size_t offset) const {
    return add_bytes_about(type, name, event, offset);
  }
  std::optional<std::vector<std::byte>> get(EventId id) const {
    std::vector<std::byte> Found(event_size());
    if (!get_bytes(id, Found)) return std::nullopt;
    return Found;
  }
  bool update(EventId id, std::span<const std::byte> event) const { return update_bytes(id, event); }
  Reader<std::byte> all() const { return Reader<std::byte>(read(detail::Start::Of::All, 0)); }
  Reader<std::byte> last(std::uint64_t count) const { return Reader<std::byte>(read(detail::Start::Of::Last, count)); }
  Reader<std::byte> from(EventId id) const {
    return Reader<std::byte>(read(detail::Start::Of::From, static_cast<std::uint64_t>(id)));
  }

 private:
  friend class Store;
  Database(detail::Share pState, detail::OpenDatabase* pDatabase) : AnyDatabase(std::move(pState), pDatabase) {}
};

// ---- The store --------------------------------------------------------------------------------------------

// An open store. A process has one folder open at a time, and in it one Store for all who ask.
class Store {
 public:
  Store(const Store&) = default;
  Store& operator=(const Store&) = default;

  // Opens the store in a folder, and makes both where they are missing. A folder that is open already, by whatever
  // path, is shared; the options, but for wait, must then be the same. What another call has begun is waited for, be it
  // opening or closing.
  //
  // An Error: errSHARING_VIOLATION when another process has the store (holders() tells which) and wait is over;
  // errALREADY_EXISTS when this process has another store open, or a host of its own; errPARAMETER_INVALID for other
  // options; errACCESS_DENIED for a store that others may change, without trust, for a folder that is a link, and for
  // files that are not this user's; errDATA_CORRUPTED for one that would lose what can be brought back;
  // errPATH_NAME_INVALID for a path that is empty, a file's, too long, or no UTF-8, or on posix has a '\'.
  static Store open(const std::filesystem::path& folder, const Options& options = {});

  // Opens a database, and makes it where it is missing: numbered, 1 to 47, or named; a name of digits alone is a
  // number, as it is for the tool. A name has up to 63 UTF-16 units, and of the 207 that a store has to give one is
  // used up for ever. An Error (errSIZE_INVALID) when the events there have another size, errPARAMETER_INVALID for a
  // name that cannot be one. Opening it again gives another handle of the same.
  template <Record T>
  Database<T> database(std::string_view name) const {
    return Database<T>(m_pState, open_database(name, sizeof(T)));
  }
  template <Record T>
  Database<T> database(std::uint32_t number) const {
    return database<T>(std::to_string(number));
  }
  Database<std::byte> database(std::string_view name, std::size_t event_size) const {
    return Database<std::byte>(m_pState, open_database(name, event_size));
  }
  Database<std::byte> database(std::uint32_t number, std::size_t event_size) const {
    return database(std::to_string(number), event_size);
  }

  // The objects of the store as a whole, which stay when databases drop their segments. As in AnyDatabase.
  std::optional<Object> find(Type type, std::string_view name, ObjectId parent = {}) const;
  Object find_or_create(Type type, std::string_view name, ObjectId parent = {}) const;

  // An object by its id, be it there or not, and its full name, empty when it is gone. The database that the id belongs
  // to must be open: an Error (errPARAMETER_INVALID) otherwise.
  Object object(ObjectId id) const { return Object(m_pState, id); }
  std::optional<std::string> name_of(ObjectId id) const { return object(id).name(); }

  // How large all databases that have no size limit of their own may be together; 0 is no limit. Not stored. It acts
  // when an event is added to one of them, and drops one whole segment then, that is at least a second old and not its
  // database's newest: so each database needs a limit of its segments to be cut by it.
  void set_max_size(Bytes limit) const;

  // What opening has healed, and what it has found and left as it is: a line for each file. Also when the
  // store is closed; they live as long as a handle of it.
  const std::vector<std::string>& healed() const noexcept;
  const std::vector<std::string>& left() const noexcept;

  // Whether damaged data was met, now or at some earlier time.
  bool damaged() const;

  // The folder, absolute. Also when the store is closed.
  const std::filesystem::path& folder() const noexcept;

  // Brings what was added until now to the disk, and waits for that. An Error (errWRITE_FAILED) when something did not
  // get there: then every flush fails until the store is opened again, since the system may have dropped it.
  void flush() const;

  // Closes the store for all who share it, when the calls that are under way have ended. It does not flush. A second
  // time it does nothing.
  void close() const;

 private:
  explicit Store(detail::Share pState) : m_pState(std::move(pState)) {}
  detail::OpenDatabase* open_database(std::string_view name, std::size_t event_size) const;

  detail::Share m_pState;
};

}  // namespace v1
}  // namespace lumbra
