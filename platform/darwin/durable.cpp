#include "platform/durable.h"

#include "base/errno.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

/* The answers of file systems that know no full flush, network ones among them. */
bool DurableIsUnknownRequest(int error)
{
   return error == ENOTSUP || error == ENOTTY || error == EINVAL || error == ENOSYS;
}

} // namespace

/* fsync leaves the data in the drive's own cache here; only the full flush empties that too. */
bool Durable_File(int fd)
{
   if (Uninterrupted([fd] { return fcntl(fd, F_FULLFSYNC); }) != -1) {
      return true;
   }
   if (!DurableIsUnknownRequest(errno)) {
      return false;
   }
   return Uninterrupted([fd] { return fsync(fd); }) == 0 || DurableIsUnknownRequest(errno);
}
