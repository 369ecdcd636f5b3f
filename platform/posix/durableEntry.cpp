#include "platform/durable.h"

#include "base/owned.h"

#include <cstring>
#include <fcntl.h>

namespace {

bool DurableFlushDirectory(const char *path)
{
   const OwnedDescriptor directory(
       Uninterrupted([path] { return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
   return directory.get() == -1 ? errno == EACCES : Durable_File(directory.get());
}

} // namespace

bool Durable_Entry(const char *path)
{
   const char *slash = strrchr(path, '/');
   if (slash == nullptr) {
      return DurableFlushDirectory(".");
   }
   const Owned<char> directory(strndup(path, static_cast<size_t>(slash - path) + 1));
   return directory != nullptr && DurableFlushDirectory(directory.get());
}
