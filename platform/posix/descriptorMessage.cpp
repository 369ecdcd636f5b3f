#include "platform/descriptorMessage.h"

#include "platform/posix/descriptorMessageSide.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

/* A message of one byte and room for one descriptor. The control length is that of the record without the padding
   behind it: where the padding is as large as a descriptor, a second one would fit into it unseen. */
struct Message {
   struct iovec data;
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
   struct msghdr header;
};

void DescriptorMessagePrepare(Message *message, void *byte)
{
   memset(message, 0, sizeof *message);
   message->data.iov_base = byte;
   message->data.iov_len = 1;
   message->header.msg_iov = &message->data;
   message->header.msg_iovlen = 1;
   message->header.msg_control = message->control;
   message->header.msg_controllen = CMSG_LEN(sizeof(int));
}

int DescriptorMessageDescriptor(const struct cmsghdr *record)
{
   int descriptor;
   memcpy(&descriptor, CMSG_DATA(record), sizeof descriptor);
   return descriptor;
}

bool DescriptorMessageCarriesOne(const struct cmsghdr *record)
{
   return record != nullptr && record->cmsg_level == SOL_SOCKET && record->cmsg_type == SCM_RIGHTS &&
          record->cmsg_len == CMSG_LEN(sizeof(int));
}

/* A refused message can have brought a descriptor all the same: the first of two is installed before the second
   is cut off. Left open, it would let a client use up the table. */
void DescriptorMessageDiscard(const struct cmsghdr *record)
{
   const int savedErrno = errno;

   if (DescriptorMessageCarriesOne(record)) {
      close(DescriptorMessageDescriptor(record));
   }
   errno = savedErrno;
}

} // namespace

DescriptorMessageResult DescriptorMessage_Receive(int socket, uint8_t *byte, int *descriptor)
{
   Message message;

   DescriptorMessagePrepare(&message, byte);
   const ssize_t length = recvmsg(socket, &message.header, DESCRIPTOR_MESSAGE_RECEIVE_FLAGS);
   if (length == -1) {
      return DescriptorMessageIsHangUp(errno) ? DescriptorMessageResult::End
                                              : DescriptorMessageResult::Failed;
   }
   const struct cmsghdr *record = CMSG_FIRSTHDR(&message.header);
   const int flags = message.header.msg_flags & ~DESCRIPTOR_MESSAGE_RECEIVE_FLAGS;
   if (length == 0 || flags != 0 || !DescriptorMessageCarriesOne(record)) {
      DescriptorMessageDiscard(record);
      return length == 0 ? DescriptorMessageResult::End : DescriptorMessageResult::Refused;
   }
   *descriptor = DescriptorMessageDescriptor(record);
   DescriptorMessageCloseOnExec(*descriptor);
   return DescriptorMessageResult::Received;
}

bool DescriptorMessage_Send(int socket, const uint8_t *byte, int descriptor)
{
   return DescriptorMessageSend(socket, byte, descriptor, 0);
}

bool DescriptorMessageSend(int socket, const uint8_t *byte, int descriptor, int flags)
{
   Message message;

   DescriptorMessagePrepare(&message, const_cast<uint8_t *>(byte));
   struct cmsghdr *record = CMSG_FIRSTHDR(&message.header);
   record->cmsg_level = SOL_SOCKET;
   record->cmsg_type = SCM_RIGHTS;
   record->cmsg_len = CMSG_LEN(sizeof(int));
   memcpy(CMSG_DATA(record), &descriptor, sizeof descriptor);
   return sendmsg(socket, &message.header, flags) != -1;
}
