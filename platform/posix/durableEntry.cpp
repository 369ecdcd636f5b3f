#include "platform/durable.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int OpenDirectory(const char *path)
{
   int fd;
   do {
      fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   } while (fd == -1 && errno == EINTR);
   return fd;
}

bool FlushDirectory(const char *path)
{
   const int fd = OpenDirectory(path);
   if (fd == -1) {
      return errno == EACCES;
   }
   const bool durable = Durable_File(fd);
   const int error = errno;
   close(fd);
   errno = error;
   return durable;
}

} // namespace

bool Durable_Entry(const char *path)
{
   const char *slash = strrchr(path, '/');
   if (slash == nullptr) {
      return FlushDirectory(".");
   }
   char *directory = strndup(path, static_cast<size_t>(slash - path) + 1);
   if (directory == nullptr) {
      return false;
   }
   const bool durable = FlushDirectory(directory);
   const int error = errno;
   free(directory);
   errno = error;
   return durable;
}
