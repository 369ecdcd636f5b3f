#include "platform/localStream.h"

#include "base/owned.h"
#include "platform/posix/descriptorMessageSide.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* The kernel fixes these. */
static_assert(AF_UNIX == 1 && SOCK_STREAM == 1);
static_assert(sizeof(struct sockaddr_un) == 106 && offsetof(struct sockaddr_un, sun_path) == 2);

/* The signal is switched off while the socket is new: the option is refused once the peer has gone. */
int LocalStream_Socket()
{
   const int quiet = 1;

   OwnedDescriptor stream(socket(AF_UNIX, SOCK_STREAM, 0));
   if (stream.get() == -1 || fcntl(stream.get(), F_SETFD, FD_CLOEXEC) == -1 ||
       setsockopt(stream.get(), SOL_SOCKET, SO_NOSIGPIPE, &quiet, sizeof quiet) == -1) {
      return -1;
   }
   return stream.release();
}

bool LocalStream_Pipe(int ends[2])
{
   if (pipe(ends) == -1) {
      return false;
   }
   OwnedDescriptor reader(ends[0]);
   OwnedDescriptor writer(ends[1]);
   if (fcntl(reader.get(), F_SETFD, FD_CLOEXEC) == -1 || fcntl(writer.get(), F_SETFD, FD_CLOEXEC) == -1) {
      return false;
   }
   ends[0] = reader.release();
   ends[1] = writer.release();
   return true;
}

bool LocalStream_SendDescriptor(int socket, const uint8_t *byte, int descriptor)
{
   return DescriptorMessage_SendWithFlags(socket, byte, descriptor, 0);
}
