#ifndef TESSEL_TOOLS_TOOLPROCESS_H
#define TESSEL_TOOLS_TOOLPROCESS_H

#include <initializer_list>
#include <sys/types.h>

/* The processes that a tool starts, and the signals that tell it to end: both arrive as events, one at a time, at
   the one place where a tool waits. */

struct ToolChild {
   pid_t pid = -1; /* -1: not started. */
   bool ended = false;
   int status = 0; /* Once ended: the exit status, or 128 plus the number of the signal that ended it. */
};

struct ToolEvent {
   const ToolChild *ended; /* The child that has ended, or null. */
   int signal; /* If ended is null: SIGINT, SIGTERM or SIGHUP, or 0: the watched descriptor is at its end. */
   bool fromTerminal; /* The signal came from the terminal, and so to the command as well. */
};

/* To be called once, before anything is started or opened: makes sure that the standard streams are open, so that
   nothing else takes their numbers, and holds signals back for ToolProcess_Next. A signal that the tool was
   started with as ignored stays ignored. */
void ToolProcess_Begin();

/* Starts the daemon with the two descriptors, as their decimal numbers, and no others but the standard streams:
   nothing to read, and its standard output is the tool's standard error. The daemon is in a session of its
   own, out of the terminal's reach, and SIGPIPE is ignored in it: a client that hangs up must not end it.
   False with errno set if there is no process or it could not execute the daemon. */
[[nodiscard]] bool ToolProcess_StartDaemon(ToolChild *child, const char *path, int listener, int launcher);

/* Starts a command, found as execvp(3) does, with the signals as the tool itself was started. False as above. */
[[nodiscard]] bool ToolProcess_StartCommand(ToolChild *child, char *const *command);

/* Runs a routine in a process of its own that has only the standard streams and the descriptor keep open; what it
   returns is the exit status. Signals are held back in it. False with errno set. */
[[nodiscard]] bool ToolProcess_StartRoutine(ToolChild *child, int keep, int (*routine)(void *context),
                                            void *context);

/* Waits for the end of one of the children (null and not started ones are passed over), for a signal, or for the end of the
   writing end watched: its readers have gone. */
[[nodiscard]] ToolEvent ToolProcess_Next(std::initializer_list<ToolChild *> children, int watched = -1);

/* Whether a signal is waiting for ToolProcess_Next. */
[[nodiscard]] bool ToolProcess_IsSignalled();

#endif
