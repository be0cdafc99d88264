// Objects: their names, what they are in, and their data.
#include "face/state.h"
#include "format/object_id.h"
#include "host/name_flags.h"
#include "host/text.h"
#include "inspect/paths.h"

namespace lumbra {
inline namespace v1 {

using detail::IsMissing;
using detail::Use;

namespace {

constexpr std::size_t kMaxNameUnits = inspect::kMaxNameUnits;

constexpr std::uint64_t NumberOf(ObjectId nId) {
  return static_cast<std::uint64_t>(nId);
}

bool IsHigh(char16_t c) {
  return (c & 0xFC00) == 0xD800;
}
bool IsLow(char16_t c) {
  return (c & 0xFC00) == 0xDC00;
}

// Whether each surrogate is one of a pair, or stands for a byte.
bool IsName(std::u16string_view Name) {
  for (std::size_t i = 0; i < Name.size(); ++i) {
    if (IsHigh(Name[i]) && i + 1 < Name.size() && IsLow(Name[i + 1])) {
      ++i;
    } else if (IsHigh(Name[i]) || (IsLow(Name[i]) && (Name[i] < 0xDC80 || Name[i] > 0xDCFF))) {
      return false;
    }
  }
  return true;
}

// Whether no object has the id: what is about nothing has it, or it stands for the object of a host, and ours has none.
bool IsNobodys(ObjectId nId) {
  return MAKE_SHORT_OBJECT_ID(NumberOf(nId)) == 0 || NumberOf(nId) == kHostObjectAlias ||
         DatabaseOfId(NumberOf(nId)) > kLastNamedDatabase;
}

// Whether the id may lead to an object. Of databases that are not open the tables, and the files, say different things.
bool MayBeThere(const Use& In, ObjectId nId) {
  if (IsNobodys(nId)) return false;
  const std::uint32_t nDatabase = DatabaseOfId(NumberOf(nId));
  if (In.IsOpen(nDatabase)) return true;
  In.Fail(errPARAMETER_INVALID, "the object's database, " + std::to_string(nDatabase) + ", is not open");
}

bool IsSeparator(char c) {
  return c == '/' || c == '\\';
}

// The first units of an object's name, two of them at most.
std::u16string BeginningOf(const Use& In, ObjectId nId) {
  constexpr std::uint32_t kUnits = 2;  // the rest is cut off
  char16_t First[kUnits + 1] = {};
  const ResultCode nCode =
      In.Call(&LumbraOperations::GetObjectName, NumberOf(nId), First, kUnits * sizeof(char16_t), nullptr, 0, nullptr);
  return Succeeded(nCode) || nCode == errBUFFER_TOO_SMALL ? First : u"";
}

// A name that goes on with '/' below a parent whose path begins with it, so that the object is the one that the whole
// path is; empty for one that stays as it is. "/" is the parent of nothing.
std::string WithSlash(const Use& In, Type Of, std::string_view Name, ObjectId* pParent) {
  const bool bPath = Of == Type::file || Of == Type::folder;
  if (!bPath || *pParent == ObjectId{} || Name.empty() || IsSeparator(Name.front())) return {};
  const std::u16string Beginning = BeginningOf(In, *pParent);
  if (!Beginning.starts_with(u'/')) return {};
  if (Beginning == u"/") *pParent = {};
  return '/' + std::string(Name);
}

}  // namespace

// ---- Finding ----------------------------------------------------------------------------------------------

std::optional<ObjectId> detail::FindObject(const Use& In, std::uint32_t nDatabase, Type Of, std::string_view Name,
                                           ObjectId Parent, bool bCreate) {
  constexpr std::uint32_t kFindOnly = 0;
  constexpr std::uint32_t kCreateRepairing = 2;
  if (!bCreate && Name.empty()) return {};  // what has no name is found by its id alone
  const std::string Longer = WithSlash(In, Of, Name, &Parent);
  if (!Longer.empty()) Name = Longer;
  const std::u16string Wide = host::NameToUtf16(Name);
  if (Wide.size() > kMaxNameUnits) In.Fail(errSIZE_INVALID, "the name is too long");
  std::uint64_t nId = 0;
  ResultCode nCode = errOBJECT_NOT_FOUND;
  if (Parent == ObjectId{} || !IsNobodys(Parent))
    nCode = In.Call(&LumbraOperations::FindObject, nDatabase, static_cast<std::uint32_t>(Of), Wide.c_str(),
                    static_cast<std::int32_t>(Wide.size() * sizeof(char16_t)), bCreate ? kCreateRepairing : kFindOnly,
                    host::FlagsFor(static_cast<std::uint32_t>(Of), Name), NumberOf(Parent), &nId);
  if (!bCreate && IsMissing(nCode)) return {};
  if (Parent != ObjectId{} && IsMissing(nCode))
    In.Fail(errOBJECT_NOT_FOUND, "the parent is not there, or is of another database, or of an older segment of it");
  In.Check(nCode);
  return ObjectId{nId};
}

std::optional<Object> Store::find(Type type, std::string_view name, ObjectId parent) const {
  const Use Now(*m_pState, "find");
  const std::optional<ObjectId> Found = detail::FindObject(Now, kSystemDatabase, type, name, parent, false);
  return Found ? std::optional(Object(m_pState, *Found)) : std::nullopt;
}

Object Store::find_or_create(Type type, std::string_view name, ObjectId parent) const {
  const Use Now(*m_pState, "find_or_create");
  return {m_pState, *detail::FindObject(Now, kSystemDatabase, type, name, parent, true)};
}

std::optional<Object> AnyDatabase::find(Type type, std::string_view name, ObjectId parent) const {
  const Use Now(*m_pState, "find", m_pDatabase);
  const std::optional<ObjectId> Found = detail::FindObject(Now, m_pDatabase->nId, type, name, parent, false);
  return Found ? std::optional(Object(m_pState, *Found)) : std::nullopt;
}

Object AnyDatabase::find_or_create(Type type, std::string_view name, ObjectId parent) const {
  const Use Now(*m_pState, "find_or_create", m_pDatabase);
  return {m_pState, *detail::FindObject(Now, m_pDatabase->nId, type, name, parent, true)};
}

// ---- Names ------------------------------------------------------------------------------------------------

std::optional<std::string> Object::name() const {
  const Use Now(*m_pState, "name");
  if (!MayBeThere(Now, m_nId)) return {};
  for (std::u16string Name(256, u'\0');;) {
    std::uint32_t nBytes = 0;
    const auto nRoom = static_cast<std::uint32_t>(Name.size() * sizeof(char16_t));
    const ResultCode nCode =
        Now.Call(&LumbraOperations::GetObjectName, NumberOf(m_nId), Name.data(), nRoom, &nBytes, 0, nullptr);
    const std::size_t nUnits = nBytes / sizeof(char16_t);
    if (nCode == errBUFFER_TOO_SMALL) {
      if (nUnits > kMaxNameUnits) Now.Fail(errSIZE_INVALID, "the name is too long");
      Name.resize(nUnits);
      continue;
    }
    if (IsMissing(nCode)) return {};
    Now.Check(nCode);
    Name.resize(nUnits);
    if (!IsName(Name)) Now.Fail(errCONVERSION_FAILED, "the name has a surrogate that stands for nothing");
    return host::NameToBytes(Name);
  }
}

std::optional<Type> Object::type() const {
  const Use Now(*m_pState, "type");
  if (!MayBeThere(Now, m_nId)) return {};
  std::uint32_t nType = 0;
  const ResultCode nCode = Now.Call(&LumbraOperations::GetObjectName, NumberOf(m_nId), nullptr, 0, nullptr, 0, &nType);
  if (IsMissing(nCode)) return {};
  Now.Check(nCode);
  return static_cast<Type>(nType);
}

// The tables tell parents of the objects of events alone, and of folders; so the files are asked.
std::optional<Object> Object::parent() const {
  using State = inspect::ObjectView::State;
  const Use Now(*m_pState, "parent");
  if (!MayBeThere(Now, m_nId)) return {};
  constexpr std::uint64_t kCacheBytes = 64 * 1024;
  inspect::Paths Known(Now.Files(), kCacheBytes);
  const std::uint64_t nId = NumberOf(m_nId);
  const inspect::ObjectView& Seen = Known.Resolve({&nId, 1}).front();
  if (Seen.Of == State::Damaged || Seen.Of == State::Unsettled) Now.Fail(errDATA_CORRUPTED);
  if (Seen.Of == State::Unreadable) Now.Fail(errREAD_FAILED);
  if (Seen.Of == State::Gone || Seen.nParent == 0) return {};
  return Object(m_pState, ObjectId{Seen.nParent});
}

// ---- Data -------------------------------------------------------------------------------------------------

namespace {

template <class Block>
std::optional<Block> ReadData(const Use& In, ObjectId nId, std::uint32_t nTag) {
  if (!MayBeThere(In, nId)) return std::nullopt;
  Block Content;
  for (;;) {
    std::uint32_t nSize = 0;
    const auto nRoom = static_cast<std::uint32_t>(Content.size());
    const ResultCode nCode =
        In.Call(&LumbraOperations::GetObjectData, NumberOf(nId), Content.data(), nRoom, &nSize, nTag);
    if (IsMissing(nCode)) return std::nullopt;
    if (nCode != errBUFFER_TOO_SMALL) In.Check(nCode);
    const bool bWhole = nCode != errBUFFER_TOO_SMALL && nSize <= nRoom;
    Content.resize(nSize);  // the first call asks for the size alone, and it may grow before the next
    if (bWhole) return Content;
  }
}

// The tables say in two ways that an object is not there.
void CheckWritten(const Use& In, ResultCode nCode) {
  In.Check(IsMissing(nCode) ? errOBJECT_NOT_FOUND : nCode);
}

void WriteData(const Use& In, ObjectId nId, std::uint32_t nTag, const void* pData, std::size_t nSize) {
  if (nSize > UINT32_MAX) In.Fail(errSIZE_INVALID, "the data is too long");
  if (!MayBeThere(In, nId)) In.Fail(errOBJECT_NOT_FOUND);
  const ResultCode nCode = In.Call(&LumbraOperations::SetObjectData, NumberOf(nId), nSize == 0 ? nullptr : pData,
                                   static_cast<std::uint32_t>(nSize), nTag);
  if (nCode == errOUT_OF_SPACE)
    In.Fail(nCode, "an object has at most 255 tags, and all of its segment, or of the store, at most 4 GiB of data");
  CheckWritten(In, nCode);
}

}  // namespace

std::optional<std::vector<std::byte>> Object::data(std::uint32_t tag) const {
  return ReadData<std::vector<std::byte>>(Use(*m_pState, "data"), m_nId, tag);
}

std::optional<std::string> Object::text(std::uint32_t tag) const {
  return ReadData<std::string>(Use(*m_pState, "text"), m_nId, tag);
}

void Object::set_data(std::uint32_t tag, std::span<const std::byte> bytes) const {
  WriteData(Use(*m_pState, "set_data"), m_nId, tag, bytes.data(), bytes.size());
}

void Object::set_data(std::uint32_t tag, std::string_view text) const {
  WriteData(Use(*m_pState, "set_data"), m_nId, tag, text.data(), text.size());
}

void Object::clear_data() const {
  const Use Now(*m_pState, "clear_data");
  if (!MayBeThere(Now, m_nId)) Now.Fail(errOBJECT_NOT_FOUND);
  CheckWritten(Now, Now.Call(&LumbraOperations::RemoveAllObjectData, NumberOf(m_nId)));
}

}  // namespace v1
}  // namespace lumbra
