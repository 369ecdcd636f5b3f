#include "platform/posix/descriptorWalk.h"

#include <algorithm>
#include <climits>
#include <unistd.h>

void DescriptorWalk_CloseAllBut(int first, const int *keep, size_t count)
{
   const int *const end = keep + count;
   const long limit = std::min<long>(sysconf(_SC_OPEN_MAX), INT_MAX);

   for (int fd = static_cast<int>(limit) - 1; fd >= std::max(first, 0); fd--) {
      if (std::find(keep, end, fd) == end) {
         close(fd);
      }
   }
}
