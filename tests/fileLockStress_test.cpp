#include "lib/file/fileLock.h"

#include "lib/public/program.h"
#include "platform/processIdentity.h"
#include "tests/support/lockFaults.h"
#include "tests/support/testSupport.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/* Processes that take one lock as fast as they can while others are killed in the middle of it. TESSEL_LOCK_TAKES sets how
   many takes there are in each test. */

namespace fs = std::filesystem;

namespace {

constexpr size_t WORKERS = 8;
constexpr long SHORT_FORM_TAKES = 2000;
constexpr useconds_t KILL_EACH_US = 4000;

enum Inside : int { NOT, SHARED, EXCLUSIVE };

/* A process, in memory that outlives it. */
struct Slot {
   std::atomic<pid_t> pid;
   std::atomic<int> inside;
};

struct Board {
   std::array<Slot, WORKERS> slots;
   std::atomic<long> takes;
   std::atomic<long> goal;
   std::atomic<int> intruders;
   std::atomic<int> errors;
};

/* The dead cannot intrude, and have had no time to take their names off the board. */
bool Lives(pid_t pid)
{
   uint64_t start;
   return ProcessIdentity_StartTime(pid, &start);
}

void CheckForIntruders(Board *board, const Slot &self)
{
   for (const Slot &slot : board->slots) {
      const pid_t pid = slot.pid;
      const int other = slot.inside;
      if (&slot != &self && other != NOT && (self.inside == EXCLUSIVE || other == EXCLUSIVE) && Lives(pid) &&
          slot.pid == pid && slot.inside == other) {
         board->intruders++;
      }
   }
}

void Work(Board *board, Slot &self, const std::string &path)
{
   std::minstd_rand random(static_cast<unsigned>(getpid()));

   while (board->takes < board->goal) {
      const Inside mode = random() % 3 == 0 ? EXCLUSIVE : SHARED;
      const uint32_t waits[] = {FILE_LOCK_TRY_ONCE, FILE_LOCK_TRY_ONCE, 3, FILE_LOCK_WAIT_FOREVER};
      int error = 0;
      FileLockToken *const token =
          FileLock_Lock(path.c_str(), mode == EXCLUSIVE, waits[random() % 4], {}, &error);
      if (token != nullptr) {
         self.inside = mode;
         CheckForIntruders(board, self);
         usleep(static_cast<useconds_t>(random() % 50));
         CheckForIntruders(board, self);
         self.inside = NOT;
         board->takes++;
         error = FileLock_Unlock(token, {});
      }
      if (error != 0) {
         board->errors++;
         Log("failed: %d\n", error);
      }
   }
}

/* A worker in the slot; so many machines take part, in turns. */
void Start(Board *board, size_t number, const std::string &path, size_t machines)
{
   Slot &slot = board->slots[number];
   slot.inside = NOT;
   const pid_t pid = fork();
   slot.pid = pid != 0 ? pid : getpid();
   if (pid == 0) {
      LockFaults::machine = machines > 1 ? "machine-" + std::to_string(number % machines) : "";
      Work(board, slot, path);
      _exit(0);
   }
}

/* Gives every directory without a marker the age at which it counts as left behind; the living must bear that. */
void Age(const std::string &directory)
{
   std::error_code ignored;
   const struct timespec old[2] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 1000, .tv_nsec = 0}};

   for (const auto &entry : fs::directory_iterator(directory, ignored)) {
      if (entry.path().filename().string()[0] == 'D' && fs::is_empty(entry.path(), ignored) && !ignored) {
         utimensat(AT_FDCWD, entry.path().c_str(), old, 0);
      }
   }
}

void AwaitAll(Board *board)
{
   for (const Slot &slot : board->slots) {
      waitpid(slot.pid, nullptr, 0);
   }
}

/* Takes the lock with eight processes, of which one is killed each few milliseconds, as one machine or several. */
void Stress(size_t machines)
{
   const ScratchFolder folder;
   const std::string path = folder.Path("file");
   const CapturedLog log;
   auto *const board = static_cast<Board *>(
       mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   std::minstd_rand random(1);
   long kills = 0;

   const char *const wanted = getenv("TESSEL_LOCK_TAKES");
   board->goal = wanted != nullptr ? atol(wanted) : SHORT_FORM_TAKES;
   /* Few, so that they are used again all the time, by the living after the dead. */
   LockFaults::numbers = 24;
   LockFaults::haste = 100;
   for (size_t slot = 0; slot < WORKERS; slot++) {
      Start(board, slot, path, machines);
   }
   while (board->takes < board->goal) {
      usleep(KILL_EACH_US);
      const size_t slot = random() % WORKERS;
      kill(board->slots[slot].pid, SIGKILL);
      waitpid(board->slots[slot].pid, nullptr, 0);
      Start(board, slot, path, machines);
      if (kills++ % 16 == 0) {
         Age(path + ".lck");
      }
   }
   AwaitAll(board);
   /* Whoever comes next clears away what is left; of each machine, as nobody else can. */
   for (int round = 0; round < 2; round++) {
      Age(path + ".lck");
      board->goal = board->takes + static_cast<long>(WORKERS);
      for (size_t slot = 0; slot < WORKERS; slot++) {
         Start(board, slot, path, machines);
      }
      AwaitAll(board);
   }
   EXPECT_EQ(board->intruders, 0);
   EXPECT_EQ(board->errors, 0) << log.Text();
   EXPECT_FALSE(fs::exists(path + ".lck"));
   printf("%ld takes, %ld processes killed\n", board->takes.load(), kills);
   LockFaults::numbers = 0;
   LockFaults::haste = 1;
   munmap(board, sizeof(Board));
}

TEST(FileLockStress, KeepsIntrudersOutWhileProcessesAreKilled)
{
   Stress(1);
}

TEST(FileLockStress, KeepsTwoMachinesApartOverOneDirectory)
{
   Stress(2);
}

} // namespace
