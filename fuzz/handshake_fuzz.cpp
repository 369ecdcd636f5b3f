#include "base/owned.h"
#include "daemon/serviceHandshake.h"
#include "daemon/serviceImpl.h"
#include "daemon/serviceLog.h"
#include "fuzz/support/fuzz.h"

#include <array>
#include <bitset>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

/* The daemon's event handlers in this process, between clients that connect, send bytes and descriptors, hang up and
   let go as the input says. A client is registered exactly if its first message brings one descriptor that
   can be watched, and the services run; it reads the byte that came last before, then the answer, then the
   end. The count of clients and the descriptors that are open are at every step what they should be, and at
   the end as at the start: nothing leaks but what cannot be watched, which is left open on purpose. */

namespace {

/* All that is open at a time stays below the limit up to which descriptors are looked at. */
constexpr size_t DESCRIPTOR_LIMIT = 64;
constexpr size_t MAX_CLIENTS = 6;
constexpr size_t MAX_PASSED_TOGETHER = 4;
constexpr size_t MAX_HELD = 24;
constexpr size_t MAX_EVENTS = 64;

/* What a client passes. */
enum class Kind { Pipe, ReadablePipe, Socket, Event, RegularFile, Folder, OwnConnection, COUNT };

/* The end of what was passed by which a client lets go. */
struct Held {
   OwnedDescriptor end;
   bool isEvent; /* To be written: it has no end of its own. */
};

struct Client {
   OwnedDescriptor connection;
   bool sent = false;   /* A message, or the end. */
   bool hungUp = false; /* For both directions. */
   std::optional<uint8_t> firstByte;
   std::vector<Kind> passed; /* With the first message. */
   std::vector<Held> held;
   bool served = false;
};

bool startWorks;
bool stopWorks;
int starts;
int stops;

bool Start()
{
   starts++;
   return startWorks;
}

bool Stop()
{
   stops++;
   return stopWorks;
}

using Descriptors = std::bitset<DESCRIPTOR_LIMIT>;

Descriptors OpenDescriptors()
{
   Descriptors open;
   for (size_t fd = 0; fd < open.size(); fd++) {
      open[fd] = fcntl(static_cast<int>(fd), F_GETFD) != -1;
   }
   return open;
}

size_t CountDescriptors()
{
   return OpenDescriptors().count();
}

bool IsWatchable(Kind kind)
{
   return kind != Kind::RegularFile && kind != Kind::Folder;
}

struct Listener {
   int fd;
   struct sockaddr_un address;
   socklen_t length;
};

Listener Listen()
{
   Listener listener = {
       .fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), .address = {}, .length = 0};
   /* The system chooses an abstract name. */
   listener.address.sun_family = AF_UNIX;
   REQUIRE(bind(listener.fd, reinterpret_cast<struct sockaddr *>(&listener.address), sizeof(sa_family_t)) ==
           0);
   listener.length = sizeof listener.address;
   REQUIRE(getsockname(listener.fd, reinterpret_cast<struct sockaddr *>(&listener.address),
                       &listener.length) == 0);
   REQUIRE(listen(listener.fd, 2 * MAX_CLIENTS) == 0);
   return listener;
}

/* What lives from input to input. */
struct Daemon {
   ServiceImplCtx ctx = {.start = Start, .stop = Stop, .refCount = 0, .kq = EventQueue_Create()};
   Listener listener = Listen();
   OwnedDescriptor regularFile{memfd_create("fuzz", MFD_CLOEXEC)};
   uint8_t lastByte = 0;

   Daemon()
   {
      signal(SIGPIPE, SIG_IGN);
      ServiceImpl_LogOpen("/dev/null");
      REQUIRE(ServiceImplAddReadSource(&ctx, listener.fd, ServiceImplOnNewClient));
   }
};

class Session {
 public:
   Session(Daemon *daemon, FuzzedDataProvider *input)
       : daemon_(*daemon), input_(*input), before_(OpenDescriptors())
   {
   }

   void Run()
   {
      while (input_.remaining_bytes() > 0 && steps_++ < MAX_EVENTS) {
         switch (input_.ConsumeIntegralInRange(0, 5)) {
         case 0:
            Connect();
            break;
         case 1:
         case 2:
            Send();
            break;
         case 3:
            HangUp();
            break;
         case 4:
            LetGo();
            break;
         default:
            Serve();
            break;
         }
      }
      Finish();
   }

 private:
   Client *PickClient()
   {
      return clients_.empty() ? nullptr
                              : &clients_[input_.ConsumeIntegralInRange<size_t>(0, clients_.size() - 1)];
   }

   void Connect()
   {
      if (clients_.size() == MAX_CLIENTS) {
         return;
      }
      Client client;
      client.connection.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      REQUIRE(connect(client.connection.get(),
                      reinterpret_cast<const struct sockaddr *>(&daemon_.listener.address),
                      daemon_.listener.length) == 0);
      clients_.push_back(std::move(client));
   }

   /* The end that is passed; the other one goes to what the client holds. */
   int Make(Kind kind, Client *client, std::vector<OwnedDescriptor> *passed)
   {
      int ends[2] = {-1, -1};
      switch (kind) {
      case Kind::Pipe:
      case Kind::ReadablePipe:
         REQUIRE(pipe2(ends, O_CLOEXEC) == 0);
         REQUIRE(kind == Kind::Pipe || write(ends[1], "x", 1) == 1);
         break;
      case Kind::Socket:
         REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
         break;
      case Kind::Event:
         ends[0] = eventfd(0, EFD_CLOEXEC);
         ends[1] = fcntl(ends[0], F_DUPFD_CLOEXEC, 0);
         break;
      case Kind::RegularFile:
         ends[0] = fcntl(daemon_.regularFile.get(), F_DUPFD_CLOEXEC, 0);
         break;
      case Kind::Folder:
         ends[0] = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
         break;
      default:
         return client->connection.get();
      }
      passed->emplace_back(ends[0]);
      if (ends[1] != -1) {
         client->held.push_back({OwnedDescriptor(ends[1]), kind == Kind::Event});
      }
      return ends[0];
   }

   [[nodiscard]] size_t CountHeld() const
   {
      size_t count = 0;
      for (const Client &client : clients_) {
         count += client.held.size();
      }
      return count;
   }

   void Send()
   {
      Client *client = PickClient();
      if (client == nullptr || client->hungUp || client->served || CountHeld() > MAX_HELD) {
         return;
      }
      std::array<uint8_t, 3> bytes{};
      for (uint8_t &byte : bytes) {
         byte = input_.ConsumeIntegral<uint8_t>();
      }
      std::vector<Kind> kinds;
      std::vector<OwnedDescriptor> passed;
      alignas(struct cmsghdr) char control[CMSG_SPACE(MAX_PASSED_TOGETHER * sizeof(int))] = {};
      struct iovec data = {.iov_base = bytes.data(), .iov_len = input_.ConsumeIntegralInRange<size_t>(1, 3)};
      struct msghdr message = {};
      message.msg_iov = &data;
      message.msg_iovlen = 1;
      const auto count = input_.ConsumeIntegralInRange<size_t>(0, MAX_PASSED_TOGETHER);
      if (count > 0) {
         message.msg_control = control;
         message.msg_controllen = CMSG_SPACE(count * sizeof(int));
         struct cmsghdr *record = CMSG_FIRSTHDR(&message);
         record->cmsg_level = SOL_SOCKET;
         record->cmsg_type = SCM_RIGHTS;
         record->cmsg_len = CMSG_LEN(count * sizeof(int));
         for (size_t i = 0; i < count; i++) {
            kinds.push_back(
                static_cast<Kind>(input_.ConsumeIntegralInRange(0, static_cast<int>(Kind::COUNT) - 1)));
            const int fd = Make(kinds.back(), client, &passed);
            memcpy(CMSG_DATA(record) + i * sizeof fd, &fd, sizeof fd);
         }
      }
      if (sendmsg(client->connection.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) == -1) {
         return; /* After a shutdown. */
      }
      client->sent = true;
      if (!client->firstByte) {
         client->firstByte = bytes[0];
         client->passed = kinds;
      }
   }

   void HangUp()
   {
      Client *client = PickClient();
      if (client == nullptr || client->served) {
         return;
      }
      const bool both = input_.ConsumeBool();
      REQUIRE(shutdown(client->connection.get(), both ? SHUT_RDWR : SHUT_WR) == 0);
      client->hungUp = client->hungUp || both;
      client->sent = true;
   }

   void LetGo()
   {
      Client *client = PickClient();
      if (client == nullptr || client->held.empty()) {
         return;
      }
      if (input_.ConsumeBool()) {
         Write(client->held.back());
      } else {
         Drop(client);
      }
   }

   /* There may be no reader any more. */
   static void Write(const Held &held)
   {
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t written = write(held.end.get(), &one, sizeof one);
   }

   static void Drop(Client *client)
   {
      if (client->held.back().isEvent) {
         Write(client->held.back());
      }
      client->held.pop_back();
   }

   /* Runs the daemon until it would wait. A client that sent nothing would be waited for. */
   void Serve()
   {
      for (Client &client : clients_) {
         if (!client.sent) {
            shutdown(client.connection.get(), SHUT_WR);
            client.sent = true;
         }
      }
      struct pollfd ready = {.fd = daemon_.ctx.kq, .events = POLLIN, .revents = 0};
      QueueEvent event;
      if (poll(&ready, 1, 0) == 0) {
         return;
      }
      expectedOpen_ = CountDescriptors();
      while (poll(&ready, 1, 0) == 1) {
         startWorks = input_.ConsumeIntegralInRange(0, 3) != 1;
         stopWorks = input_.ConsumeIntegralInRange(0, 3) != 1;
         REQUIRE(EventQueue_Wait(daemon_.ctx.kq, &event));
         if (event.descriptor == daemon_.listener.fd) {
            CheckNewClient(event);
         } else {
            CheckGone(event);
         }
      }
      REQUIRE(CountDescriptors() == expectedOpen_);
   }

   /* Connections are taken in the order in which they came. */
   void CheckNewClient(const QueueEvent &event)
   {
      auto client = clients_.begin();
      while (client != clients_.end() && client->served) {
         client++;
      }
      REQUIRE(client != clients_.end());
      client->served = true;
      const uint32_t count = daemon_.ctx.refCount;
      const int startsBefore = starts;

      REQUIRE(event.handler(&daemon_.ctx, &event) == SERVICE_KEEP_RUNNING);

      std::string answer;
      uint32_t registered = 0;
      int started = 0;
      if (!client->hungUp) {
         answer += static_cast<char>(daemon_.lastByte);
      }
      /* One that hung up cannot be written to, so that nothing is taken of what it sent. */
      const bool received = !client->hungUp && client->firstByte.has_value();
      if (received) {
         daemon_.lastByte = *client->firstByte;
      }
      if (received && client->passed.size() == 1) {
         if (!IsWatchable(client->passed[0])) {
            answer += SERVICE_REPLY_REFUSED;
            expectedOpen_++;
            leftOpen_++;
         } else {
            started = count == 0 ? 1 : 0;
            registered = count > 0 || startWorks ? 1 : 0;
            expectedOpen_ += registered;
            answer += registered != 0 ? SERVICE_REPLY_REGISTERED : SERVICE_REPLY_REFUSED;
         }
      }
      REQUIRE(starts - startsBefore == started);
      REQUIRE(daemon_.ctx.refCount == count + registered);
      if (!client->hungUp) {
         RequireAnswer(*client, answer);
      }
   }

   static void RequireAnswer(const Client &client, const std::string &answer)
   {
      std::array<char, 4> bytes;
      const ssize_t length = recv(client.connection.get(), bytes.data(), bytes.size(), 0);
      REQUIRE_SAME(std::string(bytes.data(), length < 0 ? 0 : static_cast<size_t>(length)), answer);
      /* A connection that is closed with bytes unread is reset. */
      REQUIRE(recv(client.connection.get(), bytes.data(), bytes.size(), 0) <= 0);
   }

   void CheckGone(const QueueEvent &event)
   {
      const uint32_t count = daemon_.ctx.refCount;
      const int stopsBefore = stops;
      const int32_t status = event.handler(&daemon_.ctx, &event);
      const bool last = count == 1;
      REQUIRE(daemon_.ctx.refCount == count - 1);
      REQUIRE(stops - stopsBefore == (last ? 1 : 0));
      REQUIRE(status == (last ? (stopWorks ? 0 : 1) : SERVICE_KEEP_RUNNING));
      expectedOpen_--;
   }

   /* Everyone lets go. */
   void Finish()
   {
      Serve();
      for (Client &client : clients_) {
         while (!client.held.empty()) {
            Drop(&client);
         }
      }
      clients_.clear();
      Serve();
      REQUIRE(daemon_.ctx.refCount == 0);
      const Descriptors left = OpenDescriptors() & ~before_;
      REQUIRE(left.count() == leftOpen_ && (before_ & ~OpenDescriptors()).none());
      for (size_t fd = 0; fd < left.size(); fd++) {
         if (left[fd]) {
            close(static_cast<int>(fd));
         }
      }
   }

   Daemon &daemon_;
   FuzzedDataProvider &input_;
   std::deque<Client> clients_;
   Descriptors before_;
   size_t expectedOpen_ = 0;
   size_t leftOpen_ = 0;
   size_t steps_ = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static Daemon daemon;
   FuzzedDataProvider input(data, size);
   Session(&daemon, &input).Run();
   return 0;
}
