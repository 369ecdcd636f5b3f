#include "platform/descriptors.h"

#include "platform/posix/descriptorWalk.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

void Descriptors_CloseAllBut(int first, const int *keep, size_t count)
{
   DescriptorWalk_CloseAllBut(first, keep, count);
}

/* There is no call that does both at once: a fork by another thread in between would inherit the descriptor. */
int Descriptors_Accept(int listener, struct sockaddr *address, socklen_t *length)
{
   const int accepted = accept(listener, address, length);

   if (accepted != -1 && fcntl(accepted, F_SETFD, FD_CLOEXEC) == -1) {
      const int saved = errno;
      close(accepted);
      errno = saved;
      return -1;
   }
   return accepted;
}
