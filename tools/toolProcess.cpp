#include "tools/toolProcess.h"

#include "base/owned.h"
#include "lib/string/str.h"
#include "platform/descriptors.h"
#include "platform/localStream.h"
#include "tools/toolExit.h"

#include <csignal>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>

namespace {

constexpr int FIRST_AFTER_STANDARD_STREAMS = 3;
constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

sigset_t sMaskAtStart;
sigset_t sMaskWhileWaiting;
struct sigaction sPipeAtStart;

/* Signals are blocked but for the wait itself, so the handler never runs beside the code that reads these. */
volatile sig_atomic_t sSignal = 0;
volatile sig_atomic_t sFromTerminal = 0;

/* The end of a child only has to end the wait. The terminal's signals have no sender. */
void ToolProcessOnSignal(int number, siginfo_t *info, [[maybe_unused]] void *context)
{
   if (number != SIGCHLD) {
      sSignal = number;
      sFromTerminal = info->si_pid == 0 ? 1 : 0;
   }
}

bool ToolProcessIsIgnored(int number)
{
   struct sigaction action;
   return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void ToolProcessCatch(int number, sigset_t *caught)
{
   struct sigaction action = {};

   action.sa_sigaction = ToolProcessOnSignal;
   action.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
   sigfillset(&action.sa_mask);
   sigaction(number, &action, nullptr);
   sigaddset(caught, number);
}

void ToolProcessOpenStandardStreams()
{
   int fd;

   do {
      fd = open("/dev/null", O_RDWR);
   } while (fd >= 0 && fd < FIRST_AFTER_STANDARD_STREAMS);
   if (fd >= FIRST_AFTER_STANDARD_STREAMS) {
      close(fd);
   }
}

/* Ends the new process by telling the reader why there is no program in it. */
[[noreturn]] void ToolProcessTell(int writer, int error)
{
   [[maybe_unused]] const ssize_t written = write(writer, &error, sizeof error);
   _exit(TOOL_EXIT_NOT_FOUND);
}

/* Runs become, given the descriptor that has to stay open, in a new process; it returns only if it could not become
   another program, with errno set. */
template <typename Become> bool ToolProcessStart(ToolChild *child, const Become &become)
{
   int ends[2];
   int error = 0;

   if (!LocalStream_Pipe(ends)) {
      return false;
   }
   const OwnedDescriptor reader(ends[0]);
   OwnedDescriptor writer(ends[1]);
   const pid_t pid = fork();
   if (pid == -1) {
      return false;
   }
   if (pid == 0) {
      become(writer.get());
      ToolProcessTell(writer.get(), errno);
   }
   writer.reset();
   /* The end of the pipe is the exec. */
   if (read(reader.get(), &error, sizeof error) == static_cast<ssize_t>(sizeof error)) {
      waitpid(pid, nullptr, 0);
      errno = error;
      return false;
   }
   child->pid = pid;
   return true;
}

bool ToolProcessInherit(int fd)
{
   return fcntl(fd, F_SETFD, 0) == 0;
}

bool ToolProcessDaemonStreams()
{
   const OwnedDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
   return nothing.get() != -1 && dup2(nothing.get(), STDIN_FILENO) != -1 &&
          dup2(STDERR_FILENO, STDOUT_FILENO) != -1;
}

bool ToolProcessReap(ToolChild *child)
{
   int status = 0;

   if (child == nullptr || child->pid == -1 || child->ended || waitpid(child->pid, &status, WNOHANG) <= 0) {
      return false;
   }
   child->ended = true;
   child->status = WIFEXITED(status) ? WEXITSTATUS(status) : TOOL_EXIT_SIGNAL + WTERMSIG(status);
   return true;
}

/* Waits for a signal, or for the end of what is watched: then true. A writing end without readers counts as readable. */
bool ToolProcessAwait(int watched)
{
   fd_set ended;

   FD_ZERO(&ended);
   if (watched != -1 && watched < static_cast<int>(FD_SETSIZE)) {
      FD_SET(watched, &ended);
   }
   return pselect(FD_SETSIZE, &ended, nullptr, nullptr, nullptr, &sMaskWhileWaiting) > 0;
}

} // namespace

void ToolProcess_Begin()
{
   struct sigaction ignored = {};
   sigset_t caught;

   ToolProcessOpenStandardStreams();
   sigemptyset(&caught);
   for (const int number : STOP_SIGNALS) {
      if (!ToolProcessIsIgnored(number)) {
         ToolProcessCatch(number, &caught);
      }
   }
   ToolProcessCatch(SIGCHLD, &caught);
   sigprocmask(SIG_BLOCK, &caught, &sMaskAtStart);
   sMaskWhileWaiting = sMaskAtStart;
   for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
      sigdelset(&sMaskWhileWaiting, number);
   }
   /* A reader of our reports that goes away must not end us, with the services up and the socket in place. */
   ignored.sa_handler = SIG_IGN;
   sigaction(SIGPIPE, &ignored, &sPipeAtStart);
}

bool ToolProcess_StartDaemon(ToolChild *child, const char *path, int listener, int launcher)
{
   char listenerNumber[16];
   char launcherNumber[16];

   Str_Sprintf(listenerNumber, sizeof listenerNumber, "%d", listener);
   Str_Sprintf(launcherNumber, sizeof launcherNumber, "%d", launcher);
   char *const argv[] = {const_cast<char *>(path), listenerNumber, launcherNumber, nullptr};
   return ToolProcessStart(child, [&](int writer) {
      const int keep[] = {listener, launcher, writer};
      if (setsid() == -1 || !ToolProcessDaemonStreams() || !ToolProcessInherit(listener) ||
          !ToolProcessInherit(launcher) || sigprocmask(SIG_SETMASK, &sMaskAtStart, nullptr) == -1) {
         return;
      }
      Descriptors_CloseAllBut(FIRST_AFTER_STANDARD_STREAMS, keep, 3);
      execv(path, argv);
   });
}

bool ToolProcess_StartCommand(ToolChild *child, char *const *command)
{
   return ToolProcessStart(child, [&](int) {
      sigaction(SIGPIPE, &sPipeAtStart, nullptr);
      sigprocmask(SIG_SETMASK, &sMaskAtStart, nullptr);
      execvp(command[0], command);
   });
}

bool ToolProcess_StartRoutine(ToolChild *child, int keep, int (*routine)(void *context), void *context)
{
   const pid_t pid = fork();
   if (pid == 0) {
      Descriptors_CloseAllBut(FIRST_AFTER_STANDARD_STREAMS, &keep, 1);
      _exit(routine(context));
   }
   child->pid = pid;
   return pid != -1;
}

ToolEvent ToolProcess_Next(std::initializer_list<ToolChild *> children, int watched)
{
   for (;;) {
      for (ToolChild *child : children) {
         if (ToolProcessReap(child)) {
            return {.ended = child, .signal = 0, .fromTerminal = false};
         }
      }
      if (sSignal != 0) {
         const int number = sSignal;
         sSignal = 0;
         return {.ended = nullptr, .signal = number, .fromTerminal = sFromTerminal != 0};
      }
      if (ToolProcessAwait(watched)) {
         return {.ended = nullptr, .signal = 0, .fromTerminal = false};
      }
   }
}

bool ToolProcess_IsSignalled()
{
   sigset_t pending;

   sigpending(&pending);
   for (const int number : STOP_SIGNALS) {
      if (sigismember(&pending, number) == 1 && !ToolProcessIsIgnored(number)) {
         return true;
      }
   }
   return sSignal != 0;
}
