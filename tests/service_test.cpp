/* What the daemon's runtime is made of: log, event queue, descriptors, the steps of the handshake, and the runtime itself with
   actions of the test's. */

#include "daemon/serviceHandshake.h"
#include "daemon/serviceImpl.h"
#include "daemon/serviceLog.h"
#include "daemon/servicePrivilege.h"
#include "platform/descriptors.h"
#include "tests/support/daemonHarness.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/* What the work writes to standard output, in a process of its own. */
std::string OutputOf(void (*work)())
{
   Pipe pipe;
   std::string output;
   char part[256];
   if (fork() == 0) {
      dup2(pipe.writer.get(), STDOUT_FILENO);
      work();
      _exit(0);
   }
   pipe.writer.reset();
   for (ssize_t n; (n = read(pipe.reader.get(), part, sizeof part)) > 0;) {
      output.append(part, static_cast<size_t>(n));
   }
   return output;
}

/* Stands first: nothing in this program may have opened a log before it. */
TEST(Log, GoesToStandardOutputUntilALogIsOpened)
{
   const std::string line = OutputOf([] { Log("%s: early\n", "tag"); });
   EXPECT_EQ(line.substr(23), "| tag: early\n");
}

TEST(Log, WritesTimestampTagAndWhatFitsOfTheText)
{
   const CapturedLog log;
   const std::string longest(1023, 'x');
   const time_t before = time(nullptr);
   struct tm written = {};
   Log("%s: PID %u\n", "ServiceImpl_Daemon", 7U);
   ASSERT_NE(strptime(log.Raw().c_str(), "%Y-%m-%dT%H:%M:%S", &written), nullptr);
   EXPECT_GE(timegm(&written), before);
   EXPECT_LE(timegm(&written), time(nullptr));
   errno = EXDEV;
   Warning("%s: kevent errno %d.\n", "ServiceImplDaemon", 9);
   Log("%s", longest.c_str());
   Warning("%sx", longest.c_str());
   EXPECT_EQ(errno, EXDEV);
   Log("next\n");
   EXPECT_EQ(log.Text(), "ServiceImpl_Daemon: PID 7\nWarning: ServiceImplDaemon: kevent errno 9.\n" +
                             longest + "Warning: next\n");
}

TEST(LogOpen, EmptiesTheFileAndCreatesItReadableForAll)
{
   const ScratchFolder folder;
   const std::string path = folder.Path("log");
   struct stat attributes;
   const mode_t mask = umask(0);
   ServiceImpl_LogOpen(path.c_str());
   Log("first\n");
   ServiceImpl_LogOpen(path.c_str());
   Log("second\n");
   umask(mask);
   ASSERT_EQ(stat(path.c_str(), &attributes), 0);
   EXPECT_EQ(attributes.st_mode & 07777, 0644U);
   EXPECT_EQ(ReadFile(path).substr(25), "second\n");
}

TEST(LogOpen, FailureTurnsLoggingOff)
{
   const std::string output = OutputOf([] {
      int touched = 0;
      ServiceImpl_LogOpen("/no/such/folder/log");
      Log("text%n", &touched);
      Warning("text\n");
      if (touched != 0) {
         dprintf(STDOUT_FILENO, "formatted\n");
      }
   });
   EXPECT_EQ(output, "");
}

TEST(Panic, EndsTheProcessWithStatusOneThroughExit)
{
   EXPECT_PANIC(
       {
          atexit([] { dprintf(STDERR_FILENO, "handler ran\n"); });
          Panic("%s:%d broken\n", "module", 7);
       },
       "module:7 broken\nhandler ran");
   EXPECT_EXIT(
       {
          ServiceImpl_LogOpen("/no/such/folder/log");
          Panic("lost\n");
       },
       ::testing::ExitedWithCode(1), "^$");
}

template <int32_t status> int32_t Handle(void *, const QueueEvent *)
{
   return status;
}

TEST(EventQueue, GivesTheLastHandlerOfWhatIsWatchedAndNothingElse)
{
   const OwnedDescriptor queue(EventQueue_Create());
   Pipe pipe;
   Pipe other;
   QueueEvent event = {};
   EXPECT_NE(fcntl(queue.get(), F_GETFD), -1);
   for (const int closed : {-1, 9999}) {
      EXPECT_FALSE(EventQueue_AddReadSource(queue.get(), closed, Handle<0>));
      EXPECT_EQ(errno, EBADF);
   }
   const OwnedDescriptor high(fcntl(pipe.reader.get(), F_DUPFD, 200));
   for (const int fd : {pipe.reader.get(), high.get(), other.reader.get()}) {
      ASSERT_TRUE(EventQueue_AddReadSource(queue.get(), fd, Handle<1>));
   }
   ASSERT_TRUE(EventQueue_AddReadSource(queue.get(), other.reader.get(), Handle<2>));
   const OwnedDescriptor elsewhere(dup(pipe.reader.get())); /* As a client that keeps what it passed. */
   pipe.writer.reset();
   for (const int closed : {pipe.reader.release(), high.get()}) {
      errno = EXDEV;
      EventQueue_Forget(closed);
      EventQueue_Forget(closed);
      EXPECT_EQ(errno, EXDEV);
      close(closed);
   }
   ASSERT_EQ(write(other.writer.get(), "x", 1), 1);
   for (int i = 0; i < 3; i++) {
      ASSERT_TRUE(EventQueue_Wait(queue.get(), &event));
      EXPECT_EQ(event.descriptor, other.reader.get());
      EXPECT_EQ(event.handler, Handle<2>);
   }
}

/* Opens all from 3 to 40, closes those from first on but for keep, and counts the wrong ones. To be called in a
   process that has nothing to lose. */
int CountWrong(int first, const std::vector<int> &keep)
{
   constexpr int highest = 40;
   int wrong = 0;
   for (int fd = 3; fd <= highest; fd++) {
      dup2(STDERR_FILENO, fd);
   }
   Descriptors_CloseAllBut(first, keep.data(), keep.size());
   for (int fd = 0; fd <= highest; fd++) {
      const bool kept = fd < first || std::find(keep.begin(), keep.end(), fd) != keep.end();
      wrong += (fcntl(fd, F_GETFD) != -1) != kept ? 1 : 0;
   }
   return wrong;
}

TEST(Descriptors, AreClosedInTheGapsBetweenThoseKept)
{
   const std::pair<int, std::vector<int>> cases[] = {{3, {}},
                                                     {3, {3, 40}},
                                                     {3, {39, 5, 17, 5, 39, 4}},
                                                     {3, {INT_MAX, -1, INT_MIN, 0, 2, 9, INT_MAX - 1}},
                                                     {20, {3, 19, 21}}};
   for (const auto &[first, keep] : cases) {
      EXPECT_EXIT(_exit(CountWrong(first, keep)), testing::ExitedWithCode(0), "") << first;
   }
}

/* A connected pair of sockets, and the log of what is said about them. */
class ServiceHandshake : public testing::Test {
 protected:
   ServiceHandshake()
   {
      signal(SIGPIPE, SIG_IGN);
      int ends[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
      daemon_.reset(ends[0]);
      client_.reset(ends[1]);
   }

   OwnedDescriptor daemon_;
   OwnedDescriptor client_;
   const CapturedLog log_;
};

TEST_F(ServiceHandshake, CarriesADescriptorThatIsClosedOnExec)
{
   Pipe pipe;
   int received = -1;
   ASSERT_TRUE(ServiceImplSendFd(client_.get(), pipe.reader.get()));
   ASSERT_TRUE(ServiceImplRecvFd(daemon_.get(), &received));
   const OwnedDescriptor owned(received);
   EXPECT_NE(fcntl(received, F_GETFD) & FD_CLOEXEC, 0);
   char byte;
   pipe.writer.reset();
   EXPECT_EQ(read(received, &byte, 1), 0);
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(ServiceHandshake, TakesExactlyOneDescriptorAndKeepsNoOther)
{
   Pipe pipe;
   int received = -2;
   const int passed = pipe.writer.get();
   const size_t before = OpenDescriptors();
   for (const size_t count : {0U, 2U, 3U, 9U}) {
      ASSERT_TRUE(SendMessage(client_.get(), "x", std::vector<int>(count, passed)));
      EXPECT_FALSE(ServiceImplRecvFd(daemon_.get(), &received)) << count;
   }
   EXPECT_EQ(received, -2);
   EXPECT_EQ(OpenDescriptors(), before);
   const std::string unexpected = "Warning: ServiceImplRecvFd: Unexpected message.\n";
   EXPECT_EQ(log_.Text(), unexpected + unexpected + unexpected + unexpected);
   ASSERT_TRUE(SendMessage(client_.get(), "y", {passed}) && ServiceImplRecvFd(daemon_.get(), &received));
   close(received);
   uint8_t byte = 0;
   EXPECT_TRUE(ServiceImplGreet(daemon_.get()));
   EXPECT_EQ(ServiceImplReadOne(client_.get(), &byte), ServiceImplReadResult::Byte);
   EXPECT_EQ(byte, 'y') << "the byte that came last is the next greeting";
}

TEST_F(ServiceHandshake, PeerThatHangsUpIsNoError)
{
   int received = -2;
   uint8_t byte = 7;
   ASSERT_TRUE(ServiceImplWriteOne(daemon_.get(), 0));
   client_.reset();
   EXPECT_FALSE(ServiceImplRecvFd(daemon_.get(), &received));
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::EndOfFile);
   EXPECT_EQ(byte, 7);
   EXPECT_FALSE(ServiceImplWriteOne(daemon_.get(), 0));
   EXPECT_FALSE(ServiceImplSendFd(daemon_.get(), STDIN_FILENO));
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(ServiceHandshake, EveryFailureIsReportedByTheRoutineThatSawIt)
{
   int received = -2;
   int closed = 9999;
   bool ok = true;
   uint8_t byte = 0;
   EXPECT_EQ(ServiceImplAccept(9999), -1);
   EXPECT_FALSE(ServiceImplSetBlockingState(9999, true));
   EXPECT_FALSE(ServiceImplWriteOne(9999, 0));
   EXPECT_EQ(ServiceImplReadOne(9999, &byte), ServiceImplReadResult::Error);
   EXPECT_FALSE(ServiceImplRecvFd(9999, &received));
   EXPECT_FALSE(ServiceImplSendFd(9999, 0));
   EXPECT_FALSE(ServiceImplClose(&closed, &ok));
   EXPECT_EQ(closed, -1);
   EXPECT_FALSE(ok);
   EXPECT_TRUE(ServiceImplClose(&closed, &ok));
   EXPECT_FALSE(ok) << "a success never clears an earlier failure";
   const std::string number = std::to_string(EBADF) + ".\n";
   EXPECT_EQ(log_.Text(), "Warning: ServiceImplOnNewClient: accept errno " + number +
                              "Warning: ServiceImplSetBlockingState: fcntl get errno " + number +
                              "Warning: ServiceImplWriteOne: write errno " + number +
                              "Warning: ServiceImplReadOne: read errno " + number +
                              "Warning: ServiceImplRecvFd: recvmsg errno " + number +
                              "Warning: ServiceImplSendFd: sendmsg errno " + number +
                              "Warning: ServiceImplClose: close 9999 errno " + number);
}

TEST_F(ServiceHandshake, SwitchesBlocking)
{
   ASSERT_TRUE(ServiceImplSetBlockingState(daemon_.get(), false));
   uint8_t byte = 0;
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::Error);
   EXPECT_EQ(errno, EAGAIN);
   ASSERT_TRUE(ServiceImplSetBlockingState(daemon_.get(), true));
   EXPECT_EQ(fcntl(daemon_.get(), F_GETFL) & O_NONBLOCK, 0);
   ASSERT_TRUE(ServiceImplWriteOne(client_.get(), 0x80));
   EXPECT_EQ(ServiceImplReadOne(daemon_.get(), &byte), ServiceImplReadResult::Byte);
   EXPECT_EQ(byte, 0x80);
}

/* Someone who came may have gone before it is their turn. */
TEST_F(ServiceHandshake, NobodyToAcceptIsNoError)
{
   const ScratchFolder folder;
   const OwnedDescriptor listener = ListenAt(folder.Path("socket"));
   ASSERT_TRUE(ServiceImplSetBlockingState(listener.get(), false));
   ServiceImplCtx ctx = {};
   const QueueEvent event = {.descriptor = listener.get(), .handler = ServiceImplOnNewClient};
   EXPECT_EQ(ServiceImplOnNewClient(&ctx, &event), SERVICE_KEEP_RUNNING);
   EXPECT_EQ(log_.Text(), "");
}

/* What happens, a letter each:

      c   a client comes, and registers
      d   one comes with the open file that the one before passed
      g   the oldest client lets go, by closing
      w   the youngest one does, by writing
      l   the launcher goes
      s   a signal comes
      .   the runtime handles all of that */
struct Life {
   const char *what;
   int failingStarts;
   bool stopFails;
   const char *answers;
   int status;
   const char *logged; /* A letter each: + the start, - the stop. */
};

constexpr Life LIVES[] = {
    {"l", 0, false, "", 0, ""},
    {".s.l", 0, false, "", 0, ""},
    {"c.g", 0, false, "1", 0, "+-"},
    {"c.w", 0, false, "1", 0, "+-"},
    {"c.g", 0, true, "1", 1, "+-"},
    {"cc.g.cs.w.c.g.g", 0, false, "1111", 0, "+-"},
    {"ccc.w.w.c.g.g", 0, false, "1111", 0, "+-"},
    {"c.l.g", 0, false, "1", 0, "+-"},
    {"c.l.c.g.c.w.g", 0, true, "111", 1, "+-"},
    {"cc.l.s.g.w", 0, false, "11", 0, "+-"},
    {"cd.g", 0, false, "11", 0, "+-"},
    {"cdc.g.d.w", 0, false, "1111", 0, "+-"},
    {"c.l", 1, false, "0", 0, "+"},
    {"c.c.c.l.g.w", 1, false, "011", 0, "++-"},
    {"ccc.w", 2, false, "001", 0, "+++-"},
};

int sFailingStarts;
bool sStopFails;

class LifeCycle {
 public:
   explicit LifeCycle(const Life &life)
       : daemon_([this, &life](int listener, int launcher) {
            std::string arguments[] = {"", std::to_string(listener), std::to_string(launcher)};
            char *argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
            sFailingStarts = life.failingStarts;
            sStopFails = life.stopFails;
            signal(SIGPIPE, SIG_IGN);
            struct sigaction heard = {};
            heard.sa_handler = [](int) {};
            sigaction(SIGUSR1, &heard, nullptr);
            ServiceImpl_PrivLower();
            _exit(ServiceImpl_Daemon(
                3, argv, 2, folder_.Path("log").c_str(), [] { return --sFailingStarts < 0; },
                [] { return !sStopFails; }));
         })
   {
      for (const char *letter = life.what; *letter != '\0'; letter++) {
         Happen(*letter);
      }
   }

   void Check(const Life &life)
   {
      std::string logged;
      for (const char *letter = life.logged; *letter != '\0'; letter++) {
         const std::string tag = *letter == '+' ? "ServiceImplRef" : "ServiceImplUnref";
         const std::string what = *letter == '+' ? " start().\n" : " stop().\n";
         logged.append(tag).append(": Before").append(what).append(tag).append(": After").append(what);
      }
      EXPECT_EQ(answers_, life.answers);
      EXPECT_EQ(daemon_.ExitStatus(), life.status);
      logged += "ServiceImplDaemon: Exiting with code " + std::to_string(life.status) + ".\n";
      const std::string text = WithoutTimestamps(ReadFile(folder_.Path("log")));
      const std::string lastAtStart = " process.\n";
      EXPECT_EQ(text.substr(text.find(lastAtStart) + lastAtStart.size()), logged);
   }

 private:
   void Happen(char letter)
   {
      switch (letter) {
      case 'c':
         held_.emplace_back();
         [[fallthrough]];
      case 'd':
         answers_ += Connection(daemon_).HandOver(held_.back().reader.get()).value_or('-');
         if (answers_.back() != '1') {
            held_.pop_back();
         }
         break;
      case 'g':
         held_.erase(held_.begin());
         break;
      case 'w':
         EXPECT_EQ(write(held_.back().writer.get(), "x", 1), 1);
         gone_.push_back(std::move(held_.back()));
         held_.pop_back();
         break;
      case 'l':
         daemon_.DropLauncher();
         break;
      case 's':
         kill(daemon_.Pid(), SIGUSR1);
         break;
      default:
         /* The first of two greetings may overtake an older event, the second may not. */
         for (int i = 0; i < 2; i++) {
            Connection turn(daemon_);
            turn.Read();
            turn.ShutdownSending();
            turn.Read();
         }
      }
   }

   ScratchFolder folder_;
   std::string answers_;
   std::vector<Pipe> held_;
   std::vector<Pipe> gone_;
   DaemonProcess daemon_;
};

TEST(ServiceImplDaemon, StartsWithTheFirstClientAndStopsAfterTheLastInAnyOrder)
{
   for (const Life &life : LIVES) {
      SCOPED_TRACE(life.what);
      LifeCycle(life).Check(life);
   }
}

} // namespace
