#include "holder.h"

#include <algorithm>
#include <thread>

#include "machine.h"

namespace lumbra::tool {

std::string Describe(const std::vector<inspect::Holder>& Holders) {
  std::string Text;
  for (const inspect::Holder& One : Holders) {
    Text += (Text.empty() ? "" : ", ") + (One.Program.empty() ? "a process" : Printable(One.Program)) + " (pid " +
            std::to_string(One.nProcess) + (One.User.empty() ? "" : ", user " + Printable(One.User)) + ')';
  }
  return Text;
}

Failure HeldByAnother(const std::string& What, const std::filesystem::path& Store) {
  std::vector<inspect::Holder> Holders;
  std::unique_ptr<inspect::Store> pStore;
  if (inspect::Store::Open(Store.u16string(), &pStore) == os::kSuccess) Holders = pStore->Holders();
  std::erase_if(Holders, [](const inspect::Holder& One) { return One.nProcess == OwnProcess(); });
  const std::string Who = Describe(Holders);
  return Failure(What, errSHARING_VIOLATION,
                 "another process holds the store" + (Who.empty() ? "" : ": " + Who) +
                     "; try again when it is done, or let --wait SECONDS wait for that");
}

WaitForOther::WaitForOther(std::uint32_t nSeconds)
    : m_End(std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds)) {}

bool WaitForOther::Again() {
  constexpr std::chrono::milliseconds kLongest(200);
  const auto Left = std::chrono::ceil<std::chrono::milliseconds>(m_End - std::chrono::steady_clock::now());
  if (Left.count() <= 0 || Interrupted()) return false;
  std::this_thread::sleep_for(std::min(Left, m_Next));
  m_Next = std::min(m_Next * 2, kLongest);
  return !Interrupted();
}

}  // namespace lumbra::tool
