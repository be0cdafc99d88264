// What a store has promised, kept beside it: every value that was acknowledged, from facts in their order. A fact that
// takes a promise back stands before the operation that may end it, one that makes a promise behind its answer: at any
// moment in between, the record says what must be there.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <set>
#include <string>

namespace lumbra::test {

using Id = std::uint64_t;
inline constexpr int kDatabaseShift = 56;
inline constexpr int kSegmentShift = 32;

struct Key {
  enum Kinds : int { Event, Name, Data };
  Kinds Kind;
  Id nId;  // 0 in an attempt: under any id
  std::uint32_t nTag = 0;
  auto operator<=>(const Key&) const = default;
};
using Promises = std::map<Key, std::string>;

// Kinds of operations, as far as the order of writes and the answer of a flush depend on them.
enum OperationKind : std::uint32_t { kOther, kOpen, kAddOrLimit, kFlush, kClear };

struct Fact {
  enum Kinds : int {
    Attempt,   // the value may be there from now on
    Promise,   // the value is there
    TakeBack,  // the key may change
    Drop,      // what stands in the segments from Of.nId up to nEnd may go, by a limit
    Gone,      // it has gone: those segments count no more
    Clear,     // as both, and ids may come back
    Flushed,   // all that is promised is on the disk itself
    Begin      // of an operation, whose kind is the tag
  };
  Kinds Kind;
  Key Of{};
  std::string Value{};
  Id nEnd = 0;
};
std::ostream& operator<<(std::ostream& To, const Fact& Of);
std::istream& operator>>(std::istream& From, Fact& Of);

class Record {
 public:
  void Apply(const Fact& Of);

  const Promises& Now() const { return m_Now; }
  // What the last flush covered, as far as it has not been replaced since. Data and name of an object stand together:
  // its record is rewritten with its data.
  const Promises& Covered() const { return m_Covered; }

  // Whether the value was ever under its key, or on its way there or to any.
  bool WasTried(const Key& Of, const std::string& Value) const;
  // Whether each byte is 0 or that of an event which was tried under the id.
  bool IsTorn(Id nEvent, const std::string& Content) const;

  // The events' ids that were handed out, or flushed, and must not come back.
  bool IsUsed(Id nEvent, bool bFlushedOnly) const {
    return (bFlushedOnly ? m_UsedAndFlushed : m_Used).contains(nEvent);
  }
  // Events by segment (the upper half of the id), as far as they are counted among a database's.
  std::map<Id, std::uint32_t> SegmentsOf(std::uint32_t nDatabase) const;

 private:
  const std::set<std::string>& Tried(const Key& Of) const;
  void Try(const Key& Of, const std::string& Value);

  Promises m_Now;
  Promises m_Covered;
  std::map<Key, std::set<std::string>> m_Tried;
  std::set<Id> m_Used;
  std::set<Id> m_UsedAndFlushed;
  std::map<Id, std::uint32_t> m_Segments;
};

}  // namespace lumbra::test
