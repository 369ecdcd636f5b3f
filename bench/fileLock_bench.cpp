/* Uncontended take and release of the lock of one file, beside what else locks files; then how long a waiter takes to get
   what another process gives back, or leaves by being killed. The folder is TMPDIR's: names are made and
   removed at very different speeds in memory and on a disk. */

#include "lib/file/fileLock.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <lockfile.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

class Folder {
 public:
   Folder()
   {
      std::string pattern = (fs::temp_directory_path() / "tessel-bench-XXXXXX").string();
      if (mkdtemp(pattern.data()) == nullptr) {
         abort();
      }
      path_ = pattern;
   }

   ~Folder()
   {
      std::error_code ignored;
      fs::remove_all(path_, ignored);
   }

   Folder(const Folder &) = delete;
   Folder &operator=(const Folder &) = delete;

   [[nodiscard]] std::string File() const
   {
      return path_ + "/file";
   }

 private:
   std::string path_;
};

/* A benchmark must not go on with a lock it has not got. */
void Check(bool holds)
{
   if (!holds) {
      perror("fileLock_bench");
      abort();
   }
}

FileLockToken *TakeLock(const std::string &file, bool exclusive, uint32_t maxWaitMs)
{
   int error = 0;
   FileLockToken *const token = FileLock_Lock(file.c_str(), exclusive, maxWaitMs, {}, &error);
   Check(token != nullptr);
   return token;
}

void BM_FileLock(benchmark::State &state, bool exclusive)
{
   const Folder folder;
   const std::string file = folder.File();

   for (auto _ : state) {
      Check(FileLock_Unlock(TakeLock(file, exclusive, FILE_LOCK_TRY_ONCE), {}) == 0);
   }
}
BENCHMARK_CAPTURE(BM_FileLock, exclusive, true)->Name("lock/Take/tessel");
BENCHMARK_CAPTURE(BM_FileLock, shared, false)->Name("lock/Take/tessel-shared");

void ListNames(const std::string &folder)
{
   DIR *const stream = opendir(folder.c_str());

   while (readdir(stream) != nullptr) {
   }
   closedir(stream);
}

/* The calls that a lock of numbered tickets in a directory cannot do without, and nothing else: no thought for processes
   that are slow, killed or strangers. The limit of what the lock above can come to. */
void BM_TicketCallsAlone(benchmark::State &state)
{
   const Folder folder;
   const std::string lock = folder.File() + ".lck";
   const std::string entry = lock + "/D12345.lck";
   const std::string writing = lock + "/E12345.lck";
   const std::string member = lock + "/M12345.lck";
   const char record[512] = {};
   struct stat status;

   for (auto _ : state) {
      Check(stat(lock.c_str(), &status) == -1);
      const mode_t mask = umask(0);
      Check(mkdir(lock.c_str(), 0777) == 0 && mkdir(entry.c_str(), 0777) == 0);
      umask(mask);
      Check(stat(member.c_str(), &status) == -1);
      const int fd = open(writing.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      ListNames(lock);
      Check(write(fd, record, sizeof record) == sizeof record);
      close(fd);
      Check(rename(writing.c_str(), member.c_str()) == 0 && rmdir(entry.c_str()) == 0);
      ListNames(lock);
      Check(unlink(member.c_str()) == 0 && rmdir(lock.c_str()) == 0);
   }
}
BENCHMARK(BM_TicketCallsAlone);

void BM_MkdirDotLock(benchmark::State &state)
{
   const Folder folder;
   const std::string lock = folder.File() + ".lock";

   for (auto _ : state) {
      Check(mkdir(lock.c_str(), 0777) == 0);
      Check(rmdir(lock.c_str()) == 0);
   }
}
BENCHMARK(BM_MkdirDotLock)->Name("lock/Take/mkdir");

void BM_LinkDotLock(benchmark::State &state)
{
   const Folder folder;
   const std::string lock = folder.File() + ".lock";
   const std::string own = folder.File() + "." + std::to_string(getpid());
   const std::string owner = std::to_string(getpid()) + "\n";

   for (auto _ : state) {
      const int fd = open(own.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      Check(write(fd, owner.data(), owner.size()) == static_cast<ssize_t>(owner.size()));
      close(fd);
      Check(link(own.c_str(), lock.c_str()) == 0);
      Check(unlink(own.c_str()) == 0);
      Check(unlink(lock.c_str()) == 0);
   }
}
BENCHMARK(BM_LinkDotLock)->Name("lock/Take/link");

void BM_Liblockfile(benchmark::State &state)
{
   const Folder folder;
   const std::string lock = folder.File() + ".lock";

   for (auto _ : state) {
      Check(lockfile_create(lock.c_str(), 0, L_PID) == L_SUCCESS);
      Check(lockfile_remove(lock.c_str()) == 0);
   }
}
BENCHMARK(BM_Liblockfile)->Name("lock/Take/liblockfile");

void BM_Flock(benchmark::State &state)
{
   const Folder folder;
   const std::string file = folder.File();

   for (auto _ : state) {
      const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
      Check(flock(fd, LOCK_EX | LOCK_NB) == 0);
      close(fd);
   }
}
BENCHMARK(BM_Flock)->Name("lock/Take/flock");

void BM_FcntlOpenFileDescription(benchmark::State &state)
{
   const Folder folder;
   const std::string file = folder.File();

   for (auto _ : state) {
      struct flock range = {};
      range.l_type = F_WRLCK;
      range.l_whence = SEEK_SET;
      const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
      Check(fcntl(fd, F_OFD_SETLK, &range) == 0);
      close(fd);
   }
}
BENCHMARK(BM_FcntlOpenFileDescription)->Name("lock/Take/fcntl");

/* What the processes tell each other. */
struct Board {
   std::atomic<bool> held;
   std::atomic<bool> go;
   std::atomic<std::chrono::steady_clock::rep> released;
};

/* From when a holder in another process lets go, or is killed, to when the waiter has the lock. The holder has had it for
   some time, so that the waiter is in the middle of a pause. */
void HandOver(benchmark::State &state, bool killed)
{
   const Folder folder;
   const std::string file = folder.File();
   auto *const board = static_cast<Board *>(
       mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   double longest = 0;

   for (auto _ : state) {
      board->held = false;
      board->go = false;
      const pid_t holder = fork();
      if (holder == 0) {
         FileLockToken *const token = TakeLock(file, true, FILE_LOCK_WAIT_FOREVER);
         board->held = true;
         while (!board->go) {
            usleep(200);
         }
         FileLock_Unlock(token, {});
         _exit(0);
      }
      while (!board->held) {
         usleep(200);
      }
      const pid_t ender = fork();
      if (ender == 0) {
         usleep(static_cast<useconds_t>(120000 + rand() % 100000));
         board->released = std::chrono::steady_clock::now().time_since_epoch().count();
         if (killed) {
            kill(holder, SIGKILL);
         } else {
            board->go = true;
         }
         _exit(0);
      }
      FileLockToken *const token = TakeLock(file, true, FILE_LOCK_WAIT_FOREVER);
      const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::duration(now - board->released)).count();
      state.SetIterationTime(seconds);
      longest = seconds > longest ? seconds : longest;
      FileLock_Unlock(token, {});
      waitpid(holder, nullptr, 0);
      waitpid(ender, nullptr, 0);
   }
   state.counters["longest_ms"] = longest * 1000;
   munmap(board, sizeof(Board));
}

void BM_HandOver(benchmark::State &state)
{
   HandOver(state, false);
}
BENCHMARK(BM_HandOver)
    ->Name("lock/HandOver/tessel")
    ->UseManualTime()
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond);

void BM_RecoveryFromAKilledHolder(benchmark::State &state)
{
   HandOver(state, true);
}
BENCHMARK(BM_RecoveryFromAKilledHolder)
    ->Name("lock/RecoveryFromAKilledHolder/tessel")
    ->UseManualTime()
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond);

/* That many processes at once, each of which takes the lock some times and holds it for a millisecond: the time for one turn. It is the waiting that
   counts, so it is the time that passes. */
void BM_Contenders(benchmark::State &state)
{
   constexpr int turns = 4;
   const Folder folder;
   const std::string file = folder.File();
   auto *const board = static_cast<Board *>(
       mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

   for (auto _ : state) {
      board->go = false;
      std::vector<pid_t> contenders;
      for (int64_t i = 0; i < state.range(0); i++) {
         const pid_t contender = fork();
         if (contender == 0) {
            while (!board->go) {
               usleep(200);
            }
            for (int turn = 0; turn < turns; turn++) {
               FileLockToken *const token = TakeLock(file, true, FILE_LOCK_WAIT_FOREVER);
               usleep(1000);
               Check(FileLock_Unlock(token, {}) == 0);
            }
            _exit(0);
         }
         contenders.push_back(contender);
      }
      const auto start = std::chrono::steady_clock::now();
      board->go = true;
      for (const pid_t contender : contenders) {
         waitpid(contender, nullptr, 0);
      }
      state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
   }
   state.SetItemsProcessed(state.iterations() * state.range(0) * turns);
   munmap(board, sizeof(Board));
}
BENCHMARK(BM_Contenders)
    ->Name("lock-grows/Contenders/tessel")
    ->RangeMultiplier(2)
    ->Range(1, 16)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace
