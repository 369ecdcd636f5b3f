#ifndef TESSEL_LIB_FILE_FILE_H
#define TESSEL_LIB_FILE_FILE_H

#include <sys/stat.h>

/* Directory trees: listing and deletion. Paths are UTF-8 and reach the system as they are; one that could not be put
   together, a null one, is EFAULT. */

struct WalkDirContext;

/* Deletes the directory at path and all beneath it; links are removed, not followed, except path itself: behind a
   link at path the contents go, and then the link cannot be removed as a directory. A path that leads nowhere
   is success, with errno as it was; otherwise success sets errno to 0.

   A failure on one entry does not keep the others from being deleted; directories above it stay. False with
   errno set to that of the last failure, or, with nothing deleted, to that of listing path. Only entries that
   cannot be looked at are logged.

   An entry whose name is not valid UTF-8 stays, after a warning, and with it the directories above.

   The tree may be changed meanwhile by others who may write in it, path itself and what leads to it may not.
   Below path every directory is entered from the descriptor of the one above and never through a link, and
   every entry is removed by its name in such a directory; ".", ".." and a name with a slash in it, as a file
   system of somebody else's might list, are refused with EINVAL. What is moved or mounted into the tree is
   part of it.

   Trees may have any depth: the work takes memory for every level, but no stack, and two descriptors. To get
   back to a folder two levels up or more, ".." is opened, and its device and inode are compared with those
   seen on the way down. If they differ, the directory below has been moved away, and the work ends there and
   then, with ESTALE; it also ends where ".." cannot be opened. One case passes: a new directory has the inode
   of the one seen, which was deleted meanwhile, and the one below was moved into it. That takes somebody who
   may write in the new directory as well. */
[[nodiscard]] bool File_DeleteDirectoryTree(const char *path);

/* The same for all beneath path; the directory itself stays. */
[[nodiscard]] bool File_DeleteDirectoryContent(const char *path);

/* The number of entries of a directory, without "." and "..", or -1 with errno set. *names, if asked for, is
   written unless the result is -1: an array of so many names in no particular order, without a null at its
   end, or null for an empty directory. Array and names are the caller's to free. For names see
   File_WalkDirectoryNext. */
int File_ListDirectory(const char *path, char ***names);

/* A walk through a directory, to be ended with File_WalkDirectoryEnd. Null with errno set if it cannot be opened. */
[[nodiscard]] WalkDirContext *File_WalkDirectoryStart(const char *path);

/* True with errno 0: a further entry was found, and its name, if asked for, goes to *name, a new string that the
   caller frees. "." and ".." are passed over and no name is given twice. All names that are not valid UTF-8
   are given as one, three U+FFFD, each with a warning. False: the end of the directory, with errno 0, or a
   read error, with errno set; *name is untouched. */
bool File_WalkDirectoryNext(WalkDirContext *context, char **name);

/* Releases the walk; null is ignored. Keeps errno. */
void File_WalkDirectoryEnd(WalkDirContext *context);

/* Removes an entry that is not a directory, and if it is a link, what it leads to as well: see FileDeletion with
   handleLink. 0, or -1 with errno set. */
int File_Unlink(const char *path);

/* The routines below give 0 or the error's number; errno is undefined then. */

/* Removes an entry that is not a directory. With handleLink, the text of a link is first unlinked as
   a path (a relative one from the current directory, not the link's). If that fails, other than for lack of
   such an entry, the link is kept. Not for folders of others, who say with a link what is unlinked. */
int FileDeletion(const char *path, bool handleLink);

/* Removes an empty directory. */
int FileRemoveDirectory(const char *path);

/* Fills *attributes, unless null, with those of path, links followed. */
int FileAttributes(const char *path, struct stat *attributes);

#endif
