#ifndef TESSEL_LIB_FILE_FILEIO_H
#define TESSEL_LIB_FILE_FILEIO_H

#include <sys/types.h>

/* An open file with the path it was opened by, and the replacement of a file by another in one step. Paths are UTF-8
   and reach the system as they are. */
struct FileIOHandle {
   int fd;     /* Closed on exec; -1: not open. */
   char *path; /* Owned by the handle; null: none. */
};

constexpr FileIOHandle FILEIO_CLOSED = {.fd = -1, .path = nullptr};

/* Opens path as open(2) does with these flags and, for O_CREAT, this mode. False with errno set and the handle closed.
   Interruptions by signals are passed over. */
[[nodiscard]] bool FileIO_Open(FileIOHandle *handle, const char *path, int flags, mode_t mode);

/* Closes and forgets; a closed handle is left alone. False with errno set if the close reported an error, the handle
   being closed all the same. */
bool FileIO_Close(FileIOHandle *handle);

/* The path of the temporary file for a target: the canonical path of the target, so that the file behind a link is
   replaced at its place, and "~". A new string that the caller frees. Null, logged, with errno set. */
[[nodiscard]] char *FileIO_AtomicTempPath(const char *path);

/* Makes the temporary file for an open target: new and empty, for reading and writing, with the target's mode and
   owner. A file that has its name is removed first. False, with nothing left behind and errno set, if any of
   this fails, which is logged, or if the target is not a regular file.

   The name is always the same, so that a writer that died leaves one file at most, which the next removes;
   writers of one target must be kept apart by a lock. */
[[nodiscard]] bool FileIO_AtomicTempFile(const FileIOHandle *target, FileIOHandle *temporary);

/* Puts the temporary file in the place of the target it was made for. On success the target's handle is open on what
   was the temporary file, whose own handle has lost its descriptor but keeps its path, and what the target
   was is closed. False, logged, with errno set: both files and handles are as they were. */
[[nodiscard]] bool FileIO_AtomicUpdateEx(FileIOHandle *temporary, FileIOHandle *target);

/* Closes a temporary file that is not to be used and removes it, which is logged if it fails. Keeps errno. */
void FileIO_AtomicDiscard(FileIOHandle *temporary);

#endif
