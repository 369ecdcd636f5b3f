#ifndef TESSEL_PLATFORM_POSIX_DESCRIPTORMESSAGESIDE_H
#define TESSEL_PLATFORM_POSIX_DESCRIPTORMESSAGESIDE_H

#include <cstdint>

/* Where the two systems differ in passing descriptors; platform/posix/descriptorMessage.cpp is the rest. */

/* Flags for recvmsg that have received descriptors closed on exec, if the system has such. They come back in the
   message's own flags. */
extern const int DESCRIPTOR_MESSAGE_RECEIVE_FLAGS;

/* Whether this error of recvmsg means no more than that the peer hung up. */
bool DescriptorMessageIsHangUp(int error);

/* Has a received descriptor closed on exec where the flags above did not. */
void DescriptorMessageCloseOnExec(int descriptor);

/* DescriptorMessage_Send with these flags for sendmsg. */
bool DescriptorMessageSend(int socket, const uint8_t *byte, int descriptor, int flags);

#endif
