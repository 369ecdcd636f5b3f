#include "daemon/serviceProcess.h"

#include "base/owned.h"
#include "lib/public/program.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t FILE_MODE_MASK = 022;

/* A starter that called setsid(2) itself and left the terminal behind: no other process of the session can give it
   one. */
bool ServiceProcessLeadsSessionWithoutTerminal()
{
   if (getsid(0) != getpid()) {
      return false;
   }
   const OwnedDescriptor terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
   return terminal.get() == -1 && errno == ENXIO;
}

/* The leader of a group cannot leave its session. Dispositions are reset in the children, so that ignoring the signals
   would not reach them; what is blocked stays blocked. */
void ServiceProcessLeaveTerminal()
{
   sigset_t typed;

   if (setsid() != -1 || ServiceProcessLeadsSessionWithoutTerminal()) {
      return;
   }
   sigemptyset(&typed);
   for (const int number : {SIGINT, SIGQUIT, SIGTSTP}) {
      sigaddset(&typed, number);
   }
   sigprocmask(SIG_BLOCK, &typed, nullptr);
}

} // namespace

void ServiceProcess_LeaveLauncher()
{
   static constexpr char tag[] = "ServiceProcess_LeaveLauncher";
   const struct rlimit none = {.rlim_cur = 0, .rlim_max = 0};

   if (chdir("/") == -1) {
      Warning("%s: chdir errno %d.\n", tag, errno);
   }
   umask(FILE_MODE_MASK);
   if (setrlimit(RLIMIT_CORE, &none) == -1) {
      Warning("%s: setrlimit errno %d.\n", tag, errno);
   }
   ServiceProcessLeaveTerminal();
}
