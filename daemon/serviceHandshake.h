#ifndef TESSEL_DAEMON_SERVICEHANDSHAKE_H
#define TESSEL_DAEMON_SERVICEHANDSHAKE_H

#include <cstdint>

/* The steps, on descriptors, of the conversation with a new client:

      client                         daemon
      connect             ------>    accept
                          <------    one byte, whose value means nothing
      one byte and one
      descriptor          ------>
                          <------    '1' registered or '0' refused
                                     close

   The client counts until the descriptor it passed becomes readable or reaches its end.

   Every step blocks without a time limit, so a client that stalls stalls the daemon. No step is retried,
   EINTR included. Every failure is reported by the routine that saw it. SIGPIPE is left as the process has
   it. */

constexpr char SERVICE_REPLY_REGISTERED = '1';
constexpr char SERVICE_REPLY_REFUSED = '0';

enum class ServiceImplReadResult {
   Error = 0,
   EndOfFile = 1,
   Byte = 2,
};

/* Takes a connection that waits, closed on exec; its peer's address is of no interest. -1 if there is none, which is
   silent (EAGAIN), or on failure. */
[[nodiscard]] int ServiceImplAccept(int listener);

/* Lets calls on the descriptor block, or not. */
[[nodiscard]] bool ServiceImplSetBlockingState(int fd, bool blocking);

/* Writes one byte. False is silent if the peer has gone (EPIPE). */
[[nodiscard]] bool ServiceImplWriteOne(int fd, uint8_t byte);

/* ServiceImplWriteOne of the first byte that a client is sent: the data byte of the message that arrived last, which may
   have been refused, or 0. */
[[nodiscard]] bool ServiceImplGreet(int fd);

/* Reads one byte into *byte, which is untouched otherwise. */
[[nodiscard]] ServiceImplReadResult ServiceImplReadOne(int fd, uint8_t *byte);

/* Receives one byte with exactly one descriptor into *receivedFd, which is then the caller's and is untouched
   otherwise. A peer that hung up gives false in silence. No descriptor of a refused message stays open. */
[[nodiscard]] bool ServiceImplRecvFd(int fd, int *receivedFd);

/* Sends fdToSend, which stays the caller's, with one byte. False is silent if the peer has gone (EPIPE). */
[[nodiscard]] bool ServiceImplSendFd(int fd, int fdToSend);

/* Ends the watch on *fd, if there is one, closes it and sets *fd to -1, on failure too. A failure also sets *ok,
   if given, to false; *ok is never set to true. -1 succeeds. */
bool ServiceImplClose(int *fd, bool *ok);

#endif
