#include "lib/file/file.h"

#include "lib/file/fileEntries.h"
#include "lib/misc/posixInt.h"
#include "lib/public/owned.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <cerrno>
#include <unistd.h>

namespace {

bool FileDeleteDirectoryTree(const char *path, bool contentOnly);

int FileExistenceError(const char *path)
{
   if (Posix_EuidAccess(path, F_OK) == 0) {
      return 0;
   }
   return errno == ENOSYS ? FileAttributes(path, nullptr) : errno;
}

/* 0, also for an entry that has vanished meanwhile, or the error. */
int FileDeleteNonDirectory(const char *path)
{
   const int error = FileDeletion(path, false);

   return error == ENOENT ? 0 : error;
}

/* The same for an entry of any kind. */
int FileDeleteEntry(const char *path, bool isNoDirectory)
{
   struct stat attributes;

   /* A look at each file costs a third of the whole. It is taken only where it can make a difference: at what may be a
      directory (unlink is not for those, some systems would do it) and to tell why a deletion fails. */
   if (isNoDirectory && FileDeleteNonDirectory(path) == 0) {
      return 0;
   }
   if (lstat(path, &attributes) == -1) {
      const int error = errno;
      if (error == ENOENT) {
         return 0;
      }
      Log("FILE: %s: Lstat of '%s' failed, errno = %d\n", "FileDeleteDirectoryTree", path, error);
      return error;
   }
   if (S_ISDIR(attributes.st_mode)) {
      return FileDeleteDirectoryTree(path, false) ? 0 : errno;
   }
   return FileDeleteNonDirectory(path);
}

/* Tries every entry; the error of the last one that failed, or 0. */
int FileDeleteEntries(const char *path, const FileEntries &list)
{
   const Owned<char> prefix(Unicode_Join(path, "/", nullptr));
   int recorded = 0;

   for (size_t i = 0; i < list.count; i++) {
      const FileEntry &entry = list.entries[i];
      const Owned<char> entryPath(Unicode_Join(prefix.get(), entry.name, nullptr));
      const int error = FileDeleteEntry(entryPath.get(), entry.isNoDirectory);
      if (error != 0) {
         recorded = error;
      }
   }
   return recorded;
}

/* Holds no descriptor while it is busy further down: the depth is bounded by the longest path alone. */
bool FileDeleteDirectoryTree(const char *path, bool contentOnly)
{
   const int savedErrno = errno;
   const int existence = FileExistenceError(path);

   if (existence == ENOENT || existence == ENOTDIR) {
      errno = savedErrno;
      return true;
   }
   FileEntries list;
   if (!FileListEntries(path, &list)) {
      return false;
   }
   int error = FileDeleteEntries(path, list);
   if (!contentOnly && error == 0) {
      error = FileRemoveDirectory(path);
   }
   errno = error;
   return error == 0;
}

} // namespace

bool File_DeleteDirectoryTree(const char *path)
{
   return FileDeleteDirectoryTree(path, false);
}

bool File_DeleteDirectoryContent(const char *path)
{
   return FileDeleteDirectoryTree(path, true);
}

int File_Unlink(const char *path)
{
   const int error = FileDeletion(path, true);

   if (error != 0) {
      errno = error;
      return -1;
   }
   return 0;
}

int FileDeletion(const char *path, bool handleLink)
{
   if (path == nullptr) {
      errno = EFAULT;
      return EFAULT;
   }
   if (handleLink) {
      const Owned<char> target(Posix_ReadLink(path));
      const bool refused =
          target != nullptr ? unlink(target.get()) == -1 && errno != ENOENT : errno != EINVAL;
      if (refused) {
         return errno;
      }
   }
   return unlink(path) == 0 ? 0 : errno;
}

int FileRemoveDirectory(const char *path)
{
   if (path == nullptr) {
      return EFAULT;
   }
   return rmdir(path) == 0 ? 0 : errno;
}

int FileAttributes(const char *path, struct stat *attributes)
{
   struct stat unwanted;

   if (path == nullptr) {
      return EFAULT;
   }
   return stat(path, attributes != nullptr ? attributes : &unwanted) == 0 ? 0 : errno;
}
