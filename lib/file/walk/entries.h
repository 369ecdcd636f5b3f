#ifndef TESSEL_LIB_FILE_WALK_ENTRIES_H
#define TESSEL_LIB_FILE_WALK_ENTRIES_H

#include "base/owned.h"

#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <memory>
#include <span>

/* The directory that a descriptor is open on, which passes to the stream. Null with errno set, and the descriptor closed;
   a descriptor of -1 is null with errno as it was. */
[[nodiscard]] OwnedDirectory FileOpenStream(OwnedDescriptor descriptor);

/* The next entry but for "." and "..", good until the next call. Null: the end of the directory, with errno 0, or a read
   error, with errno set. */
[[nodiscard]] const struct dirent *FileNextEntry(DIR *stream);

/* One entry of a directory. */
struct FileEntry {
   char *name;         /* See File_WalkDirectoryNext. */
   bool isNoDirectory; /* The directory itself says so. False: it is one, or the file system does not tell. */
};

/* The entries of a directory, which it owns with their names; releasing them keeps errno. */
struct FileEntries {
   FileEntry *entries = nullptr; /* Null if there are none. */
   size_t count = 0;

   FileEntries() = default;
   FileEntries(const FileEntries &) = delete;
   FileEntries &operator=(const FileEntries &) = delete;

   ~FileEntries()
   {
      const Owned<FileEntry> array(entries);
      for (size_t i = 0; i < count; i++) {
         const Owned<char> name(entries[i].name);
      }
   }

   [[nodiscard]] std::span<const FileEntry> All() const
   {
      return {entries, count};
   }
};

/* As File_ListDirectory: the entries of the directory at path go to *list, which is empty before. False with errno
   set, and *list still empty. */
[[nodiscard]] bool FileListEntries(const char *path, FileEntries *list);

/* The same of a directory that has just been opened. The descriptor stays the caller's; the path only goes into
   reports. */
[[nodiscard]] bool FileListOpened(int directory, const char *path, FileEntries *list);

#endif
