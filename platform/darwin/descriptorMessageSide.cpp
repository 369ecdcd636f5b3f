#include "platform/posix/descriptorMessageSide.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/socket.h>

/* The wire and the kernel fix these. */
static_assert(SOL_SOCKET == 0xffff);
static_assert(SCM_RIGHTS == 1);
static_assert(sizeof(struct cmsghdr) == 12 && offsetof(struct cmsghdr, cmsg_level) == 4);
static_assert(sizeof(struct msghdr) == 48 && sizeof(struct iovec) == 16);
static_assert(CMSG_LEN(sizeof(int)) == 16 && CMSG_SPACE(sizeof(int)) == 16);

size_t DescriptorMessageSide_Room()
{
   return DESCRIPTOR_MESSAGE_MAX_ROOM;
}

int DescriptorMessageSide_ReceiveFlags()
{
   return 0;
}

bool DescriptorMessageSide_IsHangUp([[maybe_unused]] int error)
{
   return false;
}

void DescriptorMessageSide_CloseOnExec(int descriptor)
{
   fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}
