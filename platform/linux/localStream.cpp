#include "platform/localStream.h"

#include "platform/posix/descriptorMessageSide.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

int LocalStream_Socket()
{
   return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

bool LocalStream_Pipe(int ends[2])
{
   return pipe2(ends, O_CLOEXEC) == 0;
}

bool LocalStream_SendDescriptor(int socket, const uint8_t *byte, int descriptor)
{
   return DescriptorMessage_SendWithFlags(socket, byte, descriptor, MSG_NOSIGNAL);
}
