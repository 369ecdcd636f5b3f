#include "lib/misc/host/hostinfo.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "platform/processFacts.h"

#include <cerrno>

namespace {

constexpr uint32_t PRIVILEGE_COUNT = 2;
constexpr size_t MODULE_PATH_SIZE = 1024;

} // namespace

int32_t Hostinfo_RosettaState()
{
   int32_t translated;

   if (ProcessFacts_SystemValue("sysctl.proc_translated", &translated)) {
      return translated;
   }
   return errno == ENOENT ? 0 : -1;
}

char *Hostinfo_GetModulePath(uint32_t privilege)
{
   if (privilege >= PRIVILEGE_COUNT) {
      Warning("%s: invalid privilege parameter\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   Owned<char> path(static_cast<char *>(Util_SafeMalloc(MODULE_PATH_SIZE)));
   if (!ProcessFacts_ExecutablePath(path.get(), MODULE_PATH_SIZE)) {
      Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", "Hostinfo_GetModulePath");
      return nullptr;
   }
   return path.release();
}
