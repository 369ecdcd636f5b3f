#include "platform/processIdentity.h"

#include <cerrno>
#include <ctime>
#include <sys/proc.h>
#include <sys/sysctl.h>
#include <unistd.h>

bool ProcessIdentity_StartTime(pid_t pid, uint64_t *microseconds)
{
   int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
   struct kinfo_proc found = {};
   size_t size = sizeof found;

   if (sysctl(name, 4, &found, &size, nullptr, 0) == -1) {
      return false;
   }
   if (size == 0 || found.kp_proc.p_stat == SZOMB) {
      errno = ESRCH;
      return false;
   }
   const struct timeval &started = found.kp_proc.p_starttime;
   *microseconds = static_cast<uint64_t>(started.tv_sec) * 1000000 + static_cast<uint64_t>(started.tv_usec);
   return true;
}

bool ProcessIdentity_MachineIdentifier(char *buffer, size_t size)
{
   static constexpr char digits[] = "0123456789ABCDEF";
   static constexpr size_t length = 36;
   const struct timespec patience = {.tv_sec = 5, .tv_nsec = 0};
   uuid_t id;
   size_t at = 0;

   if (size <= length) {
      errno = ERANGE;
      return false;
   }
   if (gethostuuid(id, &patience) == -1) {
      return false;
   }
   for (size_t i = 0; i < sizeof id; i++) {
      /* 8-4-4-4-12 digits. */
      if (i == 4 || i == 6 || i == 8 || i == 10) {
         buffer[at++] = '-';
      }
      buffer[at++] = digits[id[i] >> 4];
      buffer[at++] = digits[id[i] & 0xf];
   }
   buffer[at] = '\0';
   return true;
}
