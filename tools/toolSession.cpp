#include "tools/toolSession.h"

#include "client/tesselclient.h"
#include "lib/public/program.h"
#include "platform/localStream.h"
#include "tools/toolExit.h"

#include <csignal>
#include <cstring>

namespace {

struct Request {
   const char *socketPath;
   int waitMs;
   int reader;
};

/* The exit status is the outcome. */
int ToolSessionRequest(void *context)
{
   const auto *request = static_cast<const Request *>(context);
   char text[TESSEL_TEXT_SIZE];

   const TesselResult result =
       TesselClient_RegisterDescriptor(request->socketPath, request->waitMs, request->reader);
   if (result.outcome != TESSEL_REGISTERED) {
      TesselClient_Describe(&result, text, sizeof text);
      Warning("not registered at %s: %s\n", request->socketPath, text);
   }
   return result.outcome;
}

int ToolSessionOutcome(const ToolChild &request)
{
   switch (request.status) {
   case TESSEL_REGISTERED:
      Log("registered: the services are up\n");
      return TOOL_EXIT_OK;
   case TESSEL_REFUSED:
      return TOOL_EXIT_REFUSED;
   case TESSEL_TIMED_OUT:
      return TOOL_EXIT_TIMED_OUT;
   default:
      return TOOL_EXIT_UNAVAILABLE;
   }
}

int ToolSessionStartCommand(ToolChild *child, char *const *command, const char *socketPath)
{
   const bool prepared = socketPath == nullptr || setenv("TESSEL_SOCKET", socketPath, 1) == 0;
   if (prepared && ToolProcess_StartCommand(child, command)) {
      return TOOL_EXIT_OK;
   }
   const int error = errno;
   Warning("cannot run %s: %s\n", command[0], strerror(error));
   return error == ENOENT ? TOOL_EXIT_NOT_FOUND : TOOL_EXIT_NOT_EXECUTABLE;
}

/* What the terminal sends, it sends to the command too. */
void ToolSessionPassOn(const ToolEvent &event, const ToolChild &command)
{
   if (!event.fromTerminal) {
      Log("signal %d: passed on to the command\n", event.signal);
      kill(command.pid, event.signal);
   }
}

void ToolSessionReportEnd(const char *what, const ToolChild &child)
{
   if (child.status > TOOL_EXIT_SIGNAL) {
      Log("%s ended by signal %d\n", what, child.status - TOOL_EXIT_SIGNAL);
   } else {
      Log("%s ended, exit status %d\n", what, child.status);
   }
}

void ToolSessionReportGone()
{
   Warning("the daemon has ended while its services are in use\n");
}

int ToolSessionAwaitCommand(ToolChild *command, ToolChild *daemon, int hold)
{
   bool gone = false;

   for (;;) {
      const ToolEvent event = ToolProcess_Next({command, daemon}, gone ? -1 : hold);
      if (event.ended == command) {
         ToolSessionReportEnd("the command", *command);
         return gone ? TOOL_EXIT_UNAVAILABLE : command->status;
      }
      if (event.ended != nullptr) {
         ToolSessionReportGone();
      } else if (event.signal != 0) {
         ToolSessionPassOn(event, *command);
      } else {
         gone = true;
         ToolSessionReportGone();
         kill(command->pid, SIGTERM);
      }
   }
}

} // namespace

/* The conversation takes as long as the start of the services, or as another client stalls the daemon. It is held in
   a process of its own, so that a signal is heeded meanwhile; the descriptor that holds the registration is
   here, and closing it takes back a request under way. */
int ToolSession_Register(const char *socketPath, int waitMs, ToolChild *daemon, OwnedDescriptor *hold)
{
   ToolChild conversation;
   int ends[2];

   if (!LocalStream_Pipe(ends)) {
      Warning("cannot make a pipe: %s\n", strerror(errno));
      return TOOL_EXIT_SYSTEM;
   }
   const OwnedDescriptor reader(ends[0]);
   OwnedDescriptor writer(ends[1]);
   Request request = {.socketPath = socketPath, .waitMs = waitMs, .reader = reader.get()};
   if (!ToolProcess_StartRoutine(&conversation, reader.get(), ToolSessionRequest, &request)) {
      Warning("cannot start a process: %s\n", strerror(errno));
      return TOOL_EXIT_SYSTEM;
   }
   for (;;) {
      const ToolEvent event = ToolProcess_Next({&conversation, daemon});
      if (event.ended == &conversation) {
         const int status = ToolSessionOutcome(conversation);
         hold->reset(status == TOOL_EXIT_OK ? writer.release() : -1);
         return status;
      }
      if (event.ended == nullptr) {
         kill(conversation.pid, SIGKILL);
         Warning("signal %d: giving up the registration\n", event.signal);
         return TOOL_EXIT_SIGNAL + event.signal;
      }
   }
}

int ToolSession_Run(char *const *command, const char *socketPath, ToolChild *daemon, int hold)
{
   ToolChild child;

   if (command != nullptr && !ToolProcess_IsSignalled()) {
      const int status = ToolSessionStartCommand(&child, command, socketPath);
      return status == TOOL_EXIT_OK ? ToolSessionAwaitCommand(&child, daemon, hold) : status;
   }
   const ToolEvent event = ToolProcess_Next({daemon}, hold);
   if (event.signal == 0) {
      ToolSessionReportGone();
      return daemon != nullptr ? TOOL_EXIT_OK : TOOL_EXIT_UNAVAILABLE;
   }
   Log("signal %d: letting go\n", event.signal);
   return command == nullptr ? TOOL_EXIT_OK : TOOL_EXIT_SIGNAL + event.signal;
}

int ToolSession_AwaitDaemon(ToolChild *daemon)
{
   if (!daemon->ended) {
      Log("waiting for the daemon, process %d, to end\n", static_cast<int>(daemon->pid));
      const ToolEvent event = ToolProcess_Next({daemon});
      if (event.ended == nullptr) {
         Warning("signal %d: not waiting for the daemon, process %d, which goes on\n", event.signal,
                 static_cast<int>(daemon->pid));
         return TOOL_EXIT_SIGNAL + event.signal;
      }
   }
   ToolSessionReportEnd("the daemon", *daemon);
   return daemon->status;
}
