#include "tests/support/lockFaults.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

LockFaults::Before sBefore;
int sCount;
std::string sMachine;
uint32_t sNumbers;
unsigned sHaste = 1;

/* False: the call is to fail, with errno set. */
bool Pass(const char *call)
{
   if (!sBefore) {
      return true;
   }
   /* What the routine does goes straight through. */
   const LockFaults::Before before = std::move(sBefore);
   sBefore = nullptr;
   const int error = before(++sCount, call);
   sBefore = before;
   errno = error != 0 ? error : errno;
   return error == 0;
}

} // namespace

LockFaults::LockFaults(Before before)
{
   sCount = 0;
   sBefore = std::move(before);
}

LockFaults::~LockFaults()
{
   sBefore = nullptr;
}

int LockFaults::Count()
{
   return sCount;
}

void LockFaults::SetMachine(const std::string &machine)
{
   sMachine = machine;
}

void LockFaults::SetNumbers(uint32_t count)
{
   sNumbers = count;
}

void LockFaults::SetHaste(unsigned factor)
{
   sHaste = factor;
}

/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

#define WRAPPED(type, name, parameters, arguments, failure)                                                  \
   extern "C" type __real_##name parameters;                                                                 \
   extern "C" type __wrap_##name parameters;                                                                 \
   type __wrap_##name parameters                                                                             \
   {                                                                                                         \
      return Pass(#name) ? __real_##name arguments : (failure);                                              \
   }

WRAPPED(int, mkdir, (const char *path, mode_t mode), (path, mode), -1)
WRAPPED(int, mkdirat, (int folder, const char *name, mode_t mode), (folder, name, mode), -1)
WRAPPED(int, rmdir, (const char *path), (path), -1)
WRAPPED(int, unlink, (const char *path), (path), -1)
WRAPPED(int, unlinkat, (int folder, const char *name, int flags), (folder, name, flags), -1)
WRAPPED(int, renameat, (int folder, const char *from, int other, const char *to), (folder, from, other, to), -1)
WRAPPED(int, stat, (const char *path, struct stat *status), (path, status), -1)
WRAPPED(int, fstat, (int fd, struct stat *status), (fd, status), -1)
WRAPPED(int, fstatat, (int folder, const char *name, struct stat *status, int flags),
        (folder, name, status, flags), -1)
WRAPPED(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1)
WRAPPED(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), -1)
WRAPPED(DIR *, opendir, (const char *path), (path), nullptr)
WRAPPED(DIR *, fdopendir, (int fd), (fd), nullptr)
WRAPPED(struct dirent *, readdir, (DIR * stream), (stream), nullptr)
WRAPPED(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode), -1)
WRAPPED(int, openat, (int folder, const char *name, int flags, mode_t mode), (folder, name, flags, mode), -1)

/* The descriptor is gone even if closing it tells of an error. */
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
int __wrap_close(int fd)
{
   const int error = Pass("close") ? 0 : errno;
   const int result = __real_close(fd);
   errno = error != 0 ? error : errno;
   return error != 0 ? -1 : result;
}

extern "C" int __real_nanosleep(const struct timespec *request, struct timespec *remaining);
extern "C" int __wrap_nanosleep(const struct timespec *request, struct timespec *remaining);
int __wrap_nanosleep(const struct timespec *request, struct timespec *remaining)
{
   const struct timespec shorter = {.tv_sec = 0, .tv_nsec = request->tv_nsec / static_cast<long>(sHaste)};
   return __real_nanosleep(sHaste == 1 ? request : &shorter, remaining);
}

extern "C" uint32_t __real_arc4random_uniform(uint32_t bound);
extern "C" uint32_t __wrap_arc4random_uniform(uint32_t bound);
uint32_t __wrap_arc4random_uniform(uint32_t bound)
{
   return __real_arc4random_uniform(bound == 65536 && sNumbers != 0 ? sNumbers : bound);
}

/* ProcessIdentity_MachineIdentifier(char *, size_t) */
extern "C" bool __real__Z33ProcessIdentity_MachineIdentifierPcm(char *buffer, size_t size);
extern "C" bool __wrap__Z33ProcessIdentity_MachineIdentifierPcm(char *buffer, size_t size);
bool __wrap__Z33ProcessIdentity_MachineIdentifierPcm(char *buffer, size_t size)
{
   if (sMachine.empty()) {
      return __real__Z33ProcessIdentity_MachineIdentifierPcm(buffer, size);
   }
   memcpy(buffer, sMachine.c_str(), sMachine.size() + 1);
   return true;
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
