#include "client/tesselclient.h"

#include "tests/support/scriptedPeer.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <sys/time.h>
#include <vector>

namespace {

constexpr int SHORT_LIMIT_MS = 60;

size_t OpenDescriptors()
{
   const std::filesystem::directory_iterator all("/dev/fd");
   return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::string Described(TesselResult result, size_t size = TESSEL_TEXT_SIZE)
{
   std::vector<char> text(size + 1, '#');
   TesselClient_Describe(&result, text.data(), size);
   EXPECT_EQ(text[size], '#');
   return text.data();
}

/* Registers once and checks what holds for every outcome. */
TesselOutcome Register(Peer &peer, int maxWaitMs, int *hold)
{
   const TesselResult result = TesselClient_Register(peer.Path().c_str(), maxWaitMs, hold);
   peer.Join();
   EXPECT_EQ(*hold != -1, result.outcome == TESSEL_REGISTERED) << Described(result);
   EXPECT_TRUE(*hold != -1 || peer.Received() == -1 || AtEnd(peer.Received()));
   return result.outcome;
}

} // namespace

TEST(TesselClientRegister, TellsEveryEndOfTheConversationApart)
{
   const struct {
      const char *name;
      Peer::Script script;
      TesselOutcome outcome;
   } cases[] = {
       {"yes", Daemon(0, '1'), TESSEL_REGISTERED},
       {"yes after a greeting that looks like a no", Daemon('0', '1'), TESSEL_REGISTERED},
       {"no", Daemon('1', '0'), TESSEL_REFUSED},
       {"nonsense", Daemon(0, '\x01'), TESSEL_UNEXPECTED_REPLY},
       {"NUL", Daemon(0, '\0'), TESSEL_UNEXPECTED_REPLY},
       {"hang-up at once", [](Peer &peer) { peer.Accept(); }, TESSEL_DAEMON_GONE},
       {"hang-up after the greeting",
        [](Peer &peer) {
           peer.Accept();
           peer.Write(0);
        },
        TESSEL_DAEMON_GONE},
       {"hang-up instead of an answer",
        [](Peer &peer) {
           peer.Accept();
           peer.Write(0);
           peer.Receive();
        },
        TESSEL_DAEMON_GONE},
       {"end before accepting",
        [](Peer &peer) {
           peer.AwaitConnection();
           peer.StopListening();
        },
        TESSEL_DAEMON_GONE},
       {"nobody accepts", nullptr, TESSEL_TIMED_OUT},
       {"no greeting",
        [](Peer &peer) {
           peer.Accept();
           peer.Wait();
        },
        TESSEL_TIMED_OUT},
       {"no answer",
        [](Peer &peer) {
           peer.Accept();
           peer.Write(0);
           peer.Receive();
           peer.Wait();
        },
        TESSEL_TIMED_OUT},
   };
   /* A peer that has gone would end this process by SIGPIPE. */
   ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      const size_t before = OpenDescriptors();
      {
         Peer peer(c.script);
         int hold;
         const int limit = c.outcome == TESSEL_TIMED_OUT ? SHORT_LIMIT_MS : 10000;
         EXPECT_EQ(Register(peer, limit, &hold), c.outcome);
         TesselClient_LetGo(&hold);
      }
      EXPECT_EQ(OpenDescriptors(), before);
   }
}

TEST(TesselClientRegister, SurvivesAPeerThatHangsUpAtAnyMoment)
{
   signal(SIGPIPE, SIG_DFL);
   for (int i = 0; i < 200; i++) {
      Peer peer([i](Peer &p) {
         p.Accept();
         p.Write(0);
         usleep(static_cast<useconds_t>(i % 20));
      });
      int hold;
      EXPECT_EQ(Register(peer, TESSEL_NO_LIMIT, &hold), TESSEL_DAEMON_GONE);
   }
}

TEST(TesselClientRegister, WaitsForAPlaceInTheQueueOnlyAsLongAsItMay)
{
   Peer peer(nullptr, 0);
   struct sockaddr_un address = {};
   address.sun_family = AF_UNIX;
   peer.Path().copy(address.sun_path, sizeof address.sun_path - 1);
   const OwnedDescriptor first(LocalStream_Socket());
   ASSERT_EQ(connect(first.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
   int hold;
   EXPECT_EQ(Register(peer, SHORT_LIMIT_MS, &hold), TESSEL_TIMED_OUT);
}

TEST(TesselClientRegister, NamesWhatIsWrongWithThePath)
{
   const ScratchFolder folder;
   WriteFile(folder.Path("file"), "");
   Peer closed;
   Peer abandoned;
   abandoned.StopListening();
   ASSERT_EQ(chmod(closed.Path().c_str(), 0), 0);
   ASSERT_EQ(chmod(std::filesystem::path(closed.Path()).parent_path().c_str(), 0755), 0);
   const struct {
      std::string path;
      TesselOutcome outcome;
      int systemError;
   } cases[] = {
       {"", TESSEL_NO_SOCKET, ENOENT},
       {folder.Path("none"), TESSEL_NO_SOCKET, ENOENT},
       {folder.Path("file/socket"), TESSEL_NO_SOCKET, ENOTDIR},
       {std::string(sizeof(sockaddr_un::sun_path) - 1, 'x'), TESSEL_NO_SOCKET, ENOENT},
       {std::string(sizeof(sockaddr_un::sun_path), 'x'), TESSEL_PATH_TOO_LONG, ENAMETOOLONG},
       {abandoned.Path(), TESSEL_NOT_LISTENING, ECONNREFUSED},
       {closed.Path(), TESSEL_NO_PERMISSION, EACCES},
   };
   const size_t before = OpenDescriptors();
   for (const auto &c : cases) {
      int hold = 77;
      /* Nothing is closed to root. */
      ASSERT_TRUE(geteuid() != 0 || c.outcome != TESSEL_NO_PERMISSION || seteuid(65534) == 0);
      const TesselResult result = TesselClient_Register(c.path.c_str(), TESSEL_NO_LIMIT, &hold);
      ASSERT_EQ(seteuid(getuid()), 0);
      EXPECT_EQ(result.outcome, c.outcome) << c.path;
      EXPECT_EQ(result.systemError, c.systemError) << c.path;
      EXPECT_EQ(hold, -1);
   }
   EXPECT_EQ(TesselClient_RegisterDescriptor(folder.Path("file").c_str(), 0, 0).outcome,
             TESSEL_NOT_LISTENING);
   EXPECT_EQ(OpenDescriptors(), before);
}

TEST(TesselClientRegister, SaysWhatTheSystemRefused)
{
   Peer peer([](Peer &p) {
      p.Accept();
      p.Write(0);
      p.Wait();
   });
   const TesselResult result = TesselClient_RegisterDescriptor(peer.Path().c_str(), TESSEL_NO_LIMIT, -1);
   EXPECT_EQ(result.outcome, TESSEL_SYSTEM_ERROR);
   EXPECT_EQ(result.systemError, EBADF);
}

TEST(TesselClientRegister, GoesOnAfterSignalsAndKeepsItsLimit)
{
   struct sigaction quiet = {};
   struct sigaction before;
   quiet.sa_handler = [](int) {};
   ASSERT_EQ(sigaction(SIGALRM, &quiet, &before), 0);
   const struct itimerval often = {.it_interval = {0, 3000}, .it_value = {0, 3000}};
   const struct itimerval off = {};

   Peer slow([](Peer &peer) {
      usleep(30000);
      peer.Accept();
      usleep(30000);
      peer.Write(0);
      peer.Receive();
      usleep(30000);
      peer.Write('1');
   });
   Peer silent;
   int hold;
   setitimer(ITIMER_REAL, &often, nullptr);
   EXPECT_EQ(TesselClient_Register(slow.Path().c_str(), TESSEL_NO_LIMIT, &hold).outcome, TESSEL_REGISTERED);
   TesselClient_LetGo(&hold);
   EXPECT_EQ(TesselClient_Register(silent.Path().c_str(), SHORT_LIMIT_MS, &hold).outcome, TESSEL_TIMED_OUT);
   setitimer(ITIMER_REAL, &off, nullptr);
   sigaction(SIGALRM, &before, nullptr);
}

TEST(TesselClientLetGo, IsSeenAtOnceThoughAProgramStartedMeanwhileRunsOn)
{
   Peer peer(Daemon(0, '1'));
   int hold;
   ASSERT_EQ(Register(peer, TESSEL_NO_LIMIT, &hold), TESSEL_REGISTERED);
   FILE *other = popen("cat", "w"); // NOLINT(cert-env33-c): a fixed command
   EXPECT_FALSE(Readable(peer.Received(), 50));

   errno = ENOTTY;
   TesselClient_LetGo(&hold);
   EXPECT_EQ(errno, ENOTTY);
   EXPECT_EQ(hold, -1);
   EXPECT_TRUE(AtEnd(peer.Received()));
   TesselClient_LetGo(&hold);
   pclose(other);
}

TEST(TesselClientRegisterDescriptor, PassesTheCallersOwn)
{
   Peer peer(Daemon(0, '1'));
   int ends[2];
   ASSERT_TRUE(LocalStream_Pipe(ends));
   const OwnedDescriptor reader(ends[0]);
   const OwnedDescriptor writer(ends[1]);
   const TesselResult result =
       TesselClient_RegisterDescriptor(peer.Path().c_str(), TESSEL_NO_LIMIT, reader.get());
   peer.Join();
   EXPECT_EQ(result.outcome, TESSEL_REGISTERED);
   EXPECT_FALSE(Readable(peer.Received(), 0));
   EXPECT_EQ(write(writer.get(), "x", 1), 1);
   EXPECT_TRUE(Readable(peer.Received(), 0));
   EXPECT_TRUE(Readable(reader.get(), 0));
}

TEST(TesselClientDescribe, SaysWhatHappenedInTheRoomThereIs)
{
   const TesselResult gone = {.outcome = TESSEL_DAEMON_GONE, .systemError = 0};
   const TesselResult failed = {.outcome = TESSEL_SYSTEM_ERROR, .systemError = EMFILE};
   EXPECT_EQ(Described(gone), "the daemon went away before it answered");
   EXPECT_EQ(Described(failed), std::string("a system call failed (") + strerror(EMFILE) + ")");
   EXPECT_EQ(Described(failed, 17), "a system call fa");
   EXPECT_EQ(Described(failed, 1), "");
   TesselClient_Describe(&gone, nullptr, 0);
}
