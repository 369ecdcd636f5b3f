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
      const pid_t pid = fork();
      if (pid == 0) {
         if (freopen(out_.c_str(), "w", stdout) != nullptr && freopen("/dev/null", "w", stderr) != nullptr) {
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

   /* What --show prints. */
   [[nodiscard]] std::string Shown() const
   {
      EXPECT_EQ(Run({"--show", file_}), 0);
      return ReadFile(out_);
   }

   /* One that holds the lock until it is ended. */
   [[nodiscard]] pid_t Hold(bool shared) const
   {
      const pid_t holder = Start({shared ? "--shared" : "--wait=9", file_, "--", "sleep", "60"});
      while (!Shown().starts_with("holds ")) {
         usleep(1000);
      }
      return holder;
   }

   ScratchFolder folder_;
   std::string file_ = folder_.Path("file");
   std::string out_ = folder_.Path("out");
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

TEST_F(TesselLock, KeepsOthersOutAndReadersTogetherAndShowsThem)
{
   EXPECT_EQ(Shown(), "");
   for (const bool shared : {false, true}) {
      const pid_t holder = Hold(shared);
      EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 75);
      EXPECT_EQ(Run({"--shared", "--wait", "0.1", file_, "--", "true"}), shared ? 0 : 75);
      const pid_t waiter = Start({file_, "--", "true"});
      const std::string waits = "\nwaits    exclusive  " + std::to_string(waiter) + "-";
      std::string shown;
      while (shown.find(waits) == std::string::npos) {
         shown = Shown();
         EXPECT_TRUE(shown.starts_with((shared ? "holds    shared     " : "holds    exclusive  ") +
                                       std::to_string(holder) + "-"))
             << shown;
      }
      EXPECT_NE(shown.find(" here "), std::string::npos);
      kill(waiter, SIGTERM);
      EXPECT_EQ(Await(waiter), 128 + SIGTERM);
      kill(holder, shared ? SIGTERM : SIGKILL);
      EXPECT_EQ(Await(holder), shared ? 128 + SIGTERM : -1);
      EXPECT_EQ(Shown().starts_with("stale    exclusive  "), !shared);
      EXPECT_EQ(Run({"--wait", "0", file_, "--", "true"}), 0);
   }
}

} // namespace
