#ifndef TESSEL_LIB_FILE_FILELOCKPLACE_H
#define TESSEL_LIB_FILE_FILELOCKPLACE_H

#include "lib/file/fileLockIdentity.h"
#include "lib/file/fileLockMember.h"
#include "lib/public/owned.h"

#include <sys/stat.h>

/* The lock directory of a file, and what is done to the entries in it. The routines give 0 or the error's number, and
   leave errno undefined, unless they say otherwise. */

struct FileLockPlace {
   Owned<char> path; /* The locked file: its folder in canonical form, and its name. */
   Owned<char> directory;
   char checksum[FILE_LOCK_CHECKSUM_SIZE]; /* Of directory. */
   FileLockIdentity self;
};

/* ENOENT etc. where the folder of the file is not to be found. */
[[nodiscard]] int FileLockPlace_Find(FileLockPlace *place, const char *path);

/* The path of a name in the lock directory: a new string. */
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

/* A directory with mode 0777. */
[[nodiscard]] int FileLockPlace_MakeDirectory(const char *path);

/* Whether there is such an entry: 0, ENOENT or another error. Links are not followed. */
[[nodiscard]] int FileLockPlace_Status(const FileLockPlace &place, const char *name, struct stat *status);

/* Removes the lock directory if it is empty. Keeps errno. */
void FileLockPlace_RemoveDirectory(const FileLockPlace &place);

/* Removes a file; that it has gone already is success. Any other failure is reported. */
int FileLockRemoveLockingFile(const FileLockPlace &place, const char *name);

#endif
