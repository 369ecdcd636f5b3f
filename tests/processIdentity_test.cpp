#include "platform/processIdentity.h"

#include "tests/support/testSupport.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/* A child in one of the states of its life. */
class Child {
 public:
   explicit Child(const std::function<void()> &work) : pid_(fork())
   {
      if (pid_ == 0) {
         work();
         _exit(0);
      }
   }

   ~Child()
   {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }

   Child(const Child &) = delete;
   Child &operator=(const Child &) = delete;

   void AwaitEnd() const
   {
      siginfo_t info;
      EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT), 0);
   }

   [[nodiscard]] pid_t Pid() const
   {
      return pid_;
   }

 private:
   pid_t pid_;
};

TEST(ProcessIdentityStartTime, IsFixedForAProcessAndTellsItFromALaterOne)
{
   uint64_t mine = 0;
   uint64_t again = 0;
   uint64_t theirs = 0;
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &mine));
   usleep(20000);
   const Child child([] { pause(); });
   ASSERT_TRUE(ProcessIdentity_StartTime(getpid(), &again));
   ASSERT_TRUE(ProcessIdentity_StartTime(child.Pid(), &theirs));
   EXPECT_EQ(mine, again);
   /* In microseconds: the child is at least the sleep younger, by a clock of 10 ms. */
   EXPECT_GE(theirs, mine + 10000);
   EXPECT_LT(theirs, mine + 600 * 1000000ULL);
}

TEST(ProcessIdentityStartTime, KnowsTheEndedBeforeTheyAreCollected)
{
   uint64_t untouched = 42;
   pid_t collected;
   {
      const Child child([] {});
      child.AwaitEnd();
      EXPECT_FALSE(ProcessIdentity_StartTime(child.Pid(), &untouched));
      EXPECT_EQ(errno, ESRCH);
      collected = child.Pid();
   }
   EXPECT_FALSE(ProcessIdentity_StartTime(collected, &untouched));
   EXPECT_EQ(errno, ESRCH);
   EXPECT_EQ(untouched, 42U);
}

/* Only the first thread has ended, and the system calls the process a zombie: what the others hold is still held. */
TEST(ProcessIdentityStartTime, KnowsAProcessThatLivesOnInAnotherThread)
{
   const Child child([] {
      pthread_t other;
      pthread_create(
          &other, nullptr,
          [](void *) -> void * {
             pause();
             return nullptr;
          },
          nullptr);
      /* pthread_exit would unwind into the test's own catching of exceptions. */
      syscall(SYS_exit, 0);
   });
   const std::string path = "/proc/" + std::to_string(child.Pid()) + "/stat";
   if (access(path.c_str(), F_OK) != 0) {
      GTEST_SKIP() << "no /proc to tell when the first thread has ended";
   }
   while (ReadFile(path).find(") Z ") == std::string::npos) {
      usleep(1000);
   }
   uint64_t start = 0;
   EXPECT_TRUE(ProcessIdentity_StartTime(child.Pid(), &start));
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
