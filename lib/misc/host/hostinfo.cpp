#include "lib/misc/host/hostinfo.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "platform/descriptors.h"
#include "platform/processFacts.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int LAST_RESET_SIGNAL = 32;
constexpr int FIRST_CLOSED_DESCRIPTOR = 3;
constexpr int EXEC_FAILED_STATUS = 127;
constexpr uint32_t PRIVILEGE_COUNT = 2;
constexpr size_t MODULE_PATH_SIZE = 1024;

void HostinfoDisarmTimers()
{
   const struct itimerval disarmed = {};

   for (const int timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
      setitimer(timer, &disarmed, nullptr);
   }
}

/* Exec resets handlers by itself, but a signal that the parent ignores would stay ignored in the program. */
void HostinfoResetSignals()
{
   struct sigaction action = {};

   action.sa_handler = SIG_DFL;
   action.sa_flags = SA_RESTART;
   sigfillset(&action.sa_mask);
   for (int number = 1; number <= LAST_RESET_SIGNAL; number++) {
      sigaction(number, &action, nullptr);
   }
}

void HostinfoRaiseAddressSpaceLimit()
{
   struct rlimit limit;

   if (getrlimit(RLIMIT_AS, &limit) == 0) {
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_AS, &limit);
   }
}

int32_t HostinfoWaitForChild(pid_t child)
{
   int status;

   if (Uninterrupted([&] { return waitpid(child, &status, 0); }) == -1) {
      return errno == ECHILD ? 0 : -1;
   }
   return status;
}

} // namespace

void Hostinfo_ResetChildState(const int *keepFds, size_t numKeepFds)
{
   HostinfoDisarmTimers();
   HostinfoResetSignals();
   Descriptors_CloseAllBut(FIRST_CLOSED_DESCRIPTOR, keepFds, numKeepFds);
   HostinfoRaiseAddressSpaceLimit();
}

int32_t Hostinfo_Execute(const char *path, char *const *argv, bool wait, const int *keepFds,
                         size_t numKeepFds)
{
   if (path == nullptr) {
      return 1;
   }
   const pid_t child = fork();
   if (child == -1) {
      return -1;
   }
   if (child == 0) {
      Hostinfo_ResetChildState(keepFds, numKeepFds);
      execvp(path, argv);
      exit(EXEC_FAILED_STATUS);
   }
   return wait ? HostinfoWaitForChild(child) : 0;
}

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
