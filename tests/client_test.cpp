#include "client/tesselclient.h"

#include "tests/support/scriptedPeer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

namespace {

constexpr int SHORT_LIMIT_MS = 60;

TesselOutcome Register(const DaemonProcess &peer, int maxWaitMs, int *hold)
{
   return TesselClient_Register(peer.SocketPath().c_str(), maxWaitMs, hold).outcome;
}

} // namespace

TEST(TesselClientRegister, TellsEveryEndOfTheConversationApart)
{
   const struct {
      const char *script;
      TesselOutcome outcome;
      int limitMs;
   } cases[] = {{"agr1e", TESSEL_REGISTERED, 10000},        {"a0r1e", TESSEL_REGISTERED, 10000},
                {"a1r0e", TESSEL_REFUSED, TESSEL_NO_LIMIT}, {"agr?e", TESSEL_UNEXPECTED_REPLY, 10000},
                {"agrge", TESSEL_UNEXPECTED_REPLY, 10000},  {"a", TESSEL_DAEMON_GONE, 10000},
                {"ag", TESSEL_DAEMON_GONE, 10000},          {"agr", TESSEL_DAEMON_GONE, TESSEL_NO_LIMIT},
                {"c", TESSEL_DAEMON_GONE, 10000},           {"w", TESSEL_TIMED_OUT, SHORT_LIMIT_MS},
                {"aw", TESSEL_TIMED_OUT, SHORT_LIMIT_MS},   {"agrw", TESSEL_TIMED_OUT, SHORT_LIMIT_MS}};
   const auto before = OpenDescriptors();
   for (const auto &c : cases) {
      SCOPED_TRACE(c.script);
      ScriptedPeer peer(c.script);
      int hold = 77;
      EXPECT_EQ(Register(peer, c.limitMs, &hold), c.outcome);
      EXPECT_EQ(hold != -1, c.outcome == TESSEL_REGISTERED);
      TesselClient_LetGo(&hold);
      peer.DropLauncher();
      EXPECT_EQ(peer.ExitStatus(), 0);
      EXPECT_EQ(OpenDescriptors(), before);
   }
}

/* A peer that has gone would end this process by SIGPIPE. */
TEST(TesselClientRegister, SurvivesOnManyThreadsThatThePeerHangsUpAtAnyMoment)
{
   std::string script;
   while (script.size() < 400) {
      script += "ag";
   }
   const ScriptedPeer peer(script);
   ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
   OnThreads(4, [&peer](size_t) {
      for (int i = 0; i < 50; i++) {
         int hold;
         EXPECT_EQ(Register(peer, TESSEL_NO_LIMIT, &hold), TESSEL_DAEMON_GONE);
      }
   });
}

TEST(TesselClientRegister, NamesWhatIsWrong)
{
   const ScratchFolder folder;
   const ScriptedPeer closed("w");
   const ScriptedPeer greets("agw");
   ScriptedPeer ended("");
   EXPECT_EQ(ended.ExitStatus(), 0);
   WriteFile(folder.Path("file"), "");
   ASSERT_EQ(chmod(closed.SocketPath().c_str(), 0), 0);
   const struct {
      std::string path;
      TesselOutcome outcome;
      int systemError;
   } cases[] = {
       {"", TESSEL_NO_SOCKET, ENOENT},
       {folder.Path("file/socket"), TESSEL_NO_SOCKET, ENOTDIR},
       {std::string(sizeof(sockaddr_un::sun_path) - 1, 'x'), TESSEL_NO_SOCKET, ENOENT},
       {std::string(sizeof(sockaddr_un::sun_path), 'x'), TESSEL_PATH_TOO_LONG, ENAMETOOLONG},
       {ended.SocketPath(), TESSEL_NOT_LISTENING, ECONNREFUSED},
       {closed.SocketPath(), TESSEL_NO_PERMISSION, EACCES},
       {greets.SocketPath(), TESSEL_SYSTEM_ERROR, EBADF},
   };
   for (const auto &c : cases) {
      /* Nothing is closed to root. */
      ASSERT_TRUE(geteuid() != 0 || c.outcome != TESSEL_NO_PERMISSION || seteuid(65534) == 0);
      const TesselResult result = TesselClient_RegisterDescriptor(c.path.c_str(), TESSEL_NO_LIMIT, -1);
      ASSERT_EQ(seteuid(getuid()), 0);
      EXPECT_EQ(result.outcome, c.outcome) << c.path;
      EXPECT_EQ(result.systemError, c.systemError) << c.path;
   }
}

TEST(TesselClientRegister, GoesOnAfterSignalsAndKeepsItsLimit)
{
   const struct itimerval often = {.it_interval = {0, 3000}, .it_value = {0, 3000}};
   const struct itimerval off = {};
   struct sigaction quiet = {};
   quiet.sa_handler = [](int) {};
   const ScriptedPeer slow("sasgrs1");
   const ScriptedPeer silent("w");
   const ScriptedPeer full("nmw");
   int hold;
   full.AwaitMark();
   const Connection first(full); /* Takes the only place in the queue. */
   ASSERT_EQ(sigaction(SIGALRM, &quiet, nullptr), 0);
   setitimer(ITIMER_REAL, &often, nullptr);
   EXPECT_EQ(Register(slow, TESSEL_NO_LIMIT, &hold), TESSEL_REGISTERED);
   TesselClient_LetGo(&hold);
   for (int i = 0; i < 5; i++) { /* The time may end while it waits, or between two signals. */
      EXPECT_EQ(Register(silent, SHORT_LIMIT_MS, &hold), TESSEL_TIMED_OUT);
      EXPECT_EQ(Register(full, SHORT_LIMIT_MS, &hold), TESSEL_TIMED_OUT);
   }
   setitimer(ITIMER_REAL, &off, nullptr);
}

TEST(TesselClientLetGo, IsSeenAtOnceThoughAProgramStartedMeanwhileRunsOn)
{
   ScriptedPeer peer("agr1meagr1e");
   int hold;
   ASSERT_EQ(Register(peer, TESSEL_NO_LIMIT, &hold), TESSEL_REGISTERED);
   FILE *other = popen("cat", "w"); // NOLINT(cert-env33-c): a fixed command
   peer.AwaitMark();
   errno = ENOTTY;
   TesselClient_LetGo(&hold);
   TesselClient_LetGo(&hold);
   EXPECT_EQ(errno, ENOTTY);
   EXPECT_EQ(hold, -1);

   /* The caller's own descriptor is passed and left open. */
   Pipe own;
   const char *const path = peer.SocketPath().c_str();
   EXPECT_EQ(TesselClient_RegisterDescriptor(path, TESSEL_NO_LIMIT, own.reader.get()).outcome,
             TESSEL_REGISTERED);
   EXPECT_NE(fcntl(own.reader.get(), F_GETFD), -1);
   own.writer.reset();
   EXPECT_EQ(peer.ExitStatus(), 0);
   pclose(other);
}

TEST(TesselClientDescribe, SaysWhatHappenedInTheRoomThereIs)
{
   const std::string failed = std::string("a system call failed (") + strerror(EMFILE) + ")";
   const std::tuple<TesselResult, size_t, std::string> cases[] = {
       {{TESSEL_DAEMON_GONE, 0}, 100, "the daemon went away before it answered"},
       {{TESSEL_SYSTEM_ERROR, EMFILE}, 100, failed},
       {{TESSEL_SYSTEM_ERROR, EMFILE}, 17, failed.substr(0, 16)},
       {{TESSEL_SYSTEM_ERROR, EMFILE}, 0, ""}};
   for (const auto &[result, size, expected] : cases) {
      std::string text(TESSEL_TEXT_SIZE, '#');
      TesselClient_Describe(&result, text.data(), size);
      EXPECT_EQ(text[size], '#');
      EXPECT_EQ(text.substr(0, text.find_first_of(std::string("\0#", 2))), expected);
   }
}

TEST(TesselClientIsHeld, TellsWhenTheDaemonHasGone)
{
   ScriptedPeer peer("agr1mw");
   int hold;
   ASSERT_EQ(Register(peer, TESSEL_NO_LIMIT, &hold), TESSEL_REGISTERED);
   peer.AwaitMark();
   EXPECT_EQ(TesselClient_IsHeld(hold), 1);
   struct pollfd end = {.fd = hold, .events = 0, .revents = 0};
   kill(peer.Pid(), SIGKILL);
   EXPECT_EQ(poll(&end, 1, -1), 1);
   EXPECT_EQ(TesselClient_IsHeld(hold), 0);
   TesselClient_LetGo(&hold);
   EXPECT_EQ(TesselClient_IsHeld(hold), 0);
}
