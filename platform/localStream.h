#ifndef TESSEL_PLATFORM_LOCALSTREAM_H
#define TESSEL_PLATFORM_LOCALSTREAM_H

#include <cstdint>

/* Local-domain streams and pipes for the programs around the daemon: a program that they execute inherits none of
   them, and a peer that has gone is an error, never a signal. */

/* A new stream socket, neither bound nor connected, closed on exec. -1 with errno set. */
[[nodiscard]] int LocalStream_Socket();

/* A new pipe, both ends closed on exec: reader in ends[0], writer in ends[1]. False with errno set. Where the
   system makes the pipe first and marks it afterwards, a child that another thread forks in between can
   inherit it. */
[[nodiscard]] bool LocalStream_Pipe(int ends[2]);

/* DescriptorMessage_Send for a socket of LocalStream_Socket, but without the signal: a peer that has gone is
   EPIPE. */
[[nodiscard]] bool LocalStream_SendDescriptor(int socket, const uint8_t *byte, int descriptor);

#endif
