#include "platform/descriptors.h"

#include "platform/posix/descriptorWalk.h"

#include <algorithm>
#include <climits>
#include <span>
#include <unistd.h>

namespace {

/* The smallest kept descriptor that is not below floor; UINT_MAX, which is no descriptor, if there is none. */
unsigned int DescriptorsNextKept(std::span<const int> keep, unsigned int floor)
{
   unsigned int next = UINT_MAX;

   for (const int fd : keep) {
      const auto candidate = static_cast<unsigned int>(fd);
      if (fd >= 0 && candidate >= floor) {
         next = std::min(next, candidate);
      }
   }
   return next;
}

} // namespace

/* Looks through the whole keep list again for each gap instead of sorting it: there is nowhere to put a sorted copy
   between fork and exec, and the list has a handful of entries. */
void Descriptors_CloseAllBut(int first, const int *keep, size_t count)
{
   unsigned int floor = static_cast<unsigned int>(std::max(first, 0));

   for (;;) {
      const unsigned int next = DescriptorsNextKept({keep, count}, floor);
      /* Fails only where the call is missing (ENOSYS) or a sandbox forbids it (EPERM). */
      if (next > floor && close_range(floor, next - 1, 0) == -1) {
         DescriptorWalk_CloseAllBut(first, keep, count);
         return;
      }
      if (next == UINT_MAX) {
         return;
      }
      floor = next + 1;
   }
}

int Descriptors_Accept(int listener, struct sockaddr *address, socklen_t *length)
{
   return accept4(listener, address, length, SOCK_CLOEXEC);
}
