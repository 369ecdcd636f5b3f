/* The runtime against its table of states: all that can happen to it, in every order. It runs as it ships, with its real
   sockets, pipes and queue, in this process; the seam is its wait for events, where the test lets happen what
   comes next in a schedule, and sees which event the runtime is about to handle. */

#include "daemon/serviceImpl.h"
#include "daemon/servicePrivilege.h"
#include "tests/support/daemonHarness.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <random>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
extern "C" {
int __real_accept4(int listener, struct sockaddr *address, socklen_t *length, int flags);
int __real_close(int fd);
int __real_epoll_ctl(int queue, int operation, int fd, struct epoll_event *event);
int __real_epoll_wait(int queue, struct epoll_event *events, int room, int limitMs);
ssize_t __real_recvmsg(int fd, struct msghdr *message, int flags);
ssize_t __real_write(int fd, const void *data, size_t length);
}

namespace {

/* What happens, a letter each:

      .   the runtime handles one event, if there is any
      s   a signal interrupts its wait
      b   its wait fails
      c   a client comes, and sends at once all that it has to
      d   one comes with the open file that the one before passed
      h   one comes and hangs up
      r   one comes with two descriptors, which is refused
      u   one comes with what cannot be watched
      g   the oldest client that has not let go does so, by closing
      w   the youngest one does, by writing
      l   the launcher goes

   and what will fail when it comes to it:

      f   a start
      x   the stop
      t   the closing of a watched descriptor, which is no longer open
      N   an accept, which finds nothing, although a client is there
      A   an accept
      G   the write of a greeting
      R   the receiving of a descriptor
      W   the watching of it
      Y   the write of an answer
      C   the closing of a connection */
constexpr char EVERYTHING[] = ".sbcdhrugwlfxtNAGRWYC";
constexpr char FAILURES[] = "fxtNAGRWYC";

/* More than a schedule can use up. */
constexpr int DESCRIPTORS = 128;

/* Open all the time, and nothing else but the first three. */
int sLog;
int sUnwatchable;

/* One run of the runtime through a schedule, beside a model of it that is told of each event first. */
class Life {
 public:
   static inline Life *sLife = nullptr;

   explicit Life(const std::string &schedule) : schedule_(schedule)
   {
      struct sockaddr_un unnamed = {.sun_family = AF_UNIX, .sun_path = {}};
      listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      bind(listener_.get(), reinterpret_cast<struct sockaddr *>(&unnamed), sizeof unnamed.sun_family);
      listen(listener_.get(), DESCRIPTORS);
      getsockname(listener_.get(), reinterpret_cast<struct sockaddr *>(&address_), &addressLength_);
   }

   /* How many letters of the schedule this life depends on: every schedule that begins like this one leads to the
      same life, or to that of one without the last letter, which changed nothing. */
   static size_t Run(const std::string &schedule)
   {
      Life life(schedule);
      sLife = &life;
      std::string path = "/proc/self/fd/" + std::to_string(sLog);
      std::string listener = std::to_string(life.listener_.get());
      std::string launcher = std::to_string(life.launcher_.reader.get());
      char *argv[] = {path.data(), listener.data(), launcher.data(), nullptr};
      const int status = ServiceImpl_Daemon(3, argv, 2, argv[0], Start, Stop);
      life.AfterHandling();
      sLife = nullptr;
      EXPECT_EQ(std::optional(status), life.ended_);
      EXPECT_EQ(Logged(), life.logged_);
      life.CheckWhatIsLeft();
      return life.decided_.value_or(life.next_);
   }

   /* Takes the place of the runtime's wait: lets happen what comes next, and what brings about the end after all that. */
   int Wait(int queue, struct epoll_event *event)
   {
      AfterHandling();
      EXPECT_EQ(ended_, std::nullopt) << "the end is missed";
      while (!ended_ && next_ < schedule_.size()) {
         const char letter = schedule_[next_++];
         if (next_ > 1 && !MayFollow(schedule_[next_ - 2], letter)) {
            Repeats();
         }
         if (letter == 's') {
            errno = EINTR;
            return -1;
         }
         if (letter == 'b') {
            logged_ += "Warning: ServiceImplDaemon: kevent errno 9.\n";
            return Fail();
         }
         if (letter == '.' && IsPending()) {
            return Deliver(queue, event);
         }
         if (letter == '.' || !Happen(letter)) {
            Repeats();
         }
      }
      if (!ended_ && !IsPending()) {
         EXPECT_EQ(__real_epoll_wait(queue, event, 1, 0), 0) << "nothing has happened";
         while (LetGo('g')) {
         }
         Happen('l');
      }
      return Deliver(queue, event);
   }

   /* Whether this step of a handshake is to fail, with errno; if it is one on the connection, whether it is that. */
   static bool Fails(char step, int descriptor = -1)
   {
      if (sLife == nullptr || sLife->failing_ != step ||
          (descriptor != -1 && descriptor != sLife->accepted_)) {
         return false;
      }
      errno = step == 'N' ? EAGAIN : ENFILE;
      return true;
   }

   static int Accept(int descriptor)
   {
      sLife->greeted_ = false;
      return sLife->accepted_ = descriptor;
   }

   static bool FailsToWrite(int descriptor)
   {
      if (sLife == nullptr || descriptor != sLife->accepted_) {
         return false;
      }
      return Fails(std::exchange(sLife->greeted_, true) ? 'Y' : 'G');
   }

 private:
   /* What clients pass: the reading end of a pipe. */
   struct Hold {
      Pipe pipe;
      ino_t identity;
      int registrations = 0;
      bool gone = false;
   };

   struct Caller {
      char kind;
      char data;
      size_t hold;
      OwnedDescriptor connection;
   };

   static bool Start()
   {
      sLife->startsDue_--;
      return sLife->startSucceeds_;
   }

   static bool Stop()
   {
      sLife->stopsDue_--;
      return !sLife->stopFails_;
   }

   /* Lets happen what is next; false if that makes no difference. */
   bool Happen(char letter)
   {
      switch (letter) {
      case 'c':
         holds_.emplace_back();
         struct stat attributes;
         fstat(holds_.back().pipe.reader.get(), &attributes);
         holds_.back().identity = attributes.st_ino;
         return Come(letter, holds_.back().pipe.reader.get());
      case 'd':
         return !holds_.empty() && Come(letter, holds_.back().pipe.reader.get());
      case 'h':
      case 'r':
      case 'u':
         return Come(letter, sUnwatchable);
      case 'g':
      case 'w':
         return LetGo(letter);
      case 'l':
         launcher_.writer.reset();
         return !std::exchange(launcherGone_, true);
      case 'f':
         return !std::exchange(startFails_, true);
      case 'x':
         return !std::exchange(stopFails_, true);
      case 't':
         return !std::exchange(steals_, true);
      default:
         return std::exchange(armed_, letter) == '\0';
      }
   }

   bool Come(char kind, int descriptor)
   {
      Caller caller = {kind, data_++, holds_.size() - 1,
                       OwnedDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))};
      const int fd = caller.connection.get();
      EXPECT_EQ(connect(fd, reinterpret_cast<const struct sockaddr *>(&address_), addressLength_), 0);
      EXPECT_TRUE(
          SendMessage(fd, std::string(1, caller.data), std::vector<int>(kind == 'r' ? 2 : 1, descriptor)));
      if (kind == 'h') {
         caller.connection.reset();
      }
      callers_.push_back(std::move(caller));
      return true;
   }

   bool LetGo(char how)
   {
      Hold *leaving = nullptr;
      for (Hold &hold : holds_) {
         if (!hold.gone && (how == 'w' || leaving == nullptr)) {
            leaving = &hold;
         }
      }
      if (leaving == nullptr) {
         return false;
      }
      leaving->gone = true;
      if (how == 'g') {
         leaving->pipe.writer.reset();
         return true;
      }
      return write(leaving->pipe.writer.get(), "x", 1) == 1;
   }

   bool IsPending() const
   {
      return !callers_.empty() || (launcherGone_ && !launcherClosed_) ||
             std::any_of(holds_.begin(), holds_.end(),
                         [](const Hold &hold) { return hold.gone && hold.registrations > 0; });
   }

   /* A failure to come shows when the runtime handles something, so it is as good right before that, in one order if there
      are several. */
   static bool MayFollow(char before, char letter)
   {
      return strchr(FAILURES, before) == nullptr || letter == '.' ||
             strchr(FAILURES, letter) > strchr(FAILURES, before);
   }

   /* This is the same life as one of another schedule, whatever comes now. */
   void Repeats()
   {
      decided_ = decided_.value_or(next_);
   }

   int Fail()
   {
      ended_ = 1;
      errno = EBADF;
      return -1;
   }

   int Deliver(int queue, struct epoll_event *event)
   {
      const int count = __real_epoll_wait(queue, event, 1, 0);
      EXPECT_EQ(count, 1) << "something is pending";
      if (count != 1 || ended_) {
         return Fail();
      }
      const int descriptor = event->data.fd;
      if (descriptor == listener_.get()) {
         EXPECT_FALSE(callers_.empty());
         Serve();
      } else {
         Close(descriptor);
      }
      return 1;
   }

   /* What a caller goes through, and reads. */
   void Serve()
   {
      failing_ = std::exchange(armed_, '\0');
      if (failing_ == 'N' || failing_ == 'A') {
         logged_ += failing_ == 'A' ? "Warning: ServiceImplOnNewClient: accept errno 23.\n" : "";
         return;
      }
      served_ = std::move(callers_.front());
      callers_.pop_front();
      answer_.clear();
      if (failing_ == 'G') {
         logged_ += "Warning: ServiceImplWriteOne: write errno 23.\n";
      } else if (served_->kind != 'h') {
         answer_ += sGreeting;
         Receive();
      }
   }

   void Receive()
   {
      if (failing_ == 'R') {
         logged_ += "Warning: ServiceImplRecvFd: recvmsg errno 23.\n";
         return;
      }
      sGreeting = served_->data;
      if (served_->kind == 'r') {
         logged_ += "Warning: ServiceImplRecvFd: Unexpected message.\n";
         return;
      }
      char reply = '0';
      if (served_->kind == 'u' || failing_ == 'W') {
         logged_ += "Warning: ServiceImplAddReadSource: kevent errno " +
                    std::to_string(failing_ == 'W' ? ENFILE : EPERM) + ".\n";
         leftOpen_++;
      } else {
         reply = Register();
      }
      if (failing_ == 'Y') {
         logged_ += "Warning: ServiceImplWriteOne: write errno 23.\n";
      } else {
         answer_ += reply;
      }
   }

   char Register()
   {
      if (registered_ == 0) {
         logged_ += "ServiceImplRef: Before start().\nServiceImplRef: After start().\n";
         startSucceeds_ = !std::exchange(startFails_, false);
         startsDue_++;
         if (!startSucceeds_) {
            return '0';
         }
      }
      registered_++;
      holds_[served_->hold].registrations++;
      return '1';
   }

   /* The launcher, or a client, has let go of what the runtime watches. */
   void Close(int descriptor)
   {
      const bool isLauncher = descriptor == launcher_.reader.get() && !launcherClosed_;
      if (isLauncher) {
         EXPECT_TRUE(launcherGone_);
         launcherClosed_ = true;
      } else {
         struct stat attributes;
         fstat(descriptor, &attributes);
         const auto hold = std::find_if(holds_.begin(), holds_.end(), [&attributes](const Hold &candidate) {
            return candidate.identity == attributes.st_ino;
         });
         ASSERT_TRUE(hold != holds_.end() && hold->gone && hold->registrations > 0);
         hold->registrations--;
      }
      if (steals_) {
         __real_close(descriptor);
         End(1, "Warning: ServiceImplClose: close " + std::to_string(descriptor) + " errno 9.\n");
      } else if (isLauncher) {
         if (registered_ == 0) {
            End(0, "");
         }
      } else if (--registered_ == 0) {
         stopsDue_++;
         End(stopFails_ ? 1 : 0, "ServiceImplUnref: Before stop().\nServiceImplUnref: After stop().\n");
      }
   }

   void End(int status, const std::string &logged)
   {
      ended_ = status;
      logged_ += logged + "ServiceImplDaemon: Exiting with code " + std::to_string(status) + ".\n";
   }

   void AfterHandling()
   {
      if (std::exchange(failing_, '\0') == 'C') {
         End(1, "Warning: ServiceImplClose: close " + std::to_string(accepted_) + " errno 23.\n");
      }
      if (served_) {
         EXPECT_EQ(Received(served_->connection.get()), answer_);
         served_.reset();
      }
      EXPECT_EQ(startsDue_, 0);
      EXPECT_EQ(stopsDue_, 0);
   }

   /* All that was sent over a connection; the other end must be closed. */
   static std::string Received(int connection)
   {
      char bytes[8];
      ssize_t length;
      std::string all;
      while ((length = recv(connection, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
         all.append(bytes, static_cast<size_t>(length));
      }
      return length == -1 && errno == EAGAIN ? all + " and is not closed" : all;
   }

   /* The text after the lines that every start writes. */
   static std::string Logged()
   {
      char bytes[8192];
      const ssize_t length = pread(sLog, bytes, sizeof bytes, 0);
      const std::string text = WithoutTimestamps(std::string(bytes, static_cast<size_t>(length)));
      return text.substr(text.find("Native process.\n") + 16);
   }

   /* The runtime leaves what is open to the end of the process: its log, its queue, and what it was passed. */
   void CheckWhatIsLeft()
   {
      ptrdiff_t expected = 4 + leftOpen_ - (launcherClosed_ ? 1 : 0);
      for (const Hold &hold : holds_) {
         expected += hold.registrations;
      }
      [[maybe_unused]] const int passed[] = {listener_.release(), launcher_.reader.release()};
      launcher_.writer.reset();
      callers_.clear();
      holds_.clear();
      std::vector<struct pollfd> all(DESCRIPTORS);
      for (int fd = sUnwatchable + 1; auto &one : all) {
         EventQueue_Forget(fd);
         one.fd = fd++;
      }
      poll(all.data(), all.size(), 0);
      EXPECT_EQ(std::count_if(all.begin(), all.end(),
                              [](const auto &one) { return (one.revents & POLLNVAL) == 0; }),
                expected);
      close_range(static_cast<unsigned>(sUnwatchable) + 1, ~0U, 0);
   }

   static inline char sGreeting = 0; /* As the runtime's, kept from life to life. */

   const std::string &schedule_;
   size_t next_ = 0;
   std::optional<size_t> decided_;
   struct sockaddr_un address_ = {};
   socklen_t addressLength_ = sizeof address_;
   OwnedDescriptor listener_;
   Pipe launcher_;
   std::deque<Caller> callers_;
   std::deque<Hold> holds_;
   std::optional<Caller> served_;
   char data_ = 'A';
   char armed_ = '\0';
   char failing_ = '\0';
   int accepted_ = -1; /* The last connection. */
   bool greeted_ = false;
   bool startSucceeds_ = true;

   /* The model. */
   uint32_t registered_ = 0;
   int startsDue_ = 0; /* Less those that were made. */
   int stopsDue_ = 0;
   bool startFails_ = false;
   bool stopFails_ = false;
   bool steals_ = false;
   bool launcherGone_ = false;
   bool launcherClosed_ = false;
   int leftOpen_ = 0;
   std::string answer_;
   std::string logged_;
   std::optional<int> ended_;
};

} // namespace

extern "C" {
int __wrap_accept4(int listener, struct sockaddr *address, socklen_t *length, int flags)
{
   return Life::Fails('N') || Life::Fails('A')
              ? -1
              : Life::Accept(__real_accept4(listener, address, length, flags));
}

int __wrap_close(int fd)
{
   const bool fails = Life::Fails('C', fd);
   const int result = __real_close(fd);
   return fails ? -1 : result;
}

int __wrap_epoll_ctl(int queue, int operation, int fd, struct epoll_event *event)
{
   return operation == EPOLL_CTL_ADD && Life::Fails('W') ? -1 : __real_epoll_ctl(queue, operation, fd, event);
}

int __wrap_epoll_wait(int queue, struct epoll_event *events, int, int)
{
   return Life::sLife->Wait(queue, events);
}

ssize_t __wrap_recvmsg(int fd, struct msghdr *message, int flags)
{
   return Life::Fails('R', fd) ? -1 : __real_recvmsg(fd, message, flags);
}

ssize_t __wrap_write(int fd, const void *data, size_t length)
{
   return Life::FailsToWrite(fd) ? -1 : __real_write(fd, data, length);
}
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

namespace {

class LifeCycle : public testing::Test {
 protected:
   static void SetUpTestSuite()
   {
      signal(SIGPIPE, SIG_IGN);
      ServiceImpl_PrivLower();
      close_range(3, ~0U, 0);
      sLog = memfd_create("log", MFD_CLOEXEC);
      sUnwatchable = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
   }
};

/* Every schedule of this length, but those that are the same life as one before. */
size_t RunAll(const std::string &letters, size_t length)
{
   std::vector<size_t> places(length);
   std::string schedule(length, letters[0]);
   size_t lives = 0;

   while (!testing::Test::HasFailure()) {
      const testing::ScopedTrace trace(__FILE__, __LINE__, schedule);
      size_t place = Life::Run(schedule);
      lives++;
      for (size_t i = place; i < length; i++) {
         places[i] = 0;
      }
      while (place > 0 && ++places[place - 1] == letters.size()) {
         places[--place] = 0;
      }
      if (place == 0) {
         break;
      }
      std::transform(places.begin(), places.end(), schedule.begin(), [&](size_t i) { return letters[i]; });
   }
   return lives;
}

TEST_F(LifeCycle, IsRightInEveryOrder)
{
   for (const auto &[letters, length] : {std::pair<const char *, size_t>(EVERYTHING, 4), {".cgwlfx", 7}}) {
      std::cout << letters << ", " << length << " of them: " << RunAll(letters, length) << " lives\n";
   }
}

TEST_F(LifeCycle, IsRightInRandomOrder)
{
   const std::string letters = std::string("..........cccccdgggwsh") + EVERYTHING;
   const uint64_t schedules = FromEnvironment("TESSEL_SCHEDULES", 100000);
   const uint64_t seed = FromEnvironment("TESSEL_SEED", std::random_device()());
   std::mt19937_64 random(seed);

   std::cout << schedules << " schedules, seed " << seed << "\n";
   for (uint64_t i = 0; i < schedules && !HasFailure(); i++) {
      std::string schedule(1 + random() % 24, '.');
      for (char &letter : schedule) {
         letter = letters[random() % letters.size()];
      }
      const testing::ScopedTrace trace(__FILE__, __LINE__, schedule);
      Life::Run(schedule);
   }
}

} // namespace
