// What the types of results, and the list of texts, refuse: case 0 compiles, and each other one is a mistake that must
// not.
#include "objects/failed_check.h"
#include "platform/storage_file.h"

using namespace lumbra;

ResultCode Answer();
os::SystemError CallSystem();

bool Try([[maybe_unused]] StorageFile& File) {
#if MISTAKE == 0
  return Failed(Answer()) || CallSystem() != os::kSuccess || File.SetSize(0);
#elif MISTAKE == 1  // a code as a truth value
  return Answer();
#elif MISTAKE == 2  // a truth value asked whether it failed
  return Failed(File.SetSize(0));
#elif MISTAKE == 3  // a number of the system as a code
  return Failed(CallSystem());
#elif MISTAKE == 4  // an answer that nobody looks at
  Answer();
  return true;
#elif MISTAKE == 5  // a call of the system that nobody looks at
  CallSystem();
  return true;
#elif MISTAKE == 6  // a write that nobody looks at
  File.SetSize(0);
  return true;
#elif MISTAKE == 7  // a failed check whose text is not listed
  return Failed(objdb::FailedCheck("File.SetSize(0)", errWRITE_FAILED));
#endif
}
