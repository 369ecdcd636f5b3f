#ifndef TESSEL_LIB_FILE_LOCK_PLACE_H
#define TESSEL_LIB_FILE_LOCK_PLACE_H

#include "base/owned.h"
#include "lib/file/fileLock.h"
#include "lib/file/lock/identity.h"
#include "lib/file/lock/names.h"

#include <sys/stat.h>

/* The lock directory of a file, and what is done to the entries in it. It may lie in a folder of somebody else's: that
   folder is opened once, the lock directory is made, opened and removed from its descriptor without following
   a link in its place, and what is in it is only reached from its own, whatever the paths lead to by now.

   The routines give 0 or the error's number, and leave errno undefined, unless they say otherwise. That a
   file, or its directory, has gone on another machine (ESTALE) is ENOENT, too. */

struct FileLockPlace {
   Owned<char> path; /* The locked file: its folder in canonical form, and its name. */
   Owned<char> directory;
   char checksum[FILE_LOCK_CHECKSUM_SIZE]; /* Of directory. */
   FileLockIdentity self;
   OwnedDescriptor folder; /* That the lock directory is made in. */
   OwnedDirectory stream;  /* The lock directory, once it is open; everything in it is reached from there. */
};

/* ENOENT etc. where the folder of the file is not to be found, or cannot be opened; then the paths are set all the
   same. */
[[nodiscard]] int FileLockPlace_Find(FileLockPlace *place, const char *path);

/* Makes the lock directory, with mode 0777. */
[[nodiscard]] int FileLockPlace_Make(const FileLockPlace &place);

/* What stands there: 0, ENOENT or another error. Links are not followed. */
[[nodiscard]] int FileLockPlace_Look(const FileLockPlace &place, struct stat *status);

/* Opens the lock directory; a link to one is none. */
[[nodiscard]] int FileLockPlace_Open(FileLockPlace *place);

/* Removes what stands there: the directory, if it is empty, or whatever else it may be. */
[[nodiscard]] int FileLockPlace_Clear(const FileLockPlace &place, bool isDirectory);

/* The path of a name in the lock directory, for reports: a new string. */
[[nodiscard]] Owned<char> FileLockPlace_Path(const FileLockPlace &place, const char *name);

/* What the owner of an entry, who left these texts, has there: FILE_LOCK_STALE, FILE_LOCK_MOVED or FILE_LOCK_WAITS. */
[[nodiscard]] FileLockState FileLockPlace_Judge(const FileLockPlace &place, std::string_view machine,
                                                const char *execution, std::string_view checksum);

/* Clears the file mode creation mask, so that the users who share a file can also share its lock. To be held while
   entries are made. */
class FileLockClearedMask {
 public:
   FileLockClearedMask() : saved_(umask(0))
   {
   }

   ~FileLockClearedMask()
   {
      umask(saved_);
   }

   FileLockClearedMask(const FileLockClearedMask &) = delete;
   FileLockClearedMask &operator=(const FileLockClearedMask &) = delete;

 private:
   mode_t saved_;
};

/* From here on the lock directory has to be open. */

/* A directory in it with mode 0777. */
[[nodiscard]] int FileLockPlace_MakeDirectory(const FileLockPlace &place, const char *name);

/* A file that is not there yet, with mode 0644, open to be written to. */
[[nodiscard]] int FileLockPlace_CreateFile(const FileLockPlace &place, const char *name,
                                           OwnedDescriptor *file);

[[nodiscard]] int FileLockPlace_Rename(const FileLockPlace &place, const char *from, const char *to);

/* Opens one of its directories. */
[[nodiscard]] int FileLockPlace_OpenDirectory(const FileLockPlace &place, const char *name,
                                              OwnedDirectory *directory);

/* Whether there is such an entry: 0, ENOENT or another error. Links are not followed. */
[[nodiscard]] int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status);

[[nodiscard]] int FileLockPlace_Remove(const FileLockPlace &place, const char *name, bool isDirectory);

/* These two take the lock directory and a path in it, for a process that may have lost sight of the rest. */

/* Removes the file; that it has gone already is success. Any other failure is reported. */
int FileLockRemoveLockingFile(const OwnedDirectory &directory, const char *path);

/* Removes the lock directory if it is empty, from the folder that it lies in. */
void FileLockPlace_RemoveSelf(const OwnedDirectory &directory, const char *path);

#endif
