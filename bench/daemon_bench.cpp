/* From starting a daemon to the first line it logs, by the clock and by the processor's work, and what it takes then: the daemon that ships beside other small
   ones that listen on a socket, say so and wait. Runs where /Library is a scratch folder:
   scripts/private-library. Counters: resident and private memory, and the bytes on disk of the program, alone
   and with all it has mapped. */

#include "base/owned.h"
#include "bench/processorTime.h"

#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int WAIT_MS = 10000;
const char *const sLogFolder = "/Library/Logs";
const char *const sLog = "/Library/Logs/Kestra Tessel Services.log";

/* Where a socket may be made; empty between starts. */
const char *const sSocket = "/Library/socket";

/* A started program. Its standard output and error go to a pipe. */
struct Started {
   pid_t pid = -1;
   OwnedDescriptor output;
   OwnedDescriptor kept;
};

Started Start(const std::vector<std::string> &command)
{
   Started started;
   int ends[2];
   if (pipe2(ends, O_CLOEXEC) != 0) {
      return started;
   }
   started.output.reset(ends[0]);
   const OwnedDescriptor writing(ends[1]);
   std::vector<char *> arguments;
   for (const std::string &argument : command) {
      arguments.push_back(const_cast<char *>(argument.c_str()));
   }
   arguments.push_back(nullptr);
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
   if (posix_spawnp(&started.pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
      started.pid = -1;
   }
   posix_spawn_file_actions_destroy(&actions);
   return started;
}

bool WaitReadable(int fd)
{
   struct pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
   return poll(&waiting, 1, WAIT_MS) == 1 && (waiting.revents & POLLIN) != 0;
}

/* Starts it and waits for the first line; what it needs beforehand is made outside the time told. */
using StartsAndLogs = std::function<Started(std::chrono::steady_clock::time_point *begin)>;

StartsAndLogs LogsToOutput(const std::vector<std::string> &command)
{
   return [command](std::chrono::steady_clock::time_point *begin) {
      *begin = std::chrono::steady_clock::now();
      Started started = Start(command);
      if (started.pid != -1 && !WaitReadable(started.output.get())) {
         kill(started.pid, SIGKILL);
         waitpid(started.pid, nullptr, 0);
         started.pid = -1;
      }
      return started;
   };
}

/* Waits until there is something in the log: making the file is seen too, and is not yet a line. */
bool WaitForLog(int watch)
{
   alignas(struct inotify_event) char events[4096];
   std::error_code none;
   while (WaitReadable(watch) && read(watch, events, sizeof events) > 0) {
      if (fs::file_size(sLog, none) > 0 && !none) {
         return true;
      }
   }
   return false;
}

Started StartTessel(std::chrono::steady_clock::time_point *begin)
{
   Started failed;
   const OwnedDescriptor watch(inotify_init1(IN_CLOEXEC));
   const OwnedDescriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
   struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
   int launcher[2];
   fs::remove(sLog);
   if (inotify_add_watch(watch.get(), sLogFolder, IN_MODIFY) == -1 ||
       bind(listener.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address.sun_family) != 0 ||
       listen(listener.get(), 8) != 0 || pipe2(launcher, O_CLOEXEC) != 0) {
      return failed;
   }
   const OwnedDescriptor inherited(launcher[0]);
   OwnedDescriptor kept(launcher[1]);
   fcntl(launcher[0], F_SETFD, 0);
   const std::vector<std::string> command = {TESSEL_DAEMON, std::to_string(listener.get()),
                                             std::to_string(launcher[0])};
   *begin = std::chrono::steady_clock::now();
   Started started = Start(command);
   if (started.pid == -1 || !WaitForLog(watch.get())) {
      return failed;
   }
   started.kept = std::move(kept);
   return started;
}

double KiB(uintmax_t bytes)
{
   return static_cast<double>(bytes) / 1024;
}

/* The files a process has mapped, in bytes. */
uintmax_t MappedBytes(const std::string &process)
{
   std::ifstream maps(process + "/maps");
   std::set<std::string> files;
   std::string line;
   while (std::getline(maps, line)) {
      const size_t path = line.find('/');
      if (path != std::string::npos) {
         files.insert(line.substr(path));
      }
   }
   uintmax_t bytes = 0;
   std::error_code none;
   for (const std::string &file : files) {
      bytes += fs::is_regular_file(file, none) ? fs::file_size(file, none) : 0;
   }
   return bytes;
}

void CountResources(benchmark::State &state, pid_t pid)
{
   const std::string process = "/proc/" + std::to_string(pid);
   std::ifstream rollup(process + "/smaps_rollup");
   std::string word;
   double resident = 0;
   double own = 0;
   while (rollup >> word) {
      double value = 0;
      if (word == "Rss:" && rollup >> value) {
         resident = value;
      } else if ((word == "Private_Clean:" || word == "Private_Dirty:") && rollup >> value) {
         own += value;
      }
   }
   std::error_code none;
   state.counters["resident_KiB"] = resident;
   state.counters["private_KiB"] = own;
   state.counters["disk_KiB"] = KiB(fs::file_size(fs::read_symlink(process + "/exe", none), none));
   state.counters["disk_with_libraries_KiB"] = KiB(MappedBytes(process));
}

enum class Clock { WALL, PROCESSOR };

void StartToFirstLine(benchmark::State &state, const StartsAndLogs &start, Clock clock, rlim_t limit)
{
   struct rlimit files;
   getrlimit(RLIMIT_NOFILE, &files);
   const struct rlimit wanted = {.rlim_cur = limit, .rlim_max = files.rlim_max};
   if (!fs::is_directory(sLogFolder) || setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
      state.SkipWithError("no /Library/Logs here, or so many open files are not allowed");
      return;
   }
   for ([[maybe_unused]] auto pass : state) {
      std::chrono::steady_clock::time_point begin;
      Started started = start(&begin);
      const auto end = std::chrono::steady_clock::now();
      if (started.pid == -1) {
         state.SkipWithError("it did not start");
         break;
      }
      state.SetIterationTime(clock == Clock::PROCESSOR ? ProcessorSecondsOf(started.pid)
                                                       : std::chrono::duration<double>(end - begin).count());
      /* The line may come before it has all it needs. */
      usleep(2000);
      CountResources(state, started.pid);
      kill(started.pid, SIGKILL);
      waitpid(started.pid, nullptr, 0);
      fs::remove(sSocket);
   }
}

void Register(const std::string &name, const StartsAndLogs &start, Clock clock, rlim_t limit)
{
   benchmark::RegisterBenchmark(name.c_str(), StartToFirstLine, start, clock, limit)
       ->UseManualTime()
       ->Iterations(1)
       ->Unit(benchmark::kMillisecond);
}

void RegisterBoth(const std::string &implementation, const StartsAndLogs &start)
{
   constexpr rlim_t usual = 1024;
   Register("daemon/Start/" + implementation, start, Clock::WALL, usual);
   Register("daemon/StartWork/" + implementation, start, Clock::PROCESSOR, usual);
}

} // namespace

int main(int argc, char **argv)
{
   RegisterBoth("tessel", StartTessel);
   RegisterBoth("socat", LogsToOutput({"socat", "-d", "-d", "UNIX-LISTEN:/Library/socket", "-"}));
   RegisterBoth("ncat", LogsToOutput({"ncat", "-v", "-l", "-U", sSocket}));
   RegisterBoth("tcpserver", LogsToOutput({"tcpserver", "-v", "127.0.0.1", "0", "true"}));
   RegisterBoth("s6-ipcserver", LogsToOutput({"s6-ipcserver", "-1", sSocket, "true"}));
   for (const rlim_t limit : {256, 1024, 4096, 20000}) {
      Register("daemon-grows/DescriptorLimit/tessel/" + std::to_string(limit), StartTessel, Clock::PROCESSOR,
               limit);
   }
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   return 0;
}
