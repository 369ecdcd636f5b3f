#include "platform/processFacts.h"

#include <cerrno>
#include <unistd.h>

/* The kernel's own link rather than the path given to exec: that one is the caller's word, and may be relative to a
   folder which is no longer the current one. */
bool ProcessFacts_ExecutablePath(char *buffer, size_t size)
{
   const ssize_t length = readlink("/proc/self/exe", buffer, size);

   /* A result that fills the buffer was cut, or leaves no room for the NUL. */
   if (length < 0 || static_cast<size_t>(length) >= size) {
      return false;
   }
   buffer[length] = '\0';
   return true;
}

bool ProcessFacts_SystemValue(const char * /*name*/, int32_t * /*value*/)
{
   errno = ENOENT;
   return false;
}
