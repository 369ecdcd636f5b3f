/* The tools with the daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/scriptedPeer.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>

namespace {

namespace fs = std::filesystem;

const std::string LAUNCH = "tessel-launch --daemon \"$DAEMON\" ";
const std::string JOURNAL = LIBRARY / "Logs/sample services";

size_t Count(const std::string &text, const std::string &part)
{
   size_t count = 0;
   for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
      count++;
   }
   return count;
}

pid_t DaemonPid(const Program &launch)
{
   constexpr char mark[] = "daemon started, process ";
   return atoi(strstr(launch.Output().c_str(), mark) + strlen(mark)); // NOLINT(cert-err34-c)
}

struct Case {
   std::string command;
   int status;
   std::string says;
};

class Tools : public testing::Test {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary()) {
         GTEST_SKIP() << "needs a private /Library: run it through run-in-private-library";
      }
      setenv("PATH", (fs::path(TESSEL_LAUNCH).parent_path().string() + ":/usr/bin:/bin").c_str(), 1);
      setenv("DAEMON", TESSEL_DAEMON, 1);
      setenv("XDG_RUNTIME_DIR", scratch_.Path().c_str(), 1);
      unsetenv("TESSEL_SOCKET");
      FillLibrary();
   }

   static void FillLibrary()
   {
      const fs::path sample = TESSEL_DEMO;
      MakeLibrary(ReadFile(sample / "kestra-id"), ReadFile(sample / "services.sh"));
   }

   /* The services were started and stopped once, and the launcher left nothing where it put its socket. */
   void ExpectOneLife() const
   {
      EXPECT_EQ(ReadFile(JOURNAL), "services started\ndaemons stopped\nkernel extensions stopped\n");
      EXPECT_FALSE(fs::exists(SERVICE_COPY));
      EXPECT_EQ(Count(ReadFile(SERVICE_LOG), "Exiting with code 0."), 1U);
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
      FillLibrary();
   }

   static void Expect(const Case &c)
   {
      SCOPED_TRACE(c.command);
      Program program(c.command);
      EXPECT_EQ(program.Status(), c.status) << program.Output();
      EXPECT_EQ(Count(program.Output(), c.says), 1U) << c.says << " is not in " << program.Output();
   }

   std::string Script(const std::string &text, const std::string &name = "script") const
   {
      const fs::path path = other_.Path(name);
      fs::create_directories(path.parent_path());
      WriteFile(path, "#!/bin/sh\n" + text);
      fs::permissions(path, fs::perms(0755));
      return path;
   }

   ScratchFolder scratch_; /* Where launchers put their sockets. */
   ScratchFolder other_;
};

} // namespace

TEST_F(Tools, PassOnTheStatusOfTheCommandOrElseOfTheDaemon)
{
   const std::string launchOther =
       "tessel-launch --daemon=" + Script("\"$DAEMON\" \"$@\"\nexit 9\n") + " -- sh -c ";
   const std::string path = other_.Path("socket");
   const Case cases[] = {
       {LAUNCH + "-- sh -c 'exit 7'", 7, "the command ended, exit status 7"},
       {LAUNCH + "-- sh -c 'kill -9 $$'", 137, "the command ended by signal 9"},
       {LAUNCH + "-- no-such-command", 127, "cannot run no-such-command: No such file or directory"},
       {LAUNCH + "-- /", 126, "cannot run /: Permission denied"},
       {LAUNCH + "-- tessel-client -- sh -c 'exit 9'", 9, "tessel-client: let go"},
       {LAUNCH + "-- tessel-client -q -- no-such-command", 127, "tessel-client: "},
       {LAUNCH + "-w 60 --socket " + path +
            " -- sh -c 'cp -a $TESSEL_SOCKET $TESSEL_SOCKET.new && mv $TESSEL_SOCKET.new $TESSEL_SOCKET'",
        0, "registered"},
       {launchOther + "'exit 0'", 9, "the daemon ended, exit status 9"},
       {launchOther + "'exit 3'", 3, "the daemon ended, exit status 9"},
   };
   for (const Case &c : cases) {
      Expect(c);
      ExpectOneLife();
   }
   EXPECT_TRUE(fs::is_socket(path)) << "removed another one's socket";
}

TEST_F(Tools, SayWhyThereIsNoRegistration)
{
   const ScriptedPeer refuses("agr0");
   const ScriptedPeer gone("a");
   const ScriptedPeer stalls("aw");
   const std::string client = "tessel-client --socket ";
   const std::string longPath = "/" + std::string(120, 'x') + " ";
   const std::string taken = Script("");
   const std::string fails = Script("exit 1\n", "fails");
   const Case cases[] = {
       {"tessel-launch --daemon /no -- echo ran", 69, "cannot start the daemon /no: No such file"},
       {"tessel-launch --daemon " + fails, 69, "the daemon ended, exit status 1"},
       {"tessel-launch --daemon " + fails + " -- echo ran", 69, "not registered at"},
       {LAUNCH + "--socket " + longPath, 71, "File name too long"},
       {LAUNCH + "--socket " + taken, 71, "Address already in use"},
       {client + refuses.SocketPath() + " -- echo ran", 75, "refused"},
       {client + gone.SocketPath(), 69, "went away before it answered"},
       {client + stalls.SocketPath() + " --wait 1 -- echo ran", 124, "did not answer in time"},
       {client + "x --wait 0", 64, "0: not a number of seconds"},
       {client + "x -w 2s", 64, "2s: not a number of seconds"},
       {"tessel-client true", 64, "set TESSEL_SOCKET"},
       {"tessel-client --daemon x", 64, "--daemon: there is no such option"},
       {"tessel-launch --socket", 64, "--socket: a value is missing"},
       {"tessel-launch --help", 0, "usage: tessel-launch"},
       {"tessel-launch --version", 0, "tessel-launch 1."},
   };
   for (const Case &c : cases) {
      Expect(c);
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
   }
   EXPECT_EQ(ReadFile(taken), "#!/bin/sh\n");
}

TEST_F(Tools, ShareTheServicesUntilTheLastOneGoes)
{
   Program sharing(LAUNCH +
                   "-- sh -c 'tessel-client -- true & tessel-client -- tessel-client -- true && wait'");
   EXPECT_EQ(sharing.Status(), 0);
   EXPECT_EQ(Count(sharing.Output(), "tessel-client: registered"), 3U) << sharing.Output();
   ExpectOneLife();

   const std::string path = scratch_.Path("socket");
   Program launch(LAUNCH + "--socket " + path);
   ASSERT_TRUE(launch.Says("the services are up")) << launch.Output();
   Program client("tessel-client --socket=" + path);
   ASSERT_TRUE(client.Says("the services are up")) << client.Output();
   kill(launch.Pid(), SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   EXPECT_TRUE(fs::exists(SERVICE_COPY));
   kill(client.Pid(), SIGINT);
   EXPECT_EQ(client.Status(), 0);
   EXPECT_EQ(launch.Status(), 0);
   ExpectOneLife();

   for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(number);
      Program alone(LAUNCH);
      ASSERT_TRUE(alone.Says("the services are up")) << alone.Output();
      kill(alone.Pid(), number);
      EXPECT_EQ(alone.Status(), 0);
      ExpectOneLife();
   }
}

/* The command hears each signal once: from the terminal, or passed on. */
TEST_F(Tools, PassOnASignalUnlessTheTerminalDoes)
{
   const std::string command = LAUNCH + "-- sh -c 'trap \"heard=yes; echo heard\" INT; echo at work\n"
                                        "until [ \"$heard\" ]; do sleep 0.02; done; exit 5'";
   Program launch(command);
   ASSERT_TRUE(launch.Says("at work")) << launch.Output();
   kill(launch.Pid(), SIGINT);
   EXPECT_EQ(launch.Status(), 5);
   EXPECT_EQ(Count(launch.Output(), "heard"), 1U) << launch.Output();
   EXPECT_EQ(Count(launch.Output(), "passed on"), 1U) << launch.Output();
   ExpectOneLife();

   OwnedDescriptor ours;
   const std::string terminal = OpenTerminal(&ours);
   DaemonProcess shell([&](int /*listener*/, int /*launcher*/) {
      setsid();
      const int theirs = open(terminal.c_str(), O_RDWR);
      ioctl(theirs, TIOCSCTTY, 0);
      for (int fd = 0; fd < 3; fd++) {
         dup2(theirs, fd);
      }
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
   });
   std::string output;
   const auto says = [&](const std::string &text) {
      for (char byte; output.find(text) == std::string::npos && read(ours.get(), &byte, 1) == 1;) {
         output += byte;
      }
      return output.find(text) != std::string::npos;
   };
   ASSERT_TRUE(says("at work")) << output;
   ASSERT_EQ(write(ours.get(), "\x03", 1), 1);
   EXPECT_TRUE(says("the daemon ended")) << output;
   EXPECT_EQ(shell.ExitStatus(), 5);
   EXPECT_EQ(Count(output, "passed on"), 0U) << output;
   ExpectOneLife();
}

TEST_F(Tools, NoticeTheDaemonsEnd)
{
   const std::string path = scratch_.Path("socket");
   Program launch(LAUNCH + "--socket " + path);
   ASSERT_TRUE(launch.Says("the services are up")) << launch.Output();
   Program working("tessel-client --socket=" + path + " -- sh -c 'echo at work; exec sleep 600'");
   Program waiting("tessel-client --socket=" + path);
   ASSERT_TRUE(working.Says("at work") && waiting.Says("the services are up"));
   ASSERT_EQ(kill(DaemonPid(launch), SIGKILL), 0);
   EXPECT_EQ(launch.Status(), 137);
   for (Program *client : {&working, &waiting}) {
      EXPECT_EQ(client->Status(), 69);
      EXPECT_EQ(Count(client->Output(), "has ended while its services are in use"), 1U) << client->Output();
   }
   EXPECT_EQ(Count(launch.Output(), "has ended while its services are in use"), 1U);
}

TEST_F(Tools, CanLeaveADaemonThatHangs)
{
   const std::string hangs = "tessel-launch --daemon " + Script("echo up; exec sleep 600\n");
   Program launch(hangs + " -- echo ran");
   ASSERT_TRUE(launch.Says("daemon started") && launch.Says("up\n"));
   kill(launch.Pid(), SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   kill(launch.Pid(), SIGINT);
   Program limited(hangs + " --wait 1 -- echo ran");
   const std::pair<Program *, int> both[] = {{&launch, 128 + SIGTERM}, {&limited, 124}};
   for (const auto &[program, status] : both) {
      ASSERT_TRUE(program->Says("which goes on")) << program->Output();
      EXPECT_EQ(kill(DaemonPid(*program), SIGKILL), 0);
      EXPECT_EQ(program->Status(), status);
      EXPECT_EQ(Count(program->Output(), "ran\n"), 0U);
   }
   EXPECT_TRUE(fs::is_empty(scratch_.Path()));
}

TEST_F(Tools, GiveWhatIsMeantForOneAndNothingElse)
{
   const std::string count = "for n in 3 4 5 6 7 8 9; do [ ! -e /dev/fd/$n ] || printf x; done; echo\n";
   const std::string daemon =
       Script("[ -S /dev/fd/$1 ] && [ -p /dev/fd/$2 ] && [ /dev/fd/0 -ef /dev/null ] && printf as_given\n" +
              count + "kill -PIPE $$; echo not ended\n");
   Expect({"tessel-launch -q --daemon " + daemon + " 9>&2", 69, "as_givenxx\nnot ended\n"});
   Program usual("sh -c '" + count + "' 9>&2");
   EXPECT_EQ(usual.Status(), 0);
   Expect({LAUNCH + "-- sh -c '" + count + "kill -PIPE $$; echo not ended' 9>&2", 128 + SIGPIPE,
           "up\n" + usual.Output() + "tessel-launch: the command ended by signal 13"});
}

TEST_F(Tools, FindTheDaemonBesideThemWhereverTheTreeIs)
{
   Script("", "bin/tessel-launch");
   fs::copy_file(TESSEL_LAUNCH, other_.Path("bin/tessel-launch"), fs::copy_options::overwrite_existing);
   Script("echo beside\n", fs::path("bin/" TESSEL_DAEMON_BESIDE).lexically_normal());
   Expect({other_.Path("bin/tessel-launch"), 69, "beside\n"});
}
