#ifndef TESSEL_PLATFORM_DESCRIPTORS_H
#define TESSEL_PLATFORM_DESCRIPTORS_H

#include <cstddef>
#include <sys/socket.h>

/* Closes every descriptor of the process from first upwards, except the count entries of keep: any numbers in any
   order, duplicates, -1 and numbers below first included; keep may be null if count is 0. Failures are
   ignored.

   Made for the moment between fork and exec: allocates nothing, takes no lock.

   Where the system can do it in a few calls, the cost depends on what is open, and descriptors above a
   lowered limit on open files are closed too. Elsewhere every number below that limit is tried, none if it
   cannot be told. */
void Descriptors_CloseAllBut(int first, const int *keep, size_t count);

/* accept(2), with the new descriptor, which is the caller's, closed on exec. -1 with errno set. */
[[nodiscard]] int Descriptors_Accept(int listener, struct sockaddr *address, socklen_t *length);

#endif
