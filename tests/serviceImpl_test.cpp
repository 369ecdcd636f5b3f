#include "daemon/serviceImpl.h"

#include "tests/support/daemonHarness.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/* What the actions of a daemon in another process do and did. */
struct Actions {
   std::atomic<int> starts{0};
   std::atomic<int> stops{0};
   std::atomic<int> failingStarts{0};
   std::atomic<bool> failingStop{false};
};

Actions *sActions = nullptr;

bool Start()
{
   sActions->starts++;
   return sActions->failingStarts-- <= 0;
}

bool Stop()
{
   sActions->stops++;
   return !sActions->failingStop;
}

/* The runtime with these actions, run in a process of its own. */
class ServiceImpl : public testing::Test {
 protected:
   ServiceImpl()
   {
      signal(SIGPIPE, SIG_IGN);
      void *shared =
          mmap(nullptr, sizeof(Actions), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      sActions = new (shared) Actions;
   }

   ~ServiceImpl() override
   {
      munmap(sActions, sizeof(Actions));
   }

   /* Runs the runtime on these two arguments. */
   DaemonProcess::Body Runtime() const
   {
      return [log = log_](int listener, int launcher) {
         Run(log, std::to_string(listener), std::to_string(launcher));
      };
   }

   static void Run(const std::string &log, std::string listener, std::string launcher)
   {
      char name[] = "daemon";
      char *argv[] = {name, listener.data(), launcher.data(), nullptr};
      _exit(ServiceImpl_Daemon(3, argv, 2, log.c_str(), Start, Stop));
   }

   /* What was logged, without the timestamps and the two lines that every start writes. */
   std::string Logged() const
   {
      const std::string text = WithoutTimestamps(ReadFile(log_));
      const std::string marker = "Running as Native process.\n";
      const size_t start = text.find(marker);
      return start == std::string::npos ? text : text.substr(start + marker.size());
   }

   const ScratchFolder folder_;
   const std::string log_ = folder_.Path("log");
};

constexpr char STARTED[] = "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
constexpr char STOPPED[] = "ServiceImplUnref: Before stop().\nServiceImplUnref: After stop().\n";

std::string Exiting(int code)
{
   return "ServiceImplDaemon: Exiting with code " + std::to_string(code) + ".\n";
}

std::string RegistrationFailed(int error)
{
   return "Warning: ServiceImplAddReadSource: kevent errno " + std::to_string(error) + ".\n";
}

TEST_F(ServiceImpl, LogsTheProcessFirst)
{
   DaemonProcess daemon(Runtime());
   const std::string pid = std::to_string(daemon.Pid());
   daemon.DropLauncher();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(WithoutTimestamps(ReadFile(log_)), "ServiceImpl_Daemon: PID " + pid +
                                                    "\nServiceImpl_Daemon: Running as Native process.\n" +
                                                    Exiting(0));
}

TEST_F(ServiceImpl, CountsClientsAndStopsAfterTheLast)
{
   DaemonProcess daemon(Runtime());
   Client first(daemon);
   Client second(daemon);
   EXPECT_EQ(first.Reply(), '1');
   EXPECT_EQ(second.Reply(), '1');
   first.LetGo();
   Client third(daemon);
   EXPECT_EQ(third.Reply(), '1');
   second.LetGo();
   EXPECT_EQ(sActions->stops, 0);
   third.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(sActions->starts, 1);
   EXPECT_EQ(sActions->stops, 1);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

TEST_F(ServiceImpl, OutlivesItsLauncherWhileClientsAreThere)
{
   for (const int clients : {1, 2}) {
      DaemonProcess daemon(Runtime());
      std::vector<std::unique_ptr<Client>> held;
      for (int i = 0; i < clients; i++) {
         held.push_back(std::make_unique<Client>(daemon));
      }
      const size_t descriptors = daemon.OpenDescriptors();
      daemon.DropLauncher();
      const Client after(daemon);
      EXPECT_EQ(after.Reply(), '1');
      EXPECT_EQ(daemon.OpenDescriptors(), descriptors) << "one client more, and the launcher's closed";
      held.clear();
      Connection(daemon).Read();
   }
}

TEST_F(ServiceImpl, FailedStopIsTheExitStatus)
{
   sActions->failingStop = true;
   DaemonProcess daemon(Runtime());
   Client(daemon).LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 1);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(1));
}

TEST_F(ServiceImpl, RefusedStartIsTriedAgainForTheNextClient)
{
   sActions->failingStarts = 1;
   DaemonProcess daemon(Runtime());
   const size_t descriptors = daemon.OpenDescriptors();
   EXPECT_EQ(Client(daemon).Reply(), '0');
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors);
   Client next(daemon);
   EXPECT_EQ(next.Reply(), '1');
   next.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(sActions->starts, 2);
   EXPECT_EQ(Logged(), STARTED + std::string(STARTED) + STOPPED + Exiting(0));
}

TEST_F(ServiceImpl, WritingCountsAsLettingGo)
{
   DaemonProcess daemon(Runtime());
   Pipe pipe;
   ASSERT_EQ(Connection(daemon).HandOver(pipe.reader.get()), '1');
   ASSERT_EQ(write(pipe.writer.get(), "x", 1), 1);
   EXPECT_EQ(daemon.ExitStatus(), 0);
}

TEST_F(ServiceImpl, GreetsWithTheLastDataByteThatArrived)
{
   DaemonProcess daemon(Runtime());
   Pipe pipe;
   Connection first(daemon);
   EXPECT_EQ(first.Read(), 0);
   ASSERT_TRUE(first.Send("a", {pipe.reader.get()}));
   EXPECT_EQ(first.Read(), '1');
   Connection second(daemon);
   EXPECT_EQ(second.Read(), 'a');
   ASSERT_TRUE(second.Send("b", {}));
   EXPECT_EQ(second.Read(), std::nullopt);
   EXPECT_EQ(Connection(daemon).Read(), 'b') << "a refused message arrived too";
}

TEST_F(ServiceImpl, KeptCopyOfAPassedDescriptorCausesNoSecondEvent)
{
   DaemonProcess daemon(Runtime());
   Pipe kept;
   Client other(daemon);
   ASSERT_EQ(Connection(daemon).HandOver(kept.reader.get()), '1');
   kept.writer.reset();
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(sActions->stops, 0);
   other.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

TEST_F(ServiceImpl, OneOpenFilePassedTwiceCountsTwice)
{
   DaemonProcess daemon(Runtime());
   Pipe shared;
   ASSERT_EQ(Connection(daemon).HandOver(shared.reader.get()), '1');
   ASSERT_EQ(Connection(daemon).HandOver(shared.reader.get()), '1');
   shared.writer.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(sActions->stops, 1);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

TEST_F(ServiceImpl, DescriptorThatCannotBeWatchedIsRefusedAndLeftOpen)
{
   DaemonProcess daemon(Runtime());
   const OwnedDescriptor file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
   int sockets[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
   OwnedDescriptor held(sockets[0]);
   const OwnedDescriptor passed(sockets[1]);

   const size_t descriptors = daemon.OpenDescriptors();
   EXPECT_EQ(Connection(daemon).HandOver(file.get()), '0');
   EXPECT_EQ(sActions->starts, 0);
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors + 1);

   EXPECT_EQ(Connection(daemon).HandOver(passed.get()), '1') << "a socket is as good as a pipe";
   held.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), RegistrationFailed(EPERM) + STARTED + STOPPED + Exiting(0));
}

/* Each line: what a bad client does between the greeting and its end, and what is logged about it. */
TEST_F(ServiceImpl, SurvivesBadClientsWithoutALeak)
{
   static constexpr char unexpected[] = "Warning: ServiceImplRecvFd: Unexpected message.\n";
   Pipe pipe;
   const int fd = pipe.reader.get();
   const struct {
      const char *what;
      std::function<void(Connection &)> act;
      const char *logged;
   } shapes[] = {
       {"hang up before the greeting", [](Connection &c) { c.Close(); }, ""},
       {"hang up after the greeting", [](Connection &c) { c.Read(), c.Close(); }, ""},
       {"end of sending before the greeting", [](Connection &c) { c.ShutdownSending(), c.Read(); }, ""},
       {"end of sending after the greeting", [](Connection &c) { c.Read(), c.ShutdownSending(); }, ""},
       {"data without a descriptor", [](Connection &c) { c.Send("x", {}), c.Read(); }, unexpected},
       {"more data without a descriptor", [](Connection &c) { c.Send("xyz", {}), c.Read(); }, unexpected},
       {"half a message", [](Connection &c) { c.Send("x", {}), c.ShutdownSending(), c.Read(); }, unexpected},
       {"two descriptors",
        [fd](Connection &c) {
           c.Send("x", {fd, fd}), c.Read();
        },
        unexpected},
       {"three descriptors",
        [fd](Connection &c) {
           c.Send("x", {fd, fd, fd}), c.Read();
        },
        unexpected},
       {"as many as fit", [fd](Connection &c) { c.Send("x", std::vector<int>(253, fd)), c.Read(); },
        unexpected},
       {"data first, the descriptor after it",
        [fd](Connection &c) { c.Send("x", {}), c.Send("x", {fd}), c.Read(); }, unexpected},
   };
   DaemonProcess daemon(Runtime());
   const size_t descriptors = daemon.OpenDescriptors();
   std::string expected;
   for (const auto &shape : shapes) {
      SCOPED_TRACE(shape.what);
      Connection bad(daemon);
      shape.act(bad);
      bad.Read();
      bad.Close();
      EXPECT_EQ(daemon.OpenDescriptors(), descriptors);
      expected += shape.logged;
      EXPECT_EQ(Logged(), expected);
   }
   EXPECT_EQ(Client(daemon).Reply(), '1') << "good clients are still served";
}

TEST_F(ServiceImpl, ClientThatDoesNotWaitForItsAnswerIsRegistered)
{
   DaemonProcess daemon(Runtime());
   Pipe pipe;
   {
      Connection hasty(daemon);
      hasty.Read();
      hasty.Send("x", {pipe.reader.get()});
   }
   pipe.reader.reset();
   Connection(daemon).Read();
   pipe.writer.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

TEST_F(ServiceImpl, LeavesSigpipeAsItIs)
{
   {
      DaemonProcess daemon(Runtime());
      daemon.WhileStopped([&] { Connection(daemon).Close(); });
      const Client next(daemon);
      EXPECT_EQ(next.Reply(), '1') << "ignored: the client's end is silent";
      EXPECT_EQ(Logged(), STARTED);
   }
   signal(SIGPIPE, SIG_DFL);
   DaemonProcess daemon(Runtime());
   daemon.WhileStopped([&] { Connection(daemon).Close(); });
   EXPECT_EQ(daemon.ExitStatus(), -SIGPIPE);
}

TEST_F(ServiceImpl, SignalsDuringTheWaitAreSurvived)
{
   DaemonProcess daemon([this](int listener, int launcher) {
      struct sigaction action = {};
      action.sa_handler = [](int) {};
      sigaction(SIGUSR1, &action, nullptr);
      Run(log_, std::to_string(listener), std::to_string(launcher));
   });
   for (int i = 0; i < 20; i++) {
      daemon.AwaitIdle();
      daemon.Signal(SIGUSR1);
      daemon.AwaitIdle();
      daemon.WhileStopped([] {});
   }
   Client client(daemon);
   EXPECT_EQ(client.Reply(), '1');
   client.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

TEST_F(ServiceImpl, SetUpFailuresAreReportedAndEndWithOne)
{
   const std::string wrongListener = "Warning: ServiceImplSetBlockingState: fcntl get errno 9.\n";
   const struct {
      std::string listener; /* Empty: the real one. */
      std::string launcher;
      std::string logged;
   } cases[] = {
       {"", "9999", RegistrationFailed(EBADF)},
       {"", "-1", RegistrationFailed(EBADF)},
       {"9999", "", wrongListener},
       {"text", "9999", RegistrationFailed(EBADF)},
   };
   for (const auto &c : cases) {
      DaemonProcess daemon([&](int listener, int launcher) {
         Run(log_, c.listener.empty() ? std::to_string(listener) : c.listener,
             c.launcher.empty() ? std::to_string(launcher) : c.launcher);
      });
      EXPECT_EQ(daemon.ExitStatus(), 1);
      EXPECT_EQ(Logged(), c.logged) << c.listener << " " << c.launcher;
   }
}

TEST_F(ServiceImpl, SetUpFailuresAtTheDescriptorLimit)
{
   /* At the limit the sanitizer itself cannot look at objects: no member is touched below it. */
   DaemonProcess daemon([path = log_](int listener, int launcher) {
      const int log = dup(launcher); /* The lowest free number, which the log will have. */
      close(log);
      const struct rlimit limit = {static_cast<rlim_t>(log) + 1, static_cast<rlim_t>(log) + 1};
      setrlimit(RLIMIT_NOFILE, &limit);
      Run(path, std::to_string(listener), std::to_string(launcher));
   });
   EXPECT_EQ(daemon.ExitStatus(), 1);
   EXPECT_EQ(Logged(), "Warning: ServiceImplDaemon: kqueue errno " + std::to_string(EMFILE) + ".\n");
}

TEST_F(ServiceImpl, HoldsTwoThousandClients)
{
   constexpr rlim_t clients = 2000;
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = limit.rlim_max;
   setrlimit(RLIMIT_NOFILE, &limit);
   if (limit.rlim_cur < clients + 100) {
      GTEST_SKIP() << "needs " << clients + 100 << " descriptors, the limit is " << limit.rlim_cur;
   }
   DaemonProcess daemon(Runtime());
   const size_t descriptors = daemon.OpenDescriptors();
   std::vector<std::unique_ptr<Client>> held;
   for (rlim_t i = 0; i < clients; i++) {
      held.push_back(std::make_unique<Client>(daemon));
      ASSERT_EQ(held.back()->Reply(), '1') << i;
   }
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors + clients);
   held.resize(1);
   for (int i = 0; i < 3; i++) {
      Client(daemon).LetGo();
   }
   EXPECT_EQ(sActions->stops, 0);
   held.clear();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(sActions->starts, 1);
   EXPECT_EQ(Logged(), STARTED + std::string(STOPPED) + Exiting(0));
}

} // namespace
