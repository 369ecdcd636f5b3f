/* What the daemon as it ships cannot be brought to; the rest of the runtime is in lifeCycle_test.cpp and
   daemon_test.cpp. */

#include "daemon/serviceImpl.h"

#include "tests/support/daemonHarness.h"

#include <sys/resource.h>
#include <unistd.h>

namespace {

bool Succeed()
{
   return true;
}

TEST(ServiceImpl, ReportsThatThereIsNoRoomForAQueue)
{
   const ScratchFolder folder;
   const std::string log = folder.Path("log");
   DaemonProcess daemon([&log](int listener, int launcher) {
      const int next = dup(launcher); /* The lowest free number, which the log will have. */
      close(next);
      const struct rlimit limit = {static_cast<rlim_t>(next) + 1, static_cast<rlim_t>(next) + 1};
      setrlimit(RLIMIT_NOFILE, &limit);
      std::string arguments[] = {"daemon", std::to_string(listener), std::to_string(launcher)};
      char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
      _exit(ServiceImpl_Daemon(3, argv, 2, log.c_str(), Succeed, Succeed));
   });
   EXPECT_EQ(daemon.ExitStatus(), 1);
   const std::string text = ReadFile(log);
   EXPECT_NE(text.find("Warning: ServiceImplDaemon: kqueue errno 24.\n"), std::string::npos) << text;
}

} // namespace
