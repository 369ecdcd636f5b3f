#ifndef TESSEL_PLATFORM_DESCRIPTORS_H
#define TESSEL_PLATFORM_DESCRIPTORS_H

#include <cstddef>
#include <sys/socket.h>

/* Closes every descriptor of the process from first up to the largest one that it could have open (where the
   system can say so cheaply: that it has open), except those among the count entries of keep, which need no
   order. Failures are ignored. Allocates nothing and takes no lock, so that it may run between fork and exec.
   Where the system offers it, the cost depends on the descriptors that are open, not on the limit. */
void Descriptors_CloseAllBut(int first, const int *keep, size_t count);

/* accept(2), with the new descriptor closed on exec. -1 with errno set. */
[[nodiscard]] int Descriptors_Accept(int listener, struct sockaddr *address, socklen_t *length);

#endif
