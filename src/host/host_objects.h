// Objects that a program hands to the store's operations: containers that are filled with ids, and objects that are
// saved to bytes and loaded from them.
//
// They must outlive the call; one thread uses an object at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "lumbra/host.h"

namespace lumbra::host {

// A container that GetEvents and GetObjectDataInto fill.
class IdContainer {
 public:
  IdContainer();
  IdContainer(const IdContainer&) = delete;
  IdContainer& operator=(const IdContainer&) = delete;

  HostObject* Handle() { return &m_Handle; }
  const std::vector<std::uint64_t>& Parents() const { return m_Lists[kParentList]; }
  const std::vector<std::uint64_t>& Hashes() const { return m_Lists[kHashList]; }
  void AddParent(std::uint64_t nId) { m_Lists[kParentList].push_back(nId); }
  void Clear();

 private:
  static const HostContainerOperations kOperations;

  HostObject m_Handle;  // first, so that the handle leads to its container
  std::vector<std::uint64_t> m_Lists[2];
};

// What this host saves and loads: an object whose table starts like this, and which answers for the type below. A
// program may have kinds of its own.
inline constexpr std::uint32_t kSavableType = 0x53415645;  // "SAVE"

struct SavableOperations {
  HostObjectOperations Base;

  // *pnNeeded receives the number of bytes; errBUFFER_TOO_SMALL, and nothing written, when the buffer has fewer.
  ResultCode (*Save)(HostObject* pObject, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded);
  ResultCode (*Load)(HostObject* pObject, const void* pData, std::uint32_t nSize);
};

// The simplest of them: bytes.
class ByteBlob {
 public:
  explicit ByteBlob(std::vector<std::uint8_t> Content = {});
  ByteBlob(const ByteBlob&) = delete;
  ByteBlob& operator=(const ByteBlob&) = delete;

  HostObject* Handle() { return &m_Handle; }
  const std::vector<std::uint8_t>& Content() const { return m_Content; }

 private:
  static const SavableOperations kOperations;

  HostObject m_Handle;  // first, so that the handle leads to its blob
  std::vector<std::uint8_t> m_Content;
};

}  // namespace lumbra::host
