#include "platform/posix/descriptorMessageSide.h"

#include <cerrno>
#include <sys/socket.h>

const size_t DESCRIPTOR_MESSAGE_ROOM = 1;
const int DESCRIPTOR_MESSAGE_RECEIVE_FLAGS = MSG_CMSG_CLOEXEC;

/* A peer that closes with our own last byte unread breaks the connection here, instead of ending it. */
bool DescriptorMessageIsHangUp(int error)
{
   return error == ECONNRESET;
}

void DescriptorMessageCloseOnExec([[maybe_unused]] int descriptor)
{
}
