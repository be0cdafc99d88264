#include "host/host_objects.h"

#include <cstring>
#include <new>
#include <utility>

#include "host/host_services.h"

namespace lumbra::host {
namespace {

ResultCode NotSupported(HostObject*) {
  return errNOT_SUPPORTED;
}

template <std::uint32_t nOwnType>
std::uint32_t IsOfType(HostObject*, std::uint32_t nTypeId) {
  return nTypeId == nOwnType ? 1 : 0;
}

template <class Object>
Object& Of(HostObject* pHandle) {
  return *reinterpret_cast<Object*>(pHandle);
}

}  // namespace

// ---- IdContainer ------------------------------------------------------------------------------------------

const HostContainerOperations IdContainer::kOperations = {
    .Base = {NotSupported, IsOfType<kHostContainerType>},
    .Append = [](HostObject* pContainer, std::uint32_t nList, std::uint64_t nValue) -> ResultCode {
      if (nList > kHashList) return errINDEX_INVALID;
      try {
        Of<IdContainer>(pContainer).m_Lists[nList].push_back(nValue);
        return errOK;
      } catch (const std::bad_alloc&) {
        return errOUT_OF_MEMORY;
      }
    },
    .Clear = [](HostObject* pContainer, std::uint32_t nList) -> ResultCode {
      if (nList > kHashList) return errINDEX_INVALID;
      Of<IdContainer>(pContainer).m_Lists[nList].clear();
      return errOK;
    },
};

IdContainer::IdContainer() : m_Handle{&kOperations, HostServices::SystemOperations()} {}

void IdContainer::Clear() {
  for (std::vector<std::uint64_t>& List : m_Lists) List.clear();
}

// ---- ByteBlob ---------------------------------------------------------------------------------------------

const SavableOperations ByteBlob::kOperations = {
    .Base = {NotSupported, IsOfType<kSavableType>},
    .Save = [](HostObject* pObject, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded) -> ResultCode {
      const std::vector<std::uint8_t>& Content = Of<ByteBlob>(pObject).m_Content;
      if (Content.size() > UINT32_MAX) return errSIZE_INVALID;
      *pnNeeded = static_cast<std::uint32_t>(Content.size());
      if (nBufferSize < Content.size()) return errBUFFER_TOO_SMALL;
      if (!Content.empty()) std::memcpy(pBuffer, Content.data(), Content.size());
      return errOK;
    },
    .Load = [](HostObject* pObject, const void* pData, std::uint32_t nSize) -> ResultCode {
      const auto* const pBytes = static_cast<const std::uint8_t*>(pData);
      try {
        Of<ByteBlob>(pObject).m_Content.assign(pBytes, pBytes + nSize);
        return errOK;
      } catch (const std::bad_alloc&) {
        return errOUT_OF_MEMORY;
      }
    },
};

ByteBlob::ByteBlob(std::vector<std::uint8_t> Content)
    : m_Handle{&kOperations, HostServices::SystemOperations()}, m_Content(std::move(Content)) {}

}  // namespace lumbra::host
