#include "platform/descriptors.h"

#include "base/owned.h"
#include "platform/posix/descriptorWalk.h"

#include <fcntl.h>

void Descriptors_CloseAllBut(int first, const int *keep, size_t count)
{
   DescriptorWalk_CloseAllBut(first, keep, count);
}

/* There is no call that does both at once: a fork by another thread in between would inherit the descriptor. */
int Descriptors_Accept(int listener, struct sockaddr *address, socklen_t *length)
{
   OwnedDescriptor accepted(accept(listener, address, length));

   if (accepted.get() == -1 || fcntl(accepted.get(), F_SETFD, FD_CLOEXEC) == -1) {
      return -1;
   }
   return accepted.release();
}
