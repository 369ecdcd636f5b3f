#include "lib/misc/host/hostinfo.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "platform/processIdentity.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <pthread.h>
#include <span>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr char SHELL[] = "/bin/sh";

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
   limit.rlim_cur = std::min(soft, limit.rlim_max / 2);
   setrlimit(resource, &limit);
}

void Handle(int number, void (*handler)(int))
{
   struct sigaction action = {};
   action.sa_handler = handler;
   sigaction(number, &action, nullptr);
}

/* In a process that has nothing to lose: what of its descriptors, limits and ignored signals has reached a child. */
[[noreturn]] void ReportOfChild(std::span<const int> keep)
{
   for (const int number : {3, 7, 8, 40}) {
      dup2(STDERR_FILENO, number);
   }
   SetSoftLimit(RLIMIT_AS, rlim_t{1} << 46);
   Handle(SIGHUP, SIG_IGN);
   const std::string report = "for fd in 0 1 2 3 7 8 40; do [ -e /dev/fd/$fd ] && printf \"$fd \" >&2; done;"
                              " [ \"$(ulimit -Sv)\" = \"$(ulimit -Hv)\" ] || echo limited >&2; kill -HUP $$";
   _exit(Execute(SHELL, {"sh", "-c", report}, true, keep));
}

/* Root is not bound by the limit on processes: the check becomes someone else first. */
bool FailsWithoutProcesses()
{
   SetSoftLimit(RLIMIT_NPROC, 0);
   return (geteuid() != 0 || setuid(65534) == 0) && Execute(SHELL, {"sh"}) == -1 && errno == EAGAIN;
}

/* Exec would undo handlers and fork has undone the timers: the routine's own share shows only in between. */
bool ResetsTimersAndHandlers()
{
   const std::array timers = {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};
   const struct itimerval later = {{600, 0}, {600, 0}};
   for (const int timer : timers) {
      setitimer(timer, &later, nullptr);
   }
   Handle(SIGUSR1, [](int) {});
   Hostinfo_ResetChildState(nullptr, 0);
   struct sigaction action;
   sigaction(SIGUSR1, nullptr, &action);
   return action.sa_handler == SIG_DFL && (action.sa_flags & SA_RESTART) != 0 &&
          sigismember(&action.sa_mask, SIGTERM) == 1 &&
          std::none_of(timers.begin(), timers.end(), [](int timer) {
             struct itimerval value;
             getitimer(timer, &value);
             return timerisset(&value.it_value) || timerisset(&value.it_interval);
          });
}

TEST(HostinfoExecute, GivesTheRawWaitStatus)
{
   EXPECT_EQ(Execute(SHELL, {"sh", "-c", "kill -9 $$"}), SIGKILL);
   EXPECT_EQ(Execute("sh", {"own name", "-c", "[ \"$0\" = 'own name' ] && exit 3"}), 768);
   EXPECT_EQ(Execute("/no/such/program", {"x"}), 32512);
   EXPECT_EQ(Execute(nullptr, {"x"}), 1);
   EXPECT_EXIT(_exit(FailsWithoutProcesses() ? 0 : 1), testing::ExitedWithCode(0), "");
   const auto failing = [] {
      atexit([] { static_cast<void>(write(STDERR_FILENO, "handler\n", 8)); });
      _exit(Execute("/no/such/program", {"x"}) / 256);
   };
   EXPECT_EXIT(failing(), testing::ExitedWithCode(127), "^handler\n$");
}

TEST(HostinfoExecute, ResetsWhatTheChildInherits)
{
   EXPECT_EXIT(ReportOfChild({}), testing::ExitedWithCode(SIGHUP), "^0 1 2 $");
   EXPECT_EXIT(ReportOfChild(std::array{40, -1, 7, 2, 40, 30}), testing::ExitedWithCode(SIGHUP),
               "^0 1 2 7 40 $");
   EXPECT_EXIT(_exit(ResetsTimersAndHandlers() ? 0 : 1), testing::ExitedWithCode(0), "");
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

/* Once as it is, and in copies of this program at paths just short enough and just too long. */
TEST(HostinfoGetModulePath, GivesAPathOfUpTo1023Bytes)
{
   const CapturedLog log;
   const char *const place = getenv("TESSEL_TEST_PLACE");
   const std::string self = Take(Hostinfo_GetModulePath(0));
   const bool known = place == nullptr || strlen(place) <= 1023;
   EXPECT_EQ(self, !known ? "<null>" : place != nullptr ? place : Take(Hostinfo_GetModulePath(1)));
   EXPECT_EQ(log.TakeText(),
             known ? "" : "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n");
   EXPECT_EQ(Take(Hostinfo_GetModulePath(2)), "<null>");
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
   for (const size_t length : {1023U, 1024U}) {
      const ScratchFolder scratch;
      std::string path = fs::canonical(scratch.Path()).string();
      while (path.size() < 900) {
         path += "/" + std::string(100, 'd');
      }
      fs::create_directories(path);
      path += "/" + std::string(length - path.size() - 1, 'p');
      std::error_code error;
      if (place == nullptr && fs::copy_file(self, path, error)) {
         setenv("TESSEL_TEST_PLACE", path.c_str(), 1);
         EXPECT_EQ(Execute(path.c_str(), {"copy", "--gtest_filter=*GivesAPathOfUpTo1023Bytes"}), 0);
         unsetenv("TESSEL_TEST_PLACE");
      }
   }
}

TEST(PosixPaths, GiveTextsOfAnyLengthAndSayWhyTheyFail)
{
   const ScratchFolder folder;
   std::error_code error;
   for (const size_t length : {1U, 1000U, 2047U, 2048U, 3072U, 4095U}) {
      const std::string link = folder.Path(std::to_string(length));
      fs::create_symlink(std::string(length, 'x'), link, error);
      EXPECT_EQ(Take(Posix_ReadLink(link.c_str())), error ? "<null>" : std::string(length, 'x'));
   }
   const std::string absent = folder.Path("absent");
   const std::string undecodable = folder.Path("link");
   fs::create_symlink("a\xFF", undecodable, error);
   using Convert = char *(*)(const char *path);
   for (const auto &[convert, path, reason] : {std::tuple{Convert{Posix_ReadLink}, "/", EINVAL},
                                               {Posix_ReadLink, absent.c_str(), ENOENT},
                                               {Posix_ReadLink, undecodable.c_str(), error ? ENOENT : ERANGE},
                                               {Posix_ReadLink, nullptr, EFAULT},
                                               {Posix_RealPath, absent.c_str(), ENOENT},
                                               {Posix_RealPath, nullptr, EINVAL}}) {
      EXPECT_EQ(Take(convert(path)), "<null>");
      EXPECT_EQ(errno, reason) << (path != nullptr ? path : "null");
   }
}

TEST(PosixPaths, AreResolvedUpTo1023Bytes)
{
   const ScratchFolder folder;
   const std::string top = fs::canonical(folder.Path());
   std::string real = top + "/\xC3\xA9";
   while (real.size() < 900) {
      real += "/" + std::string(100, 'd');
   }
   real += "/" + std::string(1022 - real.size(), 'f');
   fs::create_directories(real);
   fs::create_symlink(real, top + "/link");
   EXPECT_EQ(Take(Posix_RealPath((top + "/./\xC3\xA9/..//link/").c_str())), real);
   std::error_code error;
   if (fs::create_directories(real + "f", error)) {
      EXPECT_EQ(Take(Posix_RealPath((real + "f").c_str())), "<null>");
      EXPECT_EQ(errno, ENAMETOOLONG);
   }
   const std::string notUtf8 = folder.Path("a\xFF");
   if (fs::create_directory(notUtf8, error)) {
      EXPECT_PANIC(Take(Posix_RealPath(notUtf8.c_str())),
                   "Unicode_AllocWithLength: Couldn't convert invalid buffer .*a.xFF");
   }
}

/* A child that waits for its end, or ends at once. */
pid_t Child(bool waits)
{
   const pid_t pid = fork();
   if (pid == 0) {
      waits ? pause() : 0;
      _exit(0);
   }
   return pid;
}

TEST(ProcessIdentity, TellsAProcessFromALaterOneAndFromOneThatHasEnded)
{
   uint64_t mine = 0;
   uint64_t again = 0;
   uint64_t theirs = 0;
   uint64_t untouched = 42;
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &mine));
   usleep(20000);
   const std::array children = {Child(true), Child(false)};
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &again));
   ASSERT_TRUE(ProcessIdentity_StartTime(children[0], &theirs));
   EXPECT_EQ(mine, again);
   /* In microseconds: the child is at least the sleep younger, by a clock of 10 ms. */
   EXPECT_GE(theirs, mine + 10000);
   EXPECT_LT(theirs, mine + 600 * 1000000ULL);

   kill(children[0], SIGKILL);
   for (const pid_t child : children) {
      siginfo_t info;
      EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
      for (int collected = 0; collected < 2; collected++) {
         errno = 0;
         EXPECT_FALSE(ProcessIdentity_StartTime(child, &untouched));
         EXPECT_EQ(errno, ESRCH);
         waitpid(child, nullptr, 0);
      }
   }
   EXPECT_EQ(untouched, 42U);
}

/* In a child, all of which is this thread: another one lives on when this has ended, and says so. */
void *LiveOnInAnotherThread(void *child)
{
   *static_cast<pid_t *>(child) = fork();
   if (*static_cast<pid_t *>(child) == 0) {
      static const pthread_t sFirst = pthread_self();
      pthread_t other;
      const auto wait = [](void *) -> void * {
         pthread_join(sFirst, nullptr);
         raise(SIGSTOP);
         return nullptr;
      };
      pthread_create(&other, nullptr, wait, nullptr);
      pthread_exit(nullptr);
   }
   return nullptr;
}

/* The system may call such a process ended already: what its other threads hold is still held. */
TEST(ProcessIdentity, KnowsAProcessThatLivesOnInAnotherThread)
{
   pid_t child = -1;
   pthread_t thread;
   int status = 0;
   uint64_t start = 0;
   ASSERT_EQ(pthread_create(&thread, nullptr, LiveOnInAnotherThread, &child), 0);
   pthread_join(thread, nullptr);
   EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
   EXPECT_TRUE(WIFSTOPPED(status));
   EXPECT_TRUE(ProcessIdentity_StartTime(child, &start));
   kill(child, SIGKILL);
   waitpid(child, nullptr, 0);
}

TEST(ProcessIdentity, NamesTheMachineTheSameEachTimeAndNeverCuts)
{
   std::array<char, 256> first = {};
   std::array<char, 256> second = {};
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(first.data(), first.size()));
   const size_t length = strlen(first.data());
   EXPECT_GT(length, 0U);
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(second.data(), length + 1));
   EXPECT_STREQ(first.data(), second.data());
   EXPECT_FALSE(ProcessIdentity_MachineIdentifier(second.data(), length));
   EXPECT_EQ(errno, ERANGE);
}

TEST(UtilSafe, GivesWhatTheLibraryGivesAndEndsWhereItCannot)
{
   static constexpr char unterminated[] = {'a', 'b', 'c'};
   char *block = static_cast<char *>(Util_SafeMalloc(4));
   memcpy(block, "abc", 4);
   EXPECT_EQ(Take(static_cast<char *>(Util_SafeRealloc(block, 4096))), "abc");
   block = static_cast<char *>(Util_SafeCalloc(2, 8));
   EXPECT_EQ(std::string(block, 16), std::string(16, '\0'));
   free(block);
   EXPECT_EQ(Take(Util_SafeStrdup(nullptr)) + Take(Util_SafeStrndup(nullptr, 3)), "<null><null>");
   EXPECT_EQ(Take(Util_SafeStrdup("text")), "text");
   EXPECT_EQ(Take(Util_SafeStrndup("text", SIZE_MAX)), "text");
   EXPECT_EQ(Take(Util_SafeStrndup(unterminated, sizeof unterminated)), "abc");
   SecretBuffer secret;
   Secret_SafeAppend(secret.get(), "x", 1, "", 0);
   EXPECT_EQ(std::string(secret.get()->data, secret.get()->size), "x");
   EXPECT_PANIC(Secret_SafeAppend(secret.get(), "x", SIZE_MAX, "some/file", 4000000000U),
                "Unrecoverable memory allocation failure at some/file:4000000000\n");
}

} // namespace
