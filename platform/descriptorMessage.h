#ifndef TESSEL_PLATFORM_DESCRIPTORMESSAGE_H
#define TESSEL_PLATFORM_DESCRIPTORMESSAGE_H

#include <cstdint>

/* Messages that carry one data byte and one descriptor over a local-domain stream socket. */

enum class DescriptorMessageResult {
   Received, /* One byte and exactly one descriptor, which is now the caller's. */
   End,      /* The peer hung up without sending. */
   Failed,   /* errno says why. */
   Refused,  /* Something else arrived. Every descriptor that came with it has been closed. */
};

/* Waits for one message. The data byte of whatever arrives, a refused message included, is stored in *byte.
 *descriptor is written only with Received; that descriptor is closed on exec. Never retried on EINTR. */
[[nodiscard]] DescriptorMessageResult DescriptorMessage_Receive(int socket, uint8_t *byte, int *descriptor);

/* Sends *byte with one descriptor, which stays the caller's. False with errno set. A peer that has gone raises
   SIGPIPE, or EPIPE where the signal is ignored. */
[[nodiscard]] bool DescriptorMessage_Send(int socket, const uint8_t *byte, int descriptor);

#endif
