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
#elif MISTAKE == 1   // a code as a truth value
  return Answer();
#elif MISTAKE == 2   // a truth value as a code
  const ResultCode nCode = true;
  return Failed(nCode);
#elif MISTAKE == 3   // a number as a code
  const ResultCode nCode = 5;
  return Failed(nCode);
#elif MISTAKE == 4   // a code as a number
  const std::uint32_t nNumber = Answer();
  return nNumber == 0;
#elif MISTAKE == 5   // a truth value asked whether it failed
  return Failed(File.SetSize(0));
#elif MISTAKE == 6   // an answer that nobody looks at
  Answer();
  return true;
#elif MISTAKE == 7   // a number of the system as a truth value
  return CallSystem();
#elif MISTAKE == 8   // a number of the system as a code
  return Failed(CallSystem());
#elif MISTAKE == 9   // a call of the system that nobody looks at
  CallSystem();
  return true;
#elif MISTAKE == 10  // a write that nobody looks at
  File.SetSize(0);
  return true;
#elif MISTAKE == 11  // a failed check whose text is not listed
  return Failed(objdb::FailedCheck("File.SetSize(0)", errWRITE_FAILED));
#endif
}
