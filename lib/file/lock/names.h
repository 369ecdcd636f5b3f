#ifndef TESSEL_LIB_FILE_LOCK_NAMES_H
#define TESSEL_LIB_FILE_LOCK_NAMES_H

#include "lib/file/walk/entries.h"
#include "lib/misc/memory/dynbuf.h"

/* Lists of directories that mostly hold two or three names and are read several times for each lock: one name after the
   other, each with its NUL. */
using FileLockNames = OwnedDynBuf;

/* Reads the names in the directory as it is now, as they are, to *names, which is empty before: every one that is there all
   the time, but for "." and "..". 0 or the error's number. */
[[nodiscard]] int FileLockNames_Read(DIR *stream, FileLockNames *names);

/* The name after the given one, or the first if that is null; null after the last. */
[[nodiscard]] const char *FileLockNames_Next(const FileLockNames &names, const char *name);

#endif
