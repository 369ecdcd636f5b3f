#include "lib/file/file.h"

#include "base/owned.h"
#include "lib/file/walk/entries.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace {

using namespace std::string_view_literals;

/* Without waiting, should a pipe have been put in place of a folder. */
constexpr int OPEN_FOLDER = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

/* A folder whose entries are being deleted. */
struct FileFolder {
   FileFolder *parent = nullptr; /* Null for the top. */
   OwnedDirectory stream;        /* Null: let go, and device and inode tell which it was. */
   dev_t device = 0;
   ino_t inode = 0;
   uint64_t pathLength = 0;
   FileNames names{}; /* A folder below this one has the name whose turn it is. */
   int error = 0;     /* The last failure in this folder, or 0. */
};

/* The way from the folder being worked in up to the top, which takes the place of recursion: a thread's stack may end
   long before a tree does. Only that folder and the one above it are open: the way back up leads through
   folders that have been gone through on the way down, but not through one that may be listed and not
   entered. */
struct FileFolderStack {
   FileFolder *deepest = nullptr;
   OwnedDynBuf path; /* Of the deepest, for reports; a NUL follows it. */

   FileFolderStack() = default;
   FileFolderStack(const FileFolderStack &) = delete;
   FileFolderStack &operator=(const FileFolderStack &) = delete;
   ~FileFolderStack();
};

void FileAppendToPath(DynBuf *path, const char *text)
{
   DynBuf_SafeAppend(path, text, strlen(text) + 1, "lib/file/file", __LINE__);
   path->size--;
}

void FileCutPath(DynBuf *path, uint64_t length)
{
   path->size = length;
   path->data[length] = '\0';
}

void FilePopFolder(FileFolderStack *stack)
{
   const Owned<FileFolder> block(stack->deepest);

   stack->deepest = block->parent;
   std::destroy_at(block.get());
   if (stack->deepest != nullptr) {
      FileCutPath(&stack->path, stack->deepest->pathLength);
   }
}

FileFolderStack::~FileFolderStack()
{
   while (deepest != nullptr) {
      FilePopFolder(this);
   }
}

/* Lists the folder, whose path the stack has already, and makes it the deepest; one that cannot be listed has no entries,
   and an error. */
void FilePushFolder(FileFolderStack *stack, OwnedDirectory stream)
{
   auto *const folder = new (Util_SafeMalloc(sizeof(FileFolder)))
       FileFolder{.parent = stack->deepest, .stream = std::move(stream), .pathLength = stack->path.size};

   stack->deepest = folder;
   folder->error = folder->names.Read(folder->stream.get(), stack->path.data);
}

/* Closes the folder, to which there is a way back. 0 or the error. */
int FileLetGo(FileFolder *folder)
{
   struct stat attributes;

   if (folder == nullptr || folder->stream == nullptr) {
      return 0;
   }
   if (fstat(dirfd(folder->stream.get()), &attributes) == -1) {
      return errno;
   }
   folder->device = attributes.st_dev;
   folder->inode = attributes.st_ino;
   folder->stream.reset();
   return 0;
}

/* A folder in this one, or above it. Null with errno set. */
OwnedDirectory FileOpenFrom(const FileFolder *folder, const char *name)
{
   return FileOpenStream(
       OwnedDescriptor(openat(dirfd(folder->stream.get()), name, OPEN_FOLDER | O_NOFOLLOW)));
}

/* Goes into a folder of the deepest one. 0, also if it has vanished meanwhile, or the error. */
int FileEnterFolder(FileFolderStack *stack, const char *name)
{
   const int error = FileLetGo(stack->deepest->parent);

   if (error != 0) {
      return error;
   }
   OwnedDirectory stream = FileOpenFrom(stack->deepest, name);
   if (stream == nullptr) {
      return errno == ENOENT ? 0 : errno;
   }
   FileAppendToPath(&stack->path, "/");
   FileAppendToPath(&stack->path, name);
   FilePushFolder(stack, std::move(stream));
   return 0;
}

/* Opens the folder above the deepest one again if it was let go. False with errno set; ESTALE: what is above now is
   another folder, in which nothing must be touched. */
bool FileReopenParent(const FileFolder *folder)
{
   FileFolder *const parent = folder->parent;
   struct stat attributes;

   if (parent->stream != nullptr) {
      return true;
   }
   OwnedDirectory above = FileOpenFrom(folder, "..");
   if (above == nullptr || fstat(dirfd(above.get()), &attributes) == -1) {
      return false;
   }
   if (attributes.st_dev != parent->device || attributes.st_ino != parent->inode) {
      errno = ESTALE;
      return false;
   }
   parent->stream = std::move(above);
   return true;
}

/* Goes back up, and removes the folder just left unless something in it is left. False with errno set if there is no
   way back. */
bool FileLeaveFolder(FileFolderStack *stack)
{
   int error = stack->deepest->error;

   if (!FileReopenParent(stack->deepest)) {
      return false;
   }
   FilePopFolder(stack);
   FileFolder *const parent = stack->deepest;
   if (error == 0 && unlinkat(dirfd(parent->stream.get()), parent->names.Name(), AT_REMOVEDIR) == -1) {
      error = errno;
   }
   if (error != 0) {
      parent->error = error;
   }
   return true;
}

/* 0, also for an entry that has vanished meanwhile, or the error. */
int FileDeleteNonDirectory(int folder, const char *name)
{
   return unlinkat(folder, name, 0) == 0 || errno == ENOENT ? 0 : errno;
}

/* The same for an entry of any kind, the current one of the deepest folder; a folder becomes the deepest itself. */
int FileDeleteEntry(FileFolderStack *stack)
{
   const FileNames &names = stack->deepest->names;
   const char *const name = names.Name();
   const int folder = dirfd(stack->deepest->stream.get());
   struct stat attributes;

   /* Some file systems are served by other users, who may give out any name. */
   if (name == "."sv || name == ".."sv || strchr(name, '/') != nullptr) {
      return EINVAL;
   }
   /* A look at each file costs a third of the whole. It is taken only where it can make a difference: at what may be a
      directory (unlink is not for those, some systems would do it) and to tell why a deletion fails. */
   if (names.IsNoDirectory() && FileDeleteNonDirectory(folder, name) == 0) {
      return 0;
   }
   if (fstatat(folder, name, &attributes, AT_SYMLINK_NOFOLLOW) == -1) {
      if (errno == ENOENT) {
         return 0;
      }
      Log("FILE: %s: Lstat of '%s/%s' failed, errno = %d\n", "FileDeleteDirectoryTree", stack->path.data,
          name, errno);
      return errno;
   }
   if (S_ISDIR(attributes.st_mode)) {
      return FileEnterFolder(stack, name);
   }
   return FileDeleteNonDirectory(folder, name);
}

/* Deletes all below the top, each folder after what is in it, and tries every entry. 0 or the error of the last
   failure, which for want of a way back ends the work. */
int FileDeleteEntries(FileFolderStack *stack)
{
   for (;;) {
      FileFolder *const folder = stack->deepest;
      if (folder->names.Next()) {
         const int error = FileDeleteEntry(stack);
         if (error != 0) {
            folder->error = error;
         }
      } else if (folder->parent == nullptr) {
         return folder->error;
      } else if (!FileLeaveFolder(stack)) {
         return errno;
      }
   }
}

/* 0 or the error. */
int FileDeleteContent(const char *path)
{
   FileFolderStack stack;

   if (path == nullptr) {
      return EFAULT;
   }
   OwnedDirectory top = FileOpenStream(OwnedDescriptor(open(path, OPEN_FOLDER)));
   if (top == nullptr) {
      return errno;
   }
   FileAppendToPath(&stack.path, path);
   FilePushFolder(&stack, std::move(top));
   return FileDeleteEntries(&stack);
}

int FileExistenceError(const char *path)
{
   if (Posix_EuidAccess(path, F_OK) == 0) {
      return 0;
   }
   return errno == ENOSYS ? FileAttributes(path, nullptr) : errno;
}

bool FileDeleteDirectoryTree(const char *path, bool contentOnly)
{
   const int savedErrno = errno;
   const int existence = FileExistenceError(path);

   if (existence == ENOENT || existence == ENOTDIR) {
      errno = savedErrno;
      return true;
   }
   int error = FileDeleteContent(path);
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
