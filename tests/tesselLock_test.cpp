#include "tests/support/testSupport.h"

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

/* tessel-lock as users run it, on a file in a folder of its own. */
class TesselLock : public testing::Test {
 protected:
   /* Starts it with its output in the file "out". */
   [[nodiscard]] pid_t Start(std::vector<std::string> words) const
   {
      std::vector<char *> argv = {const_cast<char *>("tessel-lock")};
      for (std::string &word : words) {
         argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      const std::string out = Out();
      const pid_t pid = fork();
      if (pid == 0) {
         if (freopen(out.c_str(), "w", stdout) != nullptr && freopen("/dev/null", "w", stderr) != nullptr) {
            execv(TESSEL_LOCK, argv.data());
         }
         _exit(255);
      }
      return pid;
   }

   static int Await(pid_t pid)
   {
      int status = 0;
      waitpid(pid, &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   [[nodiscard]] int Run(const std::vector<std::string> &words) const
   {
      return Await(Start(words));
   }

   /* Holds the lock until Release. */
   void Hold(const std::vector<std::string> &options = {})
   {
      std::vector<std::string> words = options;
      const std::string begun = folder_.Path("begun");
      words.insert(words.end(), {file_, "--", "sh", "-c", "touch " + begun + "; exec sleep 60"});
      holder_ = Start(words);
      while (!fs::exists(begun)) {
         usleep(1000);
      }
   }

   void Release() const
   {
      kill(holder_, SIGTERM);
      EXPECT_EQ(Await(holder_), 128 + SIGTERM);
   }

   [[nodiscard]] std::string Out() const
   {
      return folder_.Path("out");
   }

   ScratchFolder folder_;
   std::string file_ = folder_.Path("file");
   pid_t holder_ = -1;
};

TEST_F(TesselLock, PassesOnWhatTheCommandEndsWith)
{
   const struct {
      std::vector<std::string> words;
      int status;
   } cases[] = {
       {{file_, "--", "true"}, 0},
       {{file_, "sh", "-c", "exit 7"}, 7},
       {{"--shared", "--wait", "1.5", file_, "--", "sh", "-c", "kill -9 $$"}, 128 + 9},
       {{file_, "--", "/nonexistent"}, 127},
       {{file_, "--", "/"}, 126},
       {{}, 64},
       {{file_}, 64},
       {{"--wait", "soon", file_, "true"}, 64},
       {{"--wait", "1.2345", file_, "true"}, 64},
       {{"--wait", "99999999", file_, "true"}, 64},
       {{"--sharred", file_, "true"}, 64},
       {{"--show", file_, "true"}, 64},
       {{folder_.Path("none/file"), "true"}, 71},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Run(c.words), c.status) << testing::PrintToString(c.words);
      EXPECT_FALSE(fs::exists(file_ + ".lck"));
   }
}

TEST_F(TesselLock, KeepsOthersOutAndReadersTogether)
{
   Hold();
   EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 75);
   EXPECT_EQ(Run({"--shared", "--wait", "0.1", file_, "--", "true"}), 75);
   Release();
   fs::remove(folder_.Path("begun"));
   Hold({"--shared"});
   EXPECT_EQ(Run({"--shared", "--wait", "0", file_, "--", "true"}), 0);
   EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 75);
   Release();
   EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 0);
}

TEST_F(TesselLock, ShowsWhoHoldsAndWhoWaitsAndGivesUpAtASignal)
{
   EXPECT_EQ(Run({"--show", file_}), 0);
   EXPECT_EQ(ReadFile(Out()), "");
   Hold();
   const pid_t waiter = Start({"--shared", file_, "--", "true"});
   const std::string held = "holds    exclusive  " + std::to_string(holder_) + "-";
   std::string shown;
   while (shown.find("\nwaits    shared     " + std::to_string(waiter) + "-") == std::string::npos) {
      ASSERT_EQ(Run({"--show", file_}), 0);
      shown = ReadFile(Out());
      EXPECT_TRUE(shown.starts_with(held)) << shown;
   }
   EXPECT_NE(shown.find(" here "), std::string::npos);
   kill(waiter, SIGTERM);
   EXPECT_EQ(Await(waiter), 128 + SIGTERM);
   kill(holder_, SIGKILL);
   Await(holder_);
   ASSERT_EQ(Run({"--show", file_}), 0);
   EXPECT_TRUE(ReadFile(Out()).starts_with("stale    exclusive  ")) << ReadFile(Out());
   EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 0);
}

} // namespace
