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

const fs::path SUPPORT = "/Library/Application Support/Kestra/Kestra Tessel";
const fs::path COPY = SUPPORT / "Services";
const fs::path LOG = "/Library/Logs/Kestra Tessel Services.log";
const fs::path ACTIONS = "/Library/actions";

constexpr char HELPER[] = "#!/bin/sh -p\nexec \"$@\"\n";
constexpr char SCRIPT[] = "#!/bin/sh -p\n"
                          "echo \"$1\" >> /Library/actions\n"
                          "[ -f \"/Library/do$1\" ] && . \"/Library/do$1\"\n"
                          "exit 0\n";

constexpr char STARTED[] = "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
constexpr char NO_KEXT[] =
    "Warning: TesselServicesWaitForKext: CTLIOCGINFO failed: No such file or directory\n";
constexpr char UNEXPECTED[] = "Warning: ServiceImplRecvFd: Unexpected message.\n";

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

   /* Connections are refused from here on, although the name is still there. */
   void StopListening()
   {
      listener_.reset();
   }

 private:
   std::string path_;
   OwnedDescriptor listener_;
};

class Daemon : public testing::Test {
 protected:
   void SetUp() override
   {
      if (getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
         GTEST_SKIP() << "needs a private /Library: run it through run-in-private-library";
      }
      signal(SIGPIPE, SIG_IGN);
      MakeLibrary();
   }

   static void MakeLibrary()
   {
      for (const auto &entry : fs::directory_iterator("/Library")) {
         fs::remove_all(entry);
      }
      fs::create_directories(LOG.parent_path());
      fs::create_directories(COPY / "Contents/Library/services");
      for (const auto &[name, text] : {std::pair("kestra-id", HELPER), {"services/services.sh", SCRIPT}}) {
         const fs::path path = COPY / "Contents/Library" / name;
         WriteFile(path, text);
         fs::permissions(path, fs::perms(0755));
      }
   }

   /* The daemon's process image. An empty argument stands for the listening socket, "-" for the launcher's
      descriptor. */
   static DaemonProcess::Body Image(std::vector<std::string> arguments = {"", "-"}, uid_t realUser = getuid())
   {
      return [arguments, realUser](int listener, int launcher) mutable {
         std::vector<char *> argv = {const_cast<char *>(TESSEL_DAEMON)};
         for (std::string &argument : arguments) {
            argument = argument.empty()  ? std::to_string(listener)
                       : argument == "-" ? std::to_string(launcher)
                                         : argument;
            argv.push_back(argument.data());
         }
         argv.push_back(nullptr);
         if (realUser != getuid()) {
            /* The leak sanitizer cannot look into a process of another real user. */
            setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
            if (setresuid(realUser, 0, 0) == -1) {
               return;
            }
         }
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
   EXPECT_TRUE(fs::exists(SUPPORT));
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

TEST_F(Daemon, OutlivesItsLauncherWhileClientsAreThere)
{
   for (const size_t clients : {0U, 1U, 2U}) {
      MakeLibrary();
      DaemonProcess daemon(Image());
      std::vector<std::unique_ptr<Client>> held(clients);
      for (auto &client : held) {
         client = std::make_unique<Client>(daemon);
      }
      daemon.DropLauncher();
      if (clients != 0) {
         EXPECT_EQ(Client(daemon).Reply(), '1');
      }
      held.clear();
      EXPECT_EQ(daemon.ExitStatus(), 0);
      EXPECT_EQ(Logged(),
                clients != 0 ? STARTED + Stopped(NO_KEXTS, 0) : "ServiceImplDaemon: Exiting with code 0.\n");
      EXPECT_EQ(fs::exists(COPY), clients == 0);
   }
}

TEST_F(Daemon, GreetsWithTheLastDataByteThatArrived)
{
   DaemonProcess daemon(Image());
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

/* Each line: how a client's descriptor is made ready, once it is registered as often as said. */
TEST_F(Daemon, CountsEveryWayOfLettingGoOnce)
{
   const struct {
      const char *what;
      int registrations;
      bool keepsACopy;
      void (*letGo)(Pipe &);
   } ways[] = {
       {"closes", 1, false, [](Pipe &pipe) { pipe.writer.reset(); }},
       {"writes", 1, false, [](Pipe &pipe) { EXPECT_EQ(write(pipe.writer.get(), "x", 1), 1); }},
       {"closes, but keeps a copy of what it passed", 1, true, [](Pipe &pipe) { pipe.writer.reset(); }},
       {"passed the same open file twice", 2, true, [](Pipe &pipe) { pipe.writer.reset(); }},
   };
   for (const auto &way : ways) {
      SCOPED_TRACE(way.what);
      MakeLibrary();
      DaemonProcess daemon(Image());
      Client other(daemon);
      Pipe pipe;
      for (int i = 0; i < way.registrations; i++) {
         EXPECT_EQ(Connection(daemon).HandOver(pipe.reader.get()), '1');
      }
      if (!way.keepsACopy) {
         pipe.reader.reset();
      }
      way.letGo(pipe);
      EXPECT_EQ(Client(daemon).Reply(), '1');
      EXPECT_EQ(ReadFile(ACTIONS), "--start\n");
      other.LetGo();
      EXPECT_EQ(daemon.ExitStatus(), 0);
      EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS, 0));
   }
}

TEST_F(Daemon, TakesSocketsAndRefusesWhatCannotBeWatched)
{
   DaemonProcess daemon(Image());
   const OwnedDescriptor file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
   int sockets[2];
   ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
   OwnedDescriptor held(sockets[0]);
   const OwnedDescriptor passed(sockets[1]);

   const size_t descriptors = daemon.OpenDescriptors();
   EXPECT_EQ(Connection(daemon).HandOver(file.get()), '0');
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors + 1) << "left open on purpose";
   EXPECT_EQ(Connection(daemon).HandOver(passed.get()), '1');
   held.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), RegistrationFailed(EPERM) + STARTED + Stopped(NO_KEXTS, 0));
}

/* Each line: what a bad client does until its end, and what is logged about it. */
TEST_F(Daemon, SurvivesBadClientsWithoutALeak)
{
   Pipe pipe;
   const int fd = pipe.reader.get();
   const struct {
      const char *what;
      std::function<void(Connection &)> act;
      const char *logged;
   } shapes[] = {
       {"hang up before the greeting", [](Connection &c) { c.Close(); }, ""},
       {"hang up after the greeting", [](Connection &c) { c.Read(), c.Close(); }, ""},
       {"end of sending", [](Connection &c) { c.ShutdownSending(), c.Read(); }, ""},
       {"data without a descriptor", [](Connection &c) { c.Send("x", {}), c.Read(); }, UNEXPECTED},
       {"half a message", [](Connection &c) { c.Send("x", {}), c.ShutdownSending(), c.Read(); }, UNEXPECTED},
       {"two descriptors",
        [fd](Connection &c) {
           c.Send("x", {fd, fd}), c.Read();
        },
        UNEXPECTED},
       {"as many as fit", [fd](Connection &c) { c.Send("x", std::vector<int>(253, fd)), c.Read(); },
        UNEXPECTED},
       {"the descriptor too late", [fd](Connection &c) { c.Send("x", {}), c.Send("x", {fd}), c.Read(); },
        UNEXPECTED},
   };
   DaemonProcess daemon(Image());
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
   {
      Connection hasty(daemon);
      hasty.Read();
      hasty.Send("x", {fd});
   }
   const Client good(daemon);
   EXPECT_EQ(good.Reply(), '1');
   EXPECT_EQ(daemon.OpenDescriptors(), descriptors + 2)
       << "who does not wait for the answer is registered too";
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

TEST_F(Daemon, SurvivesInterruptionsOfTheWait)
{
   DaemonProcess daemon(Image());
   for (int i = 0; i < 20; i++) {
      daemon.AwaitCall({SYS_epoll_wait, SYS_epoll_pwait});
      daemon.WhileStopped([] {});
   }
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS, 0));
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

TEST_F(Daemon, GoesOnWhenAKernelControlCannotBeReached)
{
   StandInControl core("hvcore");
   core.StopListening();
   EXPECT_EQ(ServeOneClient(), 0);
   const std::string refused = "Warning: TesselServicesWaitForKext: connect failed: Connection refused\n";
   EXPECT_EQ(Logged(), STARTED + Stopped(Waiting("hvcore", refused) + Waiting("hvlink", NO_KEXT), 0));
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

TEST_F(Daemon, HelperGetsNoDescriptorButTheFirstThree)
{
   WriteFile("/Library/do--start", "ls -l /proc/$$/fd > /Library/descriptors\n");
   EXPECT_EQ(ServeOneClient(), 0);
   /* The shell has files and copies of its own, from 10 up. */
   const std::string listing = ReadFile("/Library/descriptors");
   EXPECT_NE(listing.find(" 0 -> "), std::string::npos) << listing;
   for (const char *leak :
        {" 3 -> ", " 4 -> ", " 5 -> ", " 6 -> ", " 7 -> ", "socket:", "eventpoll", ".log"}) {
      EXPECT_EQ(listing.find(leak), std::string::npos) << leak << " in\n" << listing;
   }
}

TEST_F(Daemon, WorksWithoutALog)
{
   fs::remove_all(LOG.parent_path());
   EXPECT_EQ(ServeOneClient(), 0);
   EXPECT_FALSE(fs::exists(COPY));
   EXPECT_FALSE(fs::exists(LOG));
}

TEST_F(Daemon, IsPrivilegedOnlyWhereItMustBe)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "only root can have an effective user other than the real one";
   }
   WriteFile("/Library/do--start", "echo \"$(id -u) $(id -ru)\" > /Library/users\n");
   const StandInControl core("hvcore");
   chmod("/run/tessel-kext", 0755);
   DaemonProcess daemon(Image({"", "-"}, 65534));
   EXPECT_EQ(Client(daemon).Reply(), '1');
   OwnedDescriptor answering = core.Accept();
   daemon.AwaitCall({SYS_read});
   const std::string status = ReadFile("/proc/" + std::to_string(daemon.Pid()) + "/status");
   EXPECT_NE(status.find("Uid:\t65534\t65534\t0\t65534"), std::string::npos) << status;
   answering.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(ReadFile("/Library/users"), "0 65534\n");
   EXPECT_FALSE(fs::exists(COPY)) << "only root may delete it";
   struct stat attributes;
   ASSERT_EQ(stat(LOG.c_str(), &attributes), 0);
   EXPECT_EQ(attributes.st_uid, 0U);
   EXPECT_EQ(Logged(), STARTED + Stopped(Ready("hvcore") + Waiting("hvlink", NO_KEXT), 0));
}

} // namespace
