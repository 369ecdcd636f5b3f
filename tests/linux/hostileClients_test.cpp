/* Clients that break the handshake in every way there is, and the daemon as it ships, in a private /Library (see
   run-in-private-library). */

#include "tests/support/daemonHarness.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char UNEXPECTED[] = "Warning: ServiceImplRecvFd: Unexpected message.";
constexpr char NO_ROOM[] = "Warning: ServiceImplOnNewClient: accept errno 24.";

/* Refused descriptors stay open on purpose, so there may only be so many in one daemon. */
constexpr size_t LEFT_OPEN_LIMIT = 300;

/* Parts of the program that are needed for the first time, and a table of what is watched, up to the limit above. */
constexpr size_t RESIDENT_GROWTH_KIB = 256;

using Act = std::function<void(Connection &)>;

/* One way to be a client. After its act it sends no more, and reads the greeting and the answer. */
struct Shape {
   std::string what;
   std::optional<char> answer;
   std::string logged;
   Act act;
};

Act Sends(const std::string &text, int descriptor, size_t times = 1)
{
   return [=](Connection &c) { c.Send(text, std::vector<int>(times, descriptor)); };
}

/* Something that nobody should pass; error is that of watching it. Open to the end of the process. */
struct Thing {
   const char *what;
   int fd;
   int error;
};

int EndedPipe()
{
   return Pipe().reader.release();
}

int Readable(int reader, int writer)
{
   EXPECT_EQ(write(writer, "x", 1), 1);
   return reader;
}

/* So many queues that each watch the one before that the daemon's would be one too many. */
int DeepQueue()
{
   struct epoll_event event = {.events = EPOLLIN, .data = {}};
   int deepest = EndedPipe();
   for (int queue = epoll_create1(EPOLL_CLOEXEC); epoll_ctl(queue, EPOLL_CTL_ADD, deepest, &event) == 0;
        queue = epoll_create1(EPOLL_CLOEXEC)) {
      deepest = queue;
   }
   return deepest;
}

std::vector<Thing> Things()
{
   Pipe full;
   int sockets[2];
   EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sockets), 0);
   return {
       {"the reading end of a closed pipe", EndedPipe(), 0},
       {"a pipe that is readable", Readable(full.reader.release(), full.writer.release()), 0},
       {"a datagram socket", Readable(sockets[0], sockets[1]), 0},
       {"a socket that is not connected", socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), 0},
       {"a queue too deep", DeepQueue(), ELOOP},
       {"a regular file", open("/proc/self/exe", O_RDONLY | O_CLOEXEC), EPERM},
       {"a directory", open("/", O_RDONLY | O_CLOEXEC), EPERM},
       {"a path", open("/", O_PATH | O_CLOEXEC), EBADF},
   };
}

/* What goes wrong apart from what is passed. */
std::vector<Shape> Conversations(const DaemonProcess &daemon)
{
   const int fd = EndedPipe();
   const Act manyHangUp = [&daemon](Connection &c) {
      std::vector<std::unique_ptr<Connection>> others(20);
      for (auto &other : others) {
         other = std::make_unique<Connection>(daemon);
      }
      c.Close();
   };
   const Act peeks = [](Connection &c) {
      char byte;
      recv(c.Socket(), &byte, 1, MSG_PEEK), c.Close();
   };
   const Act isUrgent = [](Connection &c) { send(c.Socket(), "x", 1, MSG_OOB); };
   return {
       {"says nothing", {}, "", [](Connection &) {}},
       {"does not even listen", {}, "", [](Connection &c) { shutdown(c.Socket(), SHUT_RDWR); }},
       {"hangs up", {}, "", [](Connection &c) { c.Close(); }},
       {"hangs up on the greeting", {}, "", peeks},
       {"many that hang up before their turn", {}, "", manyHangUp},
       {"data without a descriptor", {}, UNEXPECTED, Sends("x", fd, 0)},
       {"a lot of data", {}, UNEXPECTED, Sends(std::string(60000, 'x'), fd, 0)},
       {"a descriptor too late", {}, UNEXPECTED, [=](Connection &c) { c.Send("x", {}), c.Send("x", {fd}); }},
       {"a descriptor without data", {}, "", Sends("", fd)},
       {"two descriptors", {}, UNEXPECTED, Sends("x", fd, 2)},
       {"as many as fit", {}, UNEXPECTED, Sends("x", fd, 253)},
       {"urgent data", {}, "", isUrgent},
       {"data behind it", '1', "", Sends(std::string(1000, 'x'), fd)},
       {"another behind it", '1', "", [=](Connection &c) { c.Send("x", {fd}), Sends("x", fd, 253)(c); }},
       {"its own end", '1', "", [](Connection &c) { c.Send("x", {c.Socket()}); }},
       {"does not wait", {}, "", [=](Connection &c) { c.Read(), c.Send("x", {fd}), c.Close(); }},
   };
}

class HostileClients : public testing::Test {
 protected:
   void SetUp() override
   {
      if (!EnterLibrary()) {
         GTEST_SKIP() << "needs a private /Library: run it through run-in-private-library";
      }
      signal(SIGPIPE, SIG_IGN);
      fs::create_directories(SERVICE_LOG.parent_path());
      daemon_.emplace(DaemonImage(TESSEL_DAEMON));
      anchor_.emplace(*daemon_);
      ASSERT_EQ(anchor_->Reply(), '1');
      const std::string waits = std::to_string(SYS_epoll_wait) + " ";
      ASSERT_TRUE(Eventually([&] { return ReadFile(Proc("syscall")).compare(0, waits.size(), waits) == 0; }));
      for (const auto &entry : fs::directory_iterator(Proc("fd"))) {
         idle_.insert(entry.path().filename());
      }
      shapes_ = Conversations(*daemon_);
      for (const auto &[what, fd, error] : Things()) {
         const std::string failed = "Warning: ServiceImplAddReadSource: kevent errno ";
         EXPECT_NE(fd, -1) << what;
         shapes_.push_back({what, error == 0 ? '1' : '0',
                            error == 0 ? "" : failed + std::to_string(error) + ".", Sends("x", fd)});
      }
   }

   void TearDown() override
   {
      if (anchor_) {
         anchor_->LetGo();
         EXPECT_EQ(daemon_->ExitStatus(), 0);
      }
   }

   void Behave(const Shape &shape, bool hasRoom = true) const
   {
      Connection bad(*daemon_);
      Connection good(*daemon_);
      const Pipe pipe;
      shape.act(bad);
      bad.ShutdownSending();
      bad.Read();
      EXPECT_EQ(bad.Read(), hasRoom ? shape.answer : std::nullopt) << shape.what;
      EXPECT_EQ(good.HandOver(pipe.reader.get()), hasRoom ? std::optional('1') : std::nullopt)
          << "the one behind " << shape.what;
   }

   /* Sets how many more descriptors the daemon can open than while nobody is served; they have the lowest numbers. */
   void SetRoom(size_t room) const
   {
      struct rlimit limits;
      rlim_t limit = 0;
      for (size_t free = 0; free < room || idle_.contains(std::to_string(limit)); limit++) {
         free += idle_.contains(std::to_string(limit)) ? 0 : 1;
      }
      EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limits), 0);
      limits.rlim_cur = limit;
      EXPECT_EQ(prlimit(daemon_->Pid(), RLIMIT_NOFILE, &limits, nullptr), 0);
   }

   std::string Proc(const std::string &name) const
   {
      return "/proc/" + std::to_string(daemon_->Pid()) + "/" + name;
   }

   size_t ResidentKib() const
   {
      const std::string text = ReadFile(Proc("smaps_rollup"));
      return strtoul(text.c_str() + text.find("\nRss:") + 5, nullptr, 10);
   }

   /* How often each line was logged, from this place on. */
   static std::map<std::string, size_t> Logged(uintmax_t from)
   {
      constexpr size_t timestamp = 25;
      std::map<std::string, size_t> lines;
      std::ifstream log(SERVICE_LOG);
      log.seekg(static_cast<std::streamoff>(from));
      for (std::string line; std::getline(log, line);) {
         lines[line.substr(std::min(timestamp, line.size()))]++;
      }
      return lines;
   }

   std::vector<Shape> shapes_;
   std::optional<DaemonProcess> daemon_;
   std::optional<Client> anchor_;
   std::set<std::string> idle_; /* What is open while nobody is served. */
};

TEST_F(HostileClients, LeaveNothingBehindAndHoldNobodyUp)
{
   const uint64_t rounds = FromEnvironment("TESSEL_HOSTILE_ROUNDS", 20000);
   const uint64_t seed = FromEnvironment("TESSEL_SEED", std::random_device()());
   std::mt19937_64 random(seed);
   std::map<std::string, size_t> expected;
   size_t leftOpen = 0;

   for (const Shape &shape : shapes_) {
      Behave(shape);
      leftOpen += shape.answer == '0' ? 1 : 0;
   }
   const size_t descriptors = daemon_->OpenDescriptors() - leftOpen;
   const size_t resident = ResidentKib();
   const uintmax_t logged = fs::file_size(SERVICE_LOG);

   for (uint64_t round = 0; round < rounds && !HasFailure();) {
      const Shape &shape = shapes_[random() % shapes_.size()];
      if (shape.answer != '0' || leftOpen < LEFT_OPEN_LIMIT) {
         Behave(shape);
         leftOpen += shape.answer == '0' ? 1 : 0;
         expected[shape.logged]++;
         round++;
      }
   }
   expected.erase("");
   EXPECT_EQ(daemon_->OpenDescriptors(), descriptors + leftOpen);
   EXPECT_EQ(Logged(logged), expected);
   const size_t residentAfter = ResidentKib();
   EXPECT_LE(residentAfter, resident + RESIDENT_GROWTH_KIB);
   std::cout << rounds << " clients of " << shapes_.size() << " kinds, seed " << seed << ": " << descriptors
             << " descriptors open, " << leftOpen << " more left open on purpose, resident " << resident
             << " KiB before and " << residentAfter << " KiB after\n";
}

/* Room for one is that for the connection: there is none for a descriptor that comes over it. */
TEST_F(HostileClients, AreHungUpOnWhereThereIsNoRoom)
{
   const size_t descriptors = daemon_->OpenDescriptors();
   SetRoom(1);
   for (const Shape &shape : shapes_) {
      Behave(shape, false);
   }
   SetRoom(10);
   EXPECT_EQ(daemon_->OpenDescriptors(), descriptors);
   EXPECT_EQ(Client(*daemon_).Reply(), '1');
}

TEST_F(HostileClients, WaitWhereNoneCanBeAccepted)
{
   SetRoom(0);
   Connection waiting(*daemon_);
   const Pipe pipe;
   EXPECT_TRUE(Eventually([] { return Logged(0)[NO_ROOM] > 1; }));
   SetRoom(2);
   EXPECT_EQ(waiting.HandOver(pipe.reader.get()), '1');
}

} // namespace
