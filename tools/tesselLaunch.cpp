#include "lib/public/program.h"
#include "lib/string/str.h"
#include "platform/localStream.h"
#include "platform/processFacts.h"
#include "tools/toolExit.h"
#include "tools/toolOptions.h"
#include "tools/toolSession.h"
#include "tools/toolSocket.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char HELP[] =
    "usage: tessel-launch [-q] [--daemon PATH] [--socket PATH] [--wait SECONDS] [-- COMMAND...]\n"
    "\n"
    "Starts tessel-daemon and keeps its services up while COMMAND runs, or until SIGINT or SIGTERM.\n"
    "\n"
    "  --daemon PATH  the daemon (default: where both are installed, else\n"
    "                 " TESSEL_DAEMON_PATH ")\n"
    "  --socket PATH  where clients connect (default: in a new private folder)\n"
    "  -w, --wait SECONDS  how long the start of the services may take (default: for ever)\n"
    "  -q, --quiet    only say what goes wrong\n"
    "  -h, --help     print this\n"
    "  --version      print the version\n"
    "\n"
    "COMMAND finds the socket's path in TESSEL_SOCKET. The exit status is that of COMMAND, and if there is\n"
    "none or it succeeded that of the daemon; 64: wrong use; 69: no daemon; 71: the system refused; 75: the\n"
    "daemon refused; 124: the services were not up in time; 126, 127: COMMAND cannot be run; 128 + N: ended "
    "by signal N.\n";

/* Where the daemon is installed, seen from this program's own place, which may have been moved with it. Null if it is not
   there. */
char *LaunchDaemonBeside()
{
   char executable[PATH_MAX];
   char own[PATH_MAX];

   if (!ProcessFacts_ExecutablePath(executable, sizeof executable) || realpath(executable, own) == nullptr) {
      return nullptr;
   }
   *strrchr(own, '/') = '\0';
   Owned<char> daemon(Str_SafeAsprintf(nullptr, "%s/%s", own, TESSEL_DAEMON_BESIDE));
   return access(daemon.get(), X_OK) == 0 ? daemon.release() : nullptr;
}

/* Both of the launcher's own descriptors go once the daemon is about to be waited for: while one is open, a daemon
   that has no client waits for the next one. */
int LaunchHold(const ToolOptions &options, const char *socketPath, OwnedDescriptor launcher,
               ToolChild *daemon, bool *late)
{
   OwnedDescriptor hold;

   const int status = ToolSession_Register(socketPath, options.waitMs, daemon, &hold);
   *late = status == TOOL_EXIT_TIMED_OUT;
   const int result = status == TOOL_EXIT_OK ? ToolSession_Run(options.command, socketPath, daemon) : status;
   hold.reset();
   launcher.reset();
   return result;
}

int LaunchDaemon(const ToolOptions &options, ToolSocket *made)
{
   const Owned<char> beside(LaunchDaemonBeside());
   const char *path = options.daemon != nullptr ? options.daemon
                      : beside != nullptr       ? beside.get()
                                                : TESSEL_DAEMON_PATH;
   ToolChild daemon;
   int ends[2];

   if (!LocalStream_Pipe(ends)) {
      Warning("cannot make a pipe: %s\n", strerror(errno));
      return TOOL_EXIT_SYSTEM;
   }
   OwnedDescriptor reader(ends[0]);
   OwnedDescriptor writer(ends[1]);
   if (!ToolProcess_StartDaemon(&daemon, path, made->listener.get(), reader.get())) {
      Warning("cannot start the daemon %s: %s\n", path, strerror(errno));
      return TOOL_EXIT_UNAVAILABLE;
   }
   /* With a copy of the socket open here, clients would wait for ever on a daemon that has gone. */
   made->listener.reset();
   reader.reset();
   Log("daemon started, process %d, socket %s\n", static_cast<int>(daemon.pid), made->path.get());
   bool late = false;
   const int status = LaunchHold(options, made->path.get(), std::move(writer), &daemon, &late);
   if (late) {
      Warning("not waiting for the daemon, process %d, which goes on\n", static_cast<int>(daemon.pid));
      return status;
   }
   const int daemonStatus = ToolSession_AwaitDaemon(&daemon);
   return status != TOOL_EXIT_OK ? status : daemonStatus;
}

} // namespace

int main(int argc, char **argv)
{
   static constexpr ToolUsage usage = {.program = "tessel-launch",
                                       .help = HELP,
                                       .version = "tessel-launch " TESSEL_VERSION "\n",
                                       .takesDaemon = true,
                                       .takesSocket = true};
   ToolOptions options;
   ToolSocket made;

   ToolProcess_Begin();
   const std::optional<int> done = ToolOptions_Parse(argc, argv, usage, &options);
   if (done.has_value()) {
      return *done;
   }
   if (!ToolSocket_Open(&made, options.socket)) {
      return TOOL_EXIT_SYSTEM;
   }
   const int status = LaunchDaemon(options, &made);
   ToolSocket_Remove(&made);
   return status;
}
