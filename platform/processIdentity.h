#ifndef TESSEL_PLATFORM_PROCESSIDENTITY_H
#define TESSEL_PLATFORM_PROCESSIDENTITY_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/* When a process started: a number of microseconds that no other process with the same id has had on this machine,
   from an origin that need not be the same after a restart of the system, and never 0. The settings of the
   clock do not change it. False with errno set and *microseconds untouched: ESRCH if there is no such process
   or nothing of it runs any more, even if nobody has collected it yet; any other error if the fact cannot be
   had, which says nothing about the process. */
[[nodiscard]] bool ProcessIdentity_StartTime(pid_t pid, uint64_t *microseconds);

/* Copies the identifier of the machine with its NUL to buffer: a text that stays as it is over restarts. Processes
   that find the same identifier can see each other under the ids they know themselves by, with the same start
   times; where the system keeps groups of processes apart, each group is a machine of its own. False with
   errno set and the content of buffer undefined; ERANGE if it needs more than size bytes. */
[[nodiscard]] bool ProcessIdentity_MachineIdentifier(char *buffer, size_t size);

#endif
