#include "base/owned.h"
#include "daemon/serviceHandshake.h"
#include "daemon/serviceImpl.h"
#include "daemon/serviceLog.h"
#include "fuzz/support/fuzz.h"

#include <bitset>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

/* The daemon's event handlers in this process, between clients that connect, send bytes and descriptors, hang up and let
   go as the input says. Whatever they do: who is answered '1' is counted and nobody else, the services run
   while somebody is, every connection is closed, and at the end nothing is counted and nothing is open but
   what was answered '0' because it cannot be watched. */

namespace {

constexpr size_t MAX_CLIENTS = 6;
constexpr size_t MAX_PASSED = 4;
constexpr size_t MAX_STEPS = 64;

bool sStartWorks;
int sStarts;
int sStops;

bool Start()
{
   sStarts++;
   return sStartWorks;
}

bool Stop()
{
   sStops++;
   return true;
}

using Descriptors = std::bitset<256>;

Descriptors OpenDescriptors()
{
   Descriptors open;
   for (size_t fd = 0; fd < open.size(); fd++) {
      open[fd] = fcntl(static_cast<int>(fd), F_GETFD) != -1;
   }
   return open;
}

struct Client {
   OwnedDescriptor connection;
   bool sent; /* Something, or its end: the daemon will not wait for it. */
};

/* What lives from input to input. */
struct Daemon {
   ServiceImplCtx ctx = {.start = Start, .stop = Stop, .refCount = 0, .kq = EventQueue_Create()};
   int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
   struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
   socklen_t length = sizeof address;
   std::deque<Client> clients;        /* In the order in which they will be served. */
   std::vector<OwnedDescriptor> held; /* Closing or writing one lets go. */
   size_t leftOpen = 0;

   Daemon()
   {
      signal(SIGPIPE, SIG_IGN);
      ServiceImpl_LogOpen("/dev/null");
      /* The system chooses an abstract name. */
      REQUIRE(bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof(sa_family_t)) == 0);
      REQUIRE(getsockname(listener, reinterpret_cast<struct sockaddr *>(&address), &length) == 0);
      REQUIRE(listen(listener, MAX_CLIENTS) == 0);
      REQUIRE(ServiceImplAddReadSource(&ctx, listener, ServiceImplOnNewClient));
   }

   void Connect()
   {
      OwnedDescriptor stream(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      REQUIRE(connect(stream.get(), reinterpret_cast<struct sockaddr *>(&address), length) == 0);
      clients.push_back({std::move(stream), false});
   }

   /* The end of a pipe, its own connection, or what cannot be watched. */
   OwnedDescriptor Make(int kind, int connection)
   {
      int ends[2];
      if (kind < 2) {
         return OwnedDescriptor(kind == 0 ? open("/", O_RDONLY | O_CLOEXEC) : dup(connection));
      }
      REQUIRE(pipe2(ends, O_CLOEXEC) == 0);
      held.emplace_back(ends[1]);
      return OwnedDescriptor(ends[0]);
   }

   void Send(FuzzedDataProvider *input, Client *client)
   {
      alignas(struct cmsghdr) char control[CMSG_SPACE(MAX_PASSED * sizeof(int))] = {};
      auto *record = reinterpret_cast<struct cmsghdr *>(control);
      char bytes[3] = {};
      struct iovec data = {.iov_base = bytes, .iov_len = input->ConsumeIntegralInRange<size_t>(1, 3)};
      struct msghdr message = {};
      std::vector<OwnedDescriptor> passed;
      message.msg_iov = &data;
      message.msg_iovlen = 1;
      const auto count = input->ConsumeIntegralInRange<size_t>(0, MAX_PASSED);
      for (size_t i = 0; i < count; i++) {
         passed.push_back(Make(input->ConsumeIntegralInRange(0, 3), client->connection.get()));
         reinterpret_cast<int *>(CMSG_DATA(record))[i] = passed.back().get();
      }
      record->cmsg_len = CMSG_LEN(count * sizeof(int));
      record->cmsg_level = SOL_SOCKET;
      record->cmsg_type = SCM_RIGHTS;
      message.msg_control = control;
      message.msg_controllen = count == 0 ? 0 : record->cmsg_len;
      client->sent |= sendmsg(client->connection.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) != -1;
   }

   void ServeOne(const QueueEvent &event)
   {
      const uint32_t count = ctx.refCount;
      const int starts = sStarts;
      const int stops = sStops;
      const int32_t status = event.handler(&ctx, &event);
      REQUIRE(sStarts - starts == 0 || count == 0);
      if (event.descriptor != listener) {
         REQUIRE(ctx.refCount == count - 1 && sStarts == starts);
         REQUIRE((status == 0) == (count == 1) && sStops - stops == (count == 1 ? 1 : 0));
         return;
      }
      REQUIRE(status == SERVICE_KEEP_RUNNING && sStops == stops);
      char answer[4];
      const ssize_t got = recv(clients.front().connection.get(), answer, sizeof answer, 0);
      REQUIRE(got < 3);
      REQUIRE(ctx.refCount == count + (got == 2 && answer[1] == SERVICE_REPLY_REGISTERED ? 1 : 0));
      REQUIRE(ctx.refCount == count || count > 0 || (sStarts == starts + 1 && sStartWorks));
      leftOpen += got == 2 && answer[1] == SERVICE_REPLY_REFUSED && sStarts == starts ? 1 : 0;
      /* It is closed; with bytes unread that is a reset. */
      REQUIRE(got <= 0 || recv(clients.front().connection.get(), answer, 1, 0) == 0 || errno == ECONNRESET);
      clients.pop_front();
   }

   /* Runs the daemon until it would wait. A client that sent nothing would be waited for. */
   void Serve(bool startWorks)
   {
      struct pollfd ready = {.fd = ctx.kq, .events = POLLIN, .revents = 0};
      QueueEvent event;
      sStartWorks = startWorks;
      for (const Client &client : clients) {
         if (!client.sent) {
            shutdown(client.connection.get(), SHUT_WR);
         }
      }
      while (poll(&ready, 1, 0) == 1) {
         REQUIRE(EventQueue_Wait(ctx.kq, &event));
         ServeOne(event);
      }
   }
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static Daemon daemon;
   static const Descriptors before = OpenDescriptors();
   FuzzedDataProvider input(data, size);

   for (size_t step = 0; step < MAX_STEPS && input.remaining_bytes() > 0; step++) {
      const int what = input.ConsumeIntegralInRange(0, 6);
      const size_t which = input.ConsumeIntegralInRange<size_t>(0, MAX_CLIENTS - 1);
      if (which >= daemon.clients.size()) {
         daemon.Connect();
         continue;
      }
      Client *client = &daemon.clients[which];
      if (what < 3) {
         daemon.Send(&input, client);
      } else if (what == 3) {
         client->sent = shutdown(client->connection.get(), input.ConsumeBool() ? SHUT_RDWR : SHUT_WR) == 0;
      } else if (what == 4 && !daemon.held.empty()) {
         [[maybe_unused]] const ssize_t written = write(daemon.held.front().get(), "x", 1);
         daemon.held.pop_back();
      } else {
         daemon.Serve(input.ConsumeBool());
      }
   }
   daemon.Serve(true);
   daemon.held.clear();
   daemon.Serve(true);
   REQUIRE(daemon.ctx.refCount == 0 && daemon.clients.empty());
   const Descriptors left = OpenDescriptors() & ~before;
   REQUIRE(left.count() == std::exchange(daemon.leftOpen, 0));
   for (size_t fd = left._Find_first(); fd < left.size(); fd = left._Find_next(fd)) {
      close(static_cast<int>(fd));
   }
   return 0;
}
