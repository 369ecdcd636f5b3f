#include "lib/file/fileLock.h"

#include "lib/public/program.h"
#include "platform/processIdentity.h"
#include "tests/support/lockFaults.h"
#include "tests/support/testSupport.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/* Processes that take one lock as fast as they can while others are killed in the middle of it. TESSEL_LOCK_TAKES sets how
   many takes there are in each test. */

namespace fs = std::filesystem;

namespace {

constexpr size_t WORKERS = 8;
constexpr long SHORT_FORM_TAKES = 2000;

/* Few, so that they are used again all the time, by the living after the dead. */
constexpr uint32_t NUMBERS = 24;

enum Inside : int { NOT, SHARED, EXCLUSIVE };

/* What the processes know of each other, in memory that outlives each of them. */
struct Board {
   struct {
      std::atomic<pid_t> pid;
      std::atomic<int> inside;
   } slots[WORKERS];
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

void CheckForIntruders(Board *board, size_t self, Inside mode)
{
   for (size_t i = 0; i < WORKERS; i++) {
      const pid_t pid = board->slots[i].pid;
      const int other = board->slots[i].inside;
      if (i != self && other != NOT && (mode == EXCLUSIVE || other == EXCLUSIVE) && Lives(pid) &&
          board->slots[i].pid == pid && board->slots[i].inside == other) {
         board->intruders++;
      }
   }
}

void Work(Board *board, size_t self, const std::string &path)
{
   std::minstd_rand random(static_cast<unsigned>(getpid()));

   while (board->takes < board->goal) {
      const Inside mode = random() % 3 == 0 ? EXCLUSIVE : SHARED;
      const uint32_t waits[] = {FILE_LOCK_TRY_ONCE, FILE_LOCK_TRY_ONCE, 3, FILE_LOCK_WAIT_FOREVER};
      int error = 0;
      FileLockToken *const token =
          FileLock_Lock(path.c_str(), mode == EXCLUSIVE, waits[random() % 4], {}, &error);
      if (token == nullptr) {
         if (error != 0) {
            board->errors++;
            Log("attempt failed: %d\n", error);
         }
         continue;
      }
      board->slots[self].inside = mode;
      CheckForIntruders(board, self, mode);
      usleep(static_cast<useconds_t>(random() % 50));
      CheckForIntruders(board, self, mode);
      board->slots[self].inside = NOT;
      board->takes++;
      board->errors += FileLock_Unlock(token, {}) != 0 ? 1 : 0;
   }
}

/* A worker in the slot; so many machines take part, in turns. */
void Start(Board *board, size_t slot, const std::string &path, size_t machines)
{
   board->slots[slot].inside = NOT;
   const pid_t pid = fork();
   if (pid == 0) {
      if (machines > 1) {
         LockFaults::SetMachine("machine-" + std::to_string(slot % machines));
      }
      board->slots[slot].pid = getpid();
      Work(board, slot, path);
      _exit(0);
   }
   board->slots[slot].pid = pid;
}

void End(Board *board, size_t slot, int number)
{
   const pid_t pid = board->slots[slot].pid;
   if (number != 0) {
      kill(pid, number);
   }
   waitpid(pid, nullptr, 0);
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

/* The lines that are not about timeouts and the remains of the killed. */
std::string Unusual(const std::string &log)
{
   std::istringstream lines(log);
   std::string result;

   for (std::string line; std::getline(lines, line);) {
      if (line.find(" timeout on ") == std::string::npos &&
          line.find("invalid executionID") == std::string::npos) {
         result += line + "\n";
      }
   }
   return result;
}

/* One take and release as each machine, at the same time, in processes that have not yet asked for their names. */
void Visit(const std::string &path, size_t machines)
{
   std::vector<pid_t> visitors;
   for (size_t machine = 0; machine < machines; machine++) {
      visitors.push_back(fork());
      if (visitors.back() == 0) {
         int error = 0;
         if (machines > 1) {
            LockFaults::SetMachine("machine-" + std::to_string(machine));
         }
         FileLockToken *const token = FileLock_Lock(path.c_str(), true, FILE_LOCK_WAIT_FOREVER, {}, &error);
         _exit(token != nullptr && FileLock_Unlock(token, {}) == 0 ? 0 : 1);
      }
   }
   for (const pid_t pid : visitors) {
      int status = -1;
      waitpid(pid, &status, 0);
      EXPECT_EQ(status, 0);
   }
}

void Stress(size_t machines, std::chrono::milliseconds killEach)
{
   /* In memory, where there is such a place: a disk would be waited for most of the time. */
   if (fs::exists("/dev/shm")) {
      setenv("TMPDIR", "/dev/shm", 1);
   }
   const CapturedLog log;
   const ScratchFolder folder;
   const std::string path = folder.Path("file");
   const char *const wanted = getenv("TESSEL_LOCK_TAKES");
   std::minstd_rand random(1);
   long kills = 0;

   auto *const board = static_cast<Board *>(
       mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   ASSERT_NE(board, MAP_FAILED);
   board->goal = wanted != nullptr ? atol(wanted) : SHORT_FORM_TAKES;
   LockFaults::SetNumbers(NUMBERS);
   LockFaults::SetHaste(100);
   for (size_t slot = 0; slot < WORKERS; slot++) {
      Start(board, slot, path, machines);
   }
   while (board->takes < board->goal) {
      usleep(static_cast<useconds_t>(killEach.count() * 1000));
      const size_t slot = random() % WORKERS;
      End(board, slot, SIGKILL);
      Start(board, slot, path, machines);
      if (kills++ % 16 == 0) {
         Age(path + ".lck");
      }
   }
   /* A machine's dead can block those of the other until one of its own comes by. */
   Visit(path, machines);
   for (size_t slot = 0; slot < WORKERS; slot++) {
      End(board, slot, 0);
   }
   Age(path + ".lck");
   Visit(path, machines);
   EXPECT_EQ(board->intruders, 0);
   EXPECT_EQ(board->errors, 0) << Unusual(log.Text());
   EXPECT_FALSE(fs::exists(path + ".lck"));
   printf("%ld takes, %ld processes killed\n", board->takes.load(), kills);
   LockFaults::SetNumbers(0);
   LockFaults::SetHaste(1);
   munmap(board, sizeof(Board));
}

TEST(FileLockStress, KeepsIntrudersOutWhileProcessesAreKilled)
{
   Stress(1, std::chrono::milliseconds(4));
}

TEST(FileLockStress, KeepsTwoMachinesApartOverOneDirectory)
{
   Stress(2, std::chrono::milliseconds(4));
}

} // namespace
