// Names and paths of objects: from a name to an object id, creating the object when asked, and back.
//
// A name whose type says so is a path and is kept as a chain of objects, one per component, each the parent
// of the next; its root is recognised and kept as one object. A component keeps a '/' that stands before it,
// so that the name comes back with the separators that it had. A root may carry a link, the id of the object
// that it stands for, so that different forms of one place lead to one chain.
#pragma once

#include <cstdint>

#include "lumbra/lumbra.h"
#include "lumbra/result_code.h"
#include "objects/objdb.h"

namespace lumbra {

// The stores that ids of one segment can lead to.
struct ObjectStores {
  ObjectDB* pOwn;
  ObjectDB* pGlobal;      // the shared store; the segment's own when there is none
  std::uint32_t nNumber;  // of the segment

  // By the high word of the id: 0 the shared store, the segment's number its own; null for any other.
  ObjectDB* OfId(std::uint64_t nId) const;
};

enum class StoreChoice { Own, Global };

// What a lookup does about an object that is not there.
enum FindMode : std::uint32_t {
  findOnly = 0,
  findOrCreate = 1,           // and every other value
  findOrCreateRepairing = 2,  // the same, and when the store meets damage on the way, once more in its repairing mode
};

// The sizes that mean a name ends with a zero: of UTF-16 units, or of bytes.
inline constexpr std::uint32_t kWideZeroTerminated = 0xFFFFFFFE;
inline constexpr std::uint32_t kByteZeroTerminated = 0xFFFFFFFF;

struct ObjectQuery {
  std::uint8_t nType;
  std::uint32_t nFlagsOverride;
  const void* pName;        // UTF-16; may be null when nNameSize is 0 and an anonymous object is asked for
  std::uint32_t nNameSize;  // in bytes
  std::uint32_t nMode;      // a FindMode
  std::uint64_t nParentId;  // 0 for none; a path with a parent has no root of its own
};

// Finds or creates an object by name. *pnId receives the id, without a database. A recognised root is created
// also by a lookup that only finds. errUNSPECIFIED for a path without any component.
ResultCode FindObjectByName(const ObjectStores& Stores, StoreChoice Choice, const ObjectQuery& Query,
                            std::uint64_t* pnId);

// The full name of an object. Without a buffer (and nBufferSize 0) *pnNeeded alone tells the size, in bytes
// without the terminating zero; without both, only the type is looked up. errBUFFER_TOO_SMALL, with the size
// in *pnNeeded, when the name does not fit; the buffer then holds an incomplete one.
ResultCode BuildObjectName(const ObjectStores& Stores, std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize,
                           std::uint32_t* pnNeeded, std::uint32_t nFlagsOverride, std::uint8_t* pnType);

}  // namespace lumbra
