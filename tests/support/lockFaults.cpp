#include "tests/support/lockFaults.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

/* False: the call is to fail, with errno set. */
bool Pass()
{
   static int calls;
   const auto before = std::exchange(LockFaults::before, nullptr);
   const int error = before ? before(++calls) : 0;

   LockFaults::before = before;
   errno = error != 0 ? error : errno;
   return error == 0;
}

} // namespace

/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

#define WRAPPED(type, name, parameters, arguments, result)                                                   \
   extern "C" type __real_##name parameters;                                                                 \
   extern "C" type __wrap_##name parameters;                                                                 \
   type __wrap_##name parameters                                                                             \
   {                                                                                                         \
      const auto real = [&] { return __real_##name arguments; };                                             \
      return result;                                                                                         \
   }

#define CALL(type, name, parameters, arguments)                                                              \
   WRAPPED(type, name, parameters, arguments, Pass() ? real() : static_cast<type>(-1))

CALL(int, mkdir, (const char *path, mode_t mode), (path, mode))
CALL(int, mkdirat, (int folder, const char *name, mode_t mode), (folder, name, mode))
CALL(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode))
CALL(int, openat, (int folder, const char *name, int flags, mode_t mode), (folder, name, flags, mode))
CALL(int, renameat, (int a, const char *from, int b, const char *to), (a, from, b, to))
CALL(int, rmdir, (const char *path), (path))
CALL(int, unlink, (const char *path), (path))
CALL(int, unlinkat, (int folder, const char *name, int flags), (folder, name, flags))
CALL(int, stat, (const char *path, struct stat *status), (path, status))
CALL(int, fstat, (int fd, struct stat *status), (fd, status))
CALL(int, fstatat, (int folder, const char *name, struct stat *to, int flags), (folder, name, to, flags))
CALL(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size))
CALL(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size))
WRAPPED(DIR *, opendir, (const char *path), (path), Pass() ? real() : nullptr)
WRAPPED(DIR *, fdopendir, (int fd), (fd), Pass() ? real() : nullptr)
WRAPPED(struct dirent *, readdir, (DIR * stream), (stream), Pass() ? real() : nullptr)

/* The descriptor is gone even if closing it tells of an error. */
WRAPPED(int, close, (int fd), (fd), Pass() ? real() : (real(), -1))

/* Only what asks for a number of a lock asks for one of so many. */
WRAPPED(uint32_t, arc4random_uniform, (uint32_t bound),
        (bound == 65536 && LockFaults::numbers != 0 ? LockFaults::numbers : bound), real())

extern "C" int __real_nanosleep(const struct timespec *request, struct timespec *remaining);
extern "C" int __wrap_nanosleep(const struct timespec *request, struct timespec *remaining);
int __wrap_nanosleep(const struct timespec *request, struct timespec *remaining)
{
   const struct timespec shorter = {.tv_sec = 0, .tv_nsec = request->tv_nsec / LockFaults::haste};
   return __real_nanosleep(LockFaults::haste == 1 ? request : &shorter, remaining);
}

/* ProcessIdentity_MachineIdentifier(char *, size_t) */
WRAPPED(bool, _Z33ProcessIdentity_MachineIdentifierPcm, (char *buffer, size_t size), (buffer, size),
        LockFaults::machine.empty() ? real() : stpcpy(buffer, LockFaults::machine.c_str()) != nullptr)
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
