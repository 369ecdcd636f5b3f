#include "lib/file/fileLock.h"
#include "lib/file/lock/identity.h"
#include "platform/processIdentity.h"
#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fnmatch.h>
#include <random>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/* Locks whose calls fail, or whose processes are stopped, killed or attacked between two calls. TESSEL_LOCK_TAKES sets how
   many takes there are under stress. */

namespace fs = std::filesystem;

namespace {

constexpr size_t WORKERS = 8;
constexpr int STEPS_AT_LEAST = 30;

const std::set<std::string> FILE_CALLS = {"close",    "fdopendir", "fstat",  "fstatat", "lstat",
                                          "mkdirat",  "open",      "openat", "read",    "readdir",
                                          "renameat", "unlinkat",  "write"};

/* The path that a call is about. */
std::string Path(const Call &call)
{
   return reinterpret_cast<const char *>(call.arguments[call.name.ends_with("at") ? 1 : 0]);
}

/* What processes tell each other: who is inside, and as what. */
enum Inside : int { NOT, SHARED, EXCLUSIVE };

struct Board {
   std::array<std::atomic<pid_t>, WORKERS> pids;
   std::array<std::atomic<int>, WORKERS> inside;
   std::atomic<uint64_t> takes;
   std::atomic<uint64_t> goal;
   std::atomic<int> intruders;
   std::atomic<int> errors;
};

class LockFaults : public testing::Test {
 protected:
   FileLockToken *Take(bool exclusive = true, uint32_t maxWaitMs = FILE_LOCK_TRY_ONCE)
   {
      return FileLock_Lock(path_.c_str(), exclusive, maxWaitMs, {}, &error_);
   }

   bool IsFree()
   {
      FileLockToken *const token = Take();
      return token != nullptr && FileLock_Unlock(token, {}) == 0;
   }

   /* Looks, as one who is inside, for others who must not be. The dead cannot intrude, and have had no time to take their names off
      the board. */
   void CheckForIntruders(size_t self) const
   {
      for (size_t slot = 0; slot < WORKERS; slot++) {
         const pid_t pid = board_->pids[slot];
         const int other = board_->inside[slot];
         uint64_t start;
         if (slot != self && other != NOT && other + board_->inside[self] > 2 * SHARED &&
             ProcessIdentity_StartTime(pid, &start) && board_->pids[slot] == pid &&
             board_->inside[slot] == other) {
            board_->intruders++;
         }
      }
   }

   /* A process in the slot that does the work. */
   pid_t Start(size_t slot, const std::function<void()> &work)
   {
      board_->inside[slot] = NOT;
      const pid_t pid = fork();
      board_->pids[slot] = pid != 0 ? pid : getpid();
      if (pid == 0) {
         work();
         _exit(0);
      }
      return pid;
   }

   /* Takes the lock and gives it back, with the action at its calls. */
   pid_t StartOne(const CallAction &action)
   {
      return Start(1, [&] {
         const size_t descriptors = OpenDescriptors();
         const CallWatch watch(FILE_CALLS, action);
         FileLockToken *const token = Take();
         if (token != nullptr) {
            board_->inside[1] = EXCLUSIVE;
            CheckForIntruders(1);
            board_->inside[1] = NOT;
            FileLock_Unlock(token, {});
         }
         CallWatch::Disarm();
         /* Nothing is left open, whatever failed. */
         _exit(OpenDescriptors() == descriptors ? 0 : 1);
      });
   }

   static int Await(pid_t pid, int options = 0)
   {
      int status = -1;
      waitpid(pid, &status, options);
      return status;
   }

   /* Between a directory and its marker nobody can tell whose it is, and only its age tells that it is left. */
   void Age() const
   {
      const struct timespec old[2] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 1000, .tv_nsec = 0}};
      std::error_code none;
      for (const auto &entry : fs::directory_iterator(directory_, none)) {
         if (fs::is_empty(entry.path(), none) && !none) {
            utimensat(AT_FDCWD, entry.path().c_str(), old, 0);
         }
      }
   }

   ScratchFolder folder_;
   CapturedLog log_;
   std::string path_ = folder_.Path("file");
   std::string directory_ = path_ + ".lck";
   std::string ours_ = folder_.Path("ours");
   int error_ = -1;
   Board *board_ =
       new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board();
};

TEST_F(LockFaults, AnswersEachInItsWay)
{
   enum Instead : uint8_t { NOTHING, DONE_FIRST, LINK, DIRECTORY, SHORT };
   const struct {
      std::string call;
      const char *path; /* A pattern; empty: none. */
      int fault;        /* The first time; EAGAIN: always. */
      bool held;        /* By another token. */
      bool taken;
      int error;
      Instead instead = NOTHING;
   } cases[] = {
       {"openat", "M00007.lck", EAGAIN, true, false, 0},
       {"openat", "M00007.lck", EIO, true, false, 0},
       {"openat", "M00007.lck", EMFILE, true, false, EMFILE},
       {"fstatat", "M00007.lck", EIO, true, false, EIO},
       {"openat", "file.lck", ESTALE, false, true, 0},
       {"openat", "file.lck", EACCES, false, false, EACCES},
       {"mkdirat", "D*.lck", ESTALE, false, true, 0},
       {"renameat", "E*.lck", EIO, false, false, EIO, DONE_FIRST},
       {"write", "", 0, false, false, EIO, SHORT},
       /* A link in the place of the directory that was just made, and a directory in that of what is no such. */
       {"openat", "file.lck", 0, false, true, 0, LINK},
       {"unlinkat", "file.lck", 0, false, true, 0, DIRECTORY},
   };
   fs::create_directory(ours_);
   for (const auto &c : cases) {
      SCOPED_TRACE(c.call + " " + c.path + " " + std::to_string(c.fault));
      const CallWatch seven({"arc4random_uniform"}, [](Call &call) { call.result = 7; });
      FileLockToken *const token = c.held ? Take() : nullptr;
      CallWatch::Disarm();
      if (c.instead == DIRECTORY) {
         WriteFile(directory_, "");
      }
      bool struck = false;
      const CallWatch watch({c.call}, [&](Call &call) {
         if ((struck && c.fault != EAGAIN) ||
             (*c.path != '\0' && fnmatch(c.path, Path(call).c_str(), 0) != 0)) {
            return;
         }
         struck = true;
         if (c.instead == LINK || c.instead == DIRECTORY) {
            fs::remove(directory_);
            c.instead == LINK ? fs::create_directory_symlink(ours_, directory_)
                              : void(fs::create_directory(directory_));
         } else if (c.instead == SHORT) {
            call.result = 511;
         } else {
            static_cast<void>(c.instead == DONE_FIRST && call.Make());
            call.Fail(c.fault);
         }
      });
      FileLockToken *const taken = Take(false, c.call == "fstatat" ? 100 : 0);
      CallWatch::Disarm();
      EXPECT_TRUE(struck && (taken != nullptr) == c.taken && error_ == c.error) << error_;
      EXPECT_TRUE(taken == nullptr || FileLock_Unlock(taken, {}) == 0);
      EXPECT_EQ(fs::exists(directory_ + "/M00007.lck"), c.held);
      EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, {}) == 0);
      EXPECT_TRUE(!fs::exists(directory_) && fs::is_empty(ours_));
   }
}

/* The folder of the file is exchanged for a link to another one before, or after, it is opened. */
TEST_F(LockFaults, TouchNoOtherFolderThanTheOneThatWasOpened)
{
   const std::string place = folder_.Path("place");
   const std::string moved = folder_.Path("moved");
   path_ = place + "/f";
   for (const std::string theirs : {"/f.lck", "/f.lck/M00001.lck"}) {
      fs::remove_all(ours_);
      fs::create_directories(fs::path(ours_ + theirs).parent_path());
      WriteFile(ours_ + theirs, "theirs");
      for (const auto &[name, about] :
           {std::pair("open", place), std::pair("mkdirat", std::string("f.lck"))}) {
         SCOPED_TRACE(name + theirs);
         fs::create_directory(place);
         bool struck = false;
         const CallWatch watch({name}, [&, about = about](Call &call) {
            if (!struck && Path(call) == about) {
               struck = true;
               fs::rename(place, moved);
               fs::create_directory_symlink(ours_, place);
            }
         });
         FileLockToken *const token = Take();
         CallWatch::Disarm();
         EXPECT_TRUE(struck && (token != nullptr) == (about != place));
         EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, {}) == 0);
         EXPECT_EQ(ReadFile(ours_ + theirs), "theirs");
         EXPECT_TRUE(fs::is_empty(moved));
         fs::remove(place);
         fs::remove(moved);
      }
   }
}

/* A member file that its owner could not remove is waited for while he runs, and for no longer. */
TEST_F(LockFaults, KeepTheOwnerOfAFileThatStaysKnown)
{
   const pid_t other = Start(1, [&] {
      {
         const CallWatch watch({"renameat", "unlinkat"}, [](Call &call) {
            if (call.name == "renameat" || Path(call)[0] == 'E') {
               call.Fail(EIO);
            }
         });
         EXPECT_EQ(Take(), nullptr);
      }
      board_->takes = 1;
      pause();
   });
   EXPECT_TRUE(Eventually([&] { return board_->takes == 1; }));
   EXPECT_FALSE(IsFree());
   kill(other, SIGKILL);
   Await(other);
   EXPECT_TRUE(IsFree());
   EXPECT_FALSE(fs::exists(directory_));
   /* One that nobody owns, as young as the ticket, is not waited for without end. */
   fs::create_directory(directory_);
   WriteFile(directory_ + "/E00001.lck", "");
   FileLockToken *token;
   {
      long hours = 0;
      const CallWatch watch({"nanosleep", "clock_gettime"}, [&hours](Call &call) {
         hours += call.name == "nanosleep" ? 1 : 0;
         call.Make();
         if (call.name == "clock_gettime") {
            reinterpret_cast<struct timespec *>(call.arguments[1])->tv_sec += hours * 3600;
         }
      });
      token = Take(true, FILE_LOCK_WAIT_FOREVER);
   }
   ASSERT_NE(token, nullptr);
   EXPECT_EQ(FileLock_Unlock(token, {}), 0);
}

/* From one holder to the next, in a directory made anew, while it is listed. */
TEST_F(LockFaults, HideNoHolderFromTheList)
{
   FileLockToken *token = Take();
   FileLockParty *parties = nullptr;
   int count;
   {
      const CallWatch watch({"readdir"}, [&](Call &call) {
         if (call.number == 1) {
            FileLock_Unlock(token, {});
            token = Take();
         }
      });
      count = FileLock_List(path_.c_str(), &parties);
   }
   EXPECT_EQ(count, 1);
   const std::unique_ptr<FileLockParty, Freed> owned(parties);
   FileLock_Unlock(token, {});
}

/* Each call of another process in turn is its last one, or is refused while this one has the lock, or is made only after this
   one has, or has not, got it. */
TEST_F(LockFaults, LeaveNothingAndLetNoneInAtAnyStep)
{
   constexpr int stops = -2;
   board_->pids[0] = getpid();
   for (const auto &[fault, held] : {std::pair(CALL_KILLS, false), std::pair(ENOSPC, false),
                                     std::pair(EIO, true), std::pair(stops, false)}) {
      bool struck = true;
      size_t had = 0;
      size_t step = 0;
      while (struck) {
         SCOPED_TRACE(std::to_string(++step) + " " + std::to_string(fault));
         FileLockToken *token = held ? Take() : nullptr;
         board_->inside[0] = held ? EXCLUSIVE : NOT;
         board_->takes = 0;
         const pid_t other = StartOne([&, fault = fault](Call &call) {
            if (call.number == step) {
               board_->takes = 1;
               fault == stops ? void(raise(SIGSTOP)) : call.Fail(fault);
            }
         });
         int status = Await(other, WUNTRACED);
         if (WIFSTOPPED(status)) {
            token = Take();
            EXPECT_TRUE(error_ == 0 && (token == nullptr || board_->inside[1] == NOT));
            board_->inside[0] = token != nullptr ? EXCLUSIVE : NOT;
            had += token != nullptr ? 1 : 0;
            kill(other, SIGCONT);
            status = Await(other);
         }
         struck = board_->takes != 0;
         board_->inside[0] = NOT;
         EXPECT_EQ(board_->intruders, 0);
         EXPECT_EQ(status, struck && fault == CALL_KILLS ? SIGKILL : 0);
         EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, {}) == 0);
         Age();
         ASSERT_TRUE(IsFree());
         ASSERT_FALSE(fs::exists(directory_));
      }
      EXPECT_GT(step, STEPS_AT_LEAST);
      EXPECT_EQ(had > 0 && had < step - 1, fault == stops);
   }
}

/* Eight processes on two machines, of which one is killed each few milliseconds. Few numbers are drawn, so that they are used
   again all the time, by the living after the dead, and sleep is short. */
TEST_F(LockFaults, LetNoIntruderInWhileProcessesAreKilled)
{
   board_->goal = FromEnvironment("TESSEL_LOCK_TAKES", 1000);
   const auto start = [&](size_t slot) {
      Start(slot, [&] {
         std::minstd_rand random(static_cast<unsigned>(getpid()));
         const std::string machine = folder_.Path(std::to_string(slot % 2));
         const CallWatch watch({"arc4random_uniform", "nanosleep", "open"}, [&](Call &call) {
            if (call.name == "nanosleep") {
               reinterpret_cast<struct timespec *>(call.arguments[0])->tv_nsec /= 100;
            } else if (call.name == "open") {
               call.arguments[0] = Path(call) == "/etc/machine-id" ? reinterpret_cast<long>(machine.c_str())
                                                                   : call.arguments[0];
            } else {
               call.arguments[0] = call.arguments[0] == 65536 ? 24 : call.arguments[0];
            }
         });
         while (board_->takes < board_->goal) {
            const Inside mode = random() % 3 == 0 ? EXCLUSIVE : SHARED;
            const uint32_t waits[] = {0, 0, 3, FILE_LOCK_WAIT_FOREVER};
            FileLockToken *const token = Take(mode == EXCLUSIVE, waits[random() % 4]);
            if (token != nullptr) {
               board_->inside[slot] = mode;
               CheckForIntruders(slot);
               usleep(static_cast<useconds_t>(random() % 50));
               CheckForIntruders(slot);
               board_->inside[slot] = NOT;
               board_->takes++;
               error_ = FileLock_Unlock(token, {});
            }
            board_->errors += error_ != 0 ? 1 : 0;
         }
      });
   };
   for (size_t slot = 0; slot < WORKERS; slot++) {
      WriteFile(folder_.Path(std::to_string(slot)), "machine" + std::to_string(slot));
      start(slot);
   }
   for (unsigned kills = 0; board_->takes < board_->goal; kills++) {
      usleep(4000);
      const size_t slot = static_cast<size_t>(random()) % WORKERS;
      kill(board_->pids[slot], SIGKILL);
      Await(board_->pids[slot]);
      start(slot);
      if (kills % 16 == 0) {
         Age();
      }
   }
   /* Whoever comes next clears away what is left; of each machine, as nobody else can. */
   for (int round = 0; round < 3; round++) {
      for (const pid_t pid : board_->pids) {
         Await(pid);
      }
      Age();
      board_->goal = board_->takes + WORKERS;
      for (size_t slot = 0; slot < WORKERS && round < 2; slot++) {
         start(slot);
      }
   }
   EXPECT_EQ(board_->intruders, 0);
   EXPECT_EQ(board_->errors, 0) << log_.Text();
   EXPECT_FALSE(fs::exists(directory_));
}

/* The process id of an ancestor that has ended can come back; so can start times, told by another clock. */
TEST_F(LockFaults, TakeNoProcessForAnother)
{
   FileLockIdentity mine = {};
   ASSERT_TRUE(FileLockIdentity_Get(&mine));
   const pid_t same = getpid();
   const pid_t child = Start(1, [&] {
      const CallWatch watch({"getpid", "open"}, [&](Call &call) {
         call.name == "getpid" ? void(call.result = same) : call.Fail(ENOENT);
      });
      FileLockIdentity again = {};
      _exit(FileLockIdentity_Get(&again) && again.machine != std::string(mine.machine) ? 0 : 1);
   });
   EXPECT_EQ(Await(child), 0);
   const pid_t apart = Start(1, [&] {
      FileLockIdentity again = {};
      if (unshare(CLONE_NEWUSER | 0x80 /* CLONE_NEWTIME */) != 0) {
         _exit(77);
      }
      const pid_t inside = fork();
      if (inside == 0) {
         _exit(FileLockIdentity_Get(&again) && again.machine != std::string(mine.machine) ? 0 : 1);
      }
      _exit(WEXITSTATUS(Await(inside)));
   });
   const int status = WEXITSTATUS(Await(apart));
   EXPECT_TRUE(status == 0 || status == 77) << status;
}

/* Only the first thread has ended, and the system calls the process a zombie: what the others hold is still held. */
TEST_F(LockFaults, KnowAProcessThatLivesOnInAnotherThread)
{
   const pid_t child = Start(1, [] {
      pthread_t other;
      pthread_create(
          &other, nullptr, [](void *) -> void * { return pause(), nullptr; }, nullptr);
      /* pthread_exit would unwind into the test's own catching of exceptions. */
      syscall(SYS_exit, 0);
   });
   const std::string path = "/proc/" + std::to_string(child) + "/stat";
   EXPECT_TRUE(Eventually([&] { return ReadFile(path).find(") Z ") != std::string::npos; }));
   uint64_t start = 0;
   EXPECT_TRUE(ProcessIdentity_StartTime(child, &start));
   kill(child, SIGKILL);
   Await(child);
}

} // namespace
