#include "lib/file/fileLock.h"

#include "lib/file/fileLockMember.h"
#include "lib/file/fileLockWait.h"
#include "lib/string/str.h"
#include "tests/support/lockFaults.h"
#include "tests/support/testSupport.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uid_t ORDINARY_USER = 65534;

/* A file to lock in a folder of its own, and what is in its lock directory. */
class FileLock : public testing::Test {
 protected:
   [[nodiscard]] std::string Directory() const
   {
      return path_ + ".lck";
   }

   FileLockToken *Take(bool exclusive, uint32_t maxWaitMs = FILE_LOCK_TRY_ONCE)
   {
      return FileLock_Lock(path_.c_str(), exclusive, maxWaitMs, {}, &error_);
   }

   /* Whether the lock can be had at once; gives it back. */
   bool IsFree(bool exclusive = true)
   {
      FileLockToken *const token = Take(exclusive);
      return token != nullptr && FileLock_Unlock(token, {}) == 0;
   }

   void AddMember(const std::string &name, const std::string &line, size_t size = FILE_LOCK_RECORD_SIZE) const
   {
      fs::create_directory(Directory());
      std::string record = line;
      record.resize(size);
      WriteFile(Directory() + "/" + name, record);
   }

   /* A member's line, of this place unless told otherwise. */
   [[nodiscard]] std::string Line(const std::string &machine, const std::string &execution, unsigned ticket,
                                  const std::string &type, std::string checksum = "") const
   {
      std::array<char, FILE_LOCK_CHECKSUM_SIZE> own;
      FileLockIdentity_Checksum(fs::canonical(folder_.Path()).string() + "/file.lck", own.data());
      checksum = checksum.empty() ? own.data() : checksum;
      return machine + " " + execution + " " + std::to_string(ticket) + " " + type +
             " 1700000000000000 lc=" + checksum;
   }

   [[nodiscard]] std::set<std::string> Entries() const
   {
      std::set<std::string> names;
      for (const auto &entry : fs::directory_iterator(Directory())) {
         names.insert(entry.path().filename().string());
      }
      return names;
   }

   static FileLockIdentity Self()
   {
      FileLockIdentity self;
      EXPECT_TRUE(FileLockIdentity_Get(&self));
      return self;
   }

   /* The identifier of a process that was this one's child and has ended. */
   static std::string Ended()
   {
      const pid_t pid = fork();
      if (pid == 0) {
         _exit(0);
      }
      waitpid(pid, nullptr, 0);
      return std::to_string(pid) + "-12345";
   }

   ScratchFolder folder_;
   std::string path_ = folder_.Path("file");
   CapturedLog log_;
   int error_ = -1;
};

TEST_F(FileLock, LetsReadersShareAndWritersNot)
{
   for (const bool held : {false, true}) {
      for (const bool wanted : {false, true}) {
         FileLockToken *const token = Take(held);
         ASSERT_NE(token, nullptr);
         EXPECT_EQ(IsFree(wanted), !held && !wanted);
         EXPECT_EQ(error_, 0);
         EXPECT_FALSE(FileLock_IsImplicit(token));
         EXPECT_EQ(FileLock_Unlock(token, {}), 0);
         EXPECT_FALSE(fs::exists(Directory()));
      }
   }
   const std::string line = "FILE: FileLockWaitForPossession timeout on '" + path_ +
                            "' due to a local process '" + Self().execution + "'\n";
   EXPECT_EQ(log_.Text(), line + line + line);
}

TEST_F(FileLock, WritesTheRecordAsDocumented)
{
   FileLockToken *const first = Take(false);
   FileLockToken *const second = Take(false);
   std::set<unsigned> tickets;
   for (const std::string &name : Entries()) {
      const std::string record = ReadFile(Directory() + "/" + name);
      ASSERT_EQ(record.size(), 512U);
      const size_t end = record.find('\0');
      EXPECT_EQ(record.find_first_not_of('\0', end), std::string::npos);
      std::array<char, 512> machine;
      std::array<char, 512> execution;
      unsigned ticket = 0;
      char type = 0;
      unsigned long long time = 0;
      std::array<char, 512> checksum;
      ASSERT_EQ(sscanf(record.c_str(), "%s %s %u %c %llu lc=%s", machine.data(), execution.data(), &ticket,
                       &type, &time, checksum.data()),
                6);
      EXPECT_STREQ(machine.data(), Self().machine);
      EXPECT_STREQ(execution.data(), Self().execution);
      EXPECT_EQ(type, 'S');
      EXPECT_NEAR(static_cast<double>(time) / 1e6, static_cast<double>(std::time(nullptr)), 60);
      tickets.insert(ticket);
      struct stat status;
      ASSERT_EQ(stat((Directory() + "/" + name).c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 0777U, 0644U);
      EXPECT_TRUE(name.size() == 10 && name[0] == 'M' && name.ends_with(".lck")) << name;
   }
   EXPECT_EQ(tickets, (std::set<unsigned>{1, 2}));
   EXPECT_EQ(fs::status(Directory()).permissions(), fs::perms::all);
   FileLock_Unlock(second, {});
   FileLock_Unlock(first, {});
}

/* What a user's mask takes from the files would lock the others out, and their tickets up. */
TEST_F(FileLock, IsOpenToOtherUsersWhateverTheMask)
{
   const mode_t mask = umask(0077);
   FileLockToken *const token = Take(true);
   EXPECT_EQ(umask(mask), 0077U);
   EXPECT_EQ(fs::status(Directory()).permissions(), fs::perms::all);
   EXPECT_EQ(static_cast<unsigned>(fs::status(Directory() + "/" + *Entries().begin()).permissions()), 0644U);
   FileLock_Unlock(token, {});
}

TEST(FileLockIdentity, HashesSignedBytes)
{
   std::array<char, FILE_LOCK_CHECKSUM_SIZE> sum;
   const struct {
      const char *path;
      const char *sum;
   } cases[] = {{"", "5381"}, {"a", "177670"}, {"/tmp/x.lck", "2008872212"}, {"\xff", "177572"}};
   for (const auto &c : cases) {
      FileLockIdentity_Checksum(c.path, sum.data());
      EXPECT_STREQ(sum.data(), c.sum) << c.path;
   }
}

TEST(FileLockIdentity, JudgesExecutionIdentifiers)
{
   const CapturedLog log;
   FileLockIdentity self;
   ASSERT_TRUE(FileLockIdentity_Get(&self));
   const std::string pid = std::to_string(getpid());
   const struct {
      std::string execution;
      bool valid;
   } cases[] = {{self.execution, true}, {pid, true},           {pid + "-0", true},
                {pid + "-1", false},    {"2147483647", false}, {"2147483647-1", false},
                {"garbage", true},      {pid + "-", true},     {"0-1", true},
                {"-5", true},           {pid + "-1x", true},   {"99999999999", true}};
   for (const auto &c : cases) {
      EXPECT_EQ(FileLockValidExecutionID(c.execution.c_str()), c.valid) << c.execution;
   }
   EXPECT_NE(log.Text().find("FILE: FileLockValidExecutionID parse error on 'garbage'. Assuming valid.\n"),
             std::string::npos);
}

TEST(FileLockWait, StretchesItsDelaysWithTheWait)
{
   const std::pair<uint64_t, uint32_t> cases[] = {{0, 100},      {2000, 100},   {2001, 200},    {10000, 1000},
                                                  {19999, 1999}, {20000, 2000}, {1000000, 2000}};
   for (const auto &[elapsed, delay] : cases) {
      EXPECT_EQ(FileLockWait_DelayMs(elapsed), delay) << elapsed;
   }
}

TEST(FileLockMember, KnowsTheNames)
{
   FileLockEntry entry;
   uint32_t number;
   for (const char *name : {"", ".lck", "M.lck", "M1234.lck", "M1234x.lck", "X12345.lck", "M12345",
                            "M-1234.lck", "m12345.lck", "M12345.lckx"}) {
      EXPECT_FALSE(FileLockMember_ParseName(name, &entry, &number)) << name;
   }
   ASSERT_TRUE(FileLockMember_ParseName("D00042.lck", &entry, &number));
   EXPECT_EQ(entry, FILE_LOCK_ENTRY);
   EXPECT_EQ(number, 42U);
   EXPECT_STREQ(FileLockMember_Name(FILE_LOCK_WRITING, 65535).text, "E65535.lck");
}

/* The dead, and those who have the id of a dead one. */
TEST_F(FileLock, ClearsAwayTheTicketsOfThoseWhoHaveEnded)
{
   const std::string machine = Self().machine;
   for (const std::string &execution :
        {Ended(), std::to_string(getpid()) + "-1", std::string("2147483647")}) {
      AddMember("M00007.lck", Line(machine, execution, 5, "X"));
      log_.Clear();
      EXPECT_TRUE(IsFree()) << execution;
      EXPECT_FALSE(fs::exists(Directory()));
      EXPECT_EQ(log_.Text(), "FILE: FileLockScanner discarding M00007.lck from " +
                                 fs::canonical(folder_.Path()).string() + "/file.lck': invalid executionID " +
                                 execution + ".\n");
   }
}

/* Each way in which a member file can be no member file. */
TEST_F(FileLock, RemovesWhatCannotBeRead)
{
   const std::string good = Line(Self().machine, Self().execution, 5, "X");
   const struct {
      std::string line;
      size_t size;
      std::string says;
   } cases[] = {
       {good, 511, "file '@': size 511, required size 512\n"},
       {good, 513, "file '@': size 513, required size 512\n"},
       {"", 0, "file '@': size 0, required size 512\n"},
       {"", 512, "'@' contents are:\n"},
       {"a b 1 X 2", 512, "M00007.lck argv[4]: '2'\n"},
       {good + " more", 512, "M00007.lck argv[6]: 'more'\n"},
       {Line("m", "1", 5, "Y"), 512, "M00007.lck argv[3]: 'Y'\n"},
       {"m 1 x X 1 lc=1", 512, "M00007.lck argv[2]: 'x'\n"},
       {"m 1 4294967296 X 1 lc=1", 512, "M00007.lck argv[2]: '4294967296'\n"},
       {"m 1 1 X 1 l", 512, "M00007.lck argv[5]: 'l'\n"},
       {"m\n2024 1 1 X 1 lc=1", 512, "M00007.lck argv[0]: 'm\\x0A2024'\n"},
       {std::string(512, 'a'), 512, "'@' contents are:\n"},
   };
   for (const auto &c : cases) {
      const std::string file = fs::canonical(folder_.Path()).string() + "/file.lck/M00007.lck";
      AddMember("M00007.lck", c.line, c.size);
      log_.Clear();
      EXPECT_TRUE(IsFree()) << c.line;
      std::string says = "FILE: FileLockMemberValues " + c.says;
      if (const size_t at = says.find('@'); at != std::string::npos) {
         says.replace(at, 1, file);
      }
      EXPECT_NE(log_.Text().find(says), std::string::npos) << log_.Text();
      EXPECT_NE(
          log_.Text().find("FILE: FileLockMemberValues removing problematic lock file '" + file + "'\n"),
          std::string::npos);
      EXPECT_FALSE(fs::exists(Directory()));
   }
}

TEST_F(FileLock, FollowsNoLinkAndWaitsForNoPipe)
{
   fs::create_directory(Directory());
   WriteFile(path_, Line(Self().machine, Self().execution, 5, "X"));
   fs::create_symlink(path_, Directory() + "/M00001.lck");
   ASSERT_EQ(mkfifo((Directory() + "/M00002.lck").c_str(), 0666), 0);
   EXPECT_TRUE(IsFree());
   EXPECT_FALSE(fs::exists(Directory()));
   EXPECT_TRUE(fs::exists(path_));
}

TEST_F(FileLock, SaysWhichNamesItIgnores)
{
   fs::create_directory(Directory());
   WriteFile(Directory() + "/no\nte", "");
   EXPECT_TRUE(IsFree());
   const std::string line = "FILE: FileLockScanDirectory discarding no\\x0Ate from " +
                            fs::canonical(folder_.Path()).string() + "/file.lck'; invalid file name.\n";
   EXPECT_EQ(log_.Text(), line + line);
   EXPECT_TRUE(fs::exists(Directory()));
}

TEST_F(FileLock, NeverRemovesWhatIsAnotherMachines)
{
   fs::create_directory(Directory());
   const std::set<std::string> theirs = {"D00001.lck", "E00001.lck", "M00002.lck"};
   AddMember("M00002.lck", Line("elsewhere", "1-1", 7, "S"));
   EXPECT_FALSE(IsFree());
   EXPECT_EQ(log_.Text(), "FILE: FileLockWaitForPossession timeout on '" + path_ +
                              "' due to another machine 'elsewhere'\n");
   EXPECT_TRUE(IsFree(false));
   const std::string line = Line("", "", 0, "");
   fs::create_directory(Directory() + "/D00001.lck");
   WriteFile(Directory() + "/D00001.lck/1-1.X." + line.substr(line.find("lc=") + 3) + ".elsewhere", "");
   WriteFile(Directory() + "/E00001.lck", "");
   EXPECT_FALSE(IsFree(false));
   EXPECT_EQ(Entries(), theirs);
}

/* With it come copies of the traces of those who are at the other place, and may be alive. */
TEST_F(FileLock, IgnoresWhatCameWithACopy)
{
   FileLockToken *const token = Take(true);
   const std::string other = folder_.Path("copy");
   fs::copy(Directory(), other + ".lck", fs::copy_options::recursive);
   int error = -1;
   FileLockToken *const second = FileLock_Lock(other.c_str(), true, FILE_LOCK_TRY_ONCE, {}, &error);
   ASSERT_NE(second, nullptr);
   EXPECT_NE(log_.Text().find("': lock file has been moved.\n"), std::string::npos);
   FileLock_Unlock(second, {});
   FileLock_Unlock(token, {});
   EXPECT_EQ(std::distance(fs::directory_iterator(other + ".lck"), fs::directory_iterator()), 1);
}

TEST_F(FileLock, RemovesAFileInPlaceOfTheDirectory)
{
   const std::string victim = folder_.Path("victim");
   WriteFile(victim, "");
   WriteFile(Directory(), "");
   EXPECT_TRUE(IsFree());
   EXPECT_EQ(log_.Text(), "FILE: FileLockCreateEntryDirectory: '" + fs::canonical(folder_.Path()).string() +
                              "/file.lck' is not a directory. Removed.\n");
   fs::create_symlink(victim, Directory());
   EXPECT_TRUE(IsFree());
   EXPECT_TRUE(fs::exists(victim));
}

TEST_F(FileLock, IsOneLockUnderAllNamesOfTheFolder)
{
   fs::create_directory(folder_.Path("inner"));
   fs::create_directory_symlink(folder_.Path(), folder_.Path("link"));
   FileLockToken *const token = Take(true);
   for (const char *name : {"link/file", "inner/../file", "./file", "file/"}) {
      EXPECT_EQ(FileLock_Lock(folder_.Path(name).c_str(), true, 0, {}, &error_), nullptr) << name;
      EXPECT_EQ(error_, 0) << name;
   }
   FileLock_Unlock(token, {});
}

void AppendMessage(MsgList *list, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   *reinterpret_cast<std::string *>(list) +=
       format + std::string("|") + ::Take(Str_Vasprintf(nullptr, format, args));
   va_end(args);
}

TEST_F(FileLock, TellsTheUserWhatFailed)
{
   std::string said;
   FileLockHooks hooks;
   hooks.message = AppendMessage;
   hooks.list = reinterpret_cast<MsgList *>(&said);
   EXPECT_EQ(FileLock_Lock(folder_.Path("none/file").c_str(), true, 0, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ENOENT);
   EXPECT_EQ(said,
             "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.|"
             "@&!*@*@(msg.fileLock.posix)A file locking error (2) has occurred: No such file or directory.");
}

/* The rights of root would let everything through. */
class OrdinaryUser {
 public:
   OrdinaryUser() : changed_(geteuid() == 0 && seteuid(ORDINARY_USER) == 0)
   {
   }

   ~OrdinaryUser()
   {
      if (changed_) {
         EXPECT_EQ(seteuid(0), 0);
      }
   }

   OrdinaryUser(const OrdinaryUser &) = delete;
   OrdinaryUser &operator=(const OrdinaryUser &) = delete;

 private:
   bool changed_;
};

TEST_F(FileLock, GrantsReadersWhatCannotBeWritten)
{
   fs::permissions(folder_.Path(), static_cast<fs::perms>(0755));
   {
      const OrdinaryUser user;
      FileLockToken *const token = Take(false);
      ASSERT_NE(token, nullptr);
      EXPECT_TRUE(FileLock_IsImplicit(token));
      EXPECT_EQ(FileLock_Unlock(token, {}), 0);
      EXPECT_EQ(Take(true), nullptr);
      EXPECT_EQ(error_, EACCES);
   }
   EXPECT_EQ(log_.Text(), "FILE: FileLockIntrinsicPortable implicit S lock succeeded on '" + path_ + "'.\n");
}

/* Tickets never wrap: a first one after the last would go before all. */
TEST_F(FileLock, RunsOutOfTicketsRatherThanStartAgain)
{
   AddMember("M00001.lck", Line("elsewhere", "1-1", UINT32_MAX, "S"));
   EXPECT_EQ(Take(false), nullptr);
   EXPECT_EQ(error_, EBUSY);
   EXPECT_EQ(log_.Text(), "FILE: FileLockCreateEntryDirectory lack of progress on '" + path_ + "'\n");
   EXPECT_EQ(Entries(), std::set<std::string>{"M00001.lck"});
}

TEST_F(FileLock, WaitsAsLongAsItIsTold)
{
   FileLockToken *const token = Take(true);
   const uint64_t start = FileLockWait_NowMs();
   EXPECT_EQ(Take(true, 300), nullptr);
   EXPECT_GE(FileLockWait_NowMs() - start, 300U);
   EXPECT_EQ(error_, 0);
   FileLockHooks hooks;
   hooks.giveUp = [](void *) { return true; };
   EXPECT_EQ(FileLock_Lock(path_.c_str(), true, FILE_LOCK_WAIT_FOREVER, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ECANCELED);
   EXPECT_EQ(Entries().size(), 1U);
   FileLock_Unlock(token, {});
   EXPECT_FALSE(fs::exists(Directory()));
}

/* A later reader does not overtake a writer who waits. */
TEST_F(FileLock, KeepsTheOrderOfTheTickets)
{
   FileLockToken *const token = Take(false);
   AddMember("M77777.lck", Line(Self().machine, Self().execution, 2, "X"));
   EXPECT_FALSE(IsFree(false));
   fs::remove(Directory() + "/M77777.lck");
   EXPECT_TRUE(IsFree(false));
   FileLock_Unlock(token, {});
}

TEST_F(FileLock, ListsWhoHoldsWhoWaitsAndWhatIsLeft)
{
   FileLockToken *const token = Take(true);
   AddMember("M70001.lck", Line("elsewhere", "9-9", 4, "S"));
   AddMember("M70002.lck", Line(Self().machine, Ended(), 3, "X"));
   AddMember("M70003.lck", Line(Self().machine, Self().execution, 2, "X", "1"));
   AddMember("M70004.lck", "nonsense");
   const std::set<std::string> before = Entries();
   FileLockParty *parties = nullptr;
   log_.Clear();
   ASSERT_EQ(FileLock_List(path_.c_str(), &parties), 5);
   const std::unique_ptr<FileLockParty, Freed> owned(parties);
   const FileLockState states[] = {FILE_LOCK_UNREADABLE, FILE_LOCK_HOLDS, FILE_LOCK_MOVED, FILE_LOCK_STALE,
                                   FILE_LOCK_WAITS};
   for (unsigned i = 0; i < 5; i++) {
      EXPECT_EQ(parties[i].state, states[i]) << i;
      EXPECT_EQ(parties[i].ticket, i);
   }
   EXPECT_TRUE(parties[1].local && parties[1].exclusive && !parties[4].local && !parties[4].exclusive);
   EXPECT_STREQ(parties[1].execution, Self().execution);
   EXPECT_STREQ(parties[4].machine, "elsewhere");
   EXPECT_EQ(Entries(), before);
   EXPECT_EQ(log_.Text(), "");
   FileLock_Unlock(token, {});
   EXPECT_EQ(FileLock_List(folder_.Path("free").c_str(), &parties), 0);
   EXPECT_EQ(parties, nullptr);
}

/* From here on: what comes between two steps. */

/* What two processes know of each other. */
struct Board {
   std::atomic<bool> held = false;     /* By the test. */
   std::atomic<bool> inside = false;   /* The other. */
   std::atomic<bool> intruder = false; /* The other came in while the test was. */
};

/* Takes the lock and gives it back in a process of its own, which runs interfere before each of its calls on the file
   system. */
class Other {
 public:
   Other(const std::string &path, const LockFaults::Before &interfere) : pid_(-1)
   {
      board_ =
          new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board;
      pid_ = fork();
      if (pid_ == 0) {
         const long descriptors =
             std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
         Run(path, interfere);
         /* Nothing is left open, whatever failed. */
         _exit(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()) == descriptors
                   ? 0
                   : 1);
      }
   }

   ~Other()
   {
      munmap(board_, sizeof(Board));
   }

   Other(const Other &) = delete;
   Other &operator=(const Other &) = delete;

   [[nodiscard]] int Await(int options = 0) const
   {
      int status = -1;
      waitpid(pid_, &status, options);
      return status;
   }

   void Continue() const
   {
      kill(pid_, SIGCONT);
   }

   [[nodiscard]] Board *Shared() const
   {
      return board_;
   }

 private:
   void Run(const std::string &path, const LockFaults::Before &interfere) const
   {
      int error = 0;
      const LockFaults faults(interfere);
      FileLockToken *const token = FileLock_Lock(path.c_str(), true, FILE_LOCK_TRY_ONCE, {}, &error);
      if (token == nullptr) {
         return;
      }
      board_->inside = true;
      board_->intruder = board_->intruder || board_->held;
      /* The first thing that is done without the lock still counts as done with it. */
      board_->inside = false;
      FileLock_Unlock(token, {});
   }

   pid_t pid_;
   Board *board_;
};

class FileLockSteps : public FileLock {
 protected:
   /* Between a directory and its marker nobody can tell whose it is, and only its age tells that it is left over. */
   void Age() const
   {
      std::error_code none;
      for (const auto &entry : fs::directory_iterator(Directory(), none)) {
         fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::seconds(60));
      }
   }

   void ExpectThatNothingStays(int step, const char *what)
   {
      Age();
      EXPECT_TRUE(IsFree()) << what << " at step " << step;
      EXPECT_FALSE(fs::exists(Directory())) << what << " at step " << step;
   }
};

constexpr int STEPS_AT_LEAST = 30;

TEST_F(FileLockSteps, LeaveNothingForEverWhenKilledAtAny)
{
   int step = 0;
   for (bool killed = true; killed;) {
      step++;
      const Other other(
          path_, [step](int number, const char *) { return number == step ? kill(getpid(), SIGKILL) : 0; });
      killed = WIFSIGNALED(other.Await());
      ExpectThatNothingStays(step, "killed");
   }
   EXPECT_GT(step, STEPS_AT_LEAST);
}

/* The other stops before each of its calls in turn, and goes on when this process has, or has not, got the lock. */
TEST_F(FileLockSteps, KeepOthersOutWhenSlowAtAny)
{
   int had = 0;
   int step = 0;
   for (bool stopped = true; stopped;) {
      step++;
      const Other other(path_,
                        [step](int number, const char *) { return number == step ? raise(SIGSTOP) : 0; });
      stopped = WIFSTOPPED(other.Await(WUNTRACED));
      if (stopped) {
         FileLockToken *const token = Take(true);
         EXPECT_EQ(error_, 0);
         EXPECT_FALSE(token != nullptr && other.Shared()->inside);
         other.Shared()->held = token != nullptr;
         other.Continue();
         EXPECT_EQ(other.Await(), 0);
         EXPECT_FALSE(other.Shared()->intruder) << step;
         if (token != nullptr) {
            had++;
            EXPECT_EQ(FileLock_Unlock(token, {}), 0);
         }
      }
      EXPECT_FALSE(fs::exists(Directory())) << step;
   }
   EXPECT_GT(step, STEPS_AT_LEAST);
   EXPECT_GT(had, 0);
   EXPECT_LT(had, step - 1);
}

TEST_F(FileLockSteps, SurviveTheFailureOfAny)
{
   for (const int error : {ENOSPC, EIO, EMFILE}) {
      bool failed = true;
      for (int step = 1; failed; step++) {
         const Other other(path_, [&](int number, const char *) { return number == step ? error : 0; });
         EXPECT_EQ(other.Await(), 0) << strerror(error) << " at step " << step;
         ExpectThatNothingStays(step, strerror(error));
         failed = step < 2 * STEPS_AT_LEAST;
      }
   }
}

} // namespace
