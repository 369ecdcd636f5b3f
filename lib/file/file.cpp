#include "lib/file/file.h"

#include "lib/misc/posixInt.h"
#include "lib/misc/util.h"
#include "lib/public/owned.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleOperations.h"

#include <cerrno>
#include <span>
#include <unistd.h>

namespace {

/* What File_ListDirectory gave, released with errno kept. */
struct NameList {
   char **names = nullptr;
   int count = 0;

   NameList() = default;
   NameList(const NameList &) = delete;
   NameList &operator=(const NameList &) = delete;

   ~NameList()
   {
      const Owned<char *> array(names);
      for (int i = 0; i < count; i++) {
         const Owned<char> name(names[i]);
      }
   }
};

bool FileDeleteDirectoryTree(const char *path, bool contentOnly);

int FileExistenceError(const char *path)
{
   if (Posix_EuidAccess(path, F_OK) == 0) {
      return 0;
   }
   return errno == ENOSYS ? FileAttributes(path, nullptr) : errno;
}

/* 0, also for an entry that has vanished meanwhile, or the error. */
int FileDeleteEntry(const char *path)
{
   struct stat attributes;

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
   const int error = FileDeletion(path, false);
   return error == ENOENT ? 0 : error;
}

/* Tries every entry; the error of the last one that failed, or 0. */
int FileDeleteEntries(const char *path, std::span<char *const> names)
{
   const Owned<char> prefix(Unicode_Join(path, "/", nullptr));
   int recorded = 0;

   for (const char *name : names) {
      const Owned<char> entry(Unicode_Join(prefix.get(), name, nullptr));
      const int error = FileDeleteEntry(entry.get());
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
   NameList list;
   const int count = File_ListDirectory(path, &list.names);
   if (count == -1) {
      return false;
   }
   list.count = count;
   int error = FileDeleteEntries(path, {list.names, static_cast<size_t>(count)});
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
   return rmdir(path) == 0 ? 0 : errno;
}

int FileAttributes(const char *path, struct stat *attributes)
{
   struct stat unwanted;

   return stat(path, attributes != nullptr ? attributes : &unwanted) == 0 ? 0 : errno;
}
