/* The tools with the daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/scriptedPeer.h"

#include <cstring>
#include <filesystem>
#include <pty.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

const fs::path COPY = "/Library/Application Support/Kestra/Kestra Tessel/Services";
const fs::path LOG = "/Library/Logs/Kestra Tessel Services.log";

const std::string LAUNCH = "tessel-launch --daemon \"$DAEMON\" ";

size_t Count(const std::string &text, const std::string &part)
{
   size_t count = 0;
   for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
      count++;
   }
   return count;
}

/* A command of the shell on a terminal of its own. Its output ends only when every process that it left behind has
   ended too. */
struct Program {
   explicit Program(const std::string &command)
   {
      int ours = -1;
      pid = forkpty(&ours, nullptr, nullptr, nullptr);
      if (pid == 0) {
         for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
            signal(number, SIG_DFL);
         }
         execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
         _exit(111);
      }
      terminal.reset(ours);
   }

   ~Program()
   {
      if (pid != -1) {
         kill(pid, SIGKILL);
         waitpid(pid, nullptr, 0);
      }
   }

   Program(const Program &) = delete;
   Program &operator=(const Program &) = delete;

   /* Waits until the output so far contains the text; false if it ends without. */
   bool Says(const std::string &text)
   {
      while (output.find(text) == std::string::npos) {
         if (!ReadMore()) {
            return false;
         }
      }
      return true;
   }

   /* Waits for the end of all output and of the program, and gives its exit status; -signal if one ended it. */
   int Status()
   {
      int status = -1;
      while (ReadMore()) {
      }
      waitpid(std::exchange(pid, -1), &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
   }

   bool ReadMore()
   {
      char buffer[4096];
      const ssize_t length = read(terminal.get(), buffer, sizeof buffer);
      output.append(buffer, length > 0 ? static_cast<size_t>(length) : 0);
      return length > 0;
   }

   pid_t pid = -1;
   OwnedDescriptor terminal;
   std::string output; /* So far. */
};

pid_t DaemonPid(const Program &launch)
{
   constexpr char MARK[] = "daemon started, process ";
   return atoi(strstr(launch.output.c_str(), MARK) + strlen(MARK)); // NOLINT(cert-err34-c)
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
      if (getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
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
      fs::create_directories(LOG.parent_path());
      fs::remove("/Library/Logs/sample services");
      fs::create_directories(COPY / "Contents/Library/services");
      const auto over = fs::copy_options::overwrite_existing;
      fs::copy(sample / "kestra-id", COPY / "Contents/Library/kestra-id", over);
      fs::copy(sample / "services.sh", COPY / "Contents/Library/services/services.sh", over);
   }

   /* The services were started and stopped once, and the launcher left nothing where it put its socket. */
   void ExpectOneLife() const
   {
      EXPECT_EQ(ReadFile("/Library/Logs/sample services"),
                "services started\ndaemons stopped\nkernel extensions stopped\n");
      EXPECT_FALSE(fs::exists(COPY));
      EXPECT_EQ(Count(ReadFile(LOG), "Exiting with code 0."), 1U);
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
      FillLibrary();
   }

   static void Expect(const Case &c)
   {
      Program program(c.command);
      EXPECT_EQ(program.Status(), c.status) << program.output;
      EXPECT_EQ(Count(program.output, c.says), 1U) << c.says << " is not in " << program.output;
   }

   std::string Script(const std::string &text)
   {
      WriteFile(other_.Path("script"), "#!/bin/sh\n" + text);
      fs::permissions(other_.Path("script"), fs::perms(0755));
      return other_.Path("script");
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
       {LAUNCH + "--socket " + path +
            " -- sh -c 'cp -a $TESSEL_SOCKET $TESSEL_SOCKET.new && mv $TESSEL_SOCKET.new $TESSEL_SOCKET'",
        0, "registered"},
       {launchOther + "'exit 0'", 9, "the daemon ended, exit status 9"},
       {launchOther + "'exit 3'", 3, "the daemon ended, exit status 9"},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.command);
      Expect(c);
      ExpectOneLife();
   }
   EXPECT_TRUE(fs::is_socket(path)) << "removed another one's socket";
}

TEST_F(Tools, SayWhyThereIsNoRegistration)
{
   const ScriptedPeer refuses("agr0");
   const ScriptedPeer gone("a");
   const std::string client = "tessel-client --socket ";
   const std::string longPath = "/" + std::string(120, 'x') + " ";
   const std::string taken = Script("");
   const Case cases[] = {
       {"tessel-launch --daemon /no -- echo ran", 69, "cannot start the daemon /no: No such file"},
       {"tessel-launch --daemon /bin/false", 69, "the daemon ended, exit status 1"},
       {"tessel-launch --daemon /bin/false -- echo ran", 69, "not registered at"},
       {LAUNCH + "--socket " + longPath, 71, "File name too long"},
       {LAUNCH + "--socket " + taken, 71, "Address already in use"},
       {client + refuses.SocketPath() + " -- echo ran", 75, "refused"},
       {client + gone.SocketPath(), 69, "went away before it answered"},
       {"tessel-client true", 64, "set TESSEL_SOCKET"},
       {"tessel-client --daemon x", 64, "--daemon: there is no such option"},
       {"tessel-launch --socket", 64, "--socket: a value is missing"},
       {"tessel-launch --help", 0, "usage: tessel-launch"},
       {"tessel-launch --version", 0, "tessel-launch 1."},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.command);
      Expect(c);
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
   }
   EXPECT_EQ(ReadFile(taken), "#!/bin/sh\n");
}

TEST_F(Tools, ShareTheServicesUntilTheLastOneGoes)
{
   Program sharing(LAUNCH +
                   "-- sh -c 'tessel-client -- sleep 0.2 & tessel-client -- tessel-client -- true && wait'");
   EXPECT_EQ(sharing.Status(), 0);
   EXPECT_EQ(Count(sharing.output, "tessel-client: registered"), 3U) << sharing.output;
   ExpectOneLife();

   const std::string path = scratch_.Path("socket");
   Program launch(LAUNCH + "--socket " + path);
   ASSERT_TRUE(launch.Says("the services are up")) << launch.output;
   Program client("tessel-client --socket=" + path);
   ASSERT_TRUE(client.Says("the services are up")) << client.output;
   kill(launch.pid, SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   EXPECT_TRUE(fs::exists(COPY));
   kill(client.pid, SIGINT);
   EXPECT_EQ(client.Status(), 0);
   EXPECT_EQ(launch.Status(), 0);
   ExpectOneLife();

   for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(number);
      Program alone(LAUNCH);
      ASSERT_TRUE(alone.Says("the services are up")) << alone.output;
      kill(alone.pid, number);
      EXPECT_EQ(alone.Status(), 0);
      ExpectOneLife();
   }
}

TEST_F(Tools, PassOnASignalUnlessTheTerminalDoes)
{
   for (const bool typed : {true, false}) {
      SCOPED_TRACE(typed);
      Program launch(LAUNCH + "-- sh -c 'trap \"heard=yes; echo heard\" INT; echo at work\n"
                              "until [ \"$heard\" ]; do sleep 0.02; done; sleep 0.1; exit 5'");
      ASSERT_TRUE(launch.Says("at work")) << launch.output;
      typed ? write(launch.terminal.get(), "\x03", 1) : kill(launch.pid, SIGINT);
      EXPECT_EQ(launch.Status(), 5);
      EXPECT_EQ(Count(launch.output, "heard"), 1U) << launch.output;
      EXPECT_EQ(Count(launch.output, "passed on"), typed ? 0U : 1U) << launch.output;
      ExpectOneLife();
   }
}

TEST_F(Tools, CanLeaveADaemonThatHangsAndNoticeItsEnd)
{
   Program alone(LAUNCH);
   ASSERT_TRUE(alone.Says("the services are up")) << alone.output;
   ASSERT_EQ(kill(DaemonPid(alone), SIGKILL), 0);
   EXPECT_EQ(alone.Status(), 137);
   EXPECT_EQ(Count(alone.output, "has ended while its services are in use"), 1U);

   Program launch("tessel-launch --daemon " + Script("echo up; exec sleep 60\n") + " -- echo ran");
   ASSERT_TRUE(launch.Says("daemon started"));
   ASSERT_TRUE(launch.Says("up\r\n"));
   kill(launch.pid, SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   kill(launch.pid, SIGINT);
   ASSERT_TRUE(launch.Says("which goes on"));
   EXPECT_EQ(kill(DaemonPid(launch), SIGKILL), 0);
   EXPECT_EQ(launch.Status(), 128 + SIGTERM);
   EXPECT_EQ(Count(launch.output, "ran\r\n"), 0U);
   EXPECT_TRUE(fs::is_empty(scratch_.Path()));
}

TEST_F(Tools, GiveWhatIsMeantForOneAndNothingElse)
{
   /* Besides the three streams and the two given to it the daemon has the script, which the shell reads. */
   const std::string daemon = Script("cd /proc/$$/fd\n"
                                     "[ -S $1 ] && [ -p $2 ] && [ 0 -ef /dev/null ] && echo as given\n"
                                     "find . -type l -printf x; echo; grep SigIgn /proc/self/status\n");
   Expect({"tessel-launch -q --daemon " + daemon + " 9>&2", 69,
           "as given\r\nxxxxxx\r\nSigIgn:\t0000000000001000\r\n"});
   Expect({LAUNCH + "-- sh -c '[ -t 9 ] && echo kept; find /proc/self/fd -lname \"socket*\"\n"
                    "grep -E \"SigBlk|SigIgn\" /proc/self/status' 9>&2",
           0, "kept\r\nSigBlk:\t0000000000000000\r\nSigIgn:\t0000000000000000\r\n"});
}
