#ifndef TESSEL_PLATFORM_POSIX_DESCRIPTORMESSAGESIDE_H
#define TESSEL_PLATFORM_POSIX_DESCRIPTORMESSAGESIDE_H

#include <cstddef>
#include <cstdint>

/* Where the two systems differ in passing descriptors; platform/posix/descriptorMessage.cpp is the rest. */

/* For how many descriptors a received message is given room. Where the kernel installs no more of them than there is
   room for, that is one. Where it installs all of them first and then cuts what it tells about them, it is
   all that one message can carry: a descriptor that is not told about could not be closed. */
size_t DescriptorMessageSide_Room();

/* The largest room on any system. */
constexpr size_t DESCRIPTOR_MESSAGE_MAX_ROOM = 512;

/* Flags for recvmsg that have received descriptors closed on exec, if the system has such. They come back in the
   message's own flags. */
int DescriptorMessageSide_ReceiveFlags();

/* Whether this error of recvmsg means no more than that the peer hung up. */
bool DescriptorMessageSide_IsHangUp(int error);

/* Has a received descriptor closed on exec where the flags above did not. */
void DescriptorMessageSide_CloseOnExec(int descriptor);

/* DescriptorMessage_Send with these flags for sendmsg. */
bool DescriptorMessage_SendWithFlags(int socket, const uint8_t *byte, int descriptor, int flags);

#endif
