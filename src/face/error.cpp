// Errors: what a code means to a program, and what helps.
#include <new>

#include "face/state.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "host/trace_format.h"
#include "platform/result.h"

namespace lumbra {
inline namespace v1 {

struct Error::Details {
  ResultCode nCode;
  std::string Operation;
  std::string Where;
  std::string Reason;
  std::vector<Holder> Holders;
};

namespace {

struct Meaning {
  ResultCode nCode;
  Help What;
  std::errc Alike;  // std::errc{}: none
  const char* pText;
};
constexpr Meaning kMeanings[] = {
    {errSHARING_VIOLATION, Help::retry, std::errc::device_or_resource_busy, "another process has the store"},
    {errOPEN_FAILED,
     Help::retry,
     {},
     "files cannot be opened or made; the disk may be full, or they are somebody else's"},
    {errOUT_OF_SPACE, Help::retry, std::errc::no_space_on_device, "the disk, or what the store can number, is full"},
    {errWRITE_FAILED, Help::retry, {}, "a write failed; the disk may be full. What was answered before is safe"},
    {errOUT_OF_MEMORY, Help::retry, std::errc::not_enough_memory, "there is not enough memory"},
    {kTooManyOpenFilesResult, Help::retry, std::errc::too_many_files_open,
     "this process may not have so many files open"},
    {errSTORE_NOT_INITIALIZED, Help::reopen, std::errc::bad_file_descriptor, "it is closed"},
    {errREAD_FAILED, Help::repair, std::errc::io_error, "the disk did not deliver what was written"},
    {errDATA_CORRUPTED, Help::repair, {}, "stored data is damaged; the rest of the store can still be read"},
    {errACCESS_DENIED, Help::nothing, std::errc::permission_denied, "the system does not let this user do that"},
    {errOBJECT_NOT_FOUND, Help::nothing, std::errc::no_such_file_or_directory, "there is no such thing, or it is gone"},
    {errNOT_FOUND, Help::nothing, std::errc::no_such_file_or_directory, "there is nothing under this id or tag"},
    {errFILE_NOT_FOUND, Help::nothing, std::errc::no_such_file_or_directory, "there is no such file"},
    {errPATH_NOT_FOUND, Help::nothing, std::errc::no_such_file_or_directory, "there is no such folder"},
    {errPARAMETER_INVALID, Help::nothing, std::errc::invalid_argument, "the store does not take this"},
    {errSIZE_INVALID, Help::nothing, std::errc::invalid_argument, "it has another size than it may have"},
    {errUNSPECIFIED, Help::nothing, std::errc::invalid_argument, "the name has nothing in it that can be recorded"},
    {errHASH_ZERO, Help::nothing, std::errc::invalid_argument, "the name cannot be recorded"},
    {errCONVERSION_FAILED, Help::nothing, std::errc::illegal_byte_sequence, "the text is no Unicode"},
    {errPATH_NAME_INVALID, Help::nothing, std::errc::invalid_argument, "the system takes no such path"},
    {errINDEX_INVALID, Help::nothing, {}, "the store holds 207 named databases already, and no more than that"},
    {errALREADY_EXISTS, Help::nothing, {}, "this process has another one open"},
    {errOBJECT_ALREADY_EXISTS, Help::nothing, {}, "another name, which the store cannot tell from this one, is open"},
    {kWriteProtectResult, Help::nothing, std::errc::read_only_file_system, "the file system takes no writes"},
    {errREAD_ONLY, Help::nothing, std::errc::read_only_file_system, "the store takes no writes"},
};

const Meaning* FindMeaning(ResultCode nCode) {
  for (const Meaning& One : kMeanings) {
    if (One.nCode == nCode) return &One;
  }
  return nullptr;
}

class Category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "lumbra"; }
  std::string message(int nValue) const override { return host::DescribeCode(static_cast<ResultCode>(nValue)); }
  std::error_condition default_error_condition(int nValue) const noexcept override {
    const Meaning* const pFound = FindMeaning(static_cast<ResultCode>(nValue));
    if (pFound == nullptr || pFound->Alike == std::errc{}) return {nValue, *this};
    return make_error_condition(pFound->Alike);
  }
};

std::string Describe(const std::vector<Holder>& Holders) {
  std::string Text;
  for (const Holder& One : Holders) {
    Text += (Text.empty() ? "" : ", ") + (One.program.empty() ? "a process" : host::Printable(One.program)) + " (pid " +
            std::to_string(One.process) + (One.user.empty() ? "" : ", user " + host::Printable(One.user)) + ')';
  }
  return Text;
}

std::string TextOf(const Error::Details& Of) {
  return host::PrintableSentence(Of.Operation + ' ' + host::Printable(Of.Where) + ": " + Of.Reason);
}

}  // namespace

const std::error_category& store_category() noexcept {
  // Never destroyed: somebody may look at an error while the process ends.
  alignas(Category) static std::byte s_Storage[sizeof(Category)];
  static const Category* const s_pCategory = new (s_Storage) Category;
  return *s_pCategory;
}

Error::Error(std::shared_ptr<const Details> pDetails)
    : std::system_error(static_cast<int>(pDetails->nCode), store_category(), TextOf(*pDetails)),
      m_pDetails(std::move(pDetails)) {}

ResultCode Error::result() const noexcept {
  return m_pDetails->nCode;
}

const char* Error::name() const noexcept {
  const char* const pName = ResultCodeName(m_pDetails->nCode);
  return pName != nullptr ? pName : "";
}

const std::string& Error::operation() const noexcept {
  return m_pDetails->Operation;
}

const std::string& Error::where() const noexcept {
  return m_pDetails->Where;
}

const std::string& Error::reason() const noexcept {
  return m_pDetails->Reason;
}

const std::vector<Holder>& Error::holders() const noexcept {
  return m_pDetails->Holders;
}

// What a failed sync has dropped is not written by another one, and there is never room for more tags.
Help Error::help() const noexcept {
  if (m_pDetails->nCode == errWRITE_FAILED && m_pDetails->Operation == "flush") return Help::reopen;
  if (m_pDetails->nCode == errOUT_OF_SPACE && m_pDetails->Operation == "set_data") return Help::nothing;
  const Meaning* const pFound = FindMeaning(m_pDetails->nCode);
  return pFound != nullptr ? pFound->What : Help::nothing;
}

std::string detail::MeaningOf(ResultCode nCode) {
  const Meaning* const pFound = FindMeaning(nCode);
  return pFound != nullptr ? pFound->pText : "an unexpected answer of the store";
}

Error detail::MakeError(ResultCode nCode, std::string Operation, const std::filesystem::path& Place, std::string Reason,
                        std::vector<Holder> Holders) {
  if (Reason.empty()) Reason = MeaningOf(nCode);
  if (!Holders.empty()) Reason += ": " + Describe(Holders);
#ifdef _WIN32
  std::string Where = host::ToUtf8(Place.u16string());
#else
  std::string Where = Place.string();
#endif
  return Error(std::make_shared<Error::Details>(
      Error::Details{nCode, std::move(Operation), std::move(Where), std::move(Reason), std::move(Holders)}));
}

}  // namespace v1
}  // namespace lumbra
