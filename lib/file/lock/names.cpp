#include "lib/file/lock/names.h"

#include <cerrno>
#include <cstring>

int FileLockNames_Read(DIR *stream, FileLockNames *names)
{
   rewinddir(stream);
   while (const struct dirent *const entry = FileNextEntry(stream)) {
      DynBuf_SafeAppend(names, entry->d_name, strlen(entry->d_name) + 1, "lib/file/lock/names", __LINE__);
   }
   return errno;
}

const char *FileLockNames_Next(const FileLockNames &names, const char *name)
{
   const char *const next = name == nullptr ? names.data : name + strlen(name) + 1;

   return next == names.data + names.size ? nullptr : next;
}
