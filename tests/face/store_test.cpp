// The face for C++ programs: what a user of lumbra/store.hpp sees.
#include "lumbra/store.hpp"

#include <gmock/gmock.h>
#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <cerrno>
#include <ranges>
#include <thread>

#include "host/standalone_host.h"
#include "support/run_program.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

using namespace lumbra::literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Visit {
  FileClock::time_point time;
  ObjectId object{};
  std::uint64_t bytes{};
};
static_assert(std::ranges::input_range<Reader<Visit>> && std::ranges::input_range<Reader<std::byte>>);

constexpr std::uint32_t SegmentOf(EventId nId) {
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(nId) >> 32) & 0xFFFFFF;
}
constexpr FileClock::time_point At(int nTick) {
  return FileClock::time_point(FileClock::duration(nTick));
}

std::string PathOf(std::uint64_t nNumber) {
  std::string Path = "/a/";
  return Path += std::to_string(nNumber);
}

// The code with which something fails; errOK when it does not.
template <class Doing>
ResultCode CodeOf(Doing Do, std::string* pWhat = nullptr) {
  try {
    (void)Do();
    return errOK;
  } catch (const Error& Reason) {
    if (pWhat != nullptr) *pWhat = Reason.what();
    return Reason.result();
  }
}

class FaceTest : public World {
 protected:
  Store Open(const Options& What = {}) { return Store::open(Folder() / "store", What); }

  // The bytes of the events that a reader gives.
  template <class Events>
  static std::vector<std::uint64_t> BytesOf(Events Given) {
    std::vector<std::uint64_t> Found;
    for (const auto& [nId, One] : Given) Found.push_back(One.bytes);
    return Found;
  }
};

TEST(FileClockTest, CountsFrom1601) {
  const std::chrono::sys_days Day = std::chrono::year(2001) / 9 / 9;
  EXPECT_EQ(126444672000000000, FileClock::from_sys(Day).time_since_epoch().count());
  EXPECT_EQ(Day, FileClock::to_sys(FileClock::from_sys(Day)));
}

TEST_F(FaceTest, HandlesKeepTheStoreOpenThatTheyAreOf) {
  auto Visits = std::optional(Open().database<Visit>("visits"));
  const EventId nId = Visits->add({.time = At(1), .bytes = 7});
  EXPECT_EQ(7u, Visits->get(nId)->bytes);
  Visits.reset();
  EXPECT_EQ(7u, Open().database<Visit>("visits").get(nId)->bytes);  // another use of the folder: the last one has ended
  EXPECT_EQ(errOK, CodeOf([&] { return Store::open(Folder() / "other"); }));
}

TEST_F(FaceTest, NamesStayAsLongAsTheEventsAboutThem) {
  auto Store = Open();
  auto Visits = Store.database<Visit>(1);
  Visits.set_limits({.max_events = 9, .segment_events = 3});
  for (std::uint64_t i = 0; i < 100; ++i) {
    Visits.add_about(Type::file, PathOf(i % 2), {.time = At(1), .bytes = i}, &Visit::object);
    for (const auto& [nId, One] : Visits.all()) {
      EXPECT_EQ(PathOf(One.bytes % 2), Store.name_of(One.object));
      EXPECT_LE(SegmentOf(nId), SegmentOf(EventId(static_cast<std::uint64_t>(One.object))));
    }
  }
  EXPECT_LE(Visits.info().events, 10u);
}

TEST_F(FaceTest, LimitsOfADatabaseLeaveMostOfIt) {
  auto Visits = Open().database<Visit>("visits");
  Visits.set_limits({.max_events = 64});
  for (std::uint64_t i = 0; i < 1000; ++i) Visits.add({.time = At(1), .bytes = i});
  EXPECT_GE(Visits.info().events, 60u);
  EXPECT_LE(Visits.info().events, 64u);
}

TEST_F(FaceTest, ReadersGiveEventsWithTheirIds) {
  auto Visits = Open().database<Visit>("visits");
  Visits.set_limits({.segment_events = 3});
  std::vector<EventId> Ids;
  for (int i = 0; i < 8; ++i) Ids.push_back(Visits.add({.time = At(i), .bytes = static_cast<std::uint64_t>(i)}));
  std::vector<EventId> Read;
  for (const auto& [nId, One] : Visits.all()) {
    EXPECT_EQ(One.bytes, Visits.get(nId)->bytes);
    Read.push_back(nId);
  }
  EXPECT_EQ(Ids, Read);
  EXPECT_THAT(BytesOf(Visits.last(4)), ElementsAre(4, 5, 6, 7));
  EXPECT_EQ(8u, BytesOf(Visits.last(100)).size());
  EXPECT_THAT(BytesOf(Visits.last(0)), ElementsAre());
  EXPECT_THAT(BytesOf(Visits.from(Ids[5])), ElementsAre(5, 6, 7));
  EXPECT_THAT(BytesOf(Visits.from(after(Ids[5]))), ElementsAre(6, 7));  // the first of another segment
  EXPECT_THAT(BytesOf(Visits.between(&Visit::time, At(2), At(5))), ElementsAre(2, 3, 4));
}

TEST_F(FaceTest, ReadersGoOnWithWhatHasCome) {
  auto Visits = Open().database<Visit>("visits");
  Visits.set_limits({.max_events = 6, .segment_events = 2});
  Visits.add({.time = At(1), .bytes = 1});
  auto Reader = Visits.last(10);
  std::size_t nSeen = 0;
  for ([[maybe_unused]] const auto& One : Reader) {
    if (++nSeen > 1) break;
    Visits.add({.time = At(1), .bytes = 2});  // which comes after the end of this round
  }
  EXPECT_EQ(1u, nSeen);
  EXPECT_EQ(2u, Reader.next_batch().front().value.bytes);
  EXPECT_TRUE(Reader.next_batch().empty());
  for (std::uint64_t i = 3; i < 20; ++i) Visits.add({.time = At(1), .bytes = i});  // what was next is dropped
  EXPECT_EQ(BytesOf(Visits.all()), BytesOf(std::move(Reader)));
  auto Other = Visits.all();
  (void)Other.next_batch();
  Visits.clear();
  Visits.add({.time = At(1), .bytes = 99});
  EXPECT_THAT(BytesOf(std::move(Other)), ElementsAre(99));
}

TEST_F(FaceTest, WhatIsNotThereIsNoFailure) {
  auto Store = Open();
  auto Visits = Store.database<Visit>("visits");
  const EventId nId = Visits.add({.time = At(1), .bytes = 1});
  EXPECT_TRUE(Visits.update(nId, {.time = At(1), .bytes = 2}));
  EXPECT_EQ(2u, Visits.get(nId)->bytes);
  const auto nFarOff = EventId(static_cast<std::uint64_t>(nId) + (std::uint64_t{5} << 32));
  for (const EventId nOne : {after(nId), nFarOff}) {
    EXPECT_FALSE(Visits.get(nOne));
    EXPECT_FALSE(Visits.update(nOne, {.time = At(1)}));
  }
  EXPECT_EQ(errPARAMETER_INVALID, CodeOf([&] { return Visits.get(EventId{1}); }));
  EXPECT_FALSE(Store.find(Type::file, "/nowhere"));
  EXPECT_FALSE(Visits.find(Type::file, "/nowhere"));
  EXPECT_FALSE(Visits.find(Type::name, ""));
  // The last has the number of a database that is open, and of nothing in it.
  for (const ObjectId nOne : {ObjectId{}, ObjectId{2}, ObjectId{4711}, ObjectId(std::uint64_t{48} << 56)}) {
    EXPECT_FALSE(Store.name_of(nOne));
    EXPECT_FALSE(Store.object(nOne).data(1));
  }
}

TEST_F(FaceTest, EventsMayHaveASizeOfTheRunTime) {
  auto Raw = Open().database("raw", 12);
  std::vector<std::byte> Event(12, std::byte{7});
  const EventId nId = Raw.add_about(Type::name, "x", Event, 4);
  EXPECT_EQ(Event, Raw.get(nId));
  for (const auto& [nOne, Value] : Raw.all()) EXPECT_TRUE(nOne == nId && std::ranges::equal(Event, Value));
  EXPECT_EQ(errPARAMETER_INVALID, CodeOf([&] { return Raw.add_about(Type::name, "x", Event, 5); }));
  std::string What;
  EXPECT_EQ(errSIZE_INVALID, CodeOf([&] { return Open().database<Visit>("raw"); }, &What));
  EXPECT_THAT(What, HasSubstr("its events have 12 bytes, not 24"));
  EXPECT_EQ(errPARAMETER_INVALID, CodeOf([&] { return Open().database("huge", (16 << 20) + 1); }, &What));
  EXPECT_THAT(What, HasSubstr("an event has at most 16 MiB"));
}

TEST_F(FaceTest, ObjectsHaveNameTypeParentAndData) {
  auto Store = Open();
  for (const std::string Name : {"/a/b\xFF", "/a/\xC3\xA9", "/a/\xF0\x9F\x98\x80", "C:\\a\\b", "/"}) {
    const auto One = Store.find_or_create(Type::file, Name);
    EXPECT_EQ(Name, One.name());
    EXPECT_EQ(Type::file, One.type());
    EXPECT_EQ(One.id(), Store.find(Type::file, Name)->id());
  }
  const auto Folder = Store.find(Type::file, "/a/b\xFF")->parent();
  EXPECT_EQ("/a", Folder->name());
  EXPECT_EQ(Store.find(Type::file, "/a/\xC3\xA9")->id(), Store.find(Type::file, "\xC3\xA9", Folder->id())->id());
  const auto Root = Store.find_or_create(Type::folder, "/");
  EXPECT_EQ("/top", Store.find_or_create(Type::folder, "top", Root.id()).name());
  EXPECT_FALSE(Store.find_or_create(Type::name, "alone").parent());
  const auto In = Store.find_or_create(Type::name, "in", Store.find(Type::name, "alone")->id());
  EXPECT_EQ("alone", In.parent()->name());

  EXPECT_FALSE(In.data(1));
  In.set_data(1, "text");
  In.set_data(2, std::as_bytes(std::span("\0\1", 2)));
  EXPECT_EQ("text", In.text(1));
  EXPECT_EQ(2u, In.data(2)->size());
  In.clear_data();
  EXPECT_FALSE(In.text(1));
}

TEST_F(FaceTest, ASurrogateThatStandsForNothingIsAnError) {
  std::uint64_t nId = 0;
  {
    host::StandaloneHost Host;
    EXPECT_EQ(errALREADY_EXISTS, CodeOf([&] { return Open(); }));  // beside a host of the program's own
    auto Store = Host.Create();
    ASSERT_CODE(errOK, Store.SetReportFolder((Folder() / "store").u16string()));
    ASSERT_CODE(errOK, Store.Init());
    ASSERT_CODE(errOK, Store.Call(&LumbraOperations::FindObjectSimple, 0, typeName, u"a\xD800z", kZeroTerminated, 1,
                                  RemoveObjectFlags(fObjUtf8), &nId));
  }
  EXPECT_EQ(errCONVERSION_FAILED, CodeOf([&] { return Open().name_of(ObjectId{nId}); }));
}

TEST_F(FaceTest, AFolderIsOpenOnceInAProcess) {
  const auto First = Open();
  const auto Second = Store::open(Folder() / "store" / ".." / "store" / "", {.wait = std::chrono::seconds(1)});
  const EventId nId = First.database<Visit>("visits").add({.time = At(1)});
  EXPECT_TRUE(Second.database<Visit>("visits").get(nId));
  std::string What;
  EXPECT_EQ(errPARAMETER_INVALID, CodeOf([&] { return Open({.check = true}); }, &What));
  EXPECT_THAT(What, HasSubstr("with other options"));
  EXPECT_EQ(errALREADY_EXISTS, CodeOf([&] { return Store::open(Folder() / "other"); }, &What));
  EXPECT_THAT(What, HasSubstr("close() it first"));
}

TEST_F(FaceTest, AfterCloseEverythingThrows) {
  const auto Store = Open();
  const auto Visits = Store.database<Visit>("visits");
  const auto File = Visits.find_or_create(Type::file, "/a");
  auto Reader = Visits.all();
  Store.close();
  Store.close();
  const std::vector<std::function<void()>> kUses = {[&] { Visits.add({.time = At(1)}); },
                                                    [&] { (void)Visits.info(); },
                                                    [&] { Visits.set_limits({}); },
                                                    [&] { (void)File.name(); },
                                                    [&] { (void)File.parent(); },
                                                    [&] { Reader.next_batch(); },
                                                    [&] { (void)Visits.last(1); },
                                                    [&] { Store.flush(); },
                                                    [&] { File.set_data(1, "x"); },
                                                    [&] { Store.database<Visit>("more"); },
                                                    [&] {
                                                      (void)Store.damaged();
                                                    }};
  for (const auto& Use : kUses) {
    try {
      Use();
      ADD_FAILURE() << &Use - kUses.data();
    } catch (const Error& Reason) {
      EXPECT_EQ(Help::reopen, Reason.help()) << Reason.what();
    }
  }
  EXPECT_TRUE(Open().database<Visit>("visits").info().oldest);  // beside handles of what was closed
}

TEST_F(FaceTest, ErrorsSayWhatAndWhere) {
  auto Store = Open();
  try {
    Store.database<Visit>("a/b");
    ADD_FAILURE();
  } catch (const std::system_error& Reason) {  // of which an Error is one
    EXPECT_EQ(std::errc::invalid_argument, Reason.code());
    EXPECT_THAT(Reason.what(),
                HasSubstr("database " + Store.folder().string() + ": a database cannot have the name a/b"));
    EXPECT_STREQ("errPARAMETER_INVALID", dynamic_cast<const Error&>(Reason).name());
  }
  for (const char* const pName : {"", "0", "48", "4294967297", "..", "set-aside", "\xFF"})
    EXPECT_EQ(errPARAMETER_INVALID, CodeOf([&] { return Store.database<Visit>(pName); })) << pName;
}

TEST_F(FaceTest, FailuresThatTheCallerCanAvoidSayHow) {
  std::vector<ObjectId> Closed;
  for (const char* const pName : {"9", "nine"})
    Closed.push_back(Open().database<Visit>(pName).find_or_create(Type::file, "/a/b").id());
  const auto Store = Open();
  const auto Visits = Store.database<Visit>("visits");
  const auto Full = Store.find_or_create(Type::folder, "/full");
  for (std::uint32_t nTag = 0; nTag < 255; ++nTag) Full.set_data(nTag, "x");
  const struct {
    std::function<void()> Call;
    ResultCode nCode;
    const char* pSaid;
  } kFailing[] = {
      {[&] { (void)Store.name_of(Closed[0]); }, errPARAMETER_INVALID, "the object's database, 9, is not open"},
      {[&] { (void)Store.object(Closed[1]).parent(); }, errPARAMETER_INVALID, "is not open"},
      {[&] { Store.object(ObjectId{4711}).set_data(1, "x"); }, errOBJECT_NOT_FOUND, "there is no such thing"},
      {[&] { Store.object(ObjectId{2}).clear_data(); }, errOBJECT_NOT_FOUND, "there is no such thing"},
      {[&] { Full.set_data(255, "x"); }, errOUT_OF_SPACE, "at most 255 tags"},
      {[&] { Visits.find_or_create(Type::file, "x", Full.id()); }, errOBJECT_NOT_FOUND, "the parent is not there"},
      {[&] { Store.database<Visit>(""); }, errPARAMETER_INVALID, "the name is empty"},
      {[&] { Store.database<Visit>(std::string(64, 'a')); }, errPARAMETER_INVALID, "at most 63 UTF-16 units"},
      {[&] { Store::open(""); }, errPATH_NAME_INVALID, "the path is empty"},
      {[&] { Store::open(std::string("a\0b", 3)); }, errPATH_NAME_INVALID, "a zero inside"},
  };
  for (const auto& One : kFailing) {
    try {
      One.Call();
      ADD_FAILURE() << One.pSaid;
    } catch (const Error& Reason) {
      EXPECT_TRUE(Reason.result() == One.nCode && Reason.help() == Help::nothing) << Reason.what();
      EXPECT_THAT(Reason.what(), HasSubstr(One.pSaid));
    }
  }
}

TEST_F(FaceTest, WhatWasHealedIsSaid) {
  Open().database<Visit>(1).add({.time = At(1)});
  fs::remove(Folder() / "store" / "01" / "segments.dat");
  EXPECT_THAT(Open().healed(), ElementsAre(HasSubstr("01/segments.dat")));
  EXPECT_THAT(Open().healed(), ElementsAre());
}

TEST_F(FaceTest, ThreadsShareEverything) {
  auto Store = Open();
  auto Visits = Store.database<Visit>("visits");
  Visits.set_limits({.max_events = 300, .segment_events = 20});
  std::atomic<int> nClosed{0};
  std::vector<std::thread> Threads;
  for (std::uint64_t i = 0; i < 4; ++i) {
    Threads.emplace_back([&, i, Mine = Visits] {
      try {
        for (;;) {
          Mine.add_about(Type::file, PathOf(i), {.time = At(1)}, &Visit::object);
          EventId nLast{};
          for (const auto& [nId, One] : Mine.last(50)) {
            EXPECT_LT(nLast, nId);
            nLast = nId;
          }
        }
      } catch (const Error& Reason) {
        if (Reason.result() == errSTORE_NOT_INITIALIZED) ++nClosed;
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  Store.close();
  for (std::thread& One : Threads) One.join();
  EXPECT_EQ(4, nClosed);
}

TEST_F(FaceTest, ExamplesDoWhatTheySay) {
  WriteFile("in", {});
  const std::pair<const char*, const char*> kExamples[] = {
      {LUMBRA_EXAMPLES "/record_and_read", "/var/log/syslog\n/var/log/auth.log\n"},
      {LUMBRA_EXAMPLES "/names_and_data",
       "/srv/reports/today.txt\n/srv/reports\n/srv\nyesterday's report is not known\n"
       "today's belongs to ada, and has a checksum of 2 bytes\nthe same bytes\n"},
      {LUMBRA_EXAMPLES "/limits_and_rotation",
       "1000 events are left, 0 of them without a name\nthe oldest is there\nnow it is gone\n"},
      {LUMBRA_EXAMPLES "/threads", "some were there, then 4000\nerrSTORE_NOT_INITIALIZED: open it again\n"},
      {LUMBRA_EXAMPLES "/follow", "1 bytes\n2 bytes\n3 bytes\n"},
      {LUMBRA_EXAMPLES "/follow", "1 bytes\n2 bytes\n3 bytes\n"},
      {LUMBRA_EXAMPLES "/own_host", "event 42 is about C:\\Reports\\today.txt\n"},
      {LUMBRA_EXAMPLES "/load_module", "event 42 is about C:\\Reports\\today.txt\n"}};
  for (const auto& [pProgram, pSaid] : kExamples) {
    // Those that want no module do not look at it.
    EXPECT_EQ(0, RunIn(Folder(), {std::string(pProgram) + LUMBRA_SUFFIX, LUMBRA_MODULE}))
        << pProgram << ReadText("err");
    std::string Said = ReadText("out");
    std::erase(Said, '\r');
    EXPECT_EQ(pSaid, Said);
  }
}

TEST_F(FaceTest, AReaderGoesOnWhereALoopWasLeft) {
  auto Visits = Open().database<Visit>("visits");
  for (std::uint64_t i = 0; i < 9; ++i) Visits.add({.time = At(1), .bytes = i});
  auto Reader = Visits.all();
  for (const auto& [nId, One] : Reader) {
    if (One.bytes == 4) break;
  }
  auto Moved = std::move(Reader);
  EXPECT_EQ(5u, Moved.next_batch().size());
  EXPECT_TRUE(Moved.next_batch().empty());
  EXPECT_EQ(Reader.begin(), Reader.end());
}

#ifndef _WIN32

TEST_F(FaceTest, ReadsWhereDescriptorsAreShort) {
  auto Store = Open();
  auto Visits = Store.database<Visit>("visits");
  const EventId nId = Visits.add_about(Type::file, "/a", {.time = At(1), .bytes = 1}, &Visit::object);
  FailCallsNatively(SystemCall::OpenFolder, EMFILE);
  EXPECT_EQ((std::vector<std::uint64_t>{1}), BytesOf(Visits.all()));
  FailCallsNatively(SystemCall::OpenFolder, EMFILE);
  EXPECT_EQ("/a", Store.name_of(Visits.get(nId)->object));
}

TEST_F(FaceTest, OpeningSaysWhatIsInTheWay) {
  const auto Refused = [this](const std::string& Name, const Options& What = {}) {
    try {
      return Store::open(Folder() / Name, What).folder().string();
    } catch (const Error& Reason) {
      EXPECT_EQ(Help::nothing, Reason.help());
      return Reason.code().default_error_condition().message() + ": " + Reason.reason();
    }
  };
  WriteFile("file", {});
  EXPECT_EQ("Invalid argument: it is a file, or below one", Refused("file/below"));
  EXPECT_EQ("Invalid argument: the path is too long", Refused(std::string(300, 'a')));
  fs::create_directories(Folder() / "to/there");
  fs::create_directory_symlink("to/there", Folder() / "link");
  EXPECT_EQ("Permission denied: it is a link; name the folder that it leads to", Refused("link", {.trust = true}));
  EXPECT_EQ(fs::canonical(Folder() / "to"), Refused("link/.."));
  fs::permissions(Folder() / "to", fs::perms::all);
  EXPECT_THAT(Refused("to"), HasSubstr("to can be written by others; Options::trust lets that pass"));
  FailCallsNatively(SystemCall::MakeFolder, EACCES, 0, 9);
  EXPECT_EQ("Permission denied: it cannot be opened or made: the system does not let this user do that",
            Refused("new"));
  FailCallsNatively(SystemCall::Open, EROFS, 0, 99);
  EXPECT_EQ("Read-only file system: g_objbt.dat: it cannot be opened: the file system takes no writes",
            Refused("to", {.trust = true}));
}

TEST_F(FaceTest, OpeningADatabaseSaysWhatIsInTheWay) {
  const auto Store = Open({.trust = true});
  const auto Refused = [&Store](const char* pName) {
    try {
      return Store.database<Visit>(pName).name();
    } catch (const Error& Reason) {
      EXPECT_EQ(Help::nothing, Reason.help());
      return Reason.code().default_error_condition().message() + ": " + Reason.reason();
    }
  };
  fs::create_directory_symlink("00", Folder() / "store/link");
  EXPECT_EQ("Permission denied: it is no folder, or a link to one", Refused("link"));
  FailCallsNatively(SystemCall::MakeFolder, EACCES, 0, 2);
  EXPECT_EQ("Permission denied: it cannot be opened or made: the system does not let this user do that",
            Refused("new"));
}

TEST_F(FaceTest, AFailedSyncMakesFlushThrowUntilItIsReopened) {
  auto Visits = Open().database<Visit>("visits");
  Visits.add({.time = At(1)});
  FailCalls(SystemCall::Sync, os::kIoDevice);
  for (int i = 0; i < 2; ++i) {
    try {
      Open().flush();
      ADD_FAILURE();
    } catch (const Error& Reason) {
      EXPECT_TRUE(Reason.result() == errWRITE_FAILED && Reason.help() == Help::reopen) << Reason.what();
    }
  }
  Open().close();
  EXPECT_EQ(errOK, CodeOf([this] { return Open().flush(), 0; }));
}

TEST_F(FaceTest, AForkedProcessHasNoStore) {
  const auto Visits = Open().database<Visit>("visits");
  const pid_t nChild = fork();
  if (nChild == 0) {
    const bool bRefused = CodeOf([&] { return Visits.add({.time = At(1)}); }) == errNOT_SUPPORTED &&
                          CodeOf([&] { return Visits.info(); }) == errNOT_SUPPORTED &&
                          CodeOf([&] { return Open(); }) == errNOT_SUPPORTED;
    _exit(bRefused ? 0 : 1);
  }
  int nStatus = -1;
  EXPECT_EQ(nChild, waitpid(nChild, &nStatus, 0));
  EXPECT_EQ(0, nStatus);
  Visits.add({.time = At(1)});
  EXPECT_EQ(1u, Visits.info().events);
}

TEST_F(FaceTest, AHeldStoreNamesItsHolder) {
  int Pipe[2];
  ASSERT_EQ(0, pipe(Pipe));
  const pid_t nChild = fork();
  if (nChild == 0) {
    const auto Held = Open();
    const bool bTold = write(Pipe[1], "", 1) == 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    _exit(bTold ? 0 : 1);
  }
  char c = 0;
  ASSERT_EQ(1, read(Pipe[0], &c, 1));
  try {
    Open();
    ADD_FAILURE();
  } catch (const Error& Reason) {
    EXPECT_TRUE(Reason.help() == Help::retry && Reason.code() == std::errc::device_or_resource_busy);
    ASSERT_EQ(1u, Reason.holders().size());
    EXPECT_EQ(static_cast<std::uint32_t>(nChild), Reason.holders()[0].process);
    EXPECT_THAT(Reason.what(), HasSubstr("(pid " + std::to_string(nChild) + ", user "));
  }
  EXPECT_EQ(errOK, CodeOf([this] { return Open({.wait = std::chrono::seconds(30)}); }));
  EXPECT_EQ(nChild, waitpid(nChild, nullptr, 0));
  close(Pipe[0]);
  close(Pipe[1]);
}

#endif

}  // namespace
}  // namespace lumbra::test
