// What the handles of include/lumbra/store.hpp share: the host, the instance, and the databases that are open.
#pragma once

#include <array>
#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "host/standalone_host.h"
#include "inspect/store.h"
#include "lumbra/store.hpp"

namespace lumbra {
inline namespace v1 {
namespace detail {

struct OpenDatabase {
  std::string Name;
  inspect::Database Files;
  std::filesystem::path Folder;
  std::uint32_t nId = 0;
  std::uint32_t nEventSize = 0;

  // Held by who reads events or trusts the numbers of segments, and alone by who clears. Entry keeps those who come
  // from letting the one who clears wait for ever.
  std::shared_lock<std::shared_mutex> HoldLife() {
    const std::lock_guard Turn(Entry);
    return std::shared_lock(Life);
  }
  std::mutex Entry;
  std::shared_mutex Life;
  std::uint64_t nLife = 0;  // how often it was cleared

  std::mutex Limits;  // held by who sets them, so that they stay one thread's
};

// What an Error says beside the code.
struct Where {
  const char* pOperation;
  const OpenDatabase* pDatabase = nullptr;  // null: the store as a whole
};

class State : public std::enable_shared_from_this<State> {
 public:
  // Shares what is open in the folder, or opens it.
  static Share Open(const std::filesystem::path& Folder, const Options& What);

  ~State() { Close(); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void Close();

  OpenDatabase* OpenOne(std::string_view Name, std::size_t nEventSize);

  const std::filesystem::path& Folder() const { return m_Folder; }
  const std::vector<std::string>& Healed() const { return m_Healed; }
  const std::vector<std::string>& Left() const { return m_Left; }

  // Why a call failed.
  [[noreturn]] void Fail(const Where& At, ResultCode nCode, std::string Reason = {}) const;
  void Check(const Where& At, ResultCode nCode) const {
    if (Failed(nCode)) Fail(At, nCode);
  }

 private:
  friend class Use;
  State(std::filesystem::path Folder, std::filesystem::path Canonical, const Options& What);
  void Abandon();
  ResultCode InitWhenFree();
  ResultCode TryFolder(os::FolderHandle* ppFolder) const;
  [[noreturn]] void FailToOpen(ResultCode nCode) const;
  void RefuseOther(const std::filesystem::path& Canonical, const Options& What) const;

  const std::filesystem::path m_Folder;
  const std::filesystem::path m_Canonical;
  const Options m_Options;
  const std::uint32_t m_nProcess;  // a process that was forked from it has no store of its own

  std::atomic<bool> m_bClosing{false};  // so that the calls of others cannot keep the closing one waiting for ever
  std::shared_mutex m_Life;             // held by every call, and alone by who closes
  std::unique_ptr<host::StandaloneHost> m_pHost;  // null: it is closed
  host::Store m_Store;
  std::unique_ptr<inspect::Store> m_pFiles;
  std::vector<std::string> m_Healed;
  std::vector<std::string> m_Left;

  bool m_bShared = false;  // it is the one that the process has, by which others find it

  std::mutex m_Lock;                                                    // guards the following
  std::map<std::u16string, std::unique_ptr<OpenDatabase>> m_Databases;  // by their folders

  std::array<std::atomic<bool>, 256> m_IsOpen{};  // databases, by their numbers
};

// The store for the time of one call, within which it stays open. Throws where it is closed.
class Use {
 public:
  Use(State& Of, const char* pOperation, const OpenDatabase* pDatabase = nullptr);

  template <class... Parameters>
  ResultCode Call(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_State.m_Store.Call(pOperation, Arguments...);
  }

  // The same, where every failure is one.
  template <class... Parameters>
  void Must(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
            std::type_identity_t<Parameters>... Arguments) const {
    Check(Call(pOperation, Arguments...));
  }

  void Check(ResultCode nCode) const { m_State.Check(m_Where, nCode); }
  [[noreturn]] void Fail(ResultCode nCode, std::string Reason = {}) const {
    m_State.Fail(m_Where, nCode, std::move(Reason));
  }

  bool IsOpen(std::uint32_t nDatabase) const { return m_State.m_IsOpen[nDatabase]; }
  host::StandaloneHost& Host() const { return *m_State.m_pHost; }
  host::Store& Instance() const { return m_State.m_Store; }
  const inspect::Store& Files() const { return *m_State.m_pFiles; }

 private:
  State& m_State;
  const Where m_Where;
  std::shared_lock<std::shared_mutex> m_Hold;
};

// Finds an object, or creates it; none where it is missing and is not to be created.
std::optional<ObjectId> FindObject(const Use& In, std::uint32_t nDatabase, Type Of, std::string_view Name,
                                   ObjectId Parent, bool bCreate);

// What a code means, in words.
std::string MeaningOf(ResultCode nCode);

// Makes an error. Names in the reason are printable.
Error MakeError(ResultCode nCode, std::string Operation, const std::filesystem::path& Place, std::string Reason,
                std::vector<Holder> Holders = {});

// The codes of failures to find something.
constexpr bool IsMissing(ResultCode nCode) {
  return nCode == errNOT_FOUND || nCode == errOBJECT_NOT_FOUND;
}

}  // namespace detail
}  // namespace v1
}  // namespace lumbra
