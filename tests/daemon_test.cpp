/* The daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/daemonHarness.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
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

constexpr char SCRIPT[] = "#!/bin/sh -p\n"
                          "echo \"$1\" >> /Library/actions\n"
                          "[ -f \"/Library/do$1\" ] && . \"/Library/do$1\"\n"
                          "exit 0\n";
constexpr char HELPER[] = "#!/bin/sh -p\nexec \"$@\"\n";

constexpr char STARTED[] = "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
constexpr char NO_KEXT[] =
    "Warning: TesselServicesWaitForKext: CTLIOCGINFO failed: No such file or directory\n";

void WriteProgram(const fs::path &path, const std::string &text)
{
   fs::create_directories(path.parent_path());
   WriteFile(path, text);
   fs::permissions(path, fs::perms(0755));
}

/* A kernel control that the daemon finds, and the test answers for. */
class StandInControl {
 public:
   explicit StandInControl(const std::string &extension)
       : path_("/run/tessel-kext/com.kestra.kext." + extension + ".teardown"),
         listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
   {
      struct sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      memcpy(address.sun_path, path_.c_str(), path_.size());
      EXPECT_EQ(bind(listener_.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
      EXPECT_EQ(listen(listener_.get(), 1), 0);
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
      for (const auto &entry : fs::directory_iterator("/Library")) {
         fs::remove_all(entry);
      }
      fs::create_directories(LOG.parent_path());
      WriteProgram(COPY / "Contents/Library/kestra-id", HELPER);
      WriteProgram(COPY / "Contents/Library/services/services.sh", SCRIPT);
   }

   /* The daemon's own process image, with these arguments in place of the two descriptors if there are any. */
   static DaemonProcess::Body Image(std::vector<std::string> arguments = {}, bool setUser = false)
   {
      return [arguments, setUser](int listener, int launcher) mutable {
         if (arguments.empty()) {
            arguments = {std::to_string(listener), std::to_string(launcher)};
         }
         std::vector<char *> argv = {const_cast<char *>(TESSEL_DAEMON)};
         for (std::string &argument : arguments) {
            argv.push_back(argument.data());
         }
         argv.push_back(nullptr);
         /* The leak sanitizer cannot look into a process of another real user. */
         if (!setUser || (setenv("ASAN_OPTIONS", "detect_leaks=0", 1), setresuid(65534, 0, 0) == 0)) {
            execv(argv[0], argv.data());
         }
      };
   }

   /* Takes one client through the daemon's whole life. */
   static int ServeOneClient()
   {
      DaemonProcess daemon(Image());
      EXPECT_EQ(Client(daemon).Reply(), '1');
      return daemon.ExitStatus();
   }

   /* What was logged after the two lines that every start writes. */
   static std::string Logged()
   {
      const std::string text = WithoutTimestamps(ReadFile(LOG));
      const std::string marker = "Running as Native process.\n";
      const size_t start = text.find(marker);
      return start == std::string::npos ? text : text.substr(start + marker.size());
   }

   /* The log of a life, given what happens in start, in the two waits, and before the end. */
   static std::string Life(const std::string &inStart, const std::string &inStop, int code)
   {
      return "ServiceImplRef: Before start().\n" + inStart +
             "ServiceImplRef: After start().\nServiceImplUnref: Before stop().\n" + inStop +
             "ServiceImplUnref: After stop().\nServiceImplDaemon: Exiting with code " + std::to_string(code) +
             ".\n";
   }

   static std::string Waiting(const std::string &extension, const std::string &then)
   {
      return "Waiting for " + extension + " kext...\n" + then;
   }

   static std::string HelperStatus(int status)
   {
      return "Warning: TesselServicesCommon: exit status " + std::to_string(status) + ".\n";
   }

   static std::string NoKexts()
   {
      return Waiting("hvcore", NO_KEXT) + Waiting("hvlink", NO_KEXT);
   }
};

TEST_F(Daemon, RunsTheActionsInOrderAndDeletesTheCopy)
{
   EXPECT_EQ(ServeOneClient(), 0);
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n--stopkexts\n");
   EXPECT_FALSE(fs::exists(COPY));
   EXPECT_TRUE(fs::exists(SUPPORT));
   EXPECT_EQ(Logged(), Life("", NoKexts(), 0));
}

TEST_F(Daemon, RefusesAnyOtherNumberOfArguments)
{
   for (const std::vector<std::string> &arguments :
        {std::vector<std::string>{"3"}, std::vector<std::string>{"3", "4", "5"}}) {
      DaemonProcess daemon(Image(arguments));
      const std::string pid = std::to_string(daemon.Pid());
      EXPECT_EQ(daemon.ExitStatus(), 1);
      EXPECT_EQ(WithoutTimestamps(ReadFile(LOG)), "ServiceImpl_Daemon: PID " + pid +
                                                      "\nServiceImpl_Daemon: Running as Native process.\n" +
                                                      "Warning: Invalid number of arguments.\n");
   }
}

TEST_F(Daemon, EndsWithItsLauncherWhileThereIsNoClient)
{
   DaemonProcess daemon(Image());
   daemon.DropLauncher();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), "ServiceImplDaemon: Exiting with code 0.\n");
   EXPECT_FALSE(fs::exists(ACTIONS));
   EXPECT_TRUE(fs::exists(COPY));
}

TEST_F(Daemon, ServesItsClientsWithoutALauncher)
{
   DaemonProcess daemon(Image());
   Client first(daemon);
   Client second(daemon);
   daemon.DropLauncher();
   first.LetGo();
   EXPECT_EQ(Client(daemon).Reply(), '1');
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n");
   second.LetGo();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), Life("", NoKexts(), 0));
}

TEST_F(Daemon, OnlyLogsThatTheScriptFails)
{
   WriteFile("/Library/do--start", "exit 3\n");
   WriteFile("/Library/do--stopdaemons", "kill -TERM $$\n");
   WriteFile("/Library/do--stopkexts", "exit 1\n");
   EXPECT_EQ(ServeOneClient(), 0);
   EXPECT_EQ(Logged(), Life(HelperStatus(768), HelperStatus(SIGTERM) + NoKexts() + HelperStatus(256), 0));
}

TEST_F(Daemon, OnlyLogsThatTheHelperIsMissing)
{
   fs::remove_all(COPY);
   EXPECT_EQ(ServeOneClient(), 0);
   EXPECT_EQ(Logged(),
             Life(HelperStatus(127 * 256), HelperStatus(127 * 256) + NoKexts() + HelperStatus(127 * 256), 0));
}

TEST_F(Daemon, FailedDeletionIsTheExitStatus)
{
   const fs::path undecodable = COPY / "\xFF";
   WriteFile(undecodable, "");
   EXPECT_EQ(ServeOneClient(), 1);
   EXPECT_TRUE(fs::exists(undecodable));
   EXPECT_FALSE(fs::exists(COPY / "Contents"));
   const std::string replaced = "Warning: File_WalkDirectoryNext: file '" + COPY.string() +
                                "' in directory '\\xFF' cannot be converted to UTF8\n";
   EXPECT_EQ(Logged(), Life("", NoKexts() + replaced, 1));
}

TEST_F(Daemon, WaitsForEachKernelExtensionInTurn)
{
   const StandInControl core("hvcore");
   const StandInControl link("hvlink");
   DaemonProcess daemon(Image());
   Client(daemon).LetGo();

   OwnedDescriptor answering = core.Accept();
   EXPECT_EQ(Logged(), STARTED + ("ServiceImplUnref: Before stop().\n" + Waiting("hvcore", "")));
   EXPECT_EQ(ReadFile(ACTIONS), "--start\n--stopdaemons\n");
   ASSERT_EQ(write(answering.get(), "x", 1), 1);

   OwnedDescriptor closing = link.Accept();
   EXPECT_TRUE(fs::exists(COPY));
   closing.reset();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(),
             Life("",
                  Waiting("hvcore", "Kext hvcore is ready.\n") + Waiting("hvlink", "Kext hvlink is ready.\n"),
                  0));
}

TEST_F(Daemon, GoesOnWhenAKernelControlCannotBeReached)
{
   StandInControl core("hvcore");
   core.StopListening();
   const StandInControl link("hvlink");
   DaemonProcess daemon(Image());
   Client(daemon).LetGo();
   const OwnedDescriptor reset = link.Accept();
   struct linger hard = {.l_onoff = 1, .l_linger = 0};
   setsockopt(reset.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
   ASSERT_EQ(write(reset.get(), "", 0), 0);
   shutdown(reset.get(), SHUT_RDWR);
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(
       Logged(),
       Life("",
            Waiting("hvcore", "Warning: TesselServicesWaitForKext: connect failed: Connection refused\n") +
                Waiting("hvlink", "Kext hvlink is ready.\n"),
            0));
}

TEST_F(Daemon, ClientsQueueWhileTheServicesStart)
{
   ASSERT_EQ(mkfifo("/Library/gate", 0600), 0);
   WriteFile("/Library/do--start", "read line < /Library/gate\n");
   DaemonProcess daemon(Image());
   Pipe first;
   Connection starting(daemon);
   ASSERT_TRUE(starting.Read() && starting.Send("x", {first.reader.get()}));
   std::ofstream gate("/Library/gate"); /* Opens when the script has come that far. */
   Connection waiting(daemon);
   gate << "go\n" << std::flush;
   EXPECT_EQ(starting.Read(), '1');
   Pipe second;
   EXPECT_EQ(waiting.HandOver(second.reader.get()), '1');
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

TEST_F(Daemon, EmptiesTheLogAtEveryStart)
{
   EXPECT_EQ(ServeOneClient(), 0);
   DaemonProcess daemon(Image());
   daemon.DropLauncher();
   EXPECT_EQ(daemon.ExitStatus(), 0);
   EXPECT_EQ(Logged(), "ServiceImplDaemon: Exiting with code 0.\n");
   EXPECT_EQ(fs::status(LOG).permissions(), fs::perms(0644));
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
   DaemonProcess daemon(Image({}, true));
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
   EXPECT_EQ(Logged(),
             Life("", Waiting("hvcore", "Kext hvcore is ready.\n") + Waiting("hvlink", NO_KEXT), 0));
}

} // namespace
