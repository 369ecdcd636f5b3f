#ifndef TESSEL_LIB_FILE_WALK_ENTRIES_H
#define TESSEL_LIB_FILE_WALK_ENTRIES_H

#include "base/owned.h"
#include "lib/misc/memory/dynbuf.h"

#include <dirent.h>

/* The directory that a descriptor is open on, which passes to the stream. Null with errno set, and the descriptor closed;
   a descriptor of -1 is null with errno as it was. */
[[nodiscard]] OwnedDirectory FileOpenStream(OwnedDescriptor descriptor);

/* The next entry but for "." and "..", good until the next call. Null: the end of the directory, with errno 0, or a read
   error, with errno set. */
[[nodiscard]] const struct dirent *FileNextEntry(DIR *stream);

/* The names of a directory, to be gone through once. */
class FileNames {
 public:
   /* Reads a stream to its end; the path only goes into reports. 0, or the error, and then there are no names. Names that
      are not valid UTF-8 are given as File_WalkDirectoryNext gives them, but each. */
   [[nodiscard]] int Read(DIR *stream, const char *path);

   /* Goes on to the next name, the first one at first. False at the end. */
   [[nodiscard]] bool Next();

   [[nodiscard]] const char *Name() const
   {
      return records_.data + at_ + 1;
   }

   /* The directory says so. False: it is one, or the file system does not tell. */
   [[nodiscard]] bool IsNoDirectory() const
   {
      return records_.data[at_] != 0;
   }

 private:
   OwnedDynBuf records_; /* For each name a byte, 1 for what is no directory, and the name with its NUL. */
   uint64_t at_ = 0;
   uint64_t next_ = 0;
};

#endif
