#include "lib/file/lock/names.h"

#include <cerrno>
#include <cstring>

int FileLockNames_Read(DIR *stream, FileLockNames *names)
{
   rewinddir(stream);
   while (const struct dirent *const entry = FileNextEntry(stream)) {
      DynBuf_SafeAppend(&names->text, entry->d_name, strlen(entry->d_name) + 1, "lib/file/fileLockNames",
                        __LINE__);
      names->count++;
   }
   return errno;
}

const char *FileLockNames_Next(const FileLockNames &names, const char *name)
{
   const char *const next = name == nullptr ? names.text.data : name + strlen(name) + 1;

   return next == names.text.data + names.text.size ? nullptr : next;
}
