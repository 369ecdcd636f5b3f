#include "platform/processFacts.h"

#include <algorithm>
#include <mach-o/dyld.h>
#include <sys/sysctl.h>

bool ProcessFacts_ExecutablePath(char *buffer, size_t size)
{
   auto room = static_cast<uint32_t>(std::min<size_t>(size, UINT32_MAX));

   return _NSGetExecutablePath(buffer, &room) == 0;
}

bool ProcessFacts_SystemValue(const char *name, int32_t *value)
{
   int32_t found = 0;
   size_t size = sizeof found;

   if (sysctlbyname(name, &found, &size, nullptr, 0) == -1) {
      return false;
   }
   *value = found;
   return true;
}
