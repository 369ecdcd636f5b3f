#include "lib/file/fileIO.h"

#include "base/owned.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t PERMISSIONS = 07777;
constexpr const char *SUFFIX = "~";
constexpr const char *TEMP_FILE = "FileIO_AtomicTempFile";

/* Mode first: once the file is someone else's, an ordinary user could not set it. The change of owner may take set-id
   bits away again, which is as it should be. */
bool FileIOCopyIdentity(int fd, const struct stat &attributes)
{
   if (fchmod(fd, attributes.st_mode & PERMISSIONS) == -1) {
      const int error = errno;
      Log("%s: Failed to chmod temporary file, errno: %d\n", TEMP_FILE, error);
      errno = error;
      return false;
   }
   if (fchown(fd, attributes.st_uid, attributes.st_gid) == -1) {
      const int error = errno;
      Log("%s: Failed to chown temporary file, errno: %d\n", TEMP_FILE, error);
      errno = error;
      return false;
   }
   return true;
}

/* unlink(2), which removes a link and not what it leads to: anyone may have put one there. */
bool FileIORemoveOld(const char *path)
{
   if (unlink(path) == -1 && errno != ENOENT) {
      const int error = errno;
      Log("%s: Failed to unlink temporary file, errno: %d\n", TEMP_FILE, error);
      errno = error;
      return false;
   }
   return true;
}

bool FileIOCreateTemp(FileIOHandle *temporary, const char *path, const struct stat &attributes)
{
   if (!FileIO_Open(temporary, path, O_RDWR | O_CREAT | O_EXCL, attributes.st_mode & PERMISSIONS)) {
      const int error = errno;
      Log("%s: Failed to create temporary file, %s (%d). errno: %d\n", TEMP_FILE, strerror(error), error,
          error);
      errno = error;
      return false;
   }
   return true;
}

} // namespace

bool FileIO_Open(FileIOHandle *handle, const char *path, int flags, mode_t mode)
{
   *handle = FILEIO_CLOSED;
   do {
      handle->fd = open(path, flags | O_CLOEXEC, mode);
   } while (handle->fd == -1 && errno == EINTR);
   if (handle->fd == -1) {
      return false;
   }
   handle->path = Util_SafeStrdup(path);
   return true;
}

bool FileIO_Close(FileIOHandle *handle)
{
   const FileIOHandle old = std::exchange(*handle, FILEIO_CLOSED);
   const Owned<char> path(old.path);

   /* Never tried again: after an interruption, which is no failure, the number may be another file's already. */
   return old.fd == -1 || close(old.fd) == 0 || errno == EINTR;
}

char *FileIO_AtomicTempPath(const char *path)
{
   const Owned<char> full(Posix_RealPath(path));
   if (full == nullptr) {
      const int error = errno;
      Log("%s: File_FullPath of '%s' failed.\n", "FileIO_AtomicTempPath", path);
      errno = error;
      return nullptr;
   }
   return Unicode_Join(full.get(), SUFFIX, nullptr);
}

bool FileIO_AtomicTempFile(const FileIOHandle *target, FileIOHandle *temporary)
{
   struct stat attributes;

   *temporary = FILEIO_CLOSED;
   const Owned<char> path(FileIO_AtomicTempPath(target->path));
   if (path == nullptr) {
      return false;
   }
   if (fstat(target->fd, &attributes) == -1) {
      const int error = errno;
      Log("%s: Failed to fstat '%s', errno: %d.\n", TEMP_FILE, target->path, error);
      errno = error;
      return false;
   }
   /* A device or a pipe is to be written to; a plain file in its place would be the end of it. */
   if (!S_ISREG(attributes.st_mode)) {
      errno = EINVAL;
      return false;
   }
   if (!FileIORemoveOld(path.get()) || !FileIOCreateTemp(temporary, path.get(), attributes)) {
      return false;
   }
   if (!FileIOCopyIdentity(temporary->fd, attributes)) {
      FileIO_AtomicDiscard(temporary);
      return false;
   }
   return true;
}

bool FileIO_AtomicUpdateEx(FileIOHandle *temporary, FileIOHandle *target)
{
   /* Not resolved anew: the path may lead elsewhere by now, and the temporary file stands beside the target. */
   const Owned<char> place(Util_SafeStrndup(temporary->path, strlen(temporary->path) - strlen(SUFFIX)));

   if (rename(temporary->path, place.get()) == -1) {
      const int error = errno;
      Log("%s: rename of '%s' to '%s' failed %d.\n", "FileIO_AtomicUpdateEx", temporary->path, place.get(),
          error);
      errno = error;
      return false;
   }
   const OwnedDescriptor old(std::exchange(target->fd, std::exchange(temporary->fd, -1)));
   return true;
}

void FileIO_AtomicDiscard(FileIOHandle *temporary)
{
   const int savedErrno = errno;

   if (temporary->path != nullptr && unlink(temporary->path) == -1) {
      const int error = errno;
      Log("%s: Failed to clean up temporary file, errno: %d\n", TEMP_FILE, error);
   }
   FileIO_Close(temporary);
   errno = savedErrno;
}
