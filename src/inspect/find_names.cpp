#include "inspect/find_names.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "events/circle_watch.h"
#include "events/object_hash.h"
#include "events/object_types.h"
#include "events/path_components.h"
#include "events/path_root.h"
#include "host/text.h"

namespace lumbra::inspect {
namespace {

// A component of a name, each the parent of the next.
struct Step {
  std::uint8_t nType;
  std::uint32_t nFlags;
  std::u16string_view Name;
  std::uint64_t nHash = 0;  // 0: it cannot be there
};

struct Chain {
  std::vector<Step> Steps;
  bool bRoot = false;       // the first one is that of a path
  std::uint32_t nBase = 0;  // the object below which they are; 0 for none
  std::uint64_t nBaseHash = 0;
  std::uint32_t nLinked = 0;  // what the root led on to, which is the base then
};

Chain TakeApart(const SoughtName& Sought, bool bBelowParent) {
  Chain Of;
  std::uint32_t nFlags = EffectiveFlags(Sought.nType, Sought.nFlagsOverride);
  const std::u16string_view Path = Sought.Name;
  if ((nFlags & fObjSplitPath) == 0) {
    Of.Steps.push_back({Sought.nType, nFlags, Path});
    return Of;
  }
  std::size_t nPosition = 0;
  if (!bBelowParent) {
    const PathRoot Root = FindPathRoot(Sought.nType, Path);
    nPosition = Root.nStart + Root.nLength;
    Of.bRoot = Root.nLength != 0;
    if (Of.bRoot) {
      nFlags |= fObjNoCase;  // below a root, too
      Of.Steps.push_back({Root.nType, nFlags, Path.substr(Root.nStart, Root.nLength)});
    }
  }
  for (Component Next; NextComponent(Path, &nPosition, &Next);)
    Of.Steps.push_back({Next.bMoreFollows ? ContainerType(Sought.nType) : Sought.nType, nFlags, Next.Name});
  return Of;
}

void ComputeHashes(Chain* pChain) {
  std::uint64_t nHash = pChain->nBaseHash;
  bool bHasParent = pChain->nBase != 0;
  for (Step& One : pChain->Steps) {
    const auto nSize = static_cast<std::uint32_t>(One.Name.size() * sizeof(char16_t));
    const bool bNowhere = bHasParent && nHash == 0;
    nHash = bNowhere ? 0 : ObjectHash(One.nType, One.Name.data(), nSize, nHash, One.nFlags);
    One.nHash = nHash;
    bHasParent = true;
  }
}

std::u16string UpperCased(std::u16string Text) {
  os::UpperCase(Text.data(), static_cast<std::uint32_t>(Text.size()));
  return Text;
}

bool IsStoredName(std::span<const std::uint8_t> Stored, bool bUtf8, const Step& Of) {
  std::u16string Wide(Stored.size() / sizeof(char16_t), u'\0');
  std::u16string Sought(Of.Name);
  if (bUtf8) {
    Wide = host::ToUtf16({reinterpret_cast<const char*>(Stored.data()), Stored.size()});
    Sought = host::ToUtf16(host::ToUtf8(Sought));  // what has no form there was lost when it was stored
  } else if (Stored.size() % sizeof(char16_t) != 0) {
    return false;
  } else {
    std::memcpy(Wide.data(), Stored.data(), Stored.size());
  }
  if (Wide == Sought) return true;
  return (Of.nFlags & fObjNoCase) != 0 && UpperCased(Wide) == UpperCased(Sought);
}

class Finder {
 public:
  Finder(Objects* pIn, std::uint32_t nNumber) : m_pIn(pIn), m_nNumber(nNumber) {}

  // Notes the records that have one of the hashes sought, the newest last.
  void Pass(std::span<const Chain> Chains) {
    m_Candidates.clear();
    for (const Chain& One : Chains) {
      for (const Step& Part : One.Steps) {
        if (Part.nHash != 0) m_Candidates[Part.nHash];
      }
    }
    m_nUnreadable = 0;
    if (m_Candidates.empty()) return;
    const std::uint32_t nCount = m_pIn->Count();
    for (std::uint32_t i = 0; i < nCount; ++i) {
      tODB_ID_ENTRY Record{};
      if (m_pIn->ReadRecord(i + 1, &Record) != Answer::Read) {
        ++m_nUnreadable;
        continue;
      }
      const auto Found = m_Candidates.find(Record.nObjectHash);
      if (Found != m_Candidates.end()) Note(&Found->second, i + 1);
    }
  }

  FoundName Find(const Chain& Of) {
    if (Of.Steps.empty()) return {Of.nLinked == 0 ? 0 : MakeObjectId(m_nNumber, Of.nLinked)};
    return FindStep(Of, Of.Steps.size() - 1);
  }
  FoundName FindRoot(const Chain& Of) { return FindStep(Of, 0); }

  // Lets a chain whose root is linked start at what that links to. False where it is not.
  bool FollowRoot(Chain* pChain) {
    const FoundName Root = FindRoot(*pChain);
    if (Root.nId == 0) return false;
    std::uint32_t nLink = 0;
    tODB_ID_ENTRY Target{};
    if (!ReadLink(MAKE_SHORT_OBJECT_ID(Root.nId), &nLink)) return false;
    std::uint32_t nEnd = nLink;
    if (!ReadTarget(&nEnd, &Target) || !FollowsLinkTo(Target.nType, pChain->Steps.front().nFlags)) return false;
    tODB_ID_ENTRY Record{};
    if (m_pIn->ReadRecord(nLink, &Record) != Answer::Read) return false;
    pChain->Steps.erase(pChain->Steps.begin());
    pChain->nBase = pChain->nLinked = nLink;
    pChain->nBaseHash = Record.nObjectHash;
    ComputeHashes(pChain);
    return true;
  }

  std::uint32_t Unreadable() const { return m_nUnreadable; }

 private:
  static void Note(std::vector<std::uint32_t>* pIds, std::uint32_t nShortId) {
    constexpr std::size_t kMost = 16;  // more of one hash than any store has
    if (pIds->size() == kMost) pIds->erase(pIds->begin());
    pIds->push_back(nShortId);
  }

  FoundName FindStep(const Chain& Of, std::size_t nStep) {
    FoundName Best;
    const auto Found = m_Candidates.find(Of.Steps[nStep].nHash);
    if (Found == m_Candidates.end()) return Best;
    for (auto nId = Found->second.rbegin(); nId != Found->second.rend(); ++nId) {
      bool bConfirmed = true;
      if (!Fits(Of, nStep, *nId, &bConfirmed)) continue;
      if (Best.nId == 0 || bConfirmed) Best = {MakeObjectId(m_nNumber, *nId), bConfirmed};
      if (bConfirmed) break;
    }
    return Best;
  }

  // Whether an object, and each of its parents, is what stands there in the chain.
  bool Fits(const Chain& Of, std::size_t nStep, std::uint32_t nShortId, bool* pbConfirmed) {
    for (;; --nStep) {
      const Step& Now = Of.Steps[nStep];
      tODB_ID_ENTRY Record{};
      if (m_pIn->ReadRecord(nShortId, &Record) != Answer::Read) return false;
      if (Record.nObjectHash != Now.nHash || Record.nType != Now.nType) return false;
      std::span<const std::uint8_t> Stored;
      const Answer Read = m_pIn->ReadName(Record, &Stored);
      if (Read != Answer::Read) *pbConfirmed = false;
      if (Read == Answer::Read && !IsStoredName(Stored, (Record.nFlags & fObjUtf8) != 0, Now)) return false;
      const tObjectId nBase = Of.nBase == 0 ? 0 : MakeObjectId(m_nNumber, Of.nBase);
      if (nStep == 0) return Record.nParentId == nBase;
      if (StoreNumberOf(Record.nParentId) != m_nNumber) return false;
      nShortId = MAKE_SHORT_OBJECT_ID(Record.nParentId);
    }
  }

  bool ReadLink(std::uint32_t nShortId, std::uint32_t* pnLink) {
    std::uint64_t nLink = 0;
    std::vector<std::uint8_t> Bytes;
    if (m_pIn->ReadData(nShortId, kObjectLinkTag, &Bytes) != Answer::Read || Bytes.size() != sizeof(nLink))
      return false;
    std::memcpy(&nLink, Bytes.data(), sizeof(nLink));
    *pnLink = MAKE_SHORT_OBJECT_ID(nLink);
    return nLink != 0 && StoreNumberOf(nLink) == m_nNumber;
  }

  // Of an object that stands for another one the type is that of the other.
  bool ReadTarget(std::uint32_t* pnShortId, tODB_ID_ENTRY* pRecord) {
    CircleWatch Circle;
    for (;;) {
      if (Circle.WasHere(*pnShortId) || m_pIn->ReadRecord(*pnShortId, pRecord) != Answer::Read) return false;
      const bool bVolumes = (EffectiveFlags(pRecord->nType, 0) & fObjFollowVolumeLinks) != 0;
      const bool bStands = pRecord->nType == typeRegistryKey || (pRecord->nType == typeVolumeRoot && bVolumes);
      if (!bStands || !ReadLink(*pnShortId, pnShortId)) return true;
    }
  }

  Objects* const m_pIn;
  const std::uint32_t m_nNumber;
  std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> m_Candidates;
  std::uint32_t m_nUnreadable = 0;
};

}  // namespace

ResultCode CheckName(const SoughtName& Sought, bool bBelowParent) {
  return TakeApart(Sought, bBelowParent).Steps.empty() ? errUNSPECIFIED : errOK;
}

FoundNames FindNames(Objects* pIn, std::uint32_t nNumber, std::uint32_t nParentShortId,
                     std::span<const SoughtName> Sought) {
  tODB_ID_ENTRY Parent{};
  const Answer Above = nParentShortId != 0 ? pIn->ReadRecord(nParentShortId, &Parent) : Answer::Read;
  if (Above != Answer::Read) return {std::vector<FoundName>(Sought.size()), Above == Answer::Missing ? 0u : 1u};
  std::vector<Chain> Chains;
  for (const SoughtName& One : Sought) {
    Chains.push_back(TakeApart(One, nParentShortId != 0));
    Chains.back().nBase = nParentShortId;
    Chains.back().nBaseHash = Parent.nObjectHash;
    ComputeHashes(&Chains.back());
  }
  Finder In(pIn, nNumber);
  In.Pass(Chains);
  bool bFollowed = false;
  for (Chain& One : Chains) {
    if (One.bRoot) bFollowed = In.FollowRoot(&One) || bFollowed;
  }
  if (bFollowed) In.Pass(Chains);
  FoundNames Found;
  for (const Chain& One : Chains) Found.Names.push_back(In.Find(One));
  Found.nUnreadable = In.Unreadable();
  return Found;
}

}  // namespace lumbra::inspect
