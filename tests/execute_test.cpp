#include "lib/misc/hostinfo.h"

#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <span>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char SHELL[] = "/bin/sh";

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

/* What a child with these kept descriptors says of itself, but for its descriptors 0 to 2. */
std::string ReportOfChild(std::span<const int> keep = {})
{
   const ScratchFolder folder;
   const std::string file = folder.Path("report");
   const int32_t status = Execute(CHILD_REPORT_PROGRAM, {"child", "state", file}, true, keep);
   if (status != 0) {
      return "status " + std::to_string(status);
   }
   std::string report = ReadFile(file);
   for (const char *standard : {"open 0\n", "open 1\n", "open 2\n"}) {
      const size_t at = report.find(standard);
      if (at == std::string::npos) {
         return "lacks " + std::string(standard);
      }
      report.erase(at, strlen(standard));
   }
   return report;
}

class LoweredLimit {
 public:
   LoweredLimit(int resource, rlim_t soft) : resource_(resource)
   {
      getrlimit(resource, &saved_);
      const struct rlimit lowered = {std::min(soft, saved_.rlim_max), saved_.rlim_max};
      setrlimit(resource, &lowered);
   }

   ~LoweredLimit()
   {
      setrlimit(resource_, &saved_);
   }

   LoweredLimit(const LoweredLimit &) = delete;
   LoweredLimit &operator=(const LoweredLimit &) = delete;

 private:
   int resource_;
   struct rlimit saved_;
};

class Disposition {
 public:
   Disposition(int number, void (*handler)(int)) : number_(number)
   {
      struct sigaction action = {};
      action.sa_handler = handler;
      sigaction(number, &action, &saved_);
   }

   ~Disposition()
   {
      sigaction(number_, &saved_, nullptr);
   }

   Disposition(const Disposition &) = delete;
   Disposition &operator=(const Disposition &) = delete;

 private:
   int number_;
   struct sigaction saved_;
};

/* Opens the very numbers asked for. */
class OpenDescriptors {
 public:
   explicit OpenDescriptors(std::initializer_list<int> numbers) : numbers_(numbers)
   {
      const int null = open("/dev/null", O_RDONLY);
      const int above = fcntl(null, F_DUPFD_CLOEXEC, 1000);
      close(null);
      for (const int number : numbers_) {
         EXPECT_EQ(dup2(above, number), number);
      }
      close(above);
   }

   ~OpenDescriptors()
   {
      for (const int number : numbers_) {
         close(number);
      }
   }

   OpenDescriptors(const OpenDescriptors &) = delete;
   OpenDescriptors &operator=(const OpenDescriptors &) = delete;

 private:
   std::vector<int> numbers_;
};

TEST(HostinfoExecute, GivesTheRawWaitStatus)
{
   const struct {
      const char *path;
      std::vector<std::string> arguments;
      int32_t status;
   } cases[] = {
       {SHELL, {"sh", "-c", "exit 0"}, 0},
       {SHELL, {"sh", "-c", "exit 3"}, 768},
       {SHELL, {"sh", "-c", "kill -9 $$"}, SIGKILL},
       {"sh", {"sh", "-c", "exit 3"}, 768},
       {SHELL, {"own name", "-c", "[ \"$0\" = 'own name' ]"}, 0},
       {"/no/such/program", {"x"}, 32512},
       {"no-such-program", {"x"}, 32512},
       {"/etc/passwd", {"x"}, 32512},
       {nullptr, {"x"}, 1},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Execute(c.path, c.arguments), c.status) << (c.path != nullptr ? c.path : "null");
   }
}

TEST(HostinfoExecute, PassesOnOnlyTheDescriptorsToKeep)
{
   const OpenDescriptors opened({7, 8, 40, 41, 900});
   EXPECT_EQ(ReportOfChild(), "");
   EXPECT_EQ(ReportOfChild(std::array{7}), "open 7\n");
   EXPECT_EQ(ReportOfChild(std::array{900, -1, 40, 2, 900, 5}), "open 40\nopen 900\n");
}

TEST(HostinfoExecute, ClosesDescriptorsAboveALoweredLimit)
{
   const OpenDescriptors opened({7, 500});
   const LoweredLimit limit(RLIMIT_NOFILE, 64);
   EXPECT_EQ(ReportOfChild(std::array{7}), "open 7\n");
}

TEST(HostinfoExecute, ResetsIgnoredSignalsAndTheAddressSpaceLimit)
{
   const Disposition hangup(SIGHUP, SIG_IGN);
   const Disposition pipe(SIGPIPE, SIG_IGN);
   const Disposition last(31, SIG_IGN);
   const LoweredLimit limit(RLIMIT_AS, rlim_t{1} << 46);
   EXPECT_EQ(ReportOfChild(), "");
}

int sReleasePipe;
volatile sig_atomic_t sTicks;

/* Lets the child go at the fifth tick. */
void OnTick(int /*number*/)
{
   sTicks = sTicks + 1;
   if (sTicks == 5) {
      EXPECT_EQ(write(sReleasePipe, "\n", 1), 1);
   }
}

TEST(HostinfoExecute, WaitsOnWhenSignalsArrive)
{
   int ends[2];
   ASSERT_EQ(pipe(ends), 0);
   sReleasePipe = ends[1];
   sTicks = 0;
   {
      const Disposition alarm(SIGALRM, OnTick);
      const struct itimerval often = {{0, 10000}, {0, 10000}};
      const struct itimerval never = {};
      setitimer(ITIMER_REAL, &often, nullptr);
      const std::string script = "read line <&" + std::to_string(ends[0]) + "; exit 3";
      EXPECT_EQ(Execute(SHELL, {"sh", "-c", script}, true, std::array{ends[0]}), 768);
      setitimer(ITIMER_REAL, &never, nullptr);
   }
   EXPECT_GE(sTicks, 5);
   close(ends[0]);
   close(ends[1]);
}

TEST(HostinfoExecute, GivesZeroForAChildThatSomeoneElseCollects)
{
   const Disposition children(SIGCHLD, SIG_IGN);
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "exit 3"}), 0);
}

TEST(HostinfoExecute, LeavesAChildItDoesNotWaitForToBeCollected)
{
   int status = -1;
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "exit 3"}, false), 0);
   EXPECT_GT(waitpid(-1, &status, 0), 0);
   EXPECT_EQ(status, 768);
}

/* Root is not bound by the limit on processes: the check becomes someone else first. */
int ExecuteWithoutProcesses()
{
   const struct rlimit none = {0, 0};
   if (geteuid() == 0 && setuid(65534) != 0) {
      return 2;
   }
   setrlimit(RLIMIT_NPROC, &none);
   return Execute(SHELL, {"sh", "-c", "exit 3"}) == -1 && errno == EAGAIN ? 0 : 1;
}

TEST(HostinfoExecute, FailsWhenItCannotFork)
{
   EXPECT_EXIT(_exit(ExecuteWithoutProcesses()), testing::ExitedWithCode(0), "");
}

int TimersArmed()
{
   int armed = 0;
   for (const int timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
      struct itimerval value;
      getitimer(timer, &value);
      armed += timerisset(&value.it_value) || timerisset(&value.it_interval) ? 1 : 0;
   }
   return armed;
}

/* Exec would undo handlers and fork has undone the timers: the routine's own share shows only in between. */
int CheckReset()
{
   const struct itimerval later = {{600, 0}, {600, 0}};
   for (const int timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
      setitimer(timer, &later, nullptr);
   }
   if (TimersArmed() != 3) {
      return 2;
   }
   const Disposition alarm(SIGALRM, OnTick);
   const Disposition last(31, OnTick);
   Hostinfo_ResetChildState(nullptr, 0);

   for (const int number : {SIGALRM, 31}) {
      struct sigaction action;
      sigaction(number, nullptr, &action);
      if (action.sa_handler != SIG_DFL || (action.sa_flags & SA_RESTART) == 0 ||
          sigismember(&action.sa_mask, SIGTERM) != 1) {
         return 3;
      }
   }
   return TimersArmed();
}

TEST(HostinfoResetChildState, DisarmsTimersAndRemovesHandlers)
{
   EXPECT_EXIT(_exit(CheckReset()), testing::ExitedWithCode(0), "");
}

} // namespace
