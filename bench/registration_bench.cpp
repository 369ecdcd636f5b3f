/* Registering with the daemon and letting go again, while others hold on. The time is the processor's, of client and
   server together. The argument is the number of clients held; memory is what the server has resident then.
 */

#include "base/owned.h"
#include "bench/processorTime.h"

#include <array>
#include <benchmark/benchmark.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int ROUNDS = 100;

using PipeEnds = std::array<OwnedDescriptor, 2>;

PipeEnds MakePipe()
{
   int ends[2];
   if (pipe2(ends, O_CLOEXEC) != 0) {
      perror("pipe");
      exit(1);
   }
   return {OwnedDescriptor(ends[0]), OwnedDescriptor(ends[1])};
}

/* A server in a process of its own, on the processor of this one. */
class Server {
 public:
   explicit Server(const char *program)
   {
      listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      /* An abstract address, given by the kernel. */
      address_.sun_family = AF_UNIX;
      bind(listener_.get(), reinterpret_cast<struct sockaddr *>(&address_), sizeof address_.sun_family);
      addressLength_ = sizeof address_;
      getsockname(listener_.get(), reinterpret_cast<struct sockaddr *>(&address_), &addressLength_);
      listen(listener_.get(), 128);

      PipeEnds launcher = MakePipe();
      pid_ = fork();
      if (pid_ == 0) {
         fcntl(listener_.get(), F_SETFD, 0);
         fcntl(launcher[0].get(), F_SETFD, 0);
         execl(program, program, std::to_string(listener_.get()).c_str(),
               std::to_string(launcher[0].get()).c_str(), nullptr);
         _exit(127);
      }
      launcher_ = std::move(launcher[1]);
   }

   ~Server()
   {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }

   Server(const Server &) = delete;
   Server &operator=(const Server &) = delete;

   /* Registers a client; it counts for as long as the result is open. */
   [[nodiscard]] OwnedDescriptor Register() const
   {
      PipeEnds held = MakePipe();
      const OwnedDescriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      char byte = 0;
      if (connect(connection.get(), reinterpret_cast<const struct sockaddr *>(&address_), addressLength_) !=
              0 ||
          read(connection.get(), &byte, 1) != 1 || !Pass(connection.get(), held[0].get()) ||
          read(connection.get(), &byte, 1) != 1 || byte != '1') {
         perror("register");
         exit(1);
      }
      return std::move(held[1]);
   }

   [[nodiscard]] double Seconds() const
   {
      return ProcessorSecondsOf(pid_);
   }

   [[nodiscard]] double ResidentKiB() const
   {
      const std::string path = "/proc/" + std::to_string(pid_) + "/statm";
      long pages = 0;
      if (FILE *file = fopen(path.c_str(), "r")) {
         if (fscanf(file, "%*d %ld", &pages) != 1) {
            pages = 0;
         }
         fclose(file);
      }
      return static_cast<double>(pages * sysconf(_SC_PAGESIZE)) / 1024;
   }

 private:
   static bool Pass(int connection, int descriptor)
   {
      char byte = 'x';
      alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
      struct iovec data = {.iov_base = &byte, .iov_len = 1};
      struct msghdr message = {};
      message.msg_iov = &data;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      struct cmsghdr *record = CMSG_FIRSTHDR(&message);
      record->cmsg_level = SOL_SOCKET;
      record->cmsg_type = SCM_RIGHTS;
      record->cmsg_len = CMSG_LEN(sizeof(int));
      memcpy(CMSG_DATA(record), &descriptor, sizeof descriptor);
      return sendmsg(connection, &message, 0) == 1;
   }

   OwnedDescriptor listener_;
   OwnedDescriptor launcher_;
   struct sockaddr_un address_ = {};
   socklen_t addressLength_ = 0;
   pid_t pid_ = -1;
};

void RegisterAndRelease(benchmark::State &state, const char *program)
{
   const Server server(program);
   std::vector<OwnedDescriptor> held;
   for (int64_t i = 0; i < state.range(0); i++) {
      held.push_back(server.Register());
   }
   for ([[maybe_unused]] auto _ : state) {
      const double before = ProcessorSeconds() + server.Seconds();
      for (int i = 0; i < ROUNDS; i++) {
         OwnedDescriptor client = server.Register();
         client.reset();
      }
      state.SetIterationTime(ProcessorSeconds() + server.Seconds() - before);
   }
   state.SetItemsProcessed(state.iterations() * ROUNDS);
   state.counters["memory_KiB"] = server.ResidentKiB();
}

} // namespace

int main(int argc, char **argv)
{
   cpu_set_t one;
   CPU_ZERO(&one);
   CPU_SET(0, &one);
   sched_setaffinity(0, sizeof one, &one);
   struct rlimit limit;
   getrlimit(RLIMIT_NOFILE, &limit);
   limit.rlim_cur = limit.rlim_max;
   setrlimit(RLIMIT_NOFILE, &limit);

   for (const auto &[name, program] : {std::pair("tessel", RUNTIME_SERVER), std::pair("lean", LEAN_SERVER)}) {
      const std::string implementation = name;
      for (const int64_t held : {10, 1000, 8000}) {
         benchmark::RegisterBenchmark(("registration/Clients/" + implementation).c_str(), RegisterAndRelease,
                                      program)
             ->Arg(held)
             ->UseManualTime();
      }
      for (const int64_t held : {10, 100, 1000, 4000, 16000}) {
         benchmark::RegisterBenchmark(("registration-grows/ClientsHeld/" + implementation).c_str(),
                                      RegisterAndRelease, program)
             ->Arg(held)
             ->UseManualTime();
      }
   }
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   return 0;
}
