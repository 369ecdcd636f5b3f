#include "base/owned.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "platform/localStream.h"
#include "tools/toolExit.h"
#include "tools/toolReport.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

/* The teardown controls of the two kernel extensions, as sockets in a folder that the daemon sees under
   /run/tessel-kext on a system without such extensions. For tests and the demo; not installed. */

namespace {

constexpr char USAGE[] =
    "usage: tessel-kext-standin FOLDER DELAY-MS answer|close\n"
    "\n"
    "Serves the teardown controls until a signal ends it: each connection gets one byte, or none,\n"
    "DELAY-MS after it was made, and is closed. Prints \"ready\" once it listens.\n";

constexpr const char *EXTENSIONS[] = {"hvcore", "hvlink"};

struct Manner {
   int delayMs;
   bool answers;
};

OwnedDescriptor StandinListen(const char *folder, const char *extension)
{
   struct sockaddr_un address = {};

   address.sun_family = AF_UNIX;
   if (Str_Snprintf(address.sun_path, sizeof address.sun_path, "%s/com.kestra.kext.%s.teardown", folder,
                    extension) == -1) {
      errno = ENAMETOOLONG;
      return OwnedDescriptor();
   }
   OwnedDescriptor listener(LocalStream_Socket());
   if (bind(listener.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == -1 ||
       listen(listener.get(), SOMAXCONN) == -1) {
      listener.reset();
   }
   return listener;
}

void StandinServe(int listener, const Manner &manner)
{
   const OwnedDescriptor connection(accept(listener, nullptr, nullptr));

   poll(nullptr, 0, manner.delayMs);
   if (manner.answers) {
      [[maybe_unused]] const ssize_t sent = write(connection.get(), "x", 1);
   }
}

int StandinRun(const char *folder, const Manner &manner)
{
   OwnedDescriptor listeners[2];
   struct pollfd wanted[2];

   for (size_t i = 0; i < 2; i++) {
      listeners[i] = StandinListen(folder, EXTENSIONS[i]);
      if (listeners[i].get() == -1) {
         Warning("cannot listen for %s in %s: %s\n", EXTENSIONS[i], folder, strerror(errno));
         return TOOL_EXIT_SYSTEM;
      }
      wanted[i] = {.fd = listeners[i].get(), .events = POLLIN, .revents = 0};
   }
   if (!ToolReport_Print("ready\n")) {
      return TOOL_EXIT_SYSTEM;
   }
   while (poll(wanted, 2, -1) != -1) {
      for (const struct pollfd &source : wanted) {
         if (source.revents != 0) {
            StandinServe(source.fd, manner);
         }
      }
   }
   return TOOL_EXIT_SYSTEM;
}

} // namespace

int main(int argc, char **argv)
{
   Manner manner = {.delayMs = -1, .answers = false};

   ToolReport_SetProgram("tessel-kext-standin");
   if (argc == 4) {
      const std::string_view delay(argv[2]);
      const std::string_view how(argv[3]);
      manner.answers = how == "answer";
      const auto parsed = std::from_chars(delay.data(), delay.data() + delay.size(), manner.delayMs);
      if (parsed.ptr == delay.data() + delay.size() && manner.delayMs >= 0 &&
          (manner.answers || how == "close")) {
         return StandinRun(argv[1], manner);
      }
   }
   Warning("%s", USAGE);
   return TOOL_EXIT_USAGE;
}
