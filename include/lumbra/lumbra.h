// The store's interface: the operation table, the lifecycle table, properties, ids and the module entry.
//
// A host loads the module through LumbraModuleEntry, obtains instances from the factory that the module
// registers, sets an instance's properties, calls ObjectInitDone and then works through the 19 operations.
// Unless a line says otherwise an operation may be called from any thread at any time between ObjectInitDone
// and ObjectShutdown, answers a ResultCode, keeps no pointer that it was given, and never lets an exception
// out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumbra/host.h"
#include "lumbra/result_code.h"

namespace lumbra {

// Ids of the module and of its interfaces.
inline constexpr std::uint32_t kLumbraPluginId = 0xBF8E;
inline constexpr std::uint32_t kSharedInstance = 0xBF8C;     // one instance for all who ask
inline constexpr std::uint32_t kSeparateInstance = 0xC08C;   // a new instance for each request
inline constexpr std::uint32_t kNewSharedInstance = 0xC08D;  // a new instance that becomes the shared one

// Database ids. Every event id and object id carries its database in the top 8 bits.
inline constexpr std::uint32_t kSystemDatabase = 0;
inline constexpr std::uint32_t kFirstNamedDatabase = 48;  // 1 to 47 are numbered databases
inline constexpr std::uint32_t kLastNamedDatabase = 254;
inline constexpr std::uint32_t kAllDatabases = 255;  // in SetDBParams, GetDBInfo and ClearDB

// An event id or object id: database in bits 56 to 63, segment in bits 32 to 55 (0 for an object of the
// shared object database), record index (events, from 0) or short id (objects, from 1) in bits 0 to 31.
constexpr std::uint32_t DatabaseOfId(std::uint64_t nId) {
  return static_cast<std::uint32_t>(nId >> 56);
}
constexpr std::uint32_t SegmentOfId(std::uint64_t nId) {
  return static_cast<std::uint32_t>(nId >> 32) & 0x00FFFFFFu;
}
constexpr std::uint64_t WithoutDatabase(std::uint64_t nId) {
  return nId & 0x00FFFFFFFFFFFFFFu;
}
constexpr std::uint64_t WithDatabase(std::uint64_t nId, std::uint32_t nDatabase) {
  return WithoutDatabase(nId) | (std::uint64_t{nDatabase} << 56);
}

// The id that stands for the host's own name object in every argument and answer.
inline constexpr std::uint64_t kHostObjectAlias = 2;

// Object types with a meaning to the store; any other u8 is a plain name without special treatment.
enum LumbraObjectType : std::uint8_t {
  typeFile = 1,
  typeFolder = 2,
  typeRegistryKey = 3,
  typeRegistryValue = 4,
  typeDriveRoot = 20,
  typeVolumeRoot = 22,
  typeRegistryRoot = 24,
  typeServerRoot = 27,
  typeName = 32,
};

// Object flags. A caller's override adds the flags in its low 16 bits to the type's defaults and then removes
// those in its high 16 bits; 0 leaves the defaults.
enum LumbraObjectFlags : std::uint32_t {
  fObjUtf8 = 0x0001,                // store the name as UTF-8 when that is shorter than UTF-16
  fObjNoCase = 0x0100,              // names that differ in case are one object
  fObjSplitPath = 0x0200 | 0x0400,  // either bit: the name is a path, one object per component
  fObjFollowLinks = 0x0800,         // at a path root, follow a link to a folder or registry key
  fObjFollowVolumeLinks = 0x1000,   // follow a link to a volume, also when a name is rebuilt
};
constexpr std::uint32_t RemoveObjectFlags(std::uint32_t nFlags) {
  return nFlags << 16;
}

// The tag of the data entry that links an object to another: 8 bytes, the other's id within the same store.
inline constexpr std::uint32_t kObjectLinkTag = 0xCD000001;

// The size of a name that ends with a zero character.
inline constexpr std::int32_t kZeroTerminated = -2;

// Kinds of SetDBParams; kLimits tells what each one does. 0 means no limit. Limits are not stored: the caller sets them
// again after every start. Those of a database act above their value: it may hold exactly as much. Those of a segment,
// and that of all databases, act at their value.
enum LumbraLimit : std::uint32_t {
  limitDatabaseSize = 1,
  limitDatabaseAge = 2,
  limitDatabaseEvents = 3,
  limitSegmentSize = 4,
  limitSegmentAge = 5,
  limitSegmentEvents = 6,
  limitGlobalSize = 7,  // with kAllDatabases only; of the databases that have no size limit of their own
};

struct LumbraLimitInfo {
  LumbraLimit nKind;
  const char* pName;     // the tool's option
  const char* pUnit;     // of the value
  const char* pMeaning;  // "..." stands for the beginning of the line above
};
inline constexpr LumbraLimitInfo kLimits[] = {
    {limitSegmentEvents, "segment-events", "events", "Start a new segment at so many events"},
    {limitSegmentSize, "segment-size", "bytes", "... at so many bytes"},
    {limitSegmentAge, "segment-age", "seconds", "... when the newest is so many seconds old"},
    {limitDatabaseEvents, "max-events", "events", "Drop the oldest segments above so many events"},
    {limitDatabaseSize, "max-size", "bytes", "... above so many bytes"},
    {limitDatabaseAge, "max-age", "seconds", "... when they are older than so many seconds"},
    {limitGlobalSize, "global-size", "bytes", "Keep all databases together below so many bytes"},
};

// Properties of an instance (LumbraLifecycle::PropertyAccess); kProperties tells what each one is.
enum LumbraProperty : std::uint32_t {
  propCHECK_MODE = 0x30600001,
  propENVIRONMENT_FLAG = 0x30600002,
  propCORRUPTED = 0x30600003,
  propEXACT_FILE_SIZES = 0x30600004,
  propWRITES_SUSPENDED = 0x30600005,
  propGROUP_READABLE = 0x30600006,
  propOPEN_SEGMENTS = 0x30600007,
  propOWN_FOLDERS = 0x30600008,
  propCACHE_SIZE = 0x30600009,
  propREPORT_FOLDER = 0x20900044,
  propINTERFACE_COMMENT = 0x20900083,
  propINTERFACE_CONSTANT = 0x21A00082,
};

enum class LumbraPropertyType { Number, Utf16, Bytes8 };  // a u32, UTF-16 text, 8-bit text
enum class LumbraPropertySet { Always, UntilInitialized, Ignored, Never };

struct LumbraPropertyInfo {
  LumbraProperty nId;
  const char* pName;
  LumbraPropertyType Type;
  LumbraPropertySet Set;
  const char* pMeaning;
};
inline constexpr LumbraPropertyInfo kProperties[] = {
    {propCHECK_MODE, "propCHECK_MODE", LumbraPropertyType::Number, LumbraPropertySet::Always,
     "files created from now on get every kind of CRC"},
    {propENVIRONMENT_FLAG, "propENVIRONMENT_FLAG", LumbraPropertyType::Number, LumbraPropertySet::UntilInitialized,
     "recorded; read-only once initialised"},
    {propCORRUPTED, "propCORRUPTED", LumbraPropertyType::Number, LumbraPropertySet::Never,
     "damaged data was met, now or at some earlier time"},
    {propEXACT_FILE_SIZES, "propEXACT_FILE_SIZES", LumbraPropertyType::Number, LumbraPropertySet::Always,
     "measure files instead of trusting the folder's entries"},
    {propWRITES_SUSPENDED, "propWRITES_SUSPENDED", LumbraPropertyType::Number, LumbraPropertySet::Always,
     "operations that write answer `errREAD_ONLY`"},
    {propGROUP_READABLE, "propGROUP_READABLE", LumbraPropertyType::Number, LumbraPropertySet::UntilInitialized,
     "the group may read the files that are made (posix); 0: their owner alone"},
    {propOPEN_SEGMENTS, "propOPEN_SEGMENTS", LumbraPropertyType::Number, LumbraPropertySet::UntilInitialized,
     "how many segments of the process keep their files open beside the newest of each database; 64"},
    {propOWN_FOLDERS, "propOWN_FOLDERS", LumbraPropertyType::Number, LumbraPropertySet::UntilInitialized,
     "folders that belong to another user, or that all may write to, are refused (posix); 0: taken"},
    {propCACHE_SIZE, "propCACHE_SIZE", LumbraPropertyType::Number, LumbraPropertySet::UntilInitialized,
     "KiB that the process keeps in memory of what was read of its stores' files, beside up to 512 KiB of names' hashes for "
     "each object store; 16,384; 0: nothing of the files; the last instance to open says"},
    {propREPORT_FOLDER, "propREPORT_FOLDER", LumbraPropertyType::Utf16, LumbraPropertySet::Always,
     "the folder of the store, for the next initialisation; empty: the host's \"%Report%\""},
    {propINTERFACE_COMMENT, "propINTERFACE_COMMENT", LumbraPropertyType::Bytes8, LumbraPropertySet::Ignored,
     "\"Lumbra\""},
    {propINTERFACE_CONSTANT, "propINTERFACE_CONSTANT", LumbraPropertyType::Number, LumbraPropertySet::Never, "1"},
};

inline constexpr std::uint32_t kInterfaceConstant = 1;

enum PropertyAccessMode : std::uint32_t {
  propertyGet = 0,       // write the value into the buffer, if there is one
  propertySet = 1,       // read the value from the buffer
  propertyCodePage = 2,  // report the code page of a text
  propertyProbe = 3,     // succeed without a transfer if the property exists
};

// The host's cursor for one transfer.
struct PropertyAccessRecord {
  void* pBuffer;            // advanced past the bytes that were transferred; may be null in mode 0
  std::uint32_t nSize;      // size of the buffer in bytes
  std::uint32_t nCount;     // running count: grows by the size of the value, also when there is no buffer
  std::uint32_t nCodePage;  // out in mode 2; in, for texts, in mode 1
  std::uint32_t nMode;      // a PropertyAccessMode
};

// Messages. The store asks for the expansion of a placeholder with the first; the second makes an instance
// flush every open database.
inline constexpr std::uint32_t kExpandMessageClass = 0x7CF3D716;
inline constexpr std::uint32_t kExpandMessageId = 0x4EED86CA;
// What the message is answered with when a handler has expanded the text.
inline constexpr ResultCode kMessageExpanded = errFALSE;
inline constexpr std::uint32_t kFlushMessageClass = 0x828F2F82;
inline constexpr std::uint32_t kFlushMessageId = 0x6D649E90;

// The 19 operations. pSelf is the handle of the instance. "Name, size in bytes" pairs are UTF-16; the size may be
// kZeroTerminated. Pointers marked "may be null" are optional. While propWRITES_SUSPENDED is set, operations that write
// answer errREAD_ONLY (a FindObject that only finds may still create the root of a path). An id of a named database
// that is not open answers errPARAMETER_INVALID.
struct LumbraOperations {
  // Appends one event; nSize must be the event size of the database. *pnEventId (may be null) receives the
  // id. Database 0 takes no events: errNOT_SUPPORTED.
  ResultCode (*AddEvent)(HostObject* pSelf, std::uint32_t nDatabase, const void* pData, std::uint32_t nSize,
                         std::uint64_t* pnEventId);

  // Reads up to nCount events from nStart on, oldest first, into pBuffer (nBufferSize bytes). nStart is an
  // event id, or a position counted from the oldest event (high word 0), or from the end (high word
  // 0xFFFFFFFF, low word 2^32 - k: the last k events). The database is the top byte of nStart, or nDatabase
  // when that is 0 or 0xFF. *pnRead (may be null) receives the number of events read. pParents (may be null):
  // a container of type kHostContainerType that receives, for each event, the parent of the object whose id
  // stands in the event's bytes 8 to 15, or 0. Answers errNO_MORE_EVENTS, a success, when fewer than nCount
  // events are there (nCount 0 asks for none, and gets the same answer where there are none). A failure of the
  // container is answered, though the events have been read.
  ResultCode (*GetEvents)(HostObject* pSelf, std::uint32_t nDatabase, std::uint64_t nStart, void* pBuffer,
                          std::uint32_t nBufferSize, std::uint32_t nCount, std::uint32_t* pnRead, HostObject* pParents);

  // Rewrites an event in place.
  ResultCode (*UpdateEvent)(HostObject* pSelf, std::uint64_t nEventId, const void* pData, std::uint32_t nSize);

  // FindObject without a parent.
  ResultCode (*FindObjectSimple)(HostObject* pSelf, std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                                 std::int32_t nNameSize, std::uint32_t nCreate, std::uint32_t nFlagsOverride,
                                 std::uint64_t* pnObjectId);

  // The full name of an object, and its type. *pnNameSize (may be null) receives the size in bytes without the
  // terminating zero, which is written when it fits. Answers errBUFFER_TOO_SMALL when the name does not fit; the
  // buffer's content is then undefined. pBuffer may be null with nBufferSize 0, to ask for the type, and for the size
  // beside it; where pnType is null as well, nothing is asked for and nothing is stored.
  ResultCode (*GetObjectName)(HostObject* pSelf, std::uint64_t nObjectId, char16_t* pBuffer, std::uint32_t nBufferSize,
                              std::uint32_t* pnNameSize, std::uint32_t nFlagsOverride, std::uint32_t* pnType);

  // Reads the data block that an object has under a tag. *pnDataSize (may be null when there is a buffer) receives the
  // block's size in bytes. With nBufferSize 0 only the size is told; a buffer that is too small answers
  // errBUFFER_TOO_SMALL and stays as it is. errNOT_FOUND when the object has nothing under the tag.
  ResultCode (*GetObjectData)(HostObject* pSelf, std::uint64_t nObjectId, void* pBuffer, std::uint32_t nBufferSize,
                              std::uint32_t* pnDataSize, std::uint32_t nTag);

  // Stores a data block under a tag, in place of the one that is there. A block of no bytes has a null pData; under a
  // new tag it is kept only in files of check mode. An object has blocks under at most 255 tags: errOUT_OF_SPACE for
  // one more.
  ResultCode (*SetObjectData)(HostObject* pSelf, std::uint64_t nObjectId, const void* pData, std::uint32_t nSize,
                              std::uint32_t nTag);

  // Loads a host object from the data block under a tag (HostRootOperations::LoadFromBytes). A container
  // (kHostContainerType) receives something else, behind what it holds: for each object from the one given up to its
  // root, the id of its parent in kParentList, if it has one, and its hash in kHashList. An object of type typeFile
  // empties both lists instead; one that cannot be read has the hash 0 and ends the way. errDATA_CORRUPTED for a way
  // that runs in a circle; a failure of the container ends the listing and is answered.
  ResultCode (*GetObjectDataInto)(HostObject* pSelf, std::uint64_t nObjectId, HostObject* pTarget, std::uint32_t nTag);

  // Stores what a host object saves of itself (HostRootOperations::SaveToBytes) as the data block under a tag.
  ResultCode (*SetObjectDataFrom)(HostObject* pSelf, std::uint64_t nObjectId, HostObject* pSource, std::uint32_t nTag);

  // Events and bytes held, and the creation time of the oldest segment (a FILETIME, 0 when there is none).
  // Each output may be null. For kAllDatabases: the sums over databases 1 to 254, and the greatest age in
  // seconds.
  ResultCode (*GetDBInfo)(HostObject* pSelf, std::uint32_t nDatabase, std::uint32_t* pnRecords,
                          std::uint64_t* pnDataSize, std::uint64_t* pnTime);

  // Sets one limit (LumbraLimit) of a database, which need not be open yet, or of all.
  ResultCode (*SetDBParams)(HostObject* pSelf, std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue);

  // Opens a numbered database (1 to 47), creating it where it is missing. A database whose recorded event
  // size differs is restarted empty. errALREADY_DONE when it is open.
  ResultCode (*InitDB)(HostObject* pSelf, std::uint32_t nDatabase, std::uint32_t nEventSize);

  // Deletes every event and object of a database, which stays open and empty.
  ResultCode (*ClearDB)(HostObject* pSelf, std::uint32_t nDatabase);

  // Finds an object by type, name and parent, or with nCreate != 0 creates it; nCreate 2 also repairs what
  // stands in the way (errDATA_REPAIRED, a success). *pnObjectId (may be null) receives the id, 0 on failure;
  // it is untouched by errREAD_ONLY and by the id of a named database that is not open.
  ResultCode (*FindObject)(HostObject* pSelf, std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                           std::int32_t nNameSize, std::uint32_t nCreate, std::uint32_t nFlagsOverride,
                           std::uint64_t nParentId, std::uint64_t* pnObjectId);

  // Opens or creates a database by name: at most 63 characters, which also name its folder;
  // errPARAMETER_INVALID for one that could lead elsewhere or is the store's own. *pnDatabase receives its id, 48 to
  // 254, which the name keeps across restarts. The store tells names apart by the low 7 bits of their characters:
  // errOBJECT_ALREADY_EXISTS while another one with the same is open.
  ResultCode (*InitDBByName)(HostObject* pSelf, const char16_t* pName, std::uint32_t nEventSize,
                             std::uint32_t* pnDatabase);

  // Enumeration of objects is not offered: errNOT_IMPLEMENTED for an open database.
  ResultCode (*EnumFirstObject)(HostObject* pSelf, std::uint32_t nDatabase, std::uint64_t* pnObjectId);
  ResultCode (*EnumNextObject)(HostObject* pSelf, std::uint64_t nObjectId, std::uint64_t* pnNextId);

  // Removes every data block of an object. Their bytes stay in the file until it is compacted.
  ResultCode (*RemoveAllObjectData)(HostObject* pSelf, std::uint64_t nObjectId);

  // Writes the shared object database without its holes into "g_objidcompacted.dat" and "g_objdtcompacted.dat" beside
  // it. nDatabase must be 0. The live files stay in use and are not touched; every object keeps its id, so that the
  // pair may replace them, with the same tree file, while no process has the store open. Objects whose names are
  // damaged lose name and data, those with damaged data entries or unreadable blocks their data; each is traced at
  // level 350. All other operations on shared objects wait until it is done.
  ResultCode (*Compact)(HostObject* pSelf, std::uint32_t nDatabase);
};
static_assert(sizeof(LumbraOperations) == 19 * sizeof(void*));

struct LumbraInstance;

// The lifecycle operations, called by the host on an instance. None of slots 1, 2, 4 and 8 may run beside any
// other call on the same instance.
struct LumbraLifecycle {
  using Unused = ResultCode (*)(LumbraInstance* pInstance);  // answers errOK

  Unused Slot0;

  // Opens the store in its report folder. On failure the instance stays uninitialised and may try again.
  ResultCode (*ObjectInitDone)(LumbraInstance* pInstance);

  // Closes every database; files stay. Answers errOK.
  ResultCode (*ObjectShutdown)(LumbraInstance* pInstance);

  Unused Slot3;

  // Destroys the instance and gives its memory back through the Free of the instance's own handle.
  ResultCode (*ObjectFree)(LumbraInstance* pInstance);

  Unused Slot5;

  // A message that the instance registered for. Answers errOK for every message.
  ResultCode (*MessageReceive)(LumbraInstance* pInstance, std::uint32_t nClass, std::uint32_t nMessageId);

  // Reads or writes one property.
  ResultCode (*PropertyAccess)(LumbraInstance* pInstance, std::uint32_t nPropertyId, PropertyAccessRecord* pRecord);

  // Destroys the instance; with nFree != 0 also gives its memory back, as ObjectFree does.
  void (*Destructor)(LumbraInstance* pInstance, std::uint32_t nFree);
};
static_assert(sizeof(LumbraLifecycle) == 9 * sizeof(void*));

// What the factory answers. The host installs its system operations in Handle before it uses the instance and
// passes &Handle as pSelf to the operations.
struct LumbraInstance {
  const LumbraLifecycle* pLifecycle;
  HostObject Handle;  // pOperations: the LumbraOperations
};

inline const LumbraOperations& OperationsOf(const HostObject& Handle) {
  return *static_cast<const LumbraOperations*>(Handle.pOperations);
}

// Reasons of the module entry.
inline constexpr std::uint32_t kModuleLoad = 100;
inline constexpr std::uint32_t kModuleUnload = 101;

// The module entry has the shape of the system's own module entry points: on 32-bit Windows also their calling
// convention. Everything else that host and module call has the compiler's convention for C.
#if defined(_WIN32) && !defined(_WIN64)
#define LUMBRA_ENTRY_CALL __stdcall
#else
#define LUMBRA_ENTRY_CALL
#endif

// The module entry. kModuleLoad: pRoot is the host's root object, *pError (a ResultCode) receives the outcome; binds
// the host's functions and registers the three interfaces, and ends at the first failure: what was registered until
// then stays so. kModuleUnload: the module forgets the root and reaches no host service any more. Any other reason, the
// system's own notifications among them, is ignored. Answers 1, or 0 when loading failed.
extern "C" int LUMBRA_ENTRY_CALL LumbraModuleEntry(void* pRoot, std::uint32_t nReason, void* pError);
using ModuleEntry = decltype(&LumbraModuleEntry);

}  // namespace lumbra
