#include "lib/misc/hostinfo.h"

#include "platform/processFacts.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(HostinfoRosettaState, IsNativeWhereTheSystemKnowsNoTranslation)
{
   int32_t value = 42;
   EXPECT_FALSE(ProcessFacts_SystemValue("sysctl.no_such_value", &value));
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(value, 42);
   EXPECT_EQ(Hostinfo_RosettaState(), 0);
}

TEST(HostinfoGetModulePath, RefusesAnUnknownPrivilege)
{
   const CapturedLog log;
   EXPECT_EQ(Take(Hostinfo_GetModulePath(2)), "<null>");
   EXPECT_EQ(Take(Hostinfo_GetModulePath(UINT32_MAX)), "<null>");
   const std::string line = "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n";
   EXPECT_EQ(log.Text(), line + line);
}

TEST(ProcessFactsExecutablePath, NeedsRoomForThePathAndItsEnd)
{
   const std::string path = Take(Hostinfo_GetModulePath(0));
   std::array<char, 1024> buffer;
   EXPECT_EQ(path, Take(Hostinfo_GetModulePath(1)));
   ASSERT_TRUE(ProcessFacts_ExecutablePath(buffer.data(), path.size() + 1));
   EXPECT_EQ(buffer.data(), path);
   EXPECT_FALSE(ProcessFacts_ExecutablePath(buffer.data(), path.size()));
}

/* A path of exactly so many bytes to a program in a new folder below this one. */
std::string PathOfLength(std::string folder, size_t length)
{
   while (folder.size() + 1 < length - 200) {
      folder += "/" + std::string(100, 'd');
   }
   std::filesystem::create_directories(folder);
   return folder + "/" + std::string(length - folder.size() - 1, 'p');
}

/* What the child-report program says of its own path when it lies at this one. */
std::string ReportFrom(const ScratchFolder &folder, const std::string &path)
{
   const std::string report = folder.Path("report");
   std::string arguments[] = {path, "path", report};
   char *const argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
   std::filesystem::remove(report);
   std::filesystem::copy_file(CHILD_REPORT_PROGRAM, path);
   EXPECT_EQ(Hostinfo_Execute(path.c_str(), argv, true, nullptr, 0), 0);
   return ReadFile(report);
}

TEST(HostinfoGetModulePath, RefusesAPathOfMoreThan1023Bytes)
{
   const ScratchFolder folder;
   const std::string fitting = PathOfLength(folder.Path("a"), 1023);
   const std::string tooLong = PathOfLength(folder.Path("b"), 1024);
   EXPECT_EQ(ReportFrom(folder, fitting), fitting);
   const std::string refusal = ReportFrom(folder, tooLong);
   EXPECT_NE(refusal.find("| Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\nnone"),
             std::string::npos)
       << refusal;
}

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

TEST(ProcessFactsStartTime, IsFixedForAProcessAndTellsItFromALaterOne)
{
   uint64_t mine = 0;
   uint64_t again = 0;
   uint64_t theirs = 0;
   ASSERT_TRUE(ProcessFacts_StartTime(getpid(), &mine));
   usleep(20000);
   const Child child([] { pause(); });
   ASSERT_TRUE(ProcessFacts_StartTime(getpid(), &again));
   ASSERT_TRUE(ProcessFacts_StartTime(child.Pid(), &theirs));
   EXPECT_EQ(mine, again);
   /* In microseconds: the child is at least the sleep younger, by a clock of 10 ms. */
   EXPECT_GE(theirs, mine + 10000);
   EXPECT_LT(theirs, mine + 600 * 1000000ULL);
}

TEST(ProcessFactsStartTime, KnowsTheEndedBeforeTheyAreCollected)
{
   uint64_t untouched = 42;
   pid_t collected;
   {
      const Child child([] {});
      child.AwaitEnd();
      EXPECT_FALSE(ProcessFacts_StartTime(child.Pid(), &untouched));
      EXPECT_EQ(errno, ESRCH);
      collected = child.Pid();
   }
   EXPECT_FALSE(ProcessFacts_StartTime(collected, &untouched));
   EXPECT_EQ(errno, ESRCH);
   EXPECT_EQ(untouched, 42U);
}

/* Only the first thread has ended, and the system calls the process a zombie: what the others hold is still held. */
TEST(ProcessFactsStartTime, KnowsAProcessThatLivesOnInAnotherThread)
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
      pthread_exit(nullptr);
   });
   const std::string path = "/proc/" + std::to_string(child.Pid()) + "/stat";
   if (access(path.c_str(), F_OK) != 0) {
      GTEST_SKIP() << "no /proc to tell when the first thread has ended";
   }
   while (ReadFile(path).find(") Z ") == std::string::npos) {
      usleep(1000);
   }
   uint64_t start = 0;
   EXPECT_TRUE(ProcessFacts_StartTime(child.Pid(), &start));
}

TEST(ProcessFactsMachineIdentifier, IsTheSameTextEachTimeAndNeverCut)
{
   std::array<char, 256> first = {};
   std::array<char, 256> second = {};
   ASSERT_TRUE(ProcessFacts_MachineIdentifier(first.data(), first.size()));
   const size_t length = std::string(first.data()).size();
   EXPECT_GT(length, 0U);
   ASSERT_TRUE(ProcessFacts_MachineIdentifier(second.data(), length + 1));
   EXPECT_STREQ(first.data(), second.data());
   EXPECT_FALSE(ProcessFacts_MachineIdentifier(second.data(), length));
   EXPECT_EQ(errno, ERANGE);
}

} // namespace
