/* What the daemon as it ships does with root's rights in a whole life, and what it hands on: seen from outside, at each of its
   system calls. */

#include "client/tesselclient.h"
#include "tests/support/daemonHarness.h"
#include "tests/support/privilegeWatch.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t USER = 65534;
constexpr gid_t GROUP = 65533;

/* All that is done raised, in the order of the alphabet. The flags of the log are those for writing a new, empty file. */
constexpr char ALLOWED[] = R"(child: close_range
child: execve COPY/Contents/Library/kestra-id
child: prlimit
child: setitimer
child: sigaction
daemon: close COPY
daemon: close COPY/Contents
daemon: close COPY/Contents/Library
daemon: close COPY/Contents/Library/services
daemon: connect /run/tessel-kext/com.kestra.kext.hvcore.teardown
daemon: connect /run/tessel-kext/com.kestra.kext.hvlink.teardown
daemon: fcntl COPY
daemon: fcntl COPY/Contents
daemon: fcntl COPY/Contents/Library
daemon: fcntl COPY/Contents/Library/services
daemon: fork
daemon: getdents COPY
daemon: getdents COPY/Contents
daemon: getdents COPY/Contents/Library
daemon: getdents COPY/Contents/Library/services
daemon: geteuid
daemon: getuid
daemon: openat COPY 02204000 00
daemon: openat COPY/Contents 02604000 00
daemon: openat COPY/Contents/Library 02604000 00
daemon: openat COPY/Contents/Library/services 02604000 00
daemon: openat /Library/Logs/Kestra Tessel Services.log 01101 0644
daemon: rmdir COPY
daemon: setresuid
daemon: stat COPY
daemon: stat COPY/Contents
daemon: stat COPY/Contents/Library
daemon: stat COPY/Contents/Library/services
daemon: unlink COPY/Contents 01000
daemon: unlink COPY/Contents/Library 01000
daemon: unlink COPY/Contents/Library/kestra-id 00
daemon: unlink COPY/Contents/Library/services 01000
daemon: unlink COPY/Contents/Library/services/services.sh 00
daemon: wait
)";

/* What the helper starts with, besides its arguments. */
const PrivilegeWatch::Facts INHERITED = {
    {"Uid", "65534\t0\t0\t0"},
    {"Gid", "65533\t65533\t65533\t65533"},
    {"Groups", "65533 "},
    {"SigBlk", "0000000000000000"},
    {"SigIgn", "0000000000000000"},
    {"Umask", "0022"},
    {"environ", "TZ=UTC;MARK=the launcher's;ASAN_OPTIONS=detect_leaks=0;"},
    {"fd 0", "/dev/null"},
    {"fd 1", "/Library/out"},
    {"fd 2", "/Library/err"},
};

std::string Shortened(std::string text)
{
   const size_t copy = text.find(SERVICE_COPY.string());
   return copy == std::string::npos ? text : text.replace(copy, SERVICE_COPY.string().size(), "COPY");
}

class Privilege : public testing::Test {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary() || geteuid() != 0) {
         GTEST_SKIP() << "needs root, for a real user other than the effective one, and a private /Library";
      }
      MakeLibrary("#!/bin/sh\n", "");
   }

   /* One client comes, in a process of its own, and goes. */
   static void Live(PrivilegeWatch *watch)
   {
      DaemonProcess daemon(Run);
      const std::string socket = daemon.SocketPath();
      if (fork() == 0) {
         int hold;
         _exit(TesselClient_Register(socket.c_str(), 60000, &hold).outcome);
      }
      ASSERT_EQ(0, watch->Follow(daemon.Release()));
      ASSERT_NE(std::string::npos, ReadFile(SERVICE_LOG).find("Exiting with code 0."));
   }

   /* As a launcher of an ordinary user starts a program that is root's. */
   static void Run(int listener, int launcher)
   {
      const std::string numbers[] = {std::to_string(listener), std::to_string(launcher)};
      const char *argv[] = {TESSEL_DAEMON, numbers[0].c_str(), numbers[1].c_str(), nullptr};
      const char *environment[] = {"TZ=UTC", "MARK=the launcher's", "ASAN_OPTIONS=detect_leaks=0", nullptr};
      const gid_t groups[] = {GROUP};

      dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
      dup2(open("/Library/out", O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
      dup2(open("/Library/err", O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
      signal(SIGPIPE, SIG_IGN);
      umask(022);
      if (setgroups(1, groups) == 0 && setresgid(GROUP, GROUP, GROUP) == 0 && setresuid(USER, 0, 0) == 0 &&
          PrivilegeWatch::Ask()) {
         execve(TESSEL_DAEMON, const_cast<char *const *>(argv), const_cast<char *const *>(environment));
      }
   }
};

TEST_F(Privilege, IsUsedForWhatIsListedAndNothingElse)
{
   const Teardowns teardowns;
   PrivilegeWatch watch;
   Live(&watch);
   std::string raised;
   for (const std::string &call : watch.Raised()) {
      raised += Shortened(call) + "\n";
   }
   EXPECT_EQ(ALLOWED, raised);

   struct stat log;
   ASSERT_EQ(0, stat(SERVICE_LOG.c_str(), &log));
   EXPECT_EQ(0U, log.st_uid);
   EXPECT_EQ(GROUP, log.st_gid);
   EXPECT_EQ(0100644U, log.st_mode);
}

TEST_F(Privilege, TheHelperInheritsWhatIsDocumentedAndNoDescriptorMore)
{
   PrivilegeWatch watch;
   Live(&watch);
   std::string actions;
   for (PrivilegeWatch::Facts facts : watch.Executed()) {
      for (const auto &[name, value] : INHERITED) {
         EXPECT_EQ(value, facts[name]) << name;
      }
      const auto descriptors = std::count_if(
          facts.begin(), facts.end(), [](const auto &fact) { return fact.first.compare(0, 3, "fd ") == 0; });
      EXPECT_EQ(3, descriptors);
      actions += Shortened(Shortened(facts["cmdline"])) + "\n";
   }
   const std::string command =
       "/bin/sh;COPY/Contents/Library/kestra-id;COPY/Contents/Library/services/services.sh;";
   EXPECT_EQ(command + "--start;\n" + command + "--stopdaemons;\n" + command + "--stopkexts;\n", actions);
}

} // namespace
