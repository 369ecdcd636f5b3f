/* The tools with the daemon as it ships, in a private /Library (see run-in-private-library). */

#include "tests/support/scriptedPeer.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path COPY = "/Library/Application Support/Kestra/Kestra Tessel/Services";
const fs::path LOG = "/Library/Logs/Kestra Tessel Services.log";

using Words = std::vector<std::string>;

/* What follows the mark in the text, up to a blank or the end of the line. */
std::string WordAfter(const std::string &text, const std::string &mark)
{
   const size_t at = text.find(mark);
   if (at == std::string::npos) {
      return "";
   }
   const size_t begin = at + mark.size();
   return text.substr(begin, text.find_first_of(" ,\n", begin) - begin);
}

enum class On { Pipe, Terminal };

/* A program whose two output streams go to the test, which therefore end only when every process that it left
   behind has ended too. */
class Program {
 public:
   explicit Program(Words words, On on = On::Pipe)
   {
      const int theirs = on == On::Pipe ? MakePipe() : MakeTerminal();
      std::vector<char *> argv;
      for (std::string &word : words) {
         argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      pid_ = fork();
      if (pid_ == 0) {
         Become(argv.data(), theirs, on);
      }
      close(theirs);
   }

   ~Program()
   {
      if (pid_ != -1) {
         kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
   }

   Program(const Program &) = delete;
   Program &operator=(const Program &) = delete;

   /* Waits until the output so far contains the text; false if it ends without. */
   bool Says(const std::string &text)
   {
      while (output_.find(text) == std::string::npos) {
         if (!ReadMore()) {
            return false;
         }
      }
      return true;
   }

   void Signal(int number) const
   {
      ASSERT_EQ(kill(pid_, number), 0);
   }

   void Type(char key) const
   {
      ASSERT_EQ(write(ours_.get(), &key, 1), 1);
   }

   /* Waits for the end of all output and of the program, and gives its exit status; -signal if one ended it. */
   int Status()
   {
      int status = -1;
      while (ReadMore()) {
      }
      waitpid(std::exchange(pid_, -1), &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
   }

   [[nodiscard]] const std::string &Output() const
   {
      return output_;
   }

   [[nodiscard]] pid_t DaemonPid() const
   {
      return atoi(WordAfter(output_, "daemon started, process ").c_str()); // NOLINT(cert-err34-c)
   }

 private:
   int MakePipe()
   {
      int ends[2] = {-1, -1};
      EXPECT_TRUE(LocalStream_Pipe(ends));
      ours_.reset(ends[0]);
      return ends[1];
   }

   int MakeTerminal()
   {
      ours_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
      EXPECT_EQ(grantpt(ours_.get()) + unlockpt(ours_.get()), 0);
      return open(ptsname(ours_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC);
   }

   [[noreturn]] static void Become(char *const *argv, int theirs, On on)
   {
      if (on == On::Terminal) {
         setsid();
         ioctl(theirs, TIOCSCTTY, 0);
      }
      for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
         signal(number, SIG_DFL);
      }
      dup2(on == On::Terminal ? theirs : open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      dup2(theirs, STDOUT_FILENO);
      dup2(theirs, STDERR_FILENO);
      execv(argv[0], argv);
      _exit(111);
   }

   bool ReadMore()
   {
      char buffer[4096];
      const ssize_t length = read(ours_.get(), buffer, sizeof buffer);
      output_.append(buffer, length > 0 ? static_cast<size_t>(length) : 0);
      return length > 0;
   }

   pid_t pid_ = -1;
   OwnedDescriptor ours_;
   std::string output_;
};

Words Launch(const Words &rest)
{
   Words words = {TESSEL_LAUNCH, "--daemon", TESSEL_DAEMON};
   words.insert(words.end(), rest.begin(), rest.end());
   return words;
}

Words LaunchShell(const std::string &command)
{
   return Launch({"--", "/bin/sh", "-c", command});
}

size_t Count(const std::string &text, const std::string &part)
{
   size_t count = 0;
   for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
      count++;
   }
   return count;
}

class Tools : public testing::Test {
 protected:
   void SetUp() override
   {
      if (getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
         GTEST_SKIP() << "needs a private /Library: run it through run-in-private-library";
      }
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
      EXPECT_NE(ReadFile(LOG).find("Exiting with code 0."), std::string::npos);
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
   }

   std::string Script(const std::string &name, const std::string &text)
   {
      WriteFile(other_.Path(name), "#!/bin/sh\n" + text);
      fs::permissions(other_.Path(name), fs::perms(0755));
      return other_.Path(name);
   }

   ScratchFolder scratch_; /* Where launchers put their sockets. */
   ScratchFolder other_;
};

} // namespace

TEST_F(Tools, PassOnTheStatusOfTheCommand)
{
   const struct {
      Words command;
      int status;
      std::string says;
   } cases[] = {
       {{"/bin/sh", "-c", "exit 0"}, 0, "the daemon ended, exit status 0"},
       {{"/bin/sh", "-c", "exit 7"}, 7, "the command ended, exit status 7"},
       {{"/bin/sh", "-c", "kill -9 $$"}, 137, "the command ended by signal 9"},
       {{"no-such-command"}, 127, "cannot run no-such-command: No such file or directory"},
       {{"/"}, 126, "cannot run /: Permission denied"},
       {{"/bin/sh", "-c", "exec \"$0\" -- /bin/sh -c 'exit 9'", TESSEL_CLIENT}, 9, "tessel-client: let go"},
       {{"/bin/sh", "-c", "exec \"$0\" -q -- no-such-command", TESSEL_CLIENT}, 127, "tessel-client: cannot"},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.command.back());
      FillLibrary();
      Words rest = {"--"};
      rest.insert(rest.end(), c.command.begin(), c.command.end());
      Program launch(Launch(rest));
      EXPECT_EQ(launch.Status(), c.status);
      EXPECT_NE(launch.Output().find(c.says), std::string::npos) << launch.Output();
      ExpectOneLife();
   }
}

TEST_F(Tools, PassOnTheStatusOfTheDaemonIfTheCommandSucceeds)
{
   const std::string daemon = Script("daemon", "\"" TESSEL_DAEMON "\" \"$@\"\nexit 9\n");
   for (const auto &[command, status] : {std::pair("exit 0", 9), std::pair("exit 3", 3)}) {
      FillLibrary();
      Program launch({TESSEL_LAUNCH, "--daemon=" + daemon, "--", "/bin/sh", "-c", command});
      EXPECT_EQ(launch.Status(), status) << launch.Output();
      ExpectOneLife();
   }
}

TEST_F(Tools, ShareTheServices)
{
   const std::string client = TESSEL_CLIENT " --socket \"$TESSEL_SOCKET\" -- ";
   Program launch(LaunchShell(client + "sleep 0.2 & " + client + client + "true && wait"));
   EXPECT_EQ(launch.Status(), 0);
   EXPECT_EQ(Count(launch.Output(), "tessel-client: registered"), 3U) << launch.Output();
   ExpectOneLife();
}

TEST_F(Tools, LeaveTheServicesToAClientThatStaysLonger)
{
   const std::string path = scratch_.Path("socket");
   Program launch(Launch({"--socket", path}));
   ASSERT_TRUE(launch.Says("the services are up")) << launch.Output();
   Program client({TESSEL_CLIENT, "--socket=" + path});
   ASSERT_TRUE(client.Says("the services are up")) << client.Output();
   launch.Signal(SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   EXPECT_TRUE(fs::exists(COPY));
   client.Signal(SIGINT);
   EXPECT_EQ(client.Status(), 0);
   EXPECT_EQ(launch.Status(), 0);
   ExpectOneLife();
}

TEST_F(Tools, StopTheServicesOnASignal)
{
   for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(number);
      FillLibrary();
      Program alone(Launch({}));
      ASSERT_TRUE(alone.Says("the services are up")) << alone.Output();
      alone.Signal(number);
      EXPECT_EQ(alone.Status(), 0);
      ExpectOneLife();

      FillLibrary();
      Program launch(LaunchShell("trap 'echo heard; exit 5' INT TERM HUP; echo at work\n"
                                 "while :; do sleep 0.02; done"));
      ASSERT_TRUE(launch.Says("at work")) << launch.Output();
      launch.Signal(number);
      EXPECT_EQ(launch.Status(), 5);
      EXPECT_EQ(Count(launch.Output(), "passed on"), 1U) << launch.Output();
      EXPECT_EQ(Count(launch.Output(), "heard"), 1U) << launch.Output();
      ExpectOneLife();
   }
}

TEST_F(Tools, LeaveTheTerminalsInterruptToTheCommand)
{
   constexpr char INTERRUPT = '\x03';
   Program launch(LaunchShell("trap 'heard=yes; echo heard' INT; echo at work\n"
                              "until [ \"$heard\" ]; do sleep 0.02; done; sleep 0.1; exit 5"),
                  On::Terminal);
   ASSERT_TRUE(launch.Says("at work")) << launch.Output();
   launch.Type(INTERRUPT);
   EXPECT_EQ(launch.Status(), 5);
   EXPECT_EQ(Count(launch.Output(), "heard"), 1U) << launch.Output();
   EXPECT_EQ(Count(launch.Output(), "passed on"), 0U) << launch.Output();
   ExpectOneLife();

   FillLibrary();
   Program alone(Launch({}), On::Terminal);
   ASSERT_TRUE(alone.Says("the services are up")) << alone.Output();
   alone.Type(INTERRUPT);
   EXPECT_EQ(alone.Status(), 0);
   ExpectOneLife();
}

TEST_F(Tools, CanLeaveADaemonThatHangs)
{
   const std::string daemon = Script("daemon", "echo up; exec sleep 60\n");
   Program launch({TESSEL_LAUNCH, "--daemon", daemon, "--", "/bin/echo", "command ran"});
   ASSERT_TRUE(launch.Says("daemon started"));
   ASSERT_TRUE(launch.Says("up\n"));
   launch.Signal(SIGTERM);
   ASSERT_TRUE(launch.Says("waiting for the daemon"));
   launch.Signal(SIGINT);
   ASSERT_TRUE(launch.Says("which goes on"));
   EXPECT_EQ(kill(launch.DaemonPid(), SIGKILL), 0);
   EXPECT_EQ(launch.Status(), 128 + SIGTERM);
   EXPECT_EQ(launch.Output().find("command ran"), std::string::npos);
   EXPECT_TRUE(fs::is_empty(scratch_.Path()));
}

TEST_F(Tools, NoticeThatTheDaemonHasEnded)
{
   Program alone(Launch({}));
   ASSERT_TRUE(alone.Says("the services are up")) << alone.Output();
   ASSERT_EQ(kill(alone.DaemonPid(), SIGKILL), 0);
   EXPECT_EQ(alone.Status(), 137);
   EXPECT_NE(alone.Output().find("has ended while its services are in use"), std::string::npos);
}

TEST_F(Tools, SayWhyThereIsNoRegistration)
{
   Peer refuses(Daemon(0, '0'));
   Peer gone([](Peer &peer) { peer.Accept(); });
   const ScratchFolder empty;
   const std::string none = empty.Path("none");
   const std::string longPath = "/" + std::string(120, 'x');
   const struct {
      Words words;
      int status;
      std::string says;
   } cases[] = {
       {{TESSEL_LAUNCH, "--daemon", none, "--", "x"},
        69,
        "cannot start the daemon " + none + ": No such file"},
       {{TESSEL_LAUNCH, "--daemon", "/bin/false"}, 69, "the daemon ended, exit status 1"},
       {{TESSEL_LAUNCH, "--daemon", "/bin/false", "--", "/bin/echo", "ran"}, 69, "not registered at"},
       {{TESSEL_LAUNCH, "--daemon", TESSEL_DAEMON, "--socket", longPath}, 71, "File name too long"},
       {{TESSEL_LAUNCH, "--daemon", TESSEL_DAEMON, "--socket", none + "/s"}, 71, "cannot make the socket"},
       {{TESSEL_CLIENT, "--socket", none}, 69, "no socket at the path"},
       {{TESSEL_CLIENT, "--socket", longPath}, 69, "too long"},
       {{TESSEL_CLIENT, "--socket", refuses.Path(), "--", "/bin/echo", "ran"}, 75, "refused"},
       {{TESSEL_CLIENT, "--socket", gone.Path()}, 69, "went away before it answered"},
       {{TESSEL_CLIENT, "true"}, 64, "set TESSEL_SOCKET"},
       {{TESSEL_CLIENT, "--daemon", "x"}, 64, "--daemon: there is no such option"},
       {{TESSEL_LAUNCH, "-x"}, 64, "there is no such option"},
       {{TESSEL_LAUNCH, "--socket"}, 64, "--socket: a value is missing"},
       {{TESSEL_LAUNCH, "--help"}, 0, "usage: tessel-launch"},
       {{TESSEL_CLIENT, "-h"}, 0, "usage: tessel-client"},
       {{TESSEL_LAUNCH, "--version"}, 0, "tessel-launch 1."},
   };
   for (const auto &c : cases) {
      Program program(c.words);
      EXPECT_EQ(program.Status(), c.status) << program.Output();
      EXPECT_NE(program.Output().find(c.says), std::string::npos)
          << c.says << " is not in " << program.Output();
      EXPECT_EQ(program.Output().find("ran\n"), std::string::npos) << program.Output();
      EXPECT_TRUE(fs::is_empty(scratch_.Path()));
   }
}

TEST_F(Tools, TouchNothingAtThePathThatIsNotTheirs)
{
   const std::string path = other_.Path("socket");
   WriteFile(path, "precious");
   Program refused(Launch({"--socket", path, "--", "/bin/true"}));
   EXPECT_EQ(refused.Status(), 71);
   EXPECT_NE(refused.Output().find("Address already in use"), std::string::npos) << refused.Output();
   EXPECT_EQ(ReadFile(path), "precious");
   fs::remove(path);

   Program replaced(Launch(
       {"--socket", path, "--", "/bin/sh", "-c", "rm \"$TESSEL_SOCKET\" && echo other >\"$TESSEL_SOCKET\""}));
   EXPECT_EQ(replaced.Status(), 0) << replaced.Output();
   EXPECT_EQ(ReadFile(path), "other\n");
}

TEST_F(Tools, GiveTheDaemonItsDescriptorsAndNoOthers)
{
   const std::string daemon =
       Script("daemon", "ls -l /proc/$$/fd; echo \"given $*\"; grep SigIgn /proc/self/status\n");
   ASSERT_EQ(dup2(STDERR_FILENO, 50), 50);
   Program launch({TESSEL_LAUNCH, "-q", "--daemon", daemon});
   close(50);
   EXPECT_EQ(launch.Status(), 69);
   const std::string listener = WordAfter(launch.Output(), "given ");
   const std::string launcher = WordAfter(launch.Output(), "given " + listener + " ");
   const Words expected = {" 0 -> /dev/null", " 1 -> pipe:", " 2 -> pipe:", " " + listener + " -> socket:",
                           " " + launcher + " -> pipe:"};
   for (const std::string &line : expected) {
      EXPECT_EQ(Count(launch.Output(), line), 1U) << line << " in " << launch.Output();
   }
   /* One more is the script itself, which the shell reads. */
   EXPECT_EQ(Count(launch.Output(), " -> "), expected.size() + 1) << launch.Output();
   const std::string ignored = WordAfter(launch.Output(), "SigIgn:\t");
   EXPECT_NE(strtoull(ignored.c_str(), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << ignored;
}

TEST_F(Tools, GiveTheCommandWhatTheyWereGivenThemselves)
{
   ASSERT_EQ(dup2(STDERR_FILENO, 50), 50);
   Program launch(LaunchShell("ls -l /proc/self/fd; exec grep -E 'SigBlk|SigIgn' /proc/self/status"));
   close(50);
   EXPECT_EQ(launch.Status(), 0);
   EXPECT_EQ(Count(launch.Output(), " 50 -> "), 1U);
   EXPECT_EQ(Count(launch.Output(), "-> socket:"), 0U);
   EXPECT_EQ(Count(launch.Output(), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"), 1U)
       << launch.Output();
}
