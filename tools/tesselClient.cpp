#include "lib/public/program.h"
#include "tools/toolExit.h"
#include "tools/toolOptions.h"
#include "tools/toolSession.h"
#include "tools/toolSocket.h"

namespace {

constexpr char HELP[] =
    "usage: tessel-client [-q] [--socket PATH] [--wait SECONDS] [-- COMMAND...]\n"
    "\n"
    "Registers with a running tessel-daemon and keeps its services up while COMMAND "
    "runs, or until SIGINT or\n"
    "SIGTERM.\n"
    "\n"
    "  --socket PATH  where the daemon listens (default: $TESSEL_SOCKET)\n"
    "  -w, --wait SECONDS  how long the registration may take (default: for ever)\n"
    "  -q, --quiet    only say what goes wrong\n"
    "  -h, --help     print this\n"
    "  --version      print the version\n"
    "\n"
    "The exit status is that of COMMAND; 64: wrong use; 69: no daemon, or it ended first; 71: the "
    "system refused;\n"
    "75: the daemon refused; 124: it did not answer in time; 126, 127: COMMAND cannot be run; 128 + N: ended "
    "by signal N.\n";

} // namespace

int main(int argc, char **argv)
{
   static constexpr ToolUsage usage = {.program = "tessel-client",
                                       .help = HELP,
                                       .version = "tessel-client " TESSEL_VERSION "\n",
                                       .takesDaemon = false,
                                       .takesSocket = true};
   ToolOptions options;
   OwnedDescriptor hold;

   ToolProcess_Begin();
   const std::optional<int> done = ToolOptions_Parse(argc, argv, usage, &options);
   if (done.has_value()) {
      return *done;
   }
   const char *given = options.socket != nullptr ? options.socket : getenv("TESSEL_SOCKET");
   if (given == nullptr || given[0] == '\0') {
      Warning("no socket: give --socket PATH or set TESSEL_SOCKET\n");
      return TOOL_EXIT_USAGE;
   }
   const Owned<char> path(ToolSocket_AbsolutePath(given));
   if (path == nullptr) {
      return TOOL_EXIT_SYSTEM;
   }
   int status = ToolSession_Register(path.get(), options.waitMs, nullptr, &hold);
   if (status == TOOL_EXIT_OK) {
      status = ToolSession_Run(options.command, path.get(), nullptr, hold.get());
      hold.reset();
      Log("let go\n");
   }
   return status;
}
