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
#include <unistd.h>
#include <utility>

namespace {

/* The folder being worked in and those next above it keep their descriptors, up to so many in all. At least three: the
   way back up leads through folders that have been gone through on the way down, but not through one that may
   be listed and not entered. */
constexpr int HELD_FOLDERS = 4;

/* Without waiting, should a pipe have been put in place of a folder. */
constexpr int OPEN_FOLDER = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

/* A folder whose entries are being deleted. */
struct Folder {
   Folder *parent;             /* Null for the top. */
   OwnedDescriptor descriptor; /* -1: let go. */
   dev_t device;
   ino_t inode;
   uint64_t pathLength;
   FileEntries list;
   size_t taken; /* So many entries have had their turn. A folder below this one is the last of them. */
   int error;    /* The last failure in this folder, or 0. */
};

/* The way from the folder being worked in up to the top, which takes the place of recursion: a thread's stack may end
   long before a tree does. */
struct FolderStack {
   Folder *deepest = nullptr;
   DynBuf path = {}; /* Of the deepest, for reports; a NUL follows it. */

   FolderStack() = default;
   FolderStack(const FolderStack &) = delete;
   FolderStack &operator=(const FolderStack &) = delete;
   ~FolderStack();
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

void FilePopFolder(FolderStack *stack)
{
   const Owned<Folder> block(stack->deepest);

   stack->deepest = block->parent;
   std::destroy_at(block.get());
   if (stack->deepest != nullptr) {
      FileCutPath(&stack->path, stack->deepest->pathLength);
   }
}

FolderStack::~FolderStack()
{
   while (deepest != nullptr) {
      FilePopFolder(this);
   }
   DynBuf_Destroy(&path);
}

bool FileIsShortOfDescriptors(int error)
{
   return error == EMFILE || error == ENFILE;
}

/* Closes the folder and all above it, to which there is a way back. False if none of them was open. */
bool FileLetGo(Folder *folder)
{
   bool any = false;

   for (; folder != nullptr; folder = folder->parent) {
      any = any || folder->descriptor.get() != -1;
      folder->descriptor.reset();
   }
   return any;
}

/* Lists the folder, whose path the stack has already, and makes it the deepest; one that cannot be listed has no entries,
   and an error. 0, or the error, and then nothing but the path has changed. */
int FilePushFolder(FolderStack *stack, OwnedDescriptor descriptor)
{
   struct stat attributes;
   const int fd = descriptor.get();
   Folder *const parent = stack->deepest;

   if (fstat(fd, &attributes) == -1) {
      return errno;
   }
   auto *const folder = new (Util_SafeMalloc(sizeof(Folder))) Folder{.parent = parent,
                                                                     .descriptor = std::move(descriptor),
                                                                     .device = attributes.st_dev,
                                                                     .inode = attributes.st_ino,
                                                                     .pathLength = stack->path.size,
                                                                     .list = {},
                                                                     .taken = 0,
                                                                     .error = 0};
   stack->deepest = folder;
   bool listed = FileListOpened(fd, stack->path.data, &folder->list);
   if (!listed && FileIsShortOfDescriptors(errno) && FileLetGo(parent)) {
      listed = FileListOpened(fd, stack->path.data, &folder->list);
   }
   folder->error = listed ? 0 : errno;
   return 0;
}

/* Makes room for the descriptor of a folder further down. */
void FileLetGoFarthest(Folder *deepest)
{
   Folder *farthest = deepest;

   for (int level = 2; level <= HELD_FOLDERS && farthest != nullptr; level++) {
      farthest = farthest->parent;
   }
   if (farthest != nullptr) {
      farthest->descriptor.reset();
   }
}

/* A folder in this one, or above it. -1 with errno set. */
OwnedDescriptor FileOpenFrom(const Folder *folder, const char *name)
{
   return OwnedDescriptor(openat(folder->descriptor.get(), name, OPEN_FOLDER | O_NOFOLLOW));
}

/* Goes into a folder of the deepest one. 0, also if it has vanished meanwhile, or the error. */
int FileEnterFolder(FolderStack *stack, const char *name)
{
   Folder *const parent = stack->deepest;

   FileLetGoFarthest(parent);
   OwnedDescriptor descriptor = FileOpenFrom(parent, name);
   if (descriptor.get() == -1 && FileIsShortOfDescriptors(errno) && FileLetGo(parent->parent)) {
      descriptor = FileOpenFrom(parent, name);
   }
   if (descriptor.get() == -1) {
      return errno == ENOENT ? 0 : errno;
   }
   FileAppendToPath(&stack->path, "/");
   FileAppendToPath(&stack->path, name);
   const int error = FilePushFolder(stack, std::move(descriptor));
   if (error != 0) {
      FileCutPath(&stack->path, parent->pathLength);
   }
   return error;
}

/* Opens the folder above the deepest one again if it was let go. False with errno set; ESTALE: what is above now is
   another folder, in which nothing must be touched. */
bool FileReopenParent(const Folder *folder)
{
   Folder *const parent = folder->parent;
   struct stat attributes;

   if (parent->descriptor.get() != -1) {
      return true;
   }
   OwnedDescriptor above = FileOpenFrom(folder, "..");
   if (above.get() == -1 || fstat(above.get(), &attributes) == -1) {
      return false;
   }
   if (attributes.st_dev != parent->device || attributes.st_ino != parent->inode) {
      errno = ESTALE;
      return false;
   }
   parent->descriptor = std::move(above);
   return true;
}

/* Goes back up, and removes the folder just left unless something in it is left. False with errno set if there is no
   way back. */
bool FileLeaveFolder(FolderStack *stack)
{
   int error = stack->deepest->error;

   if (!FileReopenParent(stack->deepest)) {
      return false;
   }
   FilePopFolder(stack);
   Folder *const parent = stack->deepest;
   const char *const name = parent->list.entries[parent->taken - 1].name;
   if (error == 0 && unlinkat(parent->descriptor.get(), name, AT_REMOVEDIR) == -1) {
      error = errno;
   }
   if (error != 0) {
      parent->error = error;
   }
   return true;
}

/* 0, also for an entry that has vanished meanwhile, or the error. */
int FileDeleteNonDirectory(const Folder *folder, const char *name)
{
   return unlinkat(folder->descriptor.get(), name, 0) == 0 || errno == ENOENT ? 0 : errno;
}

/* The same for an entry of any kind of the deepest folder; a folder becomes the deepest itself. */
int FileDeleteEntry(FolderStack *stack, const FileEntry &entry)
{
   const Folder *const folder = stack->deepest;
   struct stat attributes;

   /* Some file systems are served by other users, who may give out any name. */
   if (strchr(entry.name, '/') != nullptr) {
      return EINVAL;
   }
   /* A look at each file costs a third of the whole. It is taken only where it can make a difference: at what may be a
      directory (unlink is not for those, some systems would do it) and to tell why a deletion fails. */
   if (entry.isNoDirectory && FileDeleteNonDirectory(folder, entry.name) == 0) {
      return 0;
   }
   if (fstatat(folder->descriptor.get(), entry.name, &attributes, AT_SYMLINK_NOFOLLOW) == -1) {
      const int error = errno;
      if (error == ENOENT) {
         return 0;
      }
      Log("FILE: %s: Lstat of '%s/%s' failed, errno = %d\n", "FileDeleteDirectoryTree", stack->path.data,
          entry.name, error);
      return error;
   }
   if (S_ISDIR(attributes.st_mode)) {
      return FileEnterFolder(stack, entry.name);
   }
   return FileDeleteNonDirectory(folder, entry.name);
}

/* Deletes all below the top, each folder after what is in it, and tries every entry. 0 or the error of the last
   failure, which for want of a way back ends the work. */
int FileDeleteEntries(FolderStack *stack)
{
   for (;;) {
      Folder *const folder = stack->deepest;
      if (folder->taken < folder->list.count) {
         const int error = FileDeleteEntry(stack, folder->list.entries[folder->taken++]);
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
   FolderStack stack;

   if (path == nullptr) {
      return EFAULT;
   }
   OwnedDescriptor top(open(path, OPEN_FOLDER));
   if (top.get() == -1) {
      return errno;
   }
   FileAppendToPath(&stack.path, path);
   const int error = FilePushFolder(&stack, std::move(top));
   return error != 0 ? error : FileDeleteEntries(&stack);
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
