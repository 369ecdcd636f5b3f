#include "platform/durable.h"

#include "base/errno.h"

#include <unistd.h>

bool Durable_File(int fd)
{
   return Uninterrupted([fd] { return fsync(fd); }) == 0 || errno == EINVAL;
}
