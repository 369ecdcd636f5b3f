#include "lib/misc/host/hostinfo.h"

#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <span>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr char SHELL[] = "/bin/sh";
constexpr int TIMERS[] = {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};

/* A child that cannot run its program leaves through exit(): what stdio holds would be written twice. */
int32_t Execute(const char *path, std::vector<std::string> arguments, bool wait = true,
                std::span<const int> keep = {})
{
   std::vector<char *> argv(arguments.size() + 1);
   std::transform(arguments.begin(), arguments.end(), argv.begin(),
                  [](std::string &argument) { return argument.data(); });
   fflush(nullptr);
   return Hostinfo_Execute(path, argv.data(), wait, keep.data(), keep.size());
}

void SetSoftLimit(int resource, rlim_t soft)
{
   struct rlimit limit;
   getrlimit(resource, &limit);
   limit.rlim_cur = std::min(soft, limit.rlim_max);
   setrlimit(resource, &limit);
}

void Handle(int number, void (*handler)(int))
{
   struct sigaction action = {};
   action.sa_handler = handler;
   sigaction(number, &action, nullptr);
}

/* In a process that has nothing to lose: opens descriptors, lowers limits, ignores signals, and has a child say on
   standard error what has reached it. */
[[noreturn]] void ReportOfChild(std::span<const int> keep)
{
   for (const int number : {7, 8, 40, 900}) {
      dup2(STDERR_FILENO, number);
   }
   SetSoftLimit(RLIMIT_NOFILE, 64);
   SetSoftLimit(RLIMIT_AS, rlim_t{1} << 46);
   for (const int number : {SIGHUP, SIGPIPE, 31}) {
      Handle(number, SIG_IGN);
   }
   const std::string report = "echo open $(ls /proc/self/fd), $(grep SigIgn /proc/self/status),"
                              " $([ $(ulimit -Sv) = $(ulimit -Hv) ] || echo limited) >&2";
   _exit(Execute(SHELL, {"sh", "-c", report}, true, keep));
}

/* Root is not bound by the limit on processes: the check becomes someone else first. */
bool FailsWithoutProcesses()
{
   SetSoftLimit(RLIMIT_NPROC, 0);
   return (geteuid() != 0 || setuid(65534) == 0) && Execute(SHELL, {"sh"}) == -1 && errno == EAGAIN;
}

/* Exec would undo handlers and fork has undone the timers: the routine's own share shows only in between. */
int TimersLeftByReset()
{
   const struct itimerval later = {{600, 0}, {600, 0}};
   for (const int timer : TIMERS) {
      setitimer(timer, &later, nullptr);
   }
   Handle(31, [](int) {});
   Hostinfo_ResetChildState(nullptr, 0);
   struct sigaction action;
   sigaction(31, nullptr, &action);
   const bool isDefault = action.sa_handler == SIG_DFL && (action.sa_flags & SA_RESTART) != 0 &&
                          sigismember(&action.sa_mask, SIGTERM) == 1;
   return static_cast<int>(std::count_if(std::begin(TIMERS), std::end(TIMERS),
                                         [](int timer) {
                                            struct itimerval value;
                                            getitimer(timer, &value);
                                            return timerisset(&value.it_value) ||
                                                   timerisset(&value.it_interval);
                                         })) +
          (isDefault ? 0 : 99);
}

TEST(HostinfoExecute, GivesTheRawWaitStatus)
{
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "kill -9 $$"}), SIGKILL);
   EXPECT_EQ(Execute("sh", {"own name", "-c", "[ \"$0\" = 'own name' ] && exit 3"}), 768);
   EXPECT_EQ(Execute("/no/such/program", {"x"}), 32512);
   EXPECT_EQ(Execute(nullptr, {"x"}), 1);
   EXPECT_EXIT(_exit(FailsWithoutProcesses() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(HostinfoExecute, ResetsWhatTheChildInherits)
{
   /* Descriptor 3 is the listing's own. */
   EXPECT_EXIT(ReportOfChild({}), testing::ExitedWithCode(0), "^open 0 1 2 3, SigIgn: 0000000000000000,\n$");
   EXPECT_EXIT(ReportOfChild(std::array{40, -1, 7, 2, 40, 30}), testing::ExitedWithCode(0),
               "^open 0 1 2 3 40 7,");
   EXPECT_EXIT(_exit(TimersLeftByReset()), testing::ExitedWithCode(0), "");
}

TEST(HostinfoExecute, WaitsOnWhenSignalsArriveAndNotAtAllIfAsked)
{
   static volatile sig_atomic_t sTicks = 0;
   const struct itimerval often = {{0, 10000}, {0, 10000}};
   const struct itimerval never = {};
   Handle(SIGALRM, [](int) { sTicks = sTicks + 1; });
   setitimer(ITIMER_REAL, &often, nullptr);
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "sleep 0.2; exit 3"}), 768);
   setitimer(ITIMER_REAL, &never, nullptr);
   EXPECT_GT(sTicks, 0);

   int status = -1;
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "exit 3"}, false), 0);
   EXPECT_GT(waitpid(-1, &status, 0), 0);
   EXPECT_EQ(status, 768);
   Handle(SIGCHLD, SIG_IGN);
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "exit 3"}), 0) << "the child's status is lost";
   Handle(SIGCHLD, SIG_DFL);
}

TEST(HostinfoGetModulePath, GivesAPathOfUpTo1023Bytes)
{
   const CapturedLog log;
   const std::string path = fs::read_symlink("/proc/self/exe");
   const std::string failed = "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n";
   for (const uint32_t privilege : {0U, 1U}) {
      EXPECT_EQ(Take(Hostinfo_GetModulePath(privilege)), path.size() <= 1023 ? path : "<null>");
      EXPECT_EQ(log.TakeText(), path.size() <= 1023 ? "" : failed);
   }
   EXPECT_EQ(Take(Hostinfo_GetModulePath(2)), "<null>");
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
   EXPECT_EQ(Hostinfo_RosettaState(), 0) << "native where the system knows no translation";
}

/* The test above, in copies of this program at paths just short enough and just too long. */
TEST(HostinfoGetModulePath, DependsOnTheLengthOfThePath)
{
   for (const size_t length : {1023U, 1024U}) {
      const ScratchFolder scratch;
      std::string path = scratch.Path();
      while (path.size() < 900) {
         path += "/" + std::string(100, 'd');
      }
      fs::create_directories(path);
      path += "/" + std::string(length - path.size() - 1, 'p');
      fs::copy_file("/proc/self/exe", path);
      EXPECT_EQ(Execute(path.c_str(), {"copy", "--gtest_filter=*GivesAPathOfUpTo1023Bytes"}), 0);
   }
}

} // namespace
