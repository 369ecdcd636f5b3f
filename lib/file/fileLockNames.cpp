#include "lib/file/fileLockNames.h"

#include <cstring>
#include <string_view>

using namespace std::string_view_literals;

int FileLockNames_Read(DIR *stream, FileLockNames *names)
{
   rewinddir(stream);
   for (;;) {
      /* Before each read: only thus does errno tell the end of the directory from an error. */
      errno = 0;
      const struct dirent *const entry = readdir(stream);
      if (entry == nullptr) {
         return errno;
      }
      if (entry->d_name != "."sv && entry->d_name != ".."sv) {
         DynBuf_SafeAppend(&names->text, entry->d_name, strlen(entry->d_name) + 1, __FILE__, __LINE__);
         names->count++;
      }
   }
}

const char *FileLockNames_Next(const FileLockNames &names, const char *name)
{
   const char *const next = name == nullptr ? names.text.data : name + strlen(name) + 1;

   return next == names.text.data + names.text.size ? nullptr : next;
}
