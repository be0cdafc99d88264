#include "events/object_names.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "events/circle_watch.h"
#include "events/object_hash.h"
#include "events/object_types.h"
#include "events/path_components.h"
#include "events/path_root.h"
#include "platform/failed_step.h"
#include "platform/scratch_buffer.h"
#include "platform/storage_environment.h"

namespace lumbra {
namespace {

constexpr std::uint32_t kUnit = sizeof(char16_t);

// Room without an allocation for the components of most paths.
using ComponentBuffer = ScratchBuffer<512>;

std::uint32_t ZeroTerminatedSize(const void* pName, std::uint32_t nSize, std::uint32_t nMode) {
  if (nSize == kByteZeroTerminated) return static_cast<std::uint32_t>(std::strlen(static_cast<const char*>(pName)));
  const bool bMeasure = nSize == kWideZeroTerminated || (nSize == 0 && nMode == findOnly);
  if (!bMeasure) return nSize;
  const std::u16string_view Name(static_cast<const char16_t*>(pName));
  return static_cast<std::uint32_t>(Name.size()) * kUnit;
}

// ---- One object -------------------------------------------------------------------------------------------

// Whether the same name is likely to be looked for again: that of a folder is, with each path through it.
enum class Recurs { No, Yes };

// The name of one object as it is looked for, without regard to paths.
class SingleName final : public SoughtName {
 public:
  SingleName(std::uint8_t nType, std::uint32_t nFlags, const void* pName, std::uint32_t nSize, std::uint64_t nParentId,
             Recurs Again)
      : m_nType(nType), m_nFlags(nFlags), m_pName(pName), m_nSize(nSize), m_nParentId(nParentId), m_Recurs(Again) {}

  ResultCode HashBelow(std::uint64_t nParentHash, NameHashes* pKnown, std::uint64_t* pnHash) override;
  ResultCode ToStored(StoredName* pStored) override;

  ResultCode FindIn(ObjectDB& Store, std::uint32_t nMode, std::uint64_t* pnId);

 private:
  ResultCode Replace(ObjectDB& Store, std::uint64_t* pnId);

  const std::uint8_t m_nType;
  const std::uint32_t m_nFlags;
  const void* const m_pName;
  const std::uint32_t m_nSize;
  const std::uint64_t m_nParentId;
  const Recurs m_Recurs;
  std::uint64_t m_nHash = 0;
  ComponentBuffer m_Utf8;
};

ResultCode SingleName::HashBelow(std::uint64_t nParentHash, NameHashes* pKnown, std::uint64_t* pnHash) {
  if (m_nParentId != 0 && nParentHash == 0) return FailedStep(errOBJECT_NOT_FOUND);
  const auto Compute = [&] {
    return ObjectHash(m_nType, m_pName, m_nSize, nParentHash, m_nFlags);
  };
  const bool bNoCase = (m_nFlags & fObjNoCase) != 0;
  m_nHash =
      m_Recurs == Recurs::Yes ? pKnown->Of({nParentHash, m_nType, bNoCase, m_pName, m_nSize}, Compute) : Compute();
  *pnHash = m_nHash;
  return m_nHash != 0 ? errOK : errHASH_ZERO;
}

// UTF-8 where the flags ask for it and it is shorter; the flag stays only where the name really is UTF-8.
ResultCode SingleName::ToStored(StoredName* pStored) {
  constexpr std::uint32_t kSpareBytes = 8;
  const auto nFlags = static_cast<std::uint8_t>(m_nFlags);
  *pStored = {m_pName, m_nSize, static_cast<std::uint8_t>(nFlags & ~std::uint32_t{fObjUtf8})};
  if ((nFlags & fObjUtf8) == 0) return errOK;
  const auto* const pWide = static_cast<const char16_t*>(m_pName);
  std::uint32_t nUtf8 = 0;
  if (!StorageEnvironment::WideToUtf8(pWide, m_nSize, nullptr, 0, &nUtf8) || nUtf8 >= m_nSize) return errOK;
  if (!m_Utf8.Resize(nUtf8 + kSpareBytes)) return errOUT_OF_MEMORY;
  auto* const pUtf8 = reinterpret_cast<char*>(m_Utf8.Get());
  if (!StorageEnvironment::WideToUtf8(pWide, m_nSize, pUtf8, nUtf8, &nUtf8)) return errCONVERSION_FAILED;
  *pStored = {pUtf8, nUtf8, nFlags};
  return errOK;
}

ResultCode SingleName::FindIn(ObjectDB& Store, std::uint32_t nMode, std::uint64_t* pnId) {
  if (nMode == findOnly) return Store.FindObject(this, m_nParentId, pnId);
  ResultCode nCode = Store.FindOrCreateObject(this, m_nParentId, m_nType, pnId);
  if (nCode != errDATA_CORRUPTED || nMode != findOrCreateRepairing) return nCode;
  nCode = Replace(Store, pnId);
  return nCode == errOK ? errDATA_REPAIRED : nCode;
}

// In the store's repairing mode, for a name that met damage, and whose hash is known by then.
ResultCode SingleName::Replace(ObjectDB& Store, std::uint64_t* pnId) {
  StoredName Stored{};
  const ResultCode nCode = ToStored(&Stored);
  if (Failed(nCode)) return nCode;
  return Store.FindOrCreateObject(m_nHash, m_nParentId, Stored.nFlags, m_nType, Stored.pBytes, Stored.nSize, true, pnId,
                                  nullptr);
}

// Finds or creates one object.
ResultCode FindSingleObject(ObjectDB& Store, std::uint8_t nType, std::uint32_t nFlags, const void* pName,
                            std::uint32_t nSize, std::uint64_t nParentId, std::uint32_t nMode, std::uint64_t* pnId,
                            Recurs Again = Recurs::No) {
  if (pnId != nullptr) *pnId = 0;
  if (pName == nullptr) {
    if (nSize != 0 || nParentId != 0 || pnId == nullptr || nMode == findOnly) return errPARAMETER_INVALID;
    return Store.FindOrCreateObject(0, 0, static_cast<std::uint8_t>(nFlags), nType, nullptr, 0, false, pnId, nullptr);
  }
  if (nSize == 0 || pnId == nullptr) return errPARAMETER_INVALID;
  return SingleName(nType, nFlags, pName, nSize, nParentId, Again).FindIn(Store, nMode, pnId);
}

// ---- Paths ------------------------------------------------------------------------------------------------

// The object that this one links to, 0 when there is none or it cannot be read.
std::uint64_t LinkOf(ObjectDB& Store, std::uint64_t nId) {
  std::uint64_t nLink = 0;
  std::uint32_t nSize = 0;
  const ResultCode nCode = Store.GetObjectData(nId, &nLink, sizeof(nLink), &nSize, kObjectLinkTag);
  return Succeeded(nCode) && nSize == sizeof(nLink) ? nLink : 0;
}

// Finds or creates the object of a path's root, in every mode, and goes on to what it links to.
ResultCode FindRoot(const ObjectStores& Stores, ObjectDB& Store, const PathRoot& Root, std::u16string_view Path,
                    std::uint32_t nFlags, std::uint32_t nMode, std::uint64_t* pnId) {
  if (nMode == findOnly) nMode = findOrCreate;
  const ResultCode nCode =
      FindSingleObject(Store, Root.nType, nFlags | fObjNoCase, Path.data() + Root.nStart,
                       static_cast<std::uint32_t>(Root.nLength) * kUnit, 0, nMode, pnId, Recurs::Yes);
  if (Failed(nCode)) return nCode;
  const std::uint64_t nLink = LinkOf(Store, *pnId);
  if (nLink == 0) return nCode;
  std::uint8_t nLinkedType = 0;
  const ResultCode nLinked = BuildObjectName(Stores, nLink, nullptr, 0, nullptr, 0, &nLinkedType);
  if (Succeeded(nLinked) && FollowsLinkTo(nLinkedType, nFlags)) *pnId = nLink;
  return nCode;
}

ResultCode FindPath(const ObjectStores& Stores, ObjectDB& Store, const ObjectQuery& Query, std::uint32_t nFlags,
                    std::uint32_t nSize, std::uint64_t* pnId) {
  const std::u16string_view Path(static_cast<const char16_t*>(Query.pName), nSize / kUnit);
  std::uint64_t nCurrent = Query.nParentId;
  std::size_t nPosition = 0;
  ResultCode nLast = errUNSPECIFIED;
  if (nCurrent == 0) {
    const PathRoot Root = FindPathRoot(Query.nType, Path, nSize % kUnit != 0);
    nPosition = Root.nStart;
    if (Root.nLength != 0) {
      nLast = FindRoot(Stores, Store, Root, Path, nFlags, Query.nMode, &nCurrent);
      if (Failed(nLast)) return nLast;
      nPosition += Root.nLength;
      nFlags |= fObjNoCase;  // below a root the whole path is case-insensitive
    }
  }
  for (Component Next; NextComponent(Path, &nPosition, &Next);) {
    const std::uint8_t nType = Next.bMoreFollows ? ContainerType(Query.nType) : Query.nType;
    nLast =
        FindSingleObject(Store, nType, nFlags, Next.Name.data(), static_cast<std::uint32_t>(Next.Name.size()) * kUnit,
                         nCurrent, Query.nMode, &nCurrent, Next.bMoreFollows ? Recurs::Yes : Recurs::No);
    if (Failed(nLast)) return nLast;
  }
  if (pnId != nullptr) *pnId = nCurrent;
  return nLast;
}

}  // namespace

ObjectDB* ObjectStores::OfId(std::uint64_t nId) const {
  const std::uint32_t nStore = StoreNumberOf(nId);
  if (nStore == 0) return pGlobal;
  return nStore == nNumber ? pOwn : nullptr;
}

ResultCode FindObjectByName(const ObjectStores& Stores, StoreChoice Choice, const ObjectQuery& Query,
                            std::uint64_t* pnId) {
  ObjectDB& Store = Choice == StoreChoice::Global ? *Stores.pGlobal : *Stores.pOwn;
  const std::uint32_t nFlags = EffectiveFlags(Query.nType, Query.nFlagsOverride);
  if (Query.nNameSize == 0 && Query.nMode != findOnly) {
    return FindSingleObject(Store, Query.nType, nFlags, nullptr, 0, Query.nParentId, Query.nMode, pnId);
  }
  if (Query.pName == nullptr && Query.nNameSize != 0) return errPARAMETER_INVALID;
  const std::uint32_t nSize =
      Query.pName == nullptr ? 0 : ZeroTerminatedSize(Query.pName, Query.nNameSize, Query.nMode);
  if ((nFlags & fObjSplitPath) == 0 || Query.pName == nullptr) {
    return FindSingleObject(Store, Query.nType, nFlags, Query.pName, nSize, Query.nParentId, Query.nMode, pnId);
  }
  return FindPath(Stores, Store, Query, nFlags, nSize, pnId);
}

// ---- From an object to its name ---------------------------------------------------------------------------

namespace {

// A name that grows at its front, in a buffer that may be too small: then its end is dropped. Until it is finished the
// buffer is a ring that is filled from its end on, so that a name of many components is not moved for each of them.
class NameBuilder {
 public:
  NameBuilder(void* pBuffer, std::uint32_t nBufferSize)
      : m_pBuffer(static_cast<std::uint8_t*>(pBuffer)), m_nBufferSize(pBuffer == nullptr ? 0 : nBufferSize) {}

  void Prepend(const void* pText, std::uint32_t nSize) {
    const auto* const pBytes = static_cast<const std::uint8_t*>(pText);
    m_nTotal += nSize;
    for (std::uint32_t nLeft = std::min(nSize, m_nBufferSize); nLeft != 0;) {
      if (m_nFront == 0) m_nFront = m_nBufferSize;
      const std::uint32_t nPiece = std::min(nLeft, m_nFront);
      m_nFront -= nPiece;
      nLeft -= nPiece;
      std::memcpy(m_pBuffer + m_nFront, pBytes + nLeft, nPiece);
    }
  }

  // Puts the name at the buffer's start, and behind it each byte of a terminating zero that lies inside.
  void Finish() {
    if (m_nTotal < m_nBufferSize) {
      std::memmove(m_pBuffer, m_pBuffer + m_nFront, static_cast<std::size_t>(m_nTotal));
    } else {
      std::rotate(m_pBuffer, m_pBuffer + m_nFront, m_pBuffer + m_nBufferSize);
    }
    for (std::uint32_t i = 0; i < kUnit && m_nTotal + i < m_nBufferSize; ++i) m_pBuffer[m_nTotal + i] = 0;
  }

  bool IsTruncated() const { return m_pBuffer != nullptr && m_nBufferSize < m_nTotal; }
  std::uint64_t Total() const { return m_nTotal; }

 private:
  std::uint8_t* m_pBuffer;
  std::uint32_t m_nBufferSize;
  std::uint32_t m_nFront = 0;  // where the name starts in the ring
  std::uint64_t m_nTotal = 0;
};

// An object on the walk to its root, and its name as it is stored.
struct NamedObject {
  ObjectDescription About;
  ComponentBuffer Stored;
  std::optional<ResultCode> NameRead;  // the answer of that; none where it was not read yet
};

// Reads an object, and with it the name, if that is wanted and fits where most names do.
template <class Predicate>
ResultCode ReadObject(ObjectDB& Store, std::uint64_t nId, NamedObject* pObject, Predicate WantsName) {
  pObject->Stored.Resize(ComponentBuffer::kInline);
  return Store.DescribeAndReadName(nId, &pObject->About, {pObject->Stored.Get(), ComponentBuffer::kInline}, WantsName,
                                   &pObject->NameRead);
}

// Has the stored name read, unless it was.
ResultCode NeedName(ObjectDB& Store, std::uint64_t nId, NamedObject* pObject) {
  if (pObject->NameRead) return *pObject->NameRead;
  if (!pObject->Stored.Resize(pObject->About.nNameSize)) return errOUT_OF_MEMORY;
  return Store.ReadName(nId, {pObject->Stored.Get(), pObject->About.nNameSize});
}

// Gives a stored name as UTF-16: *pnSize bytes at *ppText, inside one of the buffers.
ResultCode ToWide(NamedObject* pObject, ComponentBuffer* pWide, const std::uint8_t** ppText, std::uint32_t* pnSize) {
  const std::uint32_t nStored = pObject->About.nNameSize;
  *ppText = pObject->Stored.Get();
  *pnSize = nStored;
  if (nStored == 0 || (pObject->About.nFlags & fObjUtf8) == 0) return errOK;

  if (!pWide->Resize(nStored * kUnit)) return errOUT_OF_MEMORY;  // no byte gives more than one unit
  const auto* const pUtf8 = reinterpret_cast<const char*>(*ppText);
  auto* const pText = reinterpret_cast<char16_t*>(pWide->Get());
  if (!StorageEnvironment::Utf8ToWide(pUtf8, nStored, pText, nStored, pnSize)) return errCONVERSION_FAILED;
  *ppText = pWide->Get();
  return errOK;
}

bool StartsWithSeparator(const std::uint8_t* pText, std::uint32_t nSize) {
  if (nSize < kUnit) return false;
  char16_t cFirst = 0;
  std::memcpy(&cFirst, pText, kUnit);
  return IsSeparator(cFirst);
}

// Puts an object's own name, and the separator between it and its parent, in front of what the builder holds.
ResultCode PrependObject(ObjectDB& Store, std::uint64_t nId, NamedObject* pObject, NameBuilder* pName) {
  ComponentBuffer Wide;
  const std::uint8_t* pText = nullptr;
  std::uint32_t nSize = 0;
  ResultCode nCode = NeedName(Store, nId, pObject);
  if (Succeeded(nCode)) nCode = ToWide(pObject, &Wide, &pText, &nSize);
  if (Failed(nCode)) return nCode;
  pName->Prepend(pText, nSize);
  if (pObject->About.nParentId != 0 && !StartsWithSeparator(pText, nSize)) {
    const char16_t cSeparator = pObject->About.nType == typeRegistryValue ? u'/' : u'\\';
    pName->Prepend(&cSeparator, kUnit);
  }
  return errOK;
}

// The objects that stand for another one when a name is built.
bool StandsForLink(const ObjectDescription& Object, std::uint32_t nFlags) {
  return Object.nType == typeRegistryKey || (Object.nType == typeVolumeRoot && (nFlags & fObjFollowVolumeLinks) != 0);
}

}  // namespace

ResultCode BuildObjectName(const ObjectStores& Stores, std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize,
                           std::uint32_t* pnNeeded, std::uint32_t nFlagsOverride, std::uint8_t* pnType) {
  ObjectDB* const pStore = Stores.OfId(nId);
  if (pStore == nullptr) return errOBJECT_NOT_FOUND;
  if (pBuffer == nullptr && nBufferSize != 0) return errPARAMETER_INVALID;
  if (pBuffer == nullptr && pnNeeded == nullptr && pnType == nullptr) return errPARAMETER_INVALID;

  const bool bTypeAlone = pBuffer == nullptr && pnNeeded == nullptr;
  NameBuilder Name(pBuffer, nBufferSize);
  std::uint32_t nFlags = 0;
  bool bFirst = true;
  const auto WantsName = [&](const ObjectDescription& About) {
    if (bFirst) nFlags = EffectiveFlags(About.nType, nFlagsOverride);
    return !bTypeAlone && !StandsForLink(About, nFlags);
  };
  CircleWatch Circle;
  for (std::uint64_t nCurrent = nId; nCurrent != 0;) {
    if (Circle.WasHere(nCurrent)) return errDATA_CORRUPTED;
    NamedObject Object;
    const ResultCode nCode = ReadObject(*pStore, nCurrent, &Object, WantsName);
    if (Failed(nCode)) return nCode;
    if (StandsForLink(Object.About, nFlags)) {
      if (const std::uint64_t nLink = LinkOf(*pStore, nCurrent); nLink != 0) {
        nCurrent = nLink;
        continue;
      }
    }
    if (bFirst) {
      bFirst = false;
      if (pnType != nullptr) *pnType = Object.About.nType;
      if (bTypeAlone) return errOK;
    }
    const ResultCode nPrepended = PrependObject(*pStore, nCurrent, &Object, &Name);
    if (Failed(nPrepended)) return nPrepended;
    if (Name.Total() > UINT32_MAX) return errSIZE_INVALID;  // of no size that could be told
    nCurrent = Object.About.nParentId;
  }
  Name.Finish();
  if (pnNeeded != nullptr) *pnNeeded = static_cast<std::uint32_t>(Name.Total());
  return Name.IsTruncated() ? errBUFFER_TOO_SMALL : errOK;
}

}  // namespace lumbra
