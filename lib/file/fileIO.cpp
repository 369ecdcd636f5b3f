#include "lib/file/fileIO.h"

#include "base/errno.h"
#include "base/owned.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleOperations.h"
#include "platform/accessList.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t PERMISSIONS = 07777;
constexpr mode_t OWNERS = 0700;
constexpr const char *SUFFIX = "~";
constexpr const char *TEMP_FILE = "FileIO_AtomicTempFile";

int FileIOOpen(const char *path, int flags, mode_t mode)
{
   return Uninterrupted([=] { return open(path, flags | O_CLOEXEC, mode); });
}

/* With O_CREAT, what is made is never behind a link. */
int FileIOOpenOrMake(const char *path, int flags, mode_t mode)
{
   for (int round = 0; round < 2; round++) {
      const int old = FileIOOpen(path, flags & ~O_CREAT, 0);
      if (old != -1 || errno != ENOENT || (flags & O_CREAT) == 0) {
         return old;
      }
      const int made = FileIOOpen(path, flags | O_EXCL, mode);
      if (made != -1 || errno != EEXIST) {
         return made;
      }
   }
   errno = ELOOP;
   return -1;
}

/* 0, or what keeps the open file from being used. */
int FileIORefusal(int fd, uint64_t maxBytes)
{
   struct stat attributes;

   if (fstat(fd, &attributes) == -1) {
      return errno;
   }
   if (!S_ISREG(attributes.st_mode)) {
      return S_ISDIR(attributes.st_mode) ? EISDIR : EINVAL;
   }
   return static_cast<uint64_t>(attributes.st_size) > maxBytes ? EFBIG : 0;
}

/* The last component of a path. */
const char *FileIOName(const char *path)
{
   const char *const slash = strrchr(path, '/');

   return slash != nullptr ? slash + 1 : path;
}

/* The path of the target that a temporary file was made for, as a new string. */
char *FileIOTargetPath(const char *temporaryPath)
{
   return Util_SafeStrndup(temporaryPath, strlen(temporaryPath) - strlen(SUFFIX));
}

void FileIOReportCreate()
{
   const int error = errno;
   Log("%s: Failed to create temporary file, %s (%d). errno: %d\n", TEMP_FILE, strerror(error), error, error);
}

/* Whether the entry of the folder is this file and no link to it. False with errno set. */
bool FileIOIsEntry(int folder, const char *name, const struct stat &file)
{
   struct stat entry;

   if (fstatat(folder, name, &entry, AT_SYMLINK_NOFOLLOW) == -1) {
      return false;
   }
   if (entry.st_dev != file.st_dev || entry.st_ino != file.st_ino) {
      errno = ESTALE;
      return false;
   }
   return true;
}

/* The folder that a temporary file of this path is to be made in, which must hold the target. -1, logged, with errno
   set. */
OwnedDescriptor FileIOOpenFolder(const char *temporaryPath, const struct stat &target)
{
   const Owned<char> place(FileIOTargetPath(temporaryPath));
   const char *const name = FileIOName(place.get());
   const Owned<char> path(Util_SafeStrndup(place.get(), static_cast<size_t>(name - place.get())));
   OwnedDescriptor folder(
       Uninterrupted([&] { return open(path.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));

   if (folder.get() == -1 || !FileIOIsEntry(folder.get(), name, target)) {
      FileIOReportCreate();
      folder.reset();
   }
   return folder;
}

/* The owner first: only the maker is let in until the file is whose it is to be. Which takes set-id bits away, and so the
   mode comes last. */
bool FileIOCopyIdentity(int target, int fd, const struct stat &attributes)
{
   if (fchown(fd, attributes.st_uid, attributes.st_gid) == -1) {
      Log("%s: Failed to chown temporary file, errno: %d\n", TEMP_FILE, errno);
      return false;
   }
   /* The folder may have handed down a list, which the mode would put into force. */
   if (!AccessList_Copy(target, fd) || fchmod(fd, attributes.st_mode & PERMISSIONS) == -1) {
      Log("%s: Failed to chmod temporary file, errno: %d\n", TEMP_FILE, errno);
      return false;
   }
   return true;
}

/* New and empty, in the place of any other entry of that name but a folder, and for its maker alone, whatever group the
   folder gives it. -1, logged, with errno set. */
OwnedDescriptor FileIOMakeTemp(int folder, const char *name, mode_t mode)
{
   /* Which removes a link and not what it leads to: anyone may have put one there. */
   if (unlinkat(folder, name, 0) == -1 && errno != ENOENT) {
      Log("%s: Failed to unlink temporary file, errno: %d\n", TEMP_FILE, errno);
      return OwnedDescriptor();
   }
   OwnedDescriptor file(Uninterrupted([&] {
      return openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode & OWNERS);
   }));
   if (file.get() == -1) {
      FileIOReportCreate();
   }
   return file;
}

} // namespace

bool FileIO_Open(FileIOHandle *handle, const char *path, int flags, mode_t mode)
{
   *handle = FILEIO_CLOSED;
   handle->fd = FileIOOpen(path, flags, mode);
   if (handle->fd == -1) {
      return false;
   }
   handle->path = Util_SafeStrdup(path);
   return true;
}

bool FileIO_OpenRegular(FileIOHandle *handle, const char *path, int flags, mode_t mode, uint64_t maxBytes)
{
   *handle = FILEIO_CLOSED;
   OwnedDescriptor file(FileIOOpenOrMake(path, flags | O_NONBLOCK | O_NOCTTY, mode));
   if (file.get() == -1) {
      return false;
   }
   const int refusal = FileIORefusal(file.get(), maxBytes);
   if (refusal != 0) {
      errno = refusal;
      return false;
   }
   *handle = {.fd = file.release(), .path = Util_SafeStrdup(path)};
   return true;
}

bool FileIO_Close(FileIOHandle *handle)
{
   const FileIOHandle old = std::exchange(*handle, FILEIO_CLOSED);
   const Owned<char> path(old.path);
   const OwnedDescriptor folder(old.folder);

   /* Never tried again: after an interruption, which is no failure, the number may be another file's already. */
   return old.fd == -1 || close(old.fd) == 0 || errno == EINTR;
}

char *FileIO_AtomicTempPath(const char *path)
{
   const Owned<char> full(Posix_RealPath(path));
   if (full == nullptr) {
      Log("%s: File_FullPath of '%s' failed.\n", "FileIO_AtomicTempPath", path);
      return nullptr;
   }
   return Unicode_Join(full.get(), SUFFIX, nullptr);
}

bool FileIO_AtomicTempFile(const FileIOHandle *target, FileIOHandle *temporary)
{
   struct stat attributes;

   *temporary = FILEIO_CLOSED;
   Owned<char> path(FileIO_AtomicTempPath(target->path));
   if (path == nullptr) {
      return false;
   }
   if (fstat(target->fd, &attributes) == -1) {
      Log("%s: Failed to fstat '%s', errno: %d.\n", TEMP_FILE, target->path, errno);
      return false;
   }
   /* A device or a pipe is to be written to; a plain file in its place would be the end of it. */
   if (!S_ISREG(attributes.st_mode)) {
      errno = EINVAL;
      return false;
   }
   OwnedDescriptor folder = FileIOOpenFolder(path.get(), attributes);
   if (folder.get() == -1) {
      return false;
   }
   OwnedDescriptor file = FileIOMakeTemp(folder.get(), FileIOName(path.get()), attributes.st_mode);
   if (file.get() == -1) {
      return false;
   }
   *temporary = {.fd = file.release(), .path = path.release(), .folder = folder.release()};
   if (!FileIOCopyIdentity(target->fd, temporary->fd, attributes)) {
      FileIO_AtomicDiscard(temporary);
      return false;
   }
   return true;
}

bool FileIO_AtomicUpdateEx(FileIOHandle *temporary, FileIOHandle *target)
{
   const Owned<char> place(FileIOTargetPath(temporary->path));

   if (renameat(temporary->folder, FileIOName(temporary->path), temporary->folder, FileIOName(place.get())) ==
       -1) {
      Log("%s: rename of '%s' to '%s' failed %d.\n", "FileIO_AtomicUpdateEx", temporary->path, place.get(),
          errno);
      return false;
   }
   const OwnedDescriptor old(std::exchange(target->fd, std::exchange(temporary->fd, -1)));
   return true;
}

void FileIO_AtomicDiscard(FileIOHandle *temporary)
{
   const KeptErrno kept;

   if (temporary->path != nullptr && unlinkat(temporary->folder, FileIOName(temporary->path), 0) == -1) {
      Log("%s: Failed to clean up temporary file, errno: %d\n", TEMP_FILE, errno);
   }
   FileIO_Close(temporary);
}
