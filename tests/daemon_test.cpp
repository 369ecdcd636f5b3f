/* The daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/daemonHarness.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path COPY = SERVICE_COPY;
const fs::path LOG = SERVICE_LOG;
const fs::path ACTIONS = "/Library/actions";

constexpr char HELPER[] = "#!/bin/sh -p\nexec \"$@\"\n";
constexpr char SCRIPT[] = "#!/bin/sh -p\n"
                          "echo \"$1\" >> /Library/actions\n"
                          "[ -f \"/Library/do$1\" ] && . \"/Library/do$1\"\n"
                          "exit 0\n";

constexpr char STARTED[] = "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
constexpr char NO_KEXT[] =
    "Warning: TesselServicesWaitForKext: CTLIOCGINFO failed: No such file or directory\n";

std::string RegistrationFailed(int error)
{
   return "Warning: ServiceImplAddReadSource: kevent errno " + std::to_string(error) + ".\n";
}

std::string HelperStatus(int status)
{
   return "Warning: TesselServicesCommon: exit status " + std::to_string(status) + ".\n";
}

std::string Waiting(const std::string &extension, const std::string &then)
{
   return "Waiting for " + extension + " kext...\n" + then;
}

std::string Ready(const std::string &extension)
{
   return Waiting(extension, "Kext " + extension + " is ready.\n");
}

const std::string NO_KEXTS = Waiting("hvcore", NO_KEXT) + Waiting("hvlink", NO_KEXT);

/* The log from the last client's going to the end. */
std::string Stopped(const std::string &inStop, int code)
{
   return "ServiceImplUnref: Before stop().\n" + inStop +
          "ServiceImplUnref: After stop().\nServiceImplDaemon: Exiting with code " + std::to_string(code) +
          ".\n";
}

/* What was logged after the two lines that every start writes. */
std::string Logged()
{
   const std::string text = WithoutTimestamps(ReadFile(LOG));
   const std::string marker = "Running as Native process.\n";
   const size_t start = text.find(marker);
   return start == std::string::npos ? text : text.substr(start + marker.size());
}

/* A kernel control that the daemon finds, and the test answers for. */
class StandInControl {
 public:
   explicit StandInControl(const std::string &extension)
       : path_("/run/tessel-kext/com.kestra.kext." + extension + ".teardown"), listener_(ListenAt(path_))
   {
   }

   ~StandInControl()
   {
      unlink(path_.c_str());
   }

   StandInControl(const StandInControl &) = delete;
   StandInControl &operator=(const StandInControl &) = delete;

   /* Waits until the daemon has connected. */
   OwnedDescriptor Accept() const
   {
      return OwnedDescriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
   }

 private:
   std::string path_;
   OwnedDescriptor listener_;
};

class Daemon : public testing::Test {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary()) {
         GTEST_SKIP() << "needs a private /Library: run it through run-in-private-library";
      }
      signal(SIGPIPE, SIG_IGN);
      MakeLibrary();
   }

   static void MakeLibrary()
   {
      ::MakeLibrary(HELPER, SCRIPT);
   }

   /* The daemon's process image. An empty argument stands for the listening socket, "-" for the launcher's
      descriptor. */
   static DaemonProcess::Body Image(std::vector<std::string> arguments = {"", "-"})
   {
      return [arguments](int listener, int launcher) mutable {
         std::vector<char *> argv = {const_cast<char *>(TESSEL_DAEMON)};
         for (std::string &argument : arguments) {
            argument = argument.empty()  ? std::to_string(listener)
                       : argument == "-" ? std::to_string(launcher)
                                         : argument;
            argv.push_back(argument.data());
         }
         argv.push_back(nullptr);
         execv(argv[0], argv.data());
      };
   }

   /* A whole life with one client; its exit status. */
   static int ServeOneClient()
   {
      DaemonProcess daemon(Image());
      EXPECT_EQ(Client(daemon).Reply(), '1');
      return daemon.ExitStatus();
   }
};

TEST_F(Daemon, RunsTheActionsInOrderAndDeletesTheCopy)
{
   DaemonProcess daemon(Image());
   const std::string pid = std::to_string(daemon.Pid());
   Client first(daemon);
   Client second(daemon);
   first.LetGo();
   Client third(daemon);
   EXPECT_EQ(third.Reply(), '1');
   second.LetGo();
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n");
   third.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n--stopkexts\n");
   EXPECT_FALSE(fs::exists(COPY));
   EXPECT_TRUE(fs::exists(COPY.parent_path()));
   EXPECT_EQ(WithoutTimestamps(ReadFile(LOG)), "ServiceImpl_Daemon: PID " + pid +
                                                   "\nServiceImpl_Daemon: Running as Native process.\n" +
                                                   STARTED + Stopped(NO_KEXTS, 0));
}

TEST_F(Daemon, RefusesWrongArguments)
{
   const std::string invalid = "Warning: Invalid number of arguments.\n";
   const std::string unset = "Warning: ServiceImplSetBlockingState: fcntl get errno 9.\n";
   const OwnedDescriptor folder(open("/", O_RDONLY)); /* Cannot be watched. */
   const std::pair<std::vector<std::string>, std::string> cases[] = {
       {{""}, invalid},
       {{"", "-", "-"}, invalid},
       {{"", "9999"}, RegistrationFailed(EBADF)},
       {{"", "-1"}, RegistrationFailed(EBADF)},
       {{"text", "9999"}, RegistrationFailed(EBADF)}, /* The launcher comes first. */
       {{"9999", "-"}, unset},
       {{std::to_string(folder.get()), "-"}, RegistrationFailed(EPERM)},
   };
   for (const auto &[arguments, logged] : cases) {
      DaemonProcess daemon(Image(arguments));
      EXPECT_EQ(daemon.ExitStatus(), 1);
      EXPECT_EQ(Logged(), logged) << testing::PrintToString(arguments);
   }
}

TEST_F(Daemon, LeavesSigpipeAsItIs)
{
   {
      DaemonProcess daemon(Image());
      daemon.WhileStopped([&] { Connection(daemon).Close(); });
      Connection(daemon).Read();
      EXPECT_EQ(Logged(), "") << "ignored: the client's end is silent";
   }
   signal(SIGPIPE, SIG_DFL);
   DaemonProcess daemon(Image());
   daemon.WhileStopped([&] { Connection(daemon).Close(); });
   EXPECT_EQ(daemon.ExitStatus(), -SIGPIPE);
}

TEST_F(Daemon, HoldsTwoThousandClients)
{
   constexpr rlim_t clients = 2000;
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = limit.rlim_max;
   setrlimit(RLIMIT_NOFILE, &limit);
   if (limit.rlim_cur < clients + 100) {
      GTEST_SKIP() << "needs " << clients + 100 << " descriptors, the limit is " << limit.rlim_cur;
   }
   DaemonProcess daemon(Image());
   const size_t descriptors = daemon.OpenDescriptors();
   std::vector<std::unique_ptr<Client>> held;
   for (rlim_t i = 0; i < clients; i++) {
      held.push_back(std::make_unique<Client>(daemon));
      ASSERT_EQ(held.back()->Reply(), '1') << i;
   }
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors + clients);
   held.clear();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS, 0));
}

TEST_F(Daemon, StopsTheServicesThoughItsTableIsFull)
{
   DaemonProcess daemon([image = Image()](int listener, int launcher) {
      const struct rlimit limit = {.rlim_cur = 64, .rlim_max = 64};
      setrlimit(RLIMIT_NOFILE, &limit);
      image(listener, launcher);
   });
   Client client(daemon);
   const OwnedDescriptor leftOpen(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
   size_t refused = 0;
   while (Connection(daemon).HandOver(leftOpen.get()) == '0') {
      refused++;
   }
   EXPECT_GT(refused, 40U);
   client.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n--stopkexts\n");
   EXPECT_FALSE(fs::exists(COPY));
}

TEST_F(Daemon, OnlyLogsThatTheServicesFail)
{
   WriteFile("/Library/do--start", "exit 3\n");
   WriteFile("/Library/do--stopdaemons", "kill -TERM $$\n");
   WriteFile("/Library/do--stopkexts", "exit 1\n");
   const std::string begun = "ServiceImplRef: Before start().\n";
   const std::string started = "ServiceImplRef: After start().\n";
   EXPECT_EQ(ServeOneClient(), 0);
   EXPECT_EQ(Logged(), begun + HelperStatus(768) + started +
                           Stopped(HelperStatus(SIGTERM) + NO_KEXTS + HelperStatus(256), 0));

   const std::string missing = HelperStatus(127 * 256);
   EXPECT_EQ(ServeOneClient(), 0) << "the copy is gone by now, and with it the helper";
   EXPECT_EQ(Logged(), begun + missing + started + Stopped(missing + NO_KEXTS + missing, 0));
}

TEST_F(Daemon, FailedDeletionIsTheExitStatus)
{
   const fs::path undecodable = COPY / "\xFF";
   WriteFile(undecodable, "");
   EXPECT_EQ(ServeOneClient(), 1);
   EXPECT_TRUE(fs::exists(undecodable));
   EXPECT_FALSE(fs::exists(COPY / "Contents"));
   const std::string warning = "Warning: File_WalkDirectoryNext: file '" + COPY.string() +
                               "' in directory '\\xFF' cannot be converted to UTF8\n";
   EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS + warning, 1));
}

TEST_F(Daemon, WaitsForEachKernelExtensionInTurn)
{
   const StandInControl core("hvcore");
   const StandInControl link("hvlink");
   DaemonProcess daemon(Image());
   Client(daemon).LetGo();

   const OwnedDescriptor answering = core.Accept();
   EXPECT_EQ(Logged(), STARTED + ("ServiceImplUnref: Before stop().\n" + Waiting("hvcore", "")));
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n");
   ASSERT_EQ(write(answering.get(), "x", 1), 1);

   OwnedDescriptor closing = link.Accept();
   EXPECT_TRUE(fs::exists(COPY));
   closing.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + Stopped(Ready("hvcore") + Ready("hvlink"), 0));
}

TEST_F(Daemon, ClientsQueueWhileTheServicesStart)
{
   ASSERT_EQ(mkfifo("/Library/gate", 0600), 0);
   WriteFile("/Library/do--start", "read line < /Library/gate\n");
   DaemonProcess daemon(Image());
   Pipe pipe;
   Connection starting(daemon);
   ASSERT_TRUE(starting.Read() && starting.Send("x", {pipe.reader.get()}));
   std::ofstream gate("/Library/gate"); /* Opens when the script has come that far. */
   Connection waiting(daemon);
   gate << "go\n" << std::flush;
   EXPECT_EQ(starting.Read(), '1');
   EXPECT_EQ(waiting.HandOver(pipe.reader.get()), '1');
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n");
}

} // namespace
