/* A helper program for products whose service script has to run as root. It is what the daemon runs as kestra-id SCRIPT
   ACTION, with root as its effective user and everything else as whoever started the daemon chose it: it
   keeps nothing of that. Run by an ordinary user it only does the cleaning. Exit status: that of the script;
   64 for a wrong use; 71 if a step failed, in which case the script is not run. */

#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <initializer_list>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int WRONG_USE = 64;
constexpr int STEP_FAILED = 71;

/* The starter's streams could block, end the script by SIGPIPE, or carry what root says to anyone. */
bool RootHelperReplaceStreams()
{
   const int nothing = open("/dev/null", O_RDWR);
   bool replaced = nothing != -1;

   for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
      replaced = replaced && dup2(nothing, fd) != -1;
   }
   if (nothing > STDERR_FILENO) {
      close(nothing);
   }
   return replaced;
}

/* Out of the terminal's reach first: the daemon may have had no other way to keep its signals off than to block them. Fails
   only for the leader of a group, which is out of it already if it leads the session, too. */
void RootHelperLeaveTerminal()
{
   sigset_t none;

   setsid();
   sigemptyset(&none);
   sigprocmask(SIG_SETMASK, &none, nullptr);
}

/* A script that runs out of processor time or of room for its files stops half way. Only root can raise what was
   lowered, so that an ordinary user's limits stay. */
void RootHelperRaiseLimits()
{
   const struct rlimit unlimited = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
   const struct rlimit files = {.rlim_cur = 1024, .rlim_max = 4096};
   const struct rlimit stack = {.rlim_cur = 8 << 20, .rlim_max = 8 << 20};

   for (const auto resource : {RLIMIT_CPU, RLIMIT_FSIZE, RLIMIT_DATA, RLIMIT_NPROC, RLIMIT_AS}) {
      setrlimit(resource, &unlimited);
   }
   setrlimit(RLIMIT_NOFILE, &files);
   setrlimit(RLIMIT_STACK, &stack);
   setpriority(PRIO_PROCESS, 0, 0);
}

/* Groups first: without root's rights they can no longer be changed. The real and the saved user follow the effective
   one, so that nobody else may signal what is run. */
bool RootHelperBecomeRoot()
{
   const gid_t group = 0;

   return setgroups(1, &group) == 0 && setgid(group) == 0 && setuid(0) == 0 && getuid() == 0;
}

} // namespace

int main(int argc, char **argv)
{
   char shell[] = "/bin/sh";
   char path[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin";
   char *const environment[] = {path, nullptr};

   if (argc != 3 || argv[1][0] != '/') {
      return WRONG_USE;
   }
   umask(022);
   if (chdir("/") == -1 || !RootHelperReplaceStreams()) {
      return STEP_FAILED;
   }
   if (geteuid() == 0) {
      RootHelperRaiseLimits();
      if (!RootHelperBecomeRoot()) {
         return STEP_FAILED;
      }
   }
   RootHelperLeaveTerminal();
   char *const command[] = {shell, argv[1], argv[2], nullptr};
   execve(shell, command, environment);
   return STEP_FAILED;
}
