#include "platform/posix/os.h"

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

Status SocketFailure(int code, const char* what) {
  switch (code) {
    case ECONNREFUSED:
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
      return {Error::Closed, code, what};
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EADDRNOTAVAIL:
      return {Error::NotFound, code, what};
    case EADDRINUSE:
      return {Error::Busy, code, what};
    case ENOBUFS:
      return {Error::NoSpace, code, what};
    default:
      return StatusFromErrno(code, what);
  }
}

timespec MomentAfter(clockid_t clock, Milliseconds time) {
  timespec moment{};
  ::clock_gettime(clock, &moment);
  moment.tv_sec += time.count() / 1000;
  moment.tv_nsec += (time.count() % 1000) * 1'000'000;
  if (moment.tv_nsec >= 1'000'000'000) {
    moment.tv_nsec -= 1'000'000'000;
    ++moment.tv_sec;
  }
  return moment;
}

}  // namespace kinetrel
