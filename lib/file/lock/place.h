#ifndef TESSEL_LIB_FILE_LOCK_PLACE_H
#define TESSEL_LIB_FILE_LOCK_PLACE_H

#include "base/owned.h"
#include "lib/file/lock/identity.h"
#include "lib/file/lock/member.h"
#include "lib/file/lock/names.h"

#include <sys/stat.h>

/* The lock directory of a file, and what is done to the entries in it. The routines give 0 or the error's number, and
   leave errno undefined, unless they say otherwise. */

struct FileLockPlace {
   Owned<char> path; /* The locked file: its folder in canonical form, and its name. */
   Owned<char> directory;
   char checksum[FILE_LOCK_CHECKSUM_SIZE]; /* Of directory. */
   FileLockIdentity self;
   OwnedDirectory stream; /* The lock directory, once it is open; everything in it is reached from there. */
};

/* ENOENT etc. where the folder of the file is not to be found. */
[[nodiscard]] int FileLockPlace_Find(FileLockPlace *place, const char *path);

/* Opens the lock directory, which links may lead to. */
[[nodiscard]] int FileLockPlace_Open(FileLockPlace *place);

/* The path of a name in the lock directory, for reports: a new string. */
[[nodiscard]] Owned<char> FileLockPlace_Path(const FileLockPlace &place, const char *name);

/* Clears the file mode creation mask, so that the users who share a file can also share its lock. */
class ClearedMask {
 public:
   ClearedMask() : saved_(umask(0))
   {
   }

   ~ClearedMask()
   {
      umask(saved_);
   }

   ClearedMask(const ClearedMask &) = delete;
   ClearedMask &operator=(const ClearedMask &) = delete;

 private:
   mode_t saved_;
};

/* The lock directory, with mode 0777. */
[[nodiscard]] int FileLockPlace_Make(const FileLockPlace &place);

/* From here on the lock directory has to be open. */

/* A directory in it with mode 0777. */
[[nodiscard]] int FileLockPlace_MakeDirectory(const FileLockPlace &place, const char *name);

/* A file that is not there yet, with mode 0644: its descriptor, to write to, or -1 with errno set. */
[[nodiscard]] int FileLockPlace_CreateFile(const FileLockPlace &place, const char *name);

[[nodiscard]] int FileLockPlace_Rename(const FileLockPlace &place, const char *from, const char *to);

/* Opens one of its directories, or gives null with errno set. */
[[nodiscard]] OwnedDirectory FileLockPlace_OpenDirectory(const FileLockPlace &place, const char *name);

/* Whether there is such an entry: 0, ENOENT or another error. Links are not followed. */
[[nodiscard]] int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status);

/* Removes an entry: 0 or the error's number. */
[[nodiscard]] int FileLockPlace_Remove(const FileLockPlace &place, const char *name, bool isDirectory);

/* Removes a file; that it has gone already is success. Any other failure is reported. */
int FileLockRemoveLockingFile(const FileLockPlace &place, const char *name);

/* Reports the failure of such a removal by a process that has not got the directory open. Gives back the error. */
int FileLockReportRemoval(const char *path, int error);

#endif
