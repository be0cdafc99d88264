// Names of every type, with every override of flags: an object that was created is found again by the same name; the
// name that it comes back with leads to it, too, but where the way of splitting paths reads that name another way; and
// a buffer of any size is written no farther than its end.
#include "fuzz.h"
#include "lumbra/lumbra.h"

namespace lumbra::fuzz {
namespace {

constexpr std::uint32_t kDatabase = 1;

struct Query {
  std::uint32_t nType;
  std::uint32_t nOverride;
  std::uint64_t nParent;
  std::u16string Name;  // ends with a zero of its own
  std::int32_t nSize;   // bytes, or how to find out
};

ResultCode Find(const FuzzStore& Store, const Query& By, std::uint32_t nCreate, std::uint64_t* pnId) {
  return Store.Call(&Ops::FindObject, kDatabase, By.nType, By.Name.data(), By.nSize, nCreate, By.nOverride, By.nParent,
                    pnId);
}

// Reads a name with no room, with exactly enough, and with less.
std::u16string NameOf(const FuzzStore& Store, std::uint64_t nId, std::uint32_t nOverride, std::uint32_t* pnSize) {
  std::uint32_t nType = 0;
  RequireCode(errOK, Store.Call(&Ops::GetObjectName, nId, nullptr, 0, pnSize, nOverride, &nType), "the size of a name");
  std::uint32_t nAgain = 0;
  const std::uint32_t nShort = *pnSize / 3;
  if (nShort != 0) {
    const std::unique_ptr<std::uint8_t[]> pShort(new std::uint8_t[nShort]);
    auto* const pName = reinterpret_cast<char16_t*>(pShort.get());
    RequireCode(errBUFFER_TOO_SMALL, Store.Call(&Ops::GetObjectName, nId, pName, nShort, &nAgain, nOverride, nullptr),
                "a name without room");
    Require(nAgain == *pnSize, "a size stays the same");
  }
  if (*pnSize == 0) return {};
  const std::unique_ptr<std::uint8_t[]> pExact(new std::uint8_t[*pnSize]);
  auto* const pName = reinterpret_cast<char16_t*>(pExact.get());
  RequireCode(errOK, Store.Call(&Ops::GetObjectName, nId, pName, *pnSize, &nAgain, nOverride, nullptr), "a name");
  Require(nAgain == *pnSize, "a size stays the same");
  std::u16string Name((*pnSize + 1) / 2, u'\0');
  std::memcpy(Name.data(), pExact.get(), *pnSize);
  return Name;
}

bool HasLoneSurrogate(std::u16string_view Name) {
  for (std::size_t i = 0; i < Name.size(); ++i) {
    const auto Is = [&](std::size_t n, char16_t cKind) {
      return n < Name.size() && (Name[n] & 0xFC00) == cKind;
    };
    if (Is(i, 0xDC00) || (Is(i, 0xD800) && !Is(i + 1, 0xDC00))) return true;
    if (Is(i, 0xD800)) ++i;
  }
  return false;
}

// Whether the name that comes back must lead to the object. Not so: what UTF-8 cannot tell (half characters), names of
// registry values, in front of which a '/' comes back, paths that end with a separator, which makes a folder of the
// last component, and paths that start with one that goes: what is left may look like a root.
bool ComesBackAsItIs(const Query& By) {
  if (By.nSize < 0 || By.nSize % 2 != 0 || By.nParent != 0) return false;
  std::u16string_view Name(By.Name.data(), static_cast<std::size_t>(By.nSize) / 2);
  if (HasLoneSurrogate(Name)) return false;
  const bool bSplitByDefault = By.nType >= typeFile && By.nType <= typeRegistryKey;
  const bool bSplits = ((bSplitByDefault ? std::uint32_t{fObjSplitPath} : 0) | (By.nOverride & 0xFFFF)) &
                       ~(By.nOverride >> 16) & fObjSplitPath;
  if (!bSplits) return true;
  if (By.nType == typeRegistryValue || Name.ends_with(u'\\') || Name.ends_with(u'/')) return false;
  const bool bServer = By.nType != typeRegistryKey && Name.starts_with(u"\\\\") && !Name.starts_with(u"\\\\?");
  return bServer || !Name.starts_with(u'\\');
}

void RoundTrip(const FuzzStore& Store, const Query& By) {
  std::uint64_t nId = 0;
  std::uint64_t nAgain = 0;
  (void)Find(Store, By, 0, &nAgain);  // mostly not there yet
  const ResultCode nCode = Find(Store, By, 1, &nId);
  if (Failed(nCode)) return Require(nId == 0, "a failure gives no object");
  if (By.nSize == 0) return;  // anonymous
  RequireCode(errOK, Find(Store, By, 0, &nAgain), "finding what was created");
  Require(nId == nAgain, "a name has one object");
  Query Back = By;
  std::uint32_t nSize = 0;
  Back.Name = NameOf(Store, nId, By.nOverride, &nSize);
  Back.nSize = static_cast<std::int32_t>(nSize);
  Back.nParent = 0;
  if (nSize == 0) return Require(!ComesBackAsItIs(By), "a name is not empty");
  const ResultCode nBack = Find(Store, Back, 1, &nAgain);
  if (!ComesBackAsItIs(By)) return;
  RequireCode(errOK, nBack, "finding by the name that came back");
  Require(nId == nAgain, "the name that comes back leads to the object");
}

// One database for all inputs, cleared for each: that is quicker than a new store.
struct NameStore : FuzzStore {
  NameStore() {
    EmptyFolder();
    RequireCode(errOK, Open(false), "opening");
    RequireCode(errOK, Call(&Ops::InitDB, kDatabase, 16), "opening a database");
  }
};

// A few names, the later ones below the object of the first if they say so. A byte of the input makes a unit: the
// characters that matter come often.
void Run(Input From) {
  static const NameStore Store;
  RequireCode(errOK, Store.Call(&Ops::ClearDB, kDatabase), "clearing");
  std::uint64_t nParent = 0;
  for (int i = 0; i < 16 && !From.IsDone(); ++i) {
    const std::uint8_t nHow = From.Byte();
    Query By{From.Byte(), 0, (nHow & 1) != 0 ? nParent : 0, {}, 0};
    if ((nHow & 2) != 0) By.nOverride = From.Take<std::uint32_t>();
    if ((nHow & 4) != 0) By.nType = 1 + By.nType % 4;
    const std::size_t nLength = From.Byte();
    constexpr char16_t kOften[] = u"\\/:?C\u00e9\u6f22\U00010437HKLM{}UNC";
    for (const std::uint8_t n : From.TakeBytes(nLength)) {
      By.Name += n < 0x80 ? char16_t{n} : n < 0xC0 ? kOften[n % 16] : static_cast<char16_t>(n << 8 | n);
    }
    if ((nHow & 8) != 0) By.Name = u"\\\\?\\Volume{0123456789abcdef0123456789abcdef0123}\\" + By.Name;
    if ((nHow & 16) != 0) {
      const std::size_t nLong = i == 0 && By.nType == 0xFF ? 33000 : 600;  // also one that is too long
      while (!By.Name.empty() && By.Name.size() < nLong) By.Name += By.Name;
    }
    By.nSize = static_cast<std::int32_t>(By.Name.size() * 2 - ((nHow & 32) != 0 && !By.Name.empty() ? 1 : 0));
    if ((nHow & 64) != 0) By.nSize = kZeroTerminated + ((nHow & 128) != 0 ? 1 : 0);
    RoundTrip(Store, By);
    if (nParent == 0) (void)Find(Store, By, 1, &nParent);
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  lumbra::fuzz::Run({pData, nSize});
  return 0;
}
