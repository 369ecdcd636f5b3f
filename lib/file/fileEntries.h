#ifndef TESSEL_LIB_FILE_FILEENTRIES_H
#define TESSEL_LIB_FILE_FILEENTRIES_H

#include "lib/public/owned.h"

#include <cstddef>
#include <span>

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

#endif
