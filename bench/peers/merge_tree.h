// LevelDB and RocksDB have one interface, in two namespaces: a Library names the types of one.
#pragma once

#include <array>
#include <cstring>
#include <vector>

#include "peer.h"

namespace lumbra::peers {

// A number behind the letter of its table, highest byte first, so that keys are in the order of numbers.
class NumberKey {
 public:
  NumberKey(char cTable, std::uint64_t nNumber) {
    m_Bytes[0] = cTable;
    for (std::size_t i = 8; i != 0; --i, nNumber >>= 8) m_Bytes[i] = static_cast<char>(nNumber & 0xFF);
  }
  std::string_view Bytes() const { return {m_Bytes.data(), m_Bytes.size()}; }

  static std::uint64_t NumberOf(std::string_view Key) {
    std::uint64_t nNumber = 0;
    for (std::size_t i = 1; i < Key.size(); ++i) nNumber = nNumber << 8 | static_cast<std::uint8_t>(Key[i]);
    return nNumber;
  }

 private:
  std::array<char, 9> m_Bytes;
};

template <class Library>
class MergeTreeSession final : public Session {
  using Slice = typename Library::Slice;
  using Status = typename Library::Status;

 public:
  explicit MergeTreeSession(typename Library::Database& Of) : m_Of(Of) {}

  void Append(const Event& Added) override {
    if (m_nNextEvent == kUnknown) m_nNextEvent = NextNumber('e');
    const NumberKey Key('e', m_nNextEvent);
    Check(m_Of.Put(typename Library::WriteOptions(), As(Key.Bytes()), BytesOf(Added)));
    ++m_nNextEvent;
  }
  void Read(std::uint64_t nFirst, std::span<Event> Into) override {
    const NumberKey Key('e', nFirst);
    if (Into.size() == 1) {
      Check(m_Of.Get(typename Library::ReadOptions(), As(Key.Bytes()), &m_Value));
      return Copy(m_Value, &Into[0]);
    }
    const auto pEvents = Iterate();
    pEvents->Seek(As(Key.Bytes()));
    for (Event& One : Into) {
      Require(pEvents->Valid(), "no event");
      Copy(pEvents->value(), &One);
      pEvents->Next();
    }
  }
  Event ReadLast() override {
    const auto pEvents = Iterate();
    ToLast(*pEvents, 'e');
    Event Last;
    Copy(pEvents->value(), &Last);
    return Last;
  }
  std::uint64_t Intern(const Path& Name) override {
    m_Key.assign(1, 'p').append(Name.Utf8);
    const Status Found = m_Of.Get(typename Library::ReadOptions(), m_Key, &m_Value);
    if (Found.ok()) return NumberKey::NumberOf(m_Value);
    Require(Found.IsNotFound(), "Get");
    if (m_nNextId == kUnknown) m_nNextId = NextNumber('i');
    const NumberKey Id('i', m_nNextId);
    typename Library::WriteBatch Both;
    Both.Put(m_Key, As(Id.Bytes()));
    Both.Put(As(Id.Bytes()), Name.Utf8);
    Check(m_Of.Write(typename Library::WriteOptions(), &Both));
    return m_nNextId++;
  }
  std::string_view PathOf(std::uint64_t nId, std::span<char> Into) override {
    Check(m_Of.Get(typename Library::ReadOptions(), As(NumberKey('i', nId).Bytes()), &m_Value));
    return {Into.data(), m_Value.copy(Into.data(), Into.size())};
  }

 private:
  static constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

  static void Check(const Status& Result) { Require(Result.ok(), "an operation of LevelDB or RocksDB failed"); }
  static Slice As(std::string_view Bytes) { return {Bytes.data(), Bytes.size()}; }
  static Slice BytesOf(const Event& One) { return {reinterpret_cast<const char*>(&One), sizeof(One)}; }
  static void Copy(const Slice& From, Event* pInto) { std::memcpy(pInto, From.data(), sizeof(*pInto)); }

  auto Iterate() {
    return std::unique_ptr<typename Library::Iterator>(m_Of.NewIterator(typename Library::ReadOptions()));
  }
  // Onto the last key of a table. Behind every table a letter stands free, and behind that is nothing or another table.
  static bool ToLast(typename Library::Iterator& Keys, char cTable) {
    Keys.Seek(Slice(std::string(1, static_cast<char>(cTable + 1))));
    Keys.Valid() ? Keys.Prev() : Keys.SeekToLast();
    return Keys.Valid() && Keys.key()[0] == cTable;
  }
  std::uint64_t NextNumber(char cTable) {
    const auto pKeys = Iterate();
    return ToLast(*pKeys, cTable) ? NumberKey::NumberOf({pKeys->key().data(), pKeys->key().size()}) + 1 : 0;
  }

  typename Library::Database& m_Of;
  std::uint64_t m_nNextEvent = kUnknown;
  std::uint64_t m_nNextId = kUnknown;
  std::string m_Key;
  std::string m_Value;
};

template <class Library>
class MergeTree final : public Peer {
 public:
  explicit MergeTree(const Place& Where) {
    for (std::uint32_t nDatabase = 1; nDatabase <= Where.nDatabases; ++nDatabase) {
      typename Library::Database* pOpened = nullptr;
      const std::string Folder = (Where.Folder / std::to_string(nDatabase)).string();
      const auto Result = Library::Database::Open(m_Setup.Options, Folder, &pOpened);
      Require(Result.ok(), Result.ToString().c_str());
      m_Open.emplace_back(pOpened);
    }
  }
  std::unique_ptr<Session> Use(std::uint32_t nDatabase) override {
    return std::make_unique<MergeTreeSession<Library>>(*m_Open[nDatabase - 1]);
  }

 private:
  Library m_Setup;  // owns what its options name, so it ends after the databases
  std::vector<std::unique_ptr<typename Library::Database>> m_Open;
};

}  // namespace lumbra::peers
