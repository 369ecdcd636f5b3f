#include "platform/durable.h"

#include <cerrno>
#include <unistd.h>

bool Durable_File(int fd)
{
   int result;
   do {
      result = fsync(fd);
   } while (result == -1 && errno == EINTR);
   return result == 0 || errno == EINVAL;
}
