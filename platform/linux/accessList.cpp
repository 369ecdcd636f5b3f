#include "platform/accessList.h"

#include <cerrno>
#include <linux/limits.h>
#include <sys/xattr.h>

namespace {

constexpr const char *LIST = "system.posix_acl_access";

} // namespace

bool AccessList_Copy(int from, int to)
{
   char list[XATTR_SIZE_MAX];
   const ssize_t size = fgetxattr(from, LIST, list, sizeof list);

   if (size != -1) {
      return fsetxattr(to, LIST, list, static_cast<size_t>(size), 0) == 0;
   }
   if (errno != ENODATA) {
      return errno == EOPNOTSUPP;
   }
   return fremovexattr(to, LIST) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
}
