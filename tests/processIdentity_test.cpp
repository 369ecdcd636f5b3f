#include "platform/processIdentity.h"

#include "tests/support/testSupport.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/* A child that does the work and ends. */
pid_t Child(void (*work)())
{
   const pid_t pid = fork();
   if (pid == 0) {
      work();
      _exit(0);
   }
   return pid;
}

void EndChild(pid_t pid)
{
   kill(pid, SIGKILL);
   waitpid(pid, nullptr, 0);
}

TEST(ProcessIdentityStartTime, IsFixedForAProcessAndTellsItFromALaterOne)
{
   uint64_t mine = 0;
   uint64_t again = 0;
   uint64_t theirs = 0;
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &mine));
   usleep(20000);
   const pid_t child = Child([] { pause(); });
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &again));
   ASSERT_TRUE(ProcessIdentity_StartTime(child, &theirs));
   EndChild(child);
   EXPECT_EQ(mine, again);
   /* In microseconds: the child is at least the sleep younger, by a clock of 10 ms. */
   EXPECT_GE(theirs, mine + 10000);
   EXPECT_LT(theirs, mine + 600 * 1000000ULL);
}

TEST(ProcessIdentityStartTime, KnowsTheEndedBeforeTheyAreCollected)
{
   uint64_t untouched = 42;
   siginfo_t info;
   const pid_t child = Child([] {});
   EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
   for (int collected = 0; collected < 2; collected++) {
      errno = 0;
      EXPECT_FALSE(ProcessIdentity_StartTime(child, &untouched));
      EXPECT_EQ(errno, ESRCH);
      EndChild(child);
   }
   EXPECT_EQ(untouched, 42U);
}

/* Only the first thread has ended, and the system calls the process a zombie: what the others hold is still held. */
TEST(ProcessIdentityStartTime, KnowsAProcessThatLivesOnInAnotherThread)
{
   const pid_t child = Child([] {
      pthread_t other;
      pthread_create(
          &other, nullptr, [](void *) -> void * { return pause(), nullptr; }, nullptr);
      /* pthread_exit would unwind into the test's own catching of exceptions. */
      syscall(SYS_exit, 0);
   });
   const std::string path = "/proc/" + std::to_string(child) + "/stat";
   while (ReadFile(path).find(") Z ") == std::string::npos) {
      ASSERT_EQ(access("/proc/self/stat", F_OK), 0) << "needed to tell when the first thread has ended";
      usleep(1000);
   }
   uint64_t start = 0;
   EXPECT_TRUE(ProcessIdentity_StartTime(child, &start));
   EndChild(child);
}

TEST(ProcessIdentityMachineIdentifier, IsTheSameTextEachTimeAndNeverCut)
{
   std::array<char, 256> first = {};
   std::array<char, 256> second = {};
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(first.data(), first.size()));
   const size_t length = std::string(first.data()).size();
   EXPECT_GT(length, 0U);
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(second.data(), length + 1));
   EXPECT_STREQ(first.data(), second.data());
   EXPECT_FALSE(ProcessIdentity_MachineIdentifier(second.data(), length));
   EXPECT_EQ(errno, ERANGE);
}

} // namespace
