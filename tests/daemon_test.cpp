/* The daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/daemonHarness.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path ACTIONS = LIBRARY / "actions";
const fs::path GATE = LIBRARY / "gate";
const fs::path SEEN = LIBRARY / "seen";

/* Not sh: some shells of that name clear the signal mask that they were started with. */
constexpr char HELPER[] = "#!/bin/bash -p\nexec \"$@\"\n";
constexpr char SCRIPT[] = "#!/bin/bash -p\n"
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
   const std::string text = WithoutTimestamps(ReadFile(SERVICE_LOG));
   const std::string marker = " process.\n";
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
      return OwnedDescriptor(accept(listener_.get(), nullptr, nullptr));
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
      MakeLibrary(HELPER, SCRIPT);
   }

   /* What the script does besides when it is run with this action. */
   static void Do(const std::string &action, const std::string &text)
   {
      WriteFile(LIBRARY / ("do" + action), Replaced(text, "/Library", LIBRARY));
   }

   /* A whole life with one client; its exit status. */
   static int ServeOneClient()
   {
      DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
      EXPECT_EQ(Client(daemon).Reply(), '1');
      return daemon.ExitStatus();
   }
};

TEST_F(Daemon, RunsTheActionsInOrderAndDeletesTheCopy)
{
   DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
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
   EXPECT_FALSE(fs::exists(SERVICE_COPY));
   EXPECT_TRUE(fs::exists(SERVICE_COPY.parent_path()));
   EXPECT_EQ(WithoutTimestamps(ReadFile(SERVICE_LOG)),
             "ServiceImpl_Daemon: PID " + pid + "\nServiceImpl_Daemon: Running as Native process.\n" +
                 STARTED + Stopped(NO_KEXTS, 0));
}

TEST_F(Daemon, RefusesWrongArguments)
{
   const std::string invalid = "Warning: Invalid number of arguments.\n";
   const std::string unset = "Warning: ServiceImplSetBlockingState: fcntl get errno 9.\n";
   const std::pair<std::vector<std::string>, std::string> cases[] = {
       {{""}, invalid},
       {{"", "-", "-"}, invalid},
       {{"", "9999"}, RegistrationFailed(EBADF)},
       {{"", "-1"}, RegistrationFailed(EBADF)},
       {{"text", "9999"}, RegistrationFailed(EBADF)}, /* The launcher comes first. */
       {{"9999", "-"}, unset},
   };
   for (const auto &[arguments, logged] : cases) {
      DaemonProcess daemon(DaemonImage(TESSEL_DAEMON, arguments));
      EXPECT_EQ(daemon.ExitStatus(), 1);
      EXPECT_EQ(Logged(), logged) << testing::PrintToString(arguments);
   }
}

TEST_F(Daemon, LeavesSigpipeAsItIs)
{
   {
      DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
      daemon.WhileStopped([&] { Connection(daemon).Close(); });
      Connection(daemon).Read();
      EXPECT_EQ(Logged(), "") << "ignored: the client's end is silent";
   }
   signal(SIGPIPE, SIG_DFL);
   DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
   daemon.WhileStopped([&] { Connection(daemon).Close(); });
   EXPECT_EQ(daemon.ExitStatus(), -SIGPIPE);
}

TEST_F(Daemon, HoldsTwoThousandClients)
{
   constexpr rlim_t clients = 2000;
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = std::min(limit.rlim_max, 2 * clients);
   setrlimit(RLIMIT_NOFILE, &limit);
   if (limit.rlim_cur < clients + 100) {
      GTEST_SKIP() << "needs " << clients + 100 << " descriptors, the limit is " << limit.rlim_cur;
   }
   DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
   std::vector<std::unique_ptr<Client>> held;
   for (rlim_t i = 0; i < clients; i++) {
      held.push_back(std::make_unique<Client>(daemon));
      ASSERT_EQ(held.back()->Reply(), '1') << i;
   }
   held.clear();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS, 0));
}

/* The last place in the table is the connection's, so that who finds it full is answered, and nobody is kept out longer than
   that. */
TEST_F(Daemon, ServesOnWithAFullTable)
{
   DaemonProcess daemon([image = DaemonImage(TESSEL_DAEMON)](int listener, int launcher) {
      const struct rlimit limit = {.rlim_cur = 64, .rlim_max = 64};
      setrlimit(RLIMIT_NOFILE, &limit);
      image(listener, launcher);
   });
   std::vector<std::unique_ptr<Client>> held;
   do {
      held.push_back(std::make_unique<Client>(daemon));
   } while (held.back()->Reply());
   EXPECT_GT(held.size(), 40U);
   for (size_t i = 0; i < 3; i++) {
      held[i]->LetGo();
      static_cast<void>(daemon.OpenDescriptors()); /* It is the daemon's turn first. */
      held[i] = std::make_unique<Client>(daemon);
      EXPECT_EQ(held[i]->Reply(), '1');
      EXPECT_EQ(Client(daemon).Reply(), std::nullopt);
   }
   held.clear();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n--stopkexts\n");
   EXPECT_FALSE(fs::exists(SERVICE_COPY));
}

/* Of what a user arranges so that what root's helper leaves behind is the user's: a core of his text in a folder of
   his choice, files that he may write. The starter leads a session with a terminal, one without, or none. */
TEST_F(Daemon, LeavesWhatItsStarterArrangedForRootsHelper)
{
   const struct {
      bool leadsSession;
      bool hasTerminal;
      const char *interrupted; /* Exit status of what sends itself SIGINT: whether it is blocked. */
   } cases[] = {{true, true, "0"}, {true, false, "130"}, {false, false, "130"}};
   for (const auto &c : cases) {
      MakeLibrary(HELPER, SCRIPT);
      ASSERT_EQ(mkfifo(GATE.c_str(), 0600), 0);
      Do("--start", "{ pwd; umask; ulimit -c; ulimit -Hc\n"
                    "bash -c 'kill -INT $$; exit 0'; echo $?; } > /Library/seen 2>&1\n"
                    "read line < /Library/gate\n");
      OwnedDescriptor ours;
      const std::string terminal = OpenTerminal(&ours);
      DaemonProcess daemon([&c, &terminal, image = DaemonImage(TESSEL_DAEMON)](int listener, int launcher) {
         struct rlimit core;
         getrlimit(RLIMIT_CORE, &core);
         core.rlim_cur = core.rlim_max;
         setrlimit(RLIMIT_CORE, &core);
         umask(0);
         const bool arranged = chdir(SERVICE_LOG.parent_path().c_str()) == 0 &&
                               (!c.leadsSession || setsid() != -1) &&
                               (!c.hasTerminal || ioctl(open(terminal.c_str(), O_RDWR), TIOCSCTTY, 0) == 0);
         if (arranged) {
            image(listener, launcher);
         }
      });
      Connection starting(daemon);
      const Pipe pipe;
      ASSERT_TRUE(starting.Read() && starting.Send("x", {pipe.reader.get()}));
      std::ofstream gate(GATE); /* Opens when the script has come that far. */
      EXPECT_EQ(getsid(daemon.Pid()), daemon.Pid());
      if (c.hasTerminal) {
         std::string echo;
         ASSERT_EQ(write(ours.get(), "\x1C\x03\x1A", 3), 3);
         for (char byte; echo.find("^Z") == std::string::npos && read(ours.get(), &byte, 1) == 1;) {
            echo += byte; /* It is shown once its signal has been sent. */
         }
      }
      gate << "go\n" << std::flush;
      EXPECT_EQ(starting.Read(), '1');
      EXPECT_EQ(Logged(), STARTED);
      EXPECT_EQ(ReadFile(SEEN), std::string("/\n0022\n0\n0\n") + c.interrupted + "\n");
   }
}

TEST_F(Daemon, RunsASampleHelperThatBecomesRootAndKeepsNothing)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root, for a real user other than the effective one";
   }
   fs::copy_file(TESSEL_ROOT_HELPER, SERVICE_COPY / "Contents/Library/kestra-id",
                 fs::copy_options::overwrite_existing);
   WriteFile(LIBRARY / "trap", "echo trapped >> /Library/seen\n");
   Do("--start", "exec > /Library/seen\nid -ru; id -u; id -rg; id -G; umask; pwd\n"
                 "echo \"$PATH|${BASH_ENV-}|${TZ-}\"; [ -p /dev/stdin ]; echo $?\n");
   DaemonProcess daemon([image = DaemonImage(TESSEL_DAEMON)](int listener, int launcher) {
      const Pipe input;
      dup2(input.reader.get(), STDIN_FILENO);
      for (const char *name : {"BASH_ENV", "ENV", "PATH", "TZ"}) {
         setenv(name, (LIBRARY / "trap").c_str(), 1);
      }
      if (setreuid(65534, 0) == 0) {
         image(listener, launcher);
      }
   });
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(ReadFile(SEEN), "0\n0\n0\n0\n0022\n/\n/usr/bin:/bin:/usr/sbin:/sbin||\n1\n");
}

TEST_F(Daemon, OnlyLogsThatTheServicesFail)
{
   Do("--start", "exit 3\n");
   Do("--stopdaemons", "kill -TERM $$\n");
   Do("--stopkexts", "exit 1\n");
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
   const fs::path undecodable = SERVICE_COPY / "\xFF";
   WriteFile(undecodable, "");
   EXPECT_EQ(ServeOneClient(), 1);
   EXPECT_TRUE(fs::exists(undecodable));
   EXPECT_FALSE(fs::exists(SERVICE_COPY / "Contents"));
   const std::string warning = "Warning: File_WalkDirectoryNext: file '" + SERVICE_COPY.string() +
                               "' in directory '\\xFF' cannot be converted to UTF8\n";
   EXPECT_EQ(Logged(), STARTED + Stopped(NO_KEXTS + warning, 1));
}

TEST_F(Daemon, WaitsForEachKernelExtensionInTurn)
{
   if (!HasKernelControls()) {
      GTEST_SKIP() << "nothing stands in for kernel extensions here";
   }
   const StandInControl core("hvcore");
   const StandInControl link("hvlink");
   DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
   Client(daemon).LetGo();

   const OwnedDescriptor answering = core.Accept();
   EXPECT_EQ(Logged(), STARTED + ("ServiceImplUnref: Before stop().\n" + Waiting("hvcore", "")));
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n");
   ASSERT_EQ(write(answering.get(), "x", 1), 1);

   OwnedDescriptor closing = link.Accept();
   EXPECT_TRUE(fs::exists(SERVICE_COPY));
   closing.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), STARTED + Stopped(Ready("hvcore") + Ready("hvlink"), 0));
}

TEST_F(Daemon, ClientsQueueWhileTheServicesStart)
{
   ASSERT_EQ(mkfifo(GATE.c_str(), 0600), 0);
   Do("--start", "read line < /Library/gate\n");
   DaemonProcess daemon(DaemonImage(TESSEL_DAEMON));
   Pipe pipe;
   Connection starting(daemon);
   ASSERT_TRUE(starting.Read() && starting.Send("x", {pipe.reader.get()}));
   std::ofstream gate(GATE); /* Opens when the script has come that far. */
   Connection waiting(daemon);
   gate << "go\n" << std::flush;
   EXPECT_EQ(starting.Read(), '1');
   EXPECT_EQ(waiting.HandOver(pipe.reader.get()), '1');
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n");
}

} // namespace
