#include "lib/file/fileLock.h"

#include "lib/file/lock/member.h"
#include "lib/file/lock/wait.h"
#include "lib/string/str.h"
#include "tests/support/lockFaults.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uid_t ORDINARY_USER = 65534;

FileLockIdentity Self()
{
   FileLockIdentity self;
   EXPECT_TRUE(FileLockIdentity_Get(&self));
   return self;
}

/* The identifier of a process that was this one's child and has ended. */
std::string Ended()
{
   const pid_t pid = fork();
   if (pid == 0) {
      _exit(0);
   }
   waitpid(pid, nullptr, 0);
   return std::to_string(pid) + "-12345";
}

/* A file to lock in a folder of its own, and what is in its lock directory. */
class FileLock : public testing::Test {
 protected:
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

   void Put(const std::string &name, const std::string &content) const
   {
      fs::create_directories(fs::path(directory_ + "/" + name).parent_path());
      WriteFile(directory_ + "/" + name, content);
   }

   static std::string Record(std::string line, size_t size = FILE_LOCK_RECORD_SIZE)
   {
      line.resize(size);
      return line;
   }

   /* A member file, of this machine and place unless told otherwise. */
   [[nodiscard]] std::string Member(const std::string &execution, unsigned ticket, const std::string &type,
                                    const std::string &machine = Self().machine,
                                    const std::string &checksum = "") const
   {
      return Record(machine + " " + execution + " " + std::to_string(ticket) + " " + type +
                    " 1700000000000000 lc=" + (checksum.empty() ? checksum_ : checksum));
   }

   /* The names in the lock directory. */
   [[nodiscard]] std::vector<std::string> Entries() const
   {
      std::vector<std::string> names;
      for (const auto &entry : fs::directory_iterator(directory_)) {
         names.push_back(entry.path().filename());
      }
      std::sort(names.begin(), names.end());
      return names;
   }

   void ExpectLogged(const std::string &line) const
   {
      EXPECT_NE(log_.Text().find(line + "\n"), std::string::npos) << line << "\n" << log_.Text();
   }

   void SetUp() override
   {
      std::array<char, FILE_LOCK_CHECKSUM_SIZE> own;
      FileLockIdentity_Checksum(directory_, own.data());
      checksum_ = own.data();
   }

   ScratchFolder folder_;
   std::string path_ = fs::canonical(folder_.Path()).string() + "/file";
   std::string directory_ = path_ + ".lck";
   std::string checksum_;
   CapturedLog log_;
   int error_ = -1;
};

TEST_F(FileLock, LetsReadersShareAndWritersNot)
{
   for (const int held : {0, 1}) {
      for (const int wanted : {0, 1}) {
         FileLockToken *const token = Take(held != 0);
         ASSERT_NE(token, nullptr);
         log_.Clear();
         EXPECT_EQ(IsFree(wanted != 0), held + wanted == 0);
         EXPECT_EQ(error_, 0);
         EXPECT_EQ(log_.Text(), held + wanted == 0
                                    ? ""
                                    : "FILE: FileLockWaitForPossession timeout on '" + path_ +
                                          "' due to a local process '" + Self().execution + "'\n");
         EXPECT_FALSE(FileLock_IsImplicit(token));
         EXPECT_EQ(FileLock_Unlock(token, {}), 0);
         EXPECT_FALSE(fs::exists(directory_));
      }
   }
}

/* What a user's mask takes from the files would lock the others out, and their tickets up. */
TEST_F(FileLock, WritesTheRecordAsDocumentedForAllUsers)
{
   const mode_t mask = umask(0077);
   FileLockToken *const tokens[] = {Take(false), Take(false)};
   EXPECT_EQ(umask(mask), 0077U);
   EXPECT_EQ(fs::status(directory_).permissions(), fs::perms::all);
   std::string tickets;
   for (const std::string &name : Entries()) {
      EXPECT_TRUE(name.size() == 10 && name[0] == 'M' && name.ends_with(".lck")) << name;
      const std::string record = ReadFile(directory_ + "/" + name);
      std::istringstream fields(record);
      std::string field[5];
      fields >> field[0] >> field[1] >> field[2] >> field[3] >> field[4];
      EXPECT_EQ(record, Record(std::string(Self().machine) + " " + Self().execution + " " + field[2] + " S " +
                               field[4] + " lc=" + checksum_));
      EXPECT_NEAR(std::stod(field[4]) / 1e6, static_cast<double>(std::time(nullptr)), 60);
      EXPECT_EQ(static_cast<unsigned>(fs::status(directory_ + "/" + name).permissions()), 0644U);
      tickets += field[2];
   }
   EXPECT_TRUE(tickets == "12" || tickets == "21") << tickets;
   for (FileLockToken *const token : tokens) {
      FileLock_Unlock(token, {});
   }
}

TEST_F(FileLock, KnowsItsNamesNumbersAndIdentities)
{
   const std::pair<const char *, const char *> sums[] = {
       {"", "5381"}, {"a", "177670"}, {"/tmp/x.lck", "2008872212"}, {"\xff", "177572"}};
   for (const auto &[path, sum] : sums) {
      std::array<char, FILE_LOCK_CHECKSUM_SIZE> found;
      FileLockIdentity_Checksum(path, found.data());
      EXPECT_STREQ(found.data(), sum) << path;
   }
   const std::string pid = std::to_string(getpid());
   for (const std::string &valid : {std::string(Self().execution), pid, pid + "-0", pid + "-", pid + "-1x",
                                    std::string("garbage"), std::string("0-1"), std::string("99999999999")}) {
      EXPECT_TRUE(FileLockValidExecutionID(valid.c_str())) << valid;
   }
   for (const std::string &ended : {pid + "-1", std::string("2147483647"), std::string("2147483647-1")}) {
      EXPECT_FALSE(FileLockValidExecutionID(ended.c_str())) << ended;
   }
   ExpectLogged("FILE: FileLockValidExecutionID parse error on 'garbage'. Assuming valid.");
   const std::pair<uint64_t, uint32_t> delays[] = {
       {0, 100}, {2000, 100}, {2001, 200}, {10000, 1000}, {19999, 1999}, {20000, 2000}, {1000000, 2000}};
   for (const auto &[elapsed, delay] : delays) {
      EXPECT_EQ(FileLockWait_DelayMs(elapsed), delay) << elapsed;
   }
   FileLockEntry entry;
   uint32_t number;
   for (const char *name : {"", ".lck", "M.lck", "M1234.lck", "M1234x.lck", "X12345.lck", "M12345",
                            "M-1234.lck", "m12345.lck", "M12345.lckx"}) {
      EXPECT_FALSE(FileLockMember_ParseName(name, &entry, &number)) << name;
   }
   ASSERT_TRUE(FileLockMember_ParseName("D00042.lck", &entry, &number));
   EXPECT_EQ(entry, FILE_LOCK_ENTRY);
   EXPECT_EQ(number, 42U);
   EXPECT_STREQ(FileLockMember_Name(FILE_LOCK_WRITING, 65035).text, "E65035.lck");
}

TEST_F(FileLock, TreatsWhatItMeetsAsItDeserves)
{
   enum Fate : uint8_t { REMOVED, REPORTED_AND_REMOVED, IGNORED, RESPECTED };
   const std::string file = directory_ + "/M00007.lck";
   const std::string good = Member(Self().execution, 5, "X").c_str();
   const std::string ended = Ended();
   const std::string reused = std::to_string(getpid()) + "-1";
   const std::string values = "FileLockMemberValues ";
   const std::string argv = values + "M00007.lck argv";
   const auto invalid = [&](const std::string &execution) {
      return "FileLockScanner discarding M00007.lck from " + directory_ + "': invalid executionID " +
             execution + ".";
   };
   const struct {
      const char *name;
      std::string content;
      Fate fate;
      std::string says;
   } cases[] = {
       {"M00007.lck", Member(ended, 5, "X"), REMOVED, invalid(ended)},
       {"M00007.lck", Member(reused, 5, "X"), REMOVED, invalid(reused)},
       {"M00007.lck", Member("2147483647", 5, "X"), REMOVED, invalid("2147483647")},
       {"M00007.lck", Member(Self().execution, 5, "X", Self().machine, "1"), IGNORED,
        "FileLockScanner discarding M00007.lck from " + directory_ + "': lock file has been moved."},
       {"M00007.lck", Member("1-1", 7, "S", "elsewhere"), RESPECTED,
        "FileLockWaitForPossession timeout on '" + path_ + "' due to another machine 'elsewhere'"},
       {"D00001.lck/1-1.X.1.elsewhere", "", IGNORED, ""},
       {"no\nte", "", IGNORED,
        "FileLockScanDirectory discarding no\\x0Ate from " + directory_ + "'; invalid file name."},
       {"M00007.lck", Record(good, 511), REPORTED_AND_REMOVED,
        values + "file '" + file + "': size 511, required size 512"},
       {"M00007.lck", Record(good, 513), REPORTED_AND_REMOVED,
        values + "file '" + file + "': size 513, required size 512"},
       {"M00007.lck", Record(""), REPORTED_AND_REMOVED, values + "'" + file + "' contents are:"},
       {"M00007.lck", Record("a b 1 X 2"), REPORTED_AND_REMOVED, argv + "[4]: '2'"},
       {"M00007.lck", Record(good + " more"), REPORTED_AND_REMOVED, argv + "[6]: 'more'"},
       {"M00007.lck", Member("1", 5, "Y"), REPORTED_AND_REMOVED, argv + "[3]: 'Y'"},
       {"M00007.lck", Record("m 1 x X 1 lc=1"), REPORTED_AND_REMOVED, argv + "[2]: 'x'"},
       {"M00007.lck", Record("m 1 4294967296 X 1 lc=1"), REPORTED_AND_REMOVED, argv + "[2]: '4294967296'"},
       {"M00007.lck", Record("m 1 1 X 1 l"), REPORTED_AND_REMOVED, argv + "[5]: 'l'"},
       {"M00007.lck", Record("m\n2024 1 1 X 1 lc=1"), REPORTED_AND_REMOVED, argv + "[0]: 'm\\x0A2024'"},
       {"M00007.lck", std::string(512, 'a'), REPORTED_AND_REMOVED, values + "'" + file + "' contents are:"},
   };
   for (const auto &c : cases) {
      Put(c.name, c.content);
      log_.Clear();
      EXPECT_EQ(IsFree(), c.fate != RESPECTED) << c.content;
      EXPECT_EQ(fs::exists(directory_), c.fate >= IGNORED) << c.content;
      if (!c.says.empty()) {
         ExpectLogged("FILE: " + c.says);
      }
      if (c.fate == REPORTED_AND_REMOVED) {
         ExpectLogged("FILE: " + values + "removing problematic lock file '" + file + "'");
      }
      fs::remove_all(directory_);
   }
}

TEST_F(FileLock, NeverRemovesWhatIsAnotherMachines)
{
   Put("M00002.lck", Member("1-1", 7, "S", "elsewhere"));
   EXPECT_TRUE(IsFree(false));
   Put("D00001.lck/1-1.X." + checksum_ + ".elsewhere", "");
   Put("E00001.lck", "");
   EXPECT_FALSE(IsFree(false));
   EXPECT_EQ(Entries(), (std::vector<std::string>{"D00001.lck", "E00001.lck", "M00002.lck"}));
   /* Tickets never wrap: a first one after the last would go before all. */
   fs::remove_all(directory_);
   Put("M00001.lck", Member("1-1", UINT32_MAX, "S", "elsewhere"));
   EXPECT_EQ(Take(false), nullptr);
   EXPECT_EQ(error_, EBUSY);
   ExpectLogged("FILE: FileLockCreateEntryDirectory lack of progress on '" + path_ + "'");
   EXPECT_EQ(Entries(), std::vector<std::string>{"M00001.lck"});
}

TEST_F(FileLock, FollowsNoLinkAndWaitsForNoPipe)
{
   Put("M00003.lck", "");
   WriteFile(path_, Member(Self().execution, 5, "X"));
   fs::create_symlink(path_, directory_ + "/M00001.lck");
   ASSERT_EQ(mkfifo((directory_ + "/M00002.lck").c_str(), 0666), 0);
   EXPECT_TRUE(IsFree());
   EXPECT_FALSE(fs::exists(directory_));
   /* Nor do the links and files in place of the directory count. */
   fs::create_symlink(path_, directory_);
   EXPECT_TRUE(IsFree());
   EXPECT_TRUE(fs::exists(path_));
   WriteFile(directory_, "");
   log_.Clear();
   EXPECT_TRUE(IsFree());
   EXPECT_EQ(log_.Text(),
             "FILE: FileLockCreateEntryDirectory: '" + directory_ + "' is not a directory. Removed.\n");
}

TEST_F(FileLock, IsOneLockUnderAllNamesOfAFileAndAnotherOfItsCopy)
{
   fs::create_directory(folder_.Path("inner"));
   fs::create_directory_symlink(folder_.Path(), folder_.Path("link"));
   FileLockToken *const token = Take(true);
   for (const char *name : {"link/file", "inner/../file", "./file", "file/"}) {
      EXPECT_EQ(FileLock_Lock(folder_.Path(name).c_str(), true, 0, {}, &error_), nullptr) << name;
      EXPECT_EQ(error_, 0) << name;
   }
   const std::string traces = folder_.Path("copy.lck");
   fs::copy(directory_, traces);
   FileLockToken *const second = FileLock_Lock(folder_.Path("copy").c_str(), true, 0, {}, &error_);
   ASSERT_NE(second, nullptr);
   FileLock_Unlock(second, {});
   FileLock_Unlock(token, {});
   EXPECT_EQ(std::distance(fs::directory_iterator(traces), fs::directory_iterator()), 1);
}

void AppendMessage(MsgList *list, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   *reinterpret_cast<std::string *>(list) +=
       format + std::string("|") + ::Take(Str_Vasprintf(nullptr, format, args));
   va_end(args);
}

TEST_F(FileLock, SaysWhatItGrantsAndWhatFailedWhereItCannotWrite)
{
   std::string said;
   const FileLockHooks hooks = {
       .message = AppendMessage, .list = reinterpret_cast<MsgList *>(&said), .giveUp = nullptr};
   EXPECT_EQ(FileLock_Lock(folder_.Path("none/file").c_str(), true, 0, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ENOENT);
   EXPECT_EQ(said,
             "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.|"
             "@&!*@*@(msg.fileLock.posix)A file locking error (2) has occurred: No such file or directory.");
   /* The rights of root would let everything through. */
   const bool root = geteuid() == 0;
   log_.Clear();
   fs::permissions(folder_.Path(), static_cast<fs::perms>(0555));
   ASSERT_TRUE(!root || seteuid(ORDINARY_USER) == 0);
   FileLockToken *const token = Take(false);
   FileLockToken *const refused = Take(true);
   ASSERT_TRUE(!root || seteuid(0) == 0);
   fs::permissions(folder_.Path(), static_cast<fs::perms>(0755));
   EXPECT_EQ(refused, nullptr);
   EXPECT_EQ(error_, EACCES);
   ASSERT_NE(token, nullptr);
   EXPECT_TRUE(FileLock_IsImplicit(token));
   EXPECT_EQ(FileLock_Unlock(token, {}), 0);
   ExpectLogged("FILE: FileLockIntrinsicPortable implicit S lock succeeded on '" + path_ + "'.");
}

TEST_F(FileLock, WaitsAsLongAsItIsToldInTheOrderOfTheTickets)
{
   FileLockToken *const token = Take(false);
   const uint64_t start = FileLockWait_NowMs();
   EXPECT_EQ(Take(true, 300), nullptr);
   EXPECT_GE(FileLockWait_NowMs() - start, 300U);
   EXPECT_EQ(error_, 0);
   const FileLockHooks hooks = {.giveUp = [](void *) { return true; }};
   EXPECT_EQ(FileLock_Lock(path_.c_str(), true, FILE_LOCK_WAIT_FOREVER, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ECANCELED);
   EXPECT_EQ(Entries().size(), 1U);
   /* A later reader does not overtake a writer who waits. */
   Put("M77777.lck", Member(Self().execution, 2, "X"));
   EXPECT_FALSE(IsFree(false));
   fs::remove(directory_ + "/M77777.lck");
   EXPECT_TRUE(IsFree(false));
   FileLock_Unlock(token, {});
   EXPECT_FALSE(fs::exists(directory_));
}

TEST_F(FileLock, ListsWhoHoldsWhoWaitsAndWhatIsLeft)
{
   FileLockToken *const token = Take(true);
   Put("M70001.lck", Member("9-9", 4, "S", "elsewhere"));
   Put("M70002.lck", Member(Ended(), 3, "X"));
   Put("M70003.lck", Member(Self().execution, 2, "X", Self().machine, "1"));
   Put("M70004.lck", "nonsense");
   Put("D70005.lck/" + std::string(Self().execution) + ".S." + checksum_ + "." + Self().machine, "");
   const auto before = Entries();
   FileLockParty *parties = nullptr;
   log_.Clear();
   ASSERT_EQ(FileLock_List(path_.c_str(), &parties), 6);
   const std::unique_ptr<FileLockParty, Freed> owned(parties);
   const FileLockState states[] = {FILE_LOCK_UNREADABLE, FILE_LOCK_HOLDS, FILE_LOCK_MOVED,
                                   FILE_LOCK_STALE,      FILE_LOCK_WAITS, FILE_LOCK_CHOOSES};
   for (unsigned i = 0; i < 6; i++) {
      EXPECT_EQ(parties[i].state, states[i]) << i;
      EXPECT_EQ(parties[i].ticket, i % 5);
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

/* What two processes know of each other. */
struct Board {
   std::atomic<bool> held;     /* By the test. */
   std::atomic<bool> inside;   /* The other. */
   std::atomic<bool> intruder; /* The other came in while the test was. */
};

class FileLockSteps : public FileLock {
 protected:
   /* A process that takes the lock and gives it back, with before called as LockFaults says. */
   pid_t Start(const std::function<int(int)> &before, bool held = false)
   {
      new (board_) Board{held, false, false};
      const pid_t pid = fork();
      if (pid == 0) {
         const size_t descriptors = OpenDescriptors();
         LockFaults::before = before;
         FileLockToken *const token = Take(true);
         if (token != nullptr) {
            board_->inside = true;
            board_->intruder = board_->held.load();
            board_->inside = false;
            FileLock_Unlock(token, {});
         }
         LockFaults::before = nullptr;
         /* Nothing is left open, whatever failed. */
         _exit(OpenDescriptors() == descriptors ? 0 : 1);
      }
      return pid;
   }

   static int Await(pid_t pid, int options = 0)
   {
      int status = -1;
      waitpid(pid, &status, options);
      return status;
   }

   Board *board_ = static_cast<Board *>(
       mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
};

constexpr int STEPS_AT_LEAST = 30;

TEST_F(FileLockSteps, LeaveNothingForEverWhenKilledOrRefusedAtAny)
{
   int steps = INT_MAX;
   const std::pair<int, bool> cases[] = {
       {0, false}, {ENOSPC, false}, {EIO, false}, {EMFILE, false}, {EIO, true}};
   for (const auto &[error, held] : cases) {
      for (int step = 1; step <= steps; step++) {
         SCOPED_TRACE(std::to_string(step) + (error == 0 ? ": killed" : strerror(error)));
         FileLockToken *const token = held ? Take(true) : nullptr;
         const auto fault = [step, error = error](int number) {
            return number != step ? 0 : error != 0 ? error : kill(getpid(), SIGKILL);
         };
         const int status = Await(Start(fault, held));
         EXPECT_FALSE(board_->intruder);
         EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, {}) == 0);
         EXPECT_TRUE(status == 0 || (error == 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL));
         steps = error == 0 && !WIFSIGNALED(status) ? step : steps;
         /* Between a directory and its marker nobody can tell whose it is, and only its age tells that it is left. */
         std::error_code none;
         for (const auto &entry : fs::directory_iterator(directory_, none)) {
            fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::seconds(60));
         }
         ASSERT_TRUE(IsFree());
         ASSERT_FALSE(fs::exists(directory_));
      }
   }
   EXPECT_GT(steps, STEPS_AT_LEAST);
}

/* The other stops before each of its calls in turn, and goes on when this process has, or has not, got the lock. */
TEST_F(FileLockSteps, KeepOthersOutWhenSlowAtAny)
{
   int had = 0;
   int step = 0;
   for (bool stopped = true; stopped;) {
      step++;
      const pid_t other = Start([step](int number) { return number == step ? raise(SIGSTOP) : 0; });
      stopped = WIFSTOPPED(Await(other, WUNTRACED));
      if (stopped) {
         FileLockToken *const token = Take(true);
         EXPECT_EQ(error_, 0);
         EXPECT_FALSE(token != nullptr && board_->inside);
         board_->held = token != nullptr;
         kill(other, SIGCONT);
         EXPECT_EQ(Await(other), 0);
         EXPECT_FALSE(board_->intruder) << step;
         had += token != nullptr ? 1 : 0;
         EXPECT_TRUE(token == nullptr || FileLock_Unlock(token, {}) == 0);
      }
      ASSERT_FALSE(fs::exists(directory_)) << step;
   }
   EXPECT_GT(step, STEPS_AT_LEAST);
   EXPECT_GT(had, 0);
   EXPECT_LT(had, step - 1);
}

} // namespace
