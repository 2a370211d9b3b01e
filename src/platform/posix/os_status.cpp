#include "platform/posix/os_status.h"

#include <cerrno>

namespace kinetrel {

Status StatusFromErrno(int code, const char* what) {
  switch (code) {
    case 0:
      return {Error::None, 0, what};
    case ENOENT:
    case ENODEV:
    case ENXIO:
      return {Error::NotFound, code, what};
    case EACCES:
    case EPERM:
    case EROFS:
      return {Error::Denied, code, what};
    case EBUSY:
    case EAGAIN:
    case EDEADLK:
      return {Error::Busy, code, what};
    case ENOSPC:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
    case EDQUOT:
      return {Error::NoSpace, code, what};
    case ETIMEDOUT:
      return {Error::TimedOut, code, what};
    case EIO:
    case EPIPE:
    case EBADF:
      return {Error::Closed, code, what};
    case EINVAL:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
      return {Error::Invalid, code, what};
    case ENOTTY:
    case EOPNOTSUPP:
    case ENOSYS:
      return {Error::Unsupported, code, what};
    default:
      return {Error::Failed, code, what};
  }
}

}  // namespace kinetrel
