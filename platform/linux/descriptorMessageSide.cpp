#include "platform/posix/descriptorMessageSide.h"

#include <cerrno>
#include <sys/socket.h>

/* The wire and the kernel fix these. The last one is why the room for a record leaves out its padding. */
static_assert(SOL_SOCKET == 1 && SCM_RIGHTS == 1);
static_assert(sizeof(struct cmsghdr) == 16 && sizeof(struct msghdr) == 56);
static_assert(CMSG_LEN(sizeof(int)) == 20 && CMSG_SPACE(sizeof(int)) == 24);

size_t DescriptorMessageSide_Room()
{
   return 1;
}

int DescriptorMessageSide_ReceiveFlags()
{
   return MSG_CMSG_CLOEXEC;
}

/* A peer that closes with our own last byte unread breaks the connection here, instead of ending it. */
bool DescriptorMessageSide_IsHangUp(int error)
{
   return error == ECONNRESET;
}

void DescriptorMessageSide_CloseOnExec([[maybe_unused]] int descriptor)
{
}
