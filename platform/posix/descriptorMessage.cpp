#include "platform/descriptorMessage.h"

#include "platform/posix/descriptorMessageSide.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr size_t ONE_DESCRIPTOR = CMSG_LEN(sizeof(int));

/* A message of one byte, and its control record. The control length is that of the record without the padding behind it:
   where the padding is as large as a descriptor, one more would fit into it unseen. */
struct DescriptorMessageParts {
   struct iovec data;
   alignas(struct cmsghdr) char control[CMSG_SPACE(DESCRIPTOR_MESSAGE_MAX_ROOM * sizeof(int))];
   struct msghdr header;
};

void DescriptorMessagePrepare(DescriptorMessageParts *message, void *byte, size_t descriptors)
{
   message->data = {.iov_base = byte, .iov_len = 1};
   /* A record left from before would pass for one that came. */
   memset(message->control, 0, CMSG_LEN(sizeof(int)));
   message->header = {};
   message->header.msg_iov = &message->data;
   message->header.msg_iovlen = 1;
   message->header.msg_control = message->control;
   message->header.msg_controllen =
       static_cast<decltype(message->header.msg_controllen)>(CMSG_LEN(descriptors * sizeof(int)));
}

/* How many descriptors came with the message: the system says so by the length of the record, unless it cut it. */
size_t DescriptorMessageCount(const struct msghdr &header)
{
   const struct cmsghdr *record = CMSG_FIRSTHDR(&header);

   if (record == nullptr || record->cmsg_level != SOL_SOCKET || record->cmsg_type != SCM_RIGHTS) {
      return 0;
   }
   const size_t bytes = std::min<size_t>(record->cmsg_len, header.msg_controllen);
   return bytes < ONE_DESCRIPTOR ? 0 : (bytes - CMSG_LEN(0)) / sizeof(int);
}

int DescriptorMessageDescriptor(const struct msghdr &header, size_t index)
{
   int descriptor;
   memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&header)) + index * sizeof descriptor, sizeof descriptor);
   return descriptor;
}

bool DescriptorMessageCarriesOne(const struct msghdr &header)
{
   return DescriptorMessageCount(header) == 1 && CMSG_FIRSTHDR(&header)->cmsg_len == ONE_DESCRIPTOR;
}

/* A refused message can have brought descriptors all the same: the first of two is installed before the second is cut
   off. Left open, they would let a client use up the table. */
void DescriptorMessageDiscard(const struct msghdr &header)
{
   for (size_t i = 0; i < DescriptorMessageCount(header); i++) {
      close(DescriptorMessageDescriptor(header, i));
   }
}

} // namespace

DescriptorMessageResult DescriptorMessage_Receive(int socket, uint8_t *byte, int *descriptor)
{
   DescriptorMessageParts message;

   DescriptorMessagePrepare(&message, byte, DescriptorMessageSide_Room());
   const ssize_t length = recvmsg(socket, &message.header, DescriptorMessageSide_ReceiveFlags());
   if (length == -1) {
      return DescriptorMessageSide_IsHangUp(errno) ? DescriptorMessageResult::End
                                                   : DescriptorMessageResult::Failed;
   }
   const int flags = message.header.msg_flags & ~DescriptorMessageSide_ReceiveFlags();
   if (length == 0 || flags != 0 || !DescriptorMessageCarriesOne(message.header)) {
      DescriptorMessageDiscard(message.header);
      return length == 0 ? DescriptorMessageResult::End : DescriptorMessageResult::Refused;
   }
   *descriptor = DescriptorMessageDescriptor(message.header, 0);
   DescriptorMessageSide_CloseOnExec(*descriptor);
   return DescriptorMessageResult::Received;
}

bool DescriptorMessage_Send(int socket, const uint8_t *byte, int descriptor)
{
   return DescriptorMessage_SendWithFlags(socket, byte, descriptor, 0);
}

bool DescriptorMessage_SendWithFlags(int socket, const uint8_t *byte, int descriptor, int flags)
{
   DescriptorMessageParts message;

   DescriptorMessagePrepare(&message, const_cast<uint8_t *>(byte), 1);
   struct cmsghdr *record = CMSG_FIRSTHDR(&message.header);
   record->cmsg_level = SOL_SOCKET;
   record->cmsg_type = SCM_RIGHTS;
   record->cmsg_len = CMSG_LEN(sizeof(int));
   memcpy(CMSG_DATA(record), &descriptor, sizeof descriptor);
   return sendmsg(socket, &message.header, flags) != -1;
}
