// The object store that all databases and all instances of the process share: opened for its first user,
// closed after its last.
#pragma once

#include <cstdint>

#include "lumbra/result_code.h"
#include "objects/objdb.h"
#include "platform/storage_environment.h"

namespace lumbra {

class SharedObjects {
 public:
  // Adds a user. The first one has the store opened in its folder and with its check mode; every later one uses what is
  // there. errOPEN_FAILED, with nothing added, when the store cannot be opened.
  static ResultCode AddUser(const StorageEnvironment& Folder, bool bCheckMode, bool bEnvironmentFlag);
  static void RemoveUser();

  // Null without users.
  static ObjectDB* Store();
  static StorageEnvironment* Environment();  // of the store's folder
};

}  // namespace lumbra
