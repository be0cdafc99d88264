// Names of every type, with every override of flags. The law: an object that was created is found again by its name,
// and by the name that it comes back with, but where the way of splitting paths reads that one another way.
#include "fuzz.h"
#include "host/standalone_host.h"

namespace lumbra::fuzz {
namespace {

constexpr std::uint32_t kDatabase = 1;
using Ops = LumbraOperations;

// One database for all inputs, cleared for each: that is quicker than a new store.
struct Names {
  Names() {
    Host.SetPlaceholder(u"%Report%", Folder().u16string());
    Host.SetPlaceholder(u"%host%", u"fuzz-host");
    const bool bOpen = Succeeded(Store.Init()) && Succeeded(Store.Call(&Ops::InitDB, kDatabase, 16));
    Require(bOpen, "a fresh store opens");
  }
  host::StandaloneHost Host;
  host::Store Store = Host.Create();
};

struct Query {
  std::uint32_t nType;
  std::uint32_t nOverride;
  std::uint64_t nParent;
  std::u16string Name;  // ends with a zero of its own
  std::int32_t nSize;   // bytes, or how to find out
};

// The object of a name; 0 of one that is refused or not there.
std::uint64_t Find(const host::Store& Store, const Query& By, std::uint32_t nCreate) {
  std::uint64_t nId = 0;
  const ResultCode nCode = Store.Call(&Ops::FindObject, kDatabase, By.nType, By.Name.data(), By.nSize, nCreate,
                                      By.nOverride, By.nParent, &nId);
  Require(Succeeded(nCode) || nId == 0, "a failure gives no object");
  return nId;
}

// Reads a name into a room of just that size; no byte behind it is touched.
ResultCode NameOf(const host::Store& Store, std::uint64_t nId, std::uint32_t nOverride, std::uint32_t* pnSize,
                  std::u16string* pFound) {
  const std::unique_ptr<char[]> pRoom(new char[*pnSize]);
  const std::uint32_t nRoom = *pnSize;
  std::uint32_t nType = 0;
  auto* const pName = nRoom == 0 ? nullptr : reinterpret_cast<char16_t*>(pRoom.get());
  const ResultCode nCode = Store.Call(&Ops::GetObjectName, nId, pName, nRoom, pnSize, nOverride, &nType);
  pFound->assign((nRoom + 1) / 2, u'\0');
  std::copy_n(pRoom.get(), nRoom, reinterpret_cast<char*>(pFound->data()));
  return nCode;
}

// Whether the name that comes back must lead to the object. Not so: halves of characters, which UTF-8 cannot tell,
// names of registry values, in front of which a '/' comes back, paths that end with a separator, which makes a folder
// of the last component, and paths whose start loses a separator: what is left may look like a root, as "UNC\server"
// of "UNC/\server" does.
bool ComesBackAsItIs(const Query& By) {
  if (By.nSize < 0 || By.nSize % 2 != 0 || By.nParent != 0) return false;
  const std::u16string_view Name(By.Name.data(), static_cast<std::size_t>(By.nSize) / 2);
  if (std::ranges::any_of(Name, [](char16_t c) { return (c & 0xF800) == 0xD800; })) return false;
  const bool bSplitByDefault = By.nType >= typeFile && By.nType <= typeRegistryKey;
  const bool bSplits = ((bSplitByDefault ? std::uint32_t{fObjSplitPath} : 0) | (By.nOverride & 0xFFFF)) &
                       ~(By.nOverride >> 16) & fObjSplitPath;
  if (!bSplits) return true;
  if (By.nType == typeRegistryValue || Name.ends_with(u'\\') || Name.ends_with(u'/')) return false;
  if (Name.starts_with(u"UNC/")) return false;
  const bool bServer = By.nType != typeRegistryKey && Name.starts_with(u"\\\\") && !Name.starts_with(u"\\\\?");
  return bServer || !Name.starts_with(u'\\');
}

// Answers the object.
std::uint64_t RoundTrip(const host::Store& Store, const Query& By) {
  const std::uint64_t nId = Find(Store, By, 1);
  if (nId == 0 || By.nSize == 0) return nId;  // refused, or anonymous
  Require(Find(Store, By, 0) == nId, "a name has one object");
  Query Back = By;
  Back.nParent = 0;
  std::uint32_t nSize = 0;
  Require(NameOf(Store, nId, By.nOverride, &nSize, &Back.Name) == errOK, "a name has a size");
  std::uint32_t nShort = nSize / 3;
  if (nShort != 0)
    Require(NameOf(Store, nId, By.nOverride, &nShort, &Back.Name) == errBUFFER_TOO_SMALL && nShort == nSize,
            "a name that does not fit tells its size");
  if (nSize != 0) Require(NameOf(Store, nId, By.nOverride, &nSize, &Back.Name) == errOK, "a name is read");
  Back.nSize = static_cast<std::int32_t>(nSize);
  const std::uint64_t nBack = nSize == 0 ? 0 : Find(Store, Back, 1);
  Require(nBack == nId || !ComesBackAsItIs(By), "the name that comes back leads to the object");
  return nId;
}

// A byte of the input makes a unit: the characters that matter come often.
Query Take(Input* pFrom, std::uint64_t nParent) {
  constexpr char16_t kOften[] = u"\\/:?C\u00e9\u6f22\U00010437HKLM{}UNC";
  const std::uint64_t nHow = pFrom->Number();
  Query By{static_cast<std::uint32_t>(pFrom->Number()), 0, (nHow & 1) != 0 ? nParent : 0, {}, 0};
  if ((nHow & 2) != 0) By.nOverride = static_cast<std::uint32_t>(pFrom->Number(4));
  const std::size_t nLong = By.nType == 0xFF ? 33000 : 600;  // also one that is too long
  if ((nHow & 4) != 0) By.nType = 1 + By.nType % 4;
  for (const char c : pFrom->Bytes(pFrom->Number())) {
    const auto n = static_cast<std::uint8_t>(c);
    By.Name += n < 0x80 ? char16_t{n} : n < 0xC0 ? kOften[n % 16] : static_cast<char16_t>(n << 8 | n);
  }
  if ((nHow & 8) != 0) By.Name = u"\\\\?\\Volume{0123456789abcdef0123456789abcdef0123}\\" + By.Name;
  while ((nHow & 16) != 0 && !By.Name.empty() && By.Name.size() < nLong) By.Name += By.Name;
  By.nSize = static_cast<std::int32_t>(By.Name.size() * 2 - ((nHow & 32) != 0 && !By.Name.empty() ? 1 : 0));
  if ((nHow & 64) != 0) By.nSize = kZeroTerminated + ((nHow & 128) != 0 ? 1 : 0);
  return By;
}

}  // namespace
}  // namespace lumbra::fuzz

// A few names, the later ones below the object of the first if they say so.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  static const Names Opened;
  Require(Opened.Store.Call(&Ops::ClearDB, kDatabase) == lumbra::errOK, "a database is cleared");
  Input From(pData, nSize);
  std::uint64_t nParent = 0;
  for (int i = 0; i < 16 && !From.IsDone(); ++i) {
    const std::uint64_t nId = RoundTrip(Opened.Store, Take(&From, nParent));
    if (nParent == 0) nParent = nId;
  }
  return 0;
}
