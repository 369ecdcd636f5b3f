#ifndef TESSEL_LIB_MISC_HOST_HOSTINFO_H
#define TESSEL_LIB_MISC_HOST_HOSTINFO_H

#include <cstddef>
#include <cstdint>

/* Runs another program as a child process, after Hostinfo_ResetChildState in the child. path is looked for along
   the search path if it holds no "/"; argv ends with a null and its first entry is passed as given. Besides
   0, 1 and 2 the child keeps the numKeepFds descriptors in keepFds (null if there are none), except those
   that are closed on exec. Nothing is logged.

   With wait the calling thread blocks until the child has ended, whatever signals arrive, and the result is
   the raw wait status: exit status n gives n * 256. A program that cannot be run gives 127 * 256. Where
   children are collected by someone else (SIGCHLD ignored, say) it is 0, as for success; -1 if the wait fails
   in another way. Without wait the result is 0, and this routine never collects the child.

   1 if path is null, with nothing started; -1 with errno set if the fork fails.

   A child that cannot run the program leaves through exit(127): the exit handlers of this process run in it,
   and whatever waits in the buffers of stdio is written a second time. Flush them before the call. */
int32_t Hostinfo_Execute(const char *path, char *const *argv, bool wait, const int *keepFds,
                         size_t numKeepFds);

/* Undoes in a child, between fork and exec, what a long-running process may have changed for itself: disarms the
   interval timers, gives the signals 1 to 32 their default dispositions, closes every descriptor but 0, 1, 2
   and the numKeepFds ones in keepFds (see Descriptors_CloseAllBut), and raises the soft limit on the address
   space to the hard one. The signal mask stays. Failures are ignored; allocates nothing. */
void Hostinfo_ResetChildState(const int *keepFds, size_t numKeepFds);

/* 1 the process runs translated (on a processor it was not built for), 0 it runs natively or on a system without
   translation, -1 unknown. Other values are the system's, passed on. */
int32_t Hostinfo_RosettaState();

/* The path of the running executable as the system reports it: it may hold links and relative components. A new
   string that the caller frees. privilege is 0 or 1, which act alike. Null, after a warning, for any other
   privilege or for a path of more than 1,023 bytes. */
[[nodiscard]] char *Hostinfo_GetModulePath(uint32_t privilege);

#endif
