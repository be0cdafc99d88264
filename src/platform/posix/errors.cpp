#include <cerrno>

#include "platform/posix/posix.h"

namespace lumbra::os {

SystemError ErrorFromErrno(int nErrno) {
  switch (nErrno) {
    case 0:
      return kSuccess;
    case ENOENT:
      return kFileNotFound;
    case ENOTDIR:
      return kPathNotFound;
    case EMFILE:
    case ENFILE:
      return kTooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EISDIR:
      return kAccessDenied;
    case EBADF:
      return kInvalidHandle;
    case ENOMEM:
    case ENOBUFS:
      return kNotEnoughMemory;
    case ENOLCK:
      return kNoSystemResources;
    case EROFS:
      return kWriteProtect;
    case EWOULDBLOCK:  // a lock that somebody holds
    case ETXTBSY:
      return kSharingViolation;
    case ENOSYS:
    case EOPNOTSUPP:
      return kNotSupported;
    case EINVAL:
      return kInvalidParameter;
    case ENOSPC:
    case EDQUOT:
      return kDiskFull;
    case EBUSY:
      return kBusy;
    case EEXIST:
      return kAlreadyExists;
    case ENAMETOOLONG:
      return kNameTooLong;
    case EFBIG:
    case EOVERFLOW:
      return kFileTooLarge;
    case EINTR:
    case ECANCELED:
      return kOperationAborted;
    case EIO:
      return kIoDevice;
    case ETIMEDOUT:
      return kTimeout;
    case ELOOP:
      return kCannotResolveName;
    default:
      return kGeneralFailure;
  }
}

}  // namespace lumbra::os
