#ifndef TESSEL_LIB_FILE_FILEIO_H
#define TESSEL_LIB_FILE_FILEIO_H

#include <cstdint>
#include <sys/types.h>

/* An open file with the path it was opened by, and the replacement of a file by another in one step. Paths are UTF-8
   and reach the system as they are. */
struct FileIOHandle {
   int fd = -1;          /* Closed on exec; -1: not open. */
   char *path = nullptr; /* Owned by the handle; null: none. */
   int folder = -1;      /* Of a temporary file: the folder that it is in, closed on exec. Otherwise -1. */
};

constexpr FileIOHandle FILEIO_CLOSED = {};

/* Opens path as open(2) does with these flags and, for O_CREAT, this mode. False with errno set and the handle closed.
   Interruptions by signals are passed over. */
[[nodiscard]] bool FileIO_Open(FileIOHandle *handle, const char *path, int flags, mode_t mode);

/* The same for files that others may have put there: only a regular file of at most so many bytes, and never a wait for
   another process. With O_CREAT a file is made only where there is no entry at all; a link that leads nowhere
   is ELOOP. A folder is EISDIR, anything else EINVAL, a longer file EFBIG. Not for O_TRUNC. */
[[nodiscard]] bool FileIO_OpenRegular(FileIOHandle *handle, const char *path, int flags, mode_t mode,
                                      uint64_t maxBytes);

/* Closes and forgets; a closed handle is left alone. False with errno set if the close reported an error, the handle
   being closed all the same. */
bool FileIO_Close(FileIOHandle *handle);

/* The path of the temporary file for a target: the canonical path of the target, so that the file behind a link is
   replaced at its place, and "~". A new string that the caller frees. Null, logged, with errno set. */
[[nodiscard]] char *FileIO_AtomicTempPath(const char *path);

/* Makes the temporary file for an open target: new and empty, for reading and writing, with the target's mode and
   owner, in the target's folder, which must be readable. A file that has its name is removed first. False,
   with nothing left behind and errno set, if any of this fails, which is logged, or if the target is not a
   regular file.

   Others may have changed the target's folder, or what leads to it, since the target was opened. If what the
   path leads to now is not the open file, that is ESTALE, and nothing was touched. From there on all is done
   in that folder, by its descriptor, whatever becomes of the path.

   The name is always the same, so that a writer that died leaves one file at most, which the next removes;
   writers of one target must be kept apart by a lock. */
[[nodiscard]] bool FileIO_AtomicTempFile(const FileIOHandle *target, FileIOHandle *temporary);

/* Puts the temporary file in the place of the target it was made for, in the folder that it was made in. On success
   the target's handle is open on what was the temporary file, whose own handle has lost its descriptor but
   keeps its path and folder, and what the target was is closed; Durable_File of the folder makes it last.
   False, logged, with errno set: both files and handles are as they were. */
[[nodiscard]] bool FileIO_AtomicUpdateEx(FileIOHandle *temporary, FileIOHandle *target);

/* Closes a temporary file that is not to be used and removes it, which is logged if it fails. Keeps errno. */
void FileIO_AtomicDiscard(FileIOHandle *temporary);

#endif
