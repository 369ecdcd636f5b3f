#ifndef TESSEL_TOOLS_TOOLSESSION_H
#define TESSEL_TOOLS_TOOLSESSION_H

#include "base/owned.h"
#include "tools/toolProcess.h"

/* What a launcher and a mere client have in common: to be registered while a command runs. */

/* Registers with the daemon at the socket, within waitMs if that is not 0. 0 with *hold set: registered until it is closed.
   Otherwise an exit status, reported: no daemon, refused, too late, or 128 plus the number of a signal that
   came first. daemon may be null. */
[[nodiscard]] int ToolSession_Register(const char *socketPath, int waitMs, ToolChild *daemon,
                                       OwnedDescriptor *hold);

/* Runs the command, with TESSEL_SOCKET in its environment unless socketPath is null, to its end, and gives its exit
   status (126 or 127, reported, if it cannot be run). Signals meant for this process alone are passed on to
   it. With command null: waits for a signal, or the end of the daemon, and gives 0.

   Where the daemon is another one's child, hold tells when it goes, which is reported: the command is sent
   SIGTERM, and TOOL_EXIT_UNAVAILABLE given once it has ended. */
[[nodiscard]] int ToolSession_Run(char *const *command, const char *socketPath, ToolChild *daemon,
                                  int hold = -1);

/* Waits for the end of the daemon and gives its exit status, or, with the daemon left alone, 128 plus the number of
   a signal that came first. */
[[nodiscard]] int ToolSession_AwaitDaemon(ToolChild *daemon);

#endif
