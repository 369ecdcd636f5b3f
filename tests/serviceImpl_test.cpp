/* What the shipped daemon's actions cannot be made to do; the rest of the runtime is in daemon_test.cpp. */

#include "daemon/serviceImpl.h"

#include "tests/support/daemonHarness.h"

#include <sys/resource.h>
#include <unistd.h>

namespace {

int sFailingStarts = 0;
bool sStopSucceeds = true;

bool Start()
{
   return sFailingStarts-- <= 0;
}

bool Stop()
{
   return sStopSucceeds;
}

class ServiceImpl : public testing::Test {
 protected:
   /* Never touches the object: at the descriptor limit the sanitizer cannot look at it. */
   static void Run(const std::string &log, int listener, int launcher)
   {
      std::string arguments[] = {"daemon", std::to_string(listener), std::to_string(launcher)};
      char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
      _exit(ServiceImpl_Daemon(3, argv, 2, log.c_str(), Start, Stop));
   }

   std::string Logged() const
   {
      const std::string text = WithoutTimestamps(ReadFile(log_));
      return text.substr(text.find("Native process.\n") + 16);
   }

   const ScratchFolder folder_;
   const std::string log_ = folder_.Path("log");
};

TEST_F(ServiceImpl, TriesARefusedStartAgainForTheNextClient)
{
   sFailingStarts = 1;
   sStopSucceeds = false;
   DaemonProcess daemon([log = log_](int listener, int launcher) { Run(log, listener, launcher); });
   const size_t descriptors = daemon.OpenDescriptors();
   EXPECT_EQ(Client(daemon).Reply(), '0');
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors);
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(daemon.ExitStatus(), 1) << "the stop failed";
   const std::string start = "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
   EXPECT_EQ(Logged(), start + start +
                           "ServiceImplUnref: Before stop().\nServiceImplUnref: After stop().\n"
                           "ServiceImplDaemon: Exiting with code 1.\n");
}

TEST_F(ServiceImpl, EndsWhereAClientsDescriptorCannotBeClosed)
{
   const CapturedLog log;
   ServiceImplCtx ctx = {.start = Start, .stop = Stop, .refCount = 1, .kq = -1};
   const QueueEvent event = {.descriptor = 9999, .handler = ServiceImplUnref};
   EXPECT_EQ(ServiceImplUnref(&ctx, &event), 1);
   EXPECT_EQ(log.Text(), "Warning: ServiceImplClose: close 9999 errno 9.\n");
}

TEST_F(ServiceImpl, ReportsThatThereIsNoRoomForAQueue)
{
   DaemonProcess daemon([log = log_](int listener, int launcher) {
      const int next = dup(launcher); /* The lowest free number, which the log will have. */
      close(next);
      const struct rlimit limit = {static_cast<rlim_t>(next) + 1, static_cast<rlim_t>(next) + 1};
      setrlimit(RLIMIT_NOFILE, &limit);
      Run(log, listener, launcher);
   });
   EXPECT_EQ(daemon.ExitStatus(), 1);
   EXPECT_EQ(Logged(), "Warning: ServiceImplDaemon: kqueue errno 24.\n");
}

} // namespace
