/* What the daemon does with root's rights in a whole life, and what root's helper inherits. */

#include "tests/support/callFaults.h"
#include "tests/support/daemonHarness.h"

#include <csignal>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

int TesselDaemon_Main(int argc, char **argv);

namespace {

constexpr uid_t USER = 65534;
constexpr gid_t GROUP = 65533;

/* All that is called raised and can fail: to open the log; in the helper's child; to connect to a control; to delete the
   service copy. */
const std::set<std::string> RAISED = {"open",        "fork",      "waitpid",   "setitimer", "sigaction",
                                      "close_range", "getrlimit", "setrlimit", "execvp",    "connect",
                                      "openat",      "fdopendir", "readdir",   "stat",      "fstat",
                                      "fstatat",     "unlinkat",  "rmdir",     "seteuid"};

/* What the helper finds, besides its arguments; the shell itself opens 3 and 255. */
constexpr char INHERITED[] =
    "Umask:\t0022\n"
    "Uid:\t65534\t0\t0\t0\n"
    "Gid:\t65533\t65533\t65533\t65533\n"
    "Groups:\t65533 \n"
    "SigBlk:\t0000000000000000\n"
    "SigIgn:\t0000000000000000\n"
    "the starter's\n"
    "/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/255 /proc/self/fd/3\n";

class Privilege : public testing::Test {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary() || geteuid() != 0) {
         GTEST_SKIP() << "needs root, for a real user other than the effective one, and a private /Library";
      }
      umask(022);
      MakeLibrary("#!/bin/bash -p\n"
                  "exec > /Library/seen\n"
                  "grep -E '^(Umask|[UG]id|Groups|SigBlk|SigIgn):' /proc/self/status\n"
                  "echo $MARK\n"
                  "echo /proc/self/fd/*\n",
                  "");
   }
};

/* As a launcher of an ordinary user starts a program that is root's, with descriptors too many. */
void RunDaemon(int listener, int launcher, CallWatch *watch)
{
   std::string arguments[] = {"tessel-daemon", std::to_string(listener), std::to_string(launcher)};
   char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
   const gid_t groups[] = {GROUP};

   signal(SIGPIPE, SIG_IGN);
   setenv("MARK", "the starter's", 1);
   dup2(STDERR_FILENO, 77);
   if (setgroups(1, groups) == 0 && setresgid(GROUP, GROUP, GROUP) == 0 && setresuid(USER, 0, 0) == 0) {
      watch->Arm();
      _exit(TesselDaemon_Main(3, argv));
   }
}

TEST_F(Privilege, IsUsedForWhatIsListedAndTheHelperInheritsWhatIsDocumented)
{
   const Teardowns teardowns;
   CallWatch watch;
   DaemonProcess daemon([&watch](int listener, int launcher) { RunDaemon(listener, launcher, &watch); });
   Client(daemon).LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   std::set<std::string> raised = watch.CalledRaised();
   for (const char *memory : {"malloc", "calloc", "realloc"}) {
      raised.erase(memory);
   }
   EXPECT_EQ(raised, RAISED);
   EXPECT_EQ(ReadFile("/Library/seen"), INHERITED);

   struct stat log;
   ASSERT_EQ(stat(SERVICE_LOG.c_str(), &log), 0);
   EXPECT_EQ(log.st_uid, 0U);
   EXPECT_EQ(log.st_gid, GROUP);
   EXPECT_EQ(log.st_mode, 0100644U);
}

} // namespace
