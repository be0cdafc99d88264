// Lumbra in the stand-alone host, through its operation table. Paths are objects of the database's newest segment.
#include "host/standalone_host.h"
#include "peer.h"

namespace lumbra::peers {
namespace {

void Check(ResultCode nCode) {
  Require(!Failed(nCode), "Lumbra: an operation failed");
}

class LumbraSession final : public Session {
 public:
  LumbraSession(const host::Store& Store, std::uint32_t nDatabase) : m_Store(Store), m_nDatabase(nDatabase) {}

  void Append(const Event& Added) override {
    Check(m_Store.Call(&LumbraOperations::AddEvent, m_nDatabase, &Added, sizeof(Added), nullptr));
  }
  void Read(std::uint64_t nFirst, std::span<Event> Into) override {
    Check(m_Store.Call(&LumbraOperations::GetEvents, m_nDatabase, nFirst, Into.data(),
                       static_cast<std::uint32_t>(Into.size_bytes()), static_cast<std::uint32_t>(Into.size()), nullptr,
                       nullptr));
  }
  Event ReadLast() override {
    Event Last;
    Read(~std::uint64_t{0}, {&Last, 1});
    return Last;
  }
  std::uint64_t Intern(const Path& Name) override {
    std::uint64_t nId = 0;
    const auto nSize = static_cast<std::int32_t>(Name.Utf16.size() * sizeof(char16_t));
    Check(m_Store.Call(&LumbraOperations::FindObject, m_nDatabase, typeFile, Name.Utf16.data(), nSize, 1, 0, 0, &nId));
    return nId;
  }
  std::string_view PathOf(std::uint64_t nId, std::span<char> Into) override {
    std::uint32_t nSize = 0;
    Check(m_Store.Call(&LumbraOperations::GetObjectName, nId, reinterpret_cast<char16_t*>(Into.data()),
                       static_cast<std::uint32_t>(Into.size()), &nSize, 0, nullptr));
    return {Into.data(), nSize};
  }

 private:
  const host::Store& m_Store;
  std::uint32_t m_nDatabase;
};

class Lumbra final : public Peer {
 public:
  explicit Lumbra(const Place& Where) {
    m_Host.SetPlaceholder(u"%Report%", Where.Folder.u16string());
    m_Store = m_Host.Create();
    Check(m_Store.Init(Where.bHeal ? host::Heal::On : host::Heal::Off));
    for (std::uint32_t nDatabase = 1; nDatabase <= Where.nDatabases; ++nDatabase) {
      Check(m_Store.Call(&LumbraOperations::InitDB, nDatabase, sizeof(Event)));
      Check(m_Store.Call(&LumbraOperations::SetDBParams, nDatabase, limitSegmentEvents, Where.nSegmentEvents));
    }
  }
  std::unique_ptr<Session> Use(std::uint32_t nDatabase) override {
    return std::make_unique<LumbraSession>(m_Store, nDatabase);
  }

 private:
  host::StandaloneHost m_Host;
  host::Store m_Store;
};

}  // namespace

std::unique_ptr<Peer> OpenLumbra(const Place& Where) {
  return std::make_unique<Lumbra>(Where);
}

}  // namespace lumbra::peers
