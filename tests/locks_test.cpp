#include "lib/file/fileLock.h"
#include "lib/file/lock/member.h"
#include "lib/file/lock/wait.h"
#include "lib/string/str.h"
#include "platform/processIdentity.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/* Locks on files, their command, and what tells processes and machines apart. */

namespace fs = std::filesystem;

namespace {

constexpr uid_t ORDINARY_USER = 65534;

std::string Checksum(const std::string &path)
{
   std::array<char, FILE_LOCK_CHECKSUM_SIZE> sum;
   FileLockIdentity_Checksum(path, sum.data());
   return sum.data();
}

FileLockIdentity Self()
{
   FileLockIdentity self;
   EXPECT_TRUE(FileLockIdentity_Get(&self));
   return self;
}

/* The identifier of a process that was this one's child and has ended. */
std::string Ended()
{
   Program program("true");
   const std::string execution = std::to_string(program.Pid()) + "-12345";
   EXPECT_EQ(program.Status(), 0);
   return execution;
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
                                    const std::string &end = "1700000000000000 lc=@") const
   {
      return Record(machine + " " + execution + " " + std::to_string(ticket) + " " + type + " " +
                    Replaced(end, "@", checksum_));
   }

   [[nodiscard]] static std::vector<std::string> Entries(const std::string &directory)
   {
      std::vector<std::string> names;
      for (const auto &entry : fs::directory_iterator(directory)) {
         names.push_back(entry.path().filename());
      }
      std::sort(names.begin(), names.end());
      return names;
   }

   void ExpectLogged(const std::string &line) const
   {
      EXPECT_TRUE(line.empty() || log_.Text().find("FILE: " + line + "\n") != std::string::npos)
          << line << "\n"
          << log_.Text();
   }

   ScratchFolder folder_;
   std::string path_ = fs::canonical(folder_.Path()).string() + "/file";
   std::string directory_ = path_ + ".lck";
   std::string checksum_ = Checksum(directory_);
   CapturedLog log_;
   int error_ = -1;
};

TEST_F(FileLock, LetsReadersShareAndWritersNot)
{
   for (const int held : {0, 1}) {
      for (const int wanted : {0, 1}) {
         FileLockToken *const token = Take(held != 0);
         log_.Clear();
         EXPECT_EQ(IsFree(wanted != 0), held + wanted == 0);
         EXPECT_EQ(error_, 0);
         EXPECT_EQ(log_.Text().empty(), held + wanted == 0);
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
   std::set<std::string> lines;
   for (const std::string &name : Entries(directory_)) {
      const std::string record = ReadFile(directory_ + "/" + name);
      std::istringstream fields(record);
      std::string machine, execution, ticket, type, time;
      fields >> machine >> execution >> ticket >> type >> time;
      EXPECT_EQ(record, Member(Self().execution, static_cast<unsigned>(stoul(ticket)), "S", Self().machine,
                               time + " lc=@"));
      EXPECT_NEAR(std::stod(time) / 1e6, static_cast<double>(std::time(nullptr)), 60);
      EXPECT_EQ(static_cast<unsigned>(fs::status(directory_ + "/" + name).permissions()), 0644U);
      lines.insert(name.substr(0, 1) + ticket + name.substr(6));
   }
   EXPECT_EQ(lines, (std::set<std::string>{"M1.lck", "M2.lck"}));
   EXPECT_EQ(FileLock_Unlock(tokens[0], {}) + FileLock_Unlock(tokens[1], {}), 0);
}

TEST_F(FileLock, KnowsItsNamesNumbersAndIdentities)
{
   EXPECT_EQ(Checksum("") + " " + Checksum("/tmp/x.lck") + " " + Checksum("\xff"), "5381 2008872212 177572");
   const std::string pid = std::to_string(getpid());
   const std::string self = Self().execution;
   for (const std::string &valid :
        {self, pid, pid + "-0", pid + "-", pid + "-1x", std::string("x"), std::string("0-1")}) {
      EXPECT_TRUE(FileLockValidExecutionID(valid.c_str())) << valid;
   }
   for (const std::string &ended : {pid + "-1", std::string("2147483647"), std::string("2147483647-1")}) {
      EXPECT_FALSE(FileLockValidExecutionID(ended.c_str())) << ended;
   }
   ExpectLogged("FileLockValidExecutionID parse error on 'x'. Assuming valid.");
   const std::pair<uint64_t, uint32_t> delays[] = {{0, 100},      {2000, 100},   {2001, 200},
                                                   {19999, 1999}, {20000, 2000}, {1000000, 2000}};
   for (const auto &[elapsed, delay] : delays) {
      EXPECT_EQ(FileLockWait_DelayMs(elapsed), delay) << elapsed;
   }
   FileLockEntry entry;
   uint32_t number;
   for (const char *name : {"", "M.lck", "M1234x.lck", "X12345.lck", "M12345", "M-1234.lck", "M12345.lckx"}) {
      EXPECT_FALSE(FileLockMember_ParseName(name, &entry, &number)) << name;
   }
   ASSERT_TRUE(FileLockMember_ParseName("D00042.lck", &entry, &number));
   EXPECT_TRUE(entry == FILE_LOCK_ENTRY && number == 42);
   EXPECT_STREQ(FileLockMember_Name(FILE_LOCK_WRITING, 65035).text, "E65035.lck");
}

TEST_F(FileLock, TreatsWhatItMeetsAsItDeserves)
{
   enum Fate : uint8_t { REMOVED, IGNORED, RESPECTED };
   const std::string ticket = "M00007.lck";
   const std::string marker = "D00001.lck/";
   const std::string file = directory_ + "/" + ticket;
   const std::string self = Self().execution;
   const std::string ended = Ended();
   const std::string reused = std::to_string(getpid()) + "-1";
   const std::string here = Self().machine;
   const std::string values = "FileLockMemberValues ";
   const std::string argv = values + ticket + " argv";
   const std::string waits = "FileLockWaitForPossession timeout on '" + path_ + "' due to ";
   const std::string discarding = "discarding " + ticket + " from " + directory_ + "': ";
   const struct {
      std::string name;
      std::string content;
      Fate fate;
      std::string says;
   } cases[] = {
       {ticket, Member(ended, 5, "X"), REMOVED,
        "FileLockScanner " + discarding + "invalid executionID " + ended + "."},
       {ticket, Member(reused, 5, "X"), REMOVED, ""},
       {ticket, Member(ended, 5, "X", here, "1 lc=1"), REMOVED, ""},
       {ticket, Member(self, 5, "X", here, "1 lc=1"), IGNORED,
        "FileLockScanner " + discarding + "lock file has been moved."},
       {ticket, Member("1-1", 7, "S", "m"), RESPECTED, waits + "another machine 'm'"},
       {ticket, Member("1-1", 7, "S", "m", "1.5 lc=@"), RESPECTED, ""},
       /* With En beside it. */
       {marker + "1-1.X.1.m", "", IGNORED, ""},
       {marker + "odd", "", RESPECTED, ""},
       {marker + "1-1.X." + checksum_ + ".m", "", RESPECTED, waits + "another machine 'm'"},
       {marker + ended + ".X.1." + here, "", REMOVED, ""},
       {marker + self + ".X." + checksum_ + "." + here, "", RESPECTED,
        waits + "a local process '" + self + "'"},
       {"no\nte", "", IGNORED,
        "FileLockScanDirectory discarding no\\x0Ate from " + directory_ + "'; invalid file name."},
       {ticket, Record("", 511), REMOVED, values + "file '" + file + "': size 511, required size 512"},
       {ticket, Record("", 513), REMOVED, values + "file '" + file + "': size 513, required size 512"},
       {ticket, Record("a b 1 X 2"), REMOVED, argv + "[4]: '2'"},
       {ticket, Record("m 1 1 X 1 lc=1 more"), REMOVED, argv + "[6]: 'more'"},
       {ticket, Member("1", 5, "Y"), REMOVED, argv + "[3]: 'Y'"},
       {ticket, Record("m 1 4294967296 X 1 lc=1"), REMOVED, argv + "[2]: '4294967296'"},
       {ticket, Record("m 1 1 X 1 l"), REMOVED, argv + "[5]: 'l'"},
       {ticket, Record("m\n2024 1 1 X 1 lc=1"), REMOVED, argv + "[0]: 'm\\x0A2024'"},
       {ticket, std::string(512, 'a'), REMOVED, values + "'" + file + "' contents are:"},
   };
   for (const auto &c : cases) {
      Put(c.name, c.content);
      if (c.name.starts_with(marker)) {
         Put("E00001.lck", "");
      }
      log_.Clear();
      EXPECT_EQ(IsFree(), c.fate != RESPECTED) << c.name << c.content.c_str();
      EXPECT_EQ(error_, 0);
      EXPECT_EQ(fs::exists(directory_), c.fate != REMOVED) << c.name << c.content.c_str();
      ExpectLogged(c.says);
      ExpectLogged(c.says.starts_with(values) ? values + "removing problematic lock file '" + file + "'"
                                              : "");
      fs::remove_all(directory_);
   }
}

TEST_F(FileLock, NeverRemovesWhatIsAnotherMachines)
{
   const std::string marker = "D00001.lck/1-1.X." + checksum_ + ".elsewhere";
   Put("M00002.lck", Member("1-1", 7, "S", "elsewhere"));
   Put(Replaced(marker, "X", "S"), "");
   Put("E00001.lck", "");
   EXPECT_TRUE(IsFree(false));
   Put(marker, "");
   EXPECT_FALSE(IsFree(false));
   EXPECT_EQ(Entries(directory_), (std::vector<std::string>{"D00001.lck", "E00001.lck", "M00002.lck"}));
   /* Tickets never wrap: a first one after the last would go before all. */
   fs::remove_all(directory_);
   Put("M00001.lck", Member("1-1", UINT32_MAX, "S", "elsewhere"));
   EXPECT_FALSE(IsFree(false));
   EXPECT_EQ(error_, EBUSY);
   ExpectLogged("FileLockCreateEntryDirectory lack of progress on '" + path_ + "'");
   EXPECT_EQ(Entries(directory_), std::vector<std::string>{"M00001.lck"});
}

/* The folder may be somebody else's: nothing of ours must be reached through what he puts there. */
TEST_F(FileLock, FollowsNoLinkAndWaitsForNoPipe)
{
   Put("M00003.lck", "");
   WriteFile(path_, Member(Self().execution, 5, "X"));
   fs::create_symlink(path_, directory_ + "/M00001.lck");
   ASSERT_EQ(mkfifo((directory_ + "/M00002.lck").c_str(), 0666), 0);
   EXPECT_TRUE(IsFree());
   EXPECT_FALSE(fs::exists(directory_));
   const std::string ours = folder_.Path("ours");
   fs::create_directory(ours);
   WriteFile(ours + "/M00001.lck", "");
   fs::create_directory_symlink(ours, directory_);
   FileLockParty *parties = nullptr;
   EXPECT_EQ(FileLock_List(path_.c_str(), &parties), -1);
   log_.Clear();
   EXPECT_TRUE(IsFree());
   EXPECT_EQ(log_.Text(),
             "FILE: FileLockCreateEntryDirectory: '" + directory_ + "' is not a directory. Removed.\n");
   EXPECT_EQ(Entries(ours), std::vector<std::string>{"M00001.lck"});
   WriteFile(directory_, "");
   EXPECT_TRUE(IsFree());
   /* A lock that is held goes where its ticket is, whatever is in the old place by now. */
   FileLockToken *const token = Take(true);
   const std::string ticket = Entries(directory_)[0];
   fs::rename(directory_, folder_.Path("away"));
   WriteFile(ours + "/" + ticket, "");
   fs::create_directory_symlink(ours, directory_);
   EXPECT_EQ(FileLock_Unlock(token, {}), 0);
   EXPECT_TRUE(fs::exists(ours + "/" + ticket));
   EXPECT_TRUE(fs::is_empty(folder_.Path("away")));
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
   fs::copy(directory_, folder_.Path("copy.lck"));
   FileLockToken *const second = FileLock_Lock(folder_.Path("copy").c_str(), true, 0, {}, &error_);
   ASSERT_NE(second, nullptr);
   FileLock_Unlock(second, {});
   FileLock_Unlock(token, {});
   EXPECT_EQ(Entries(folder_.Path("copy.lck")).size(), 1U);
}

void AppendMessage(MsgList *list, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   *reinterpret_cast<std::string *>(list) += format + ::Take(Str_Vasprintf(nullptr, format, args));
   va_end(args);
}

TEST_F(FileLock, SaysWhatItGrantsAndWhatFailedWhereItCannotWrite)
{
   std::string said;
   const FileLockHooks hooks = {
       .message = AppendMessage, .list = reinterpret_cast<MsgList *>(&said), .giveUp = nullptr};
   EXPECT_EQ(FileLock_Lock(folder_.Path("none/file").c_str(), true, 0, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ENOENT);
   const std::string message = "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.";
   EXPECT_EQ(said, message + Replaced(Replaced(message, "%d", "2"), "%s", "No such file or directory"));
   /* What cannot be created is granted, and what cannot be opened is not. The rights of root would let everything through. */
   const bool root = geteuid() == 0;
   const struct {
      std::string place;
      unsigned mode;
      std::string logged;
   } cases[] = {
       {folder_.Path(), 0555, "FileLockIntrinsicPortable implicit S lock succeeded on '" + path_ + "'."},
       {folder_.Path(), 0111, "FileLockIntrinsicPortable implicit S lock succeeded on '" + path_ + "'."},
       {directory_, 0555, "FileLockIntrinsicPortable implicit S lock succeeded on '" + path_ + "'."},
       {directory_, 0333, ""},
       /* Others may have the lock where its directory is there. */
       {folder_.Path(), 0111, "FileLockIntrinsicPortable stat failure on '" + path_ + "': Permission denied"},
   };
   for (const auto &[place, mode, logged] : cases) {
      fs::create_directory(place);
      fs::permissions(place, static_cast<fs::perms>(mode));
      log_.Clear();
      ASSERT_TRUE(!root || seteuid(ORDINARY_USER) == 0);
      FileLockToken *const token = Take(false);
      EXPECT_FALSE(IsFree());
      ASSERT_TRUE(!root || seteuid(0) == 0);
      fs::permissions(place, static_cast<fs::perms>(0755));
      EXPECT_EQ(error_, EACCES);
      ASSERT_EQ(token != nullptr, logged.find("implicit") != std::string::npos) << place << mode;
      ExpectLogged(logged);
      EXPECT_TRUE(token == nullptr || (FileLock_IsImplicit(token) && FileLock_Unlock(token, {}) == 0));
   }
}

TEST_F(FileLock, WaitsAsLongAsItIsToldInTheOrderOfTheTickets)
{
   FileLockToken *const token = Take(false);
   EXPECT_FALSE(FileLock_IsImplicit(token));
   const uint64_t start = FileLockWait_NowMs();
   EXPECT_EQ(Take(true, 300), nullptr);
   EXPECT_GE(FileLockWait_NowMs() - start, 300U);
   EXPECT_EQ(error_, 0);
   FileLockHooks hooks = {.giveUp = [](void *) { return true; }};
   EXPECT_EQ(FileLock_Lock(path_.c_str(), true, FILE_LOCK_WAIT_FOREVER, hooks, &error_), nullptr);
   EXPECT_EQ(error_, ECANCELED);
   EXPECT_EQ(Entries(directory_).size(), 1U);
   /* A later reader does not overtake a writer who waits. */
   Put("M77777.lck", Member(Self().execution, 2, "X"));
   EXPECT_FALSE(IsFree(false));
   FileLock_Unlock(token, {});
   /* It is the ticket that is waited for: by now the name may be that of one who waits for us. */
   const std::vector<std::string> later = {Member(Self().execution, 9, "X"), Member("1-1", 9, "X", "m"),
                                           Member(Ended(), 2, "X"), "?"};
   for (const std::string &content : later) {
      Put("M77777.lck", Member(Self().execution, 2, "X"));
      const std::function<void()> replace = [&] { Put("M77777.lck", content); };
      hooks.giveUp = [](void *context) { return (*static_cast<std::function<void()> *>(context))(), false; };
      hooks.context = const_cast<std::function<void()> *>(&replace);
      FileLockToken *const next = FileLock_Lock(path_.c_str(), true, 5000, hooks, &error_);
      EXPECT_TRUE(next != nullptr && FileLock_Unlock(next, {}) == 0) << content.c_str();
   }
   EXPECT_FALSE(fs::exists(directory_));
}

TEST_F(FileLock, ListsWhoHoldsWhoWaitsAndWhatIsLeft)
{
   FileLockToken *const token = Take(true);
   Put("M70001.lck", Member("9-9", 4, "S", std::string(70, 'e')));
   Put("M70002.lck", Member(Ended(), 3, "X"));
   Put("M70003.lck", Member(Self().execution, 2, "X", Self().machine, "1 lc=1"));
   Put("M70004.lck", "nonsense");
   Put("D70005.lck/" + (Self().execution + (".S." + checksum_)) + "." + Self().machine, "");
   const auto before = Entries(directory_);
   FileLockParty *found = nullptr;
   log_.Clear();
   ASSERT_EQ(FileLock_List(path_.c_str(), &found), 6);
   const std::unique_ptr<FileLockParty[], Freed> parties(found);
   const FileLockState states[] = {FILE_LOCK_UNREADABLE, FILE_LOCK_HOLDS, FILE_LOCK_MOVED,
                                   FILE_LOCK_STALE,      FILE_LOCK_WAITS, FILE_LOCK_CHOOSES};
   for (unsigned i = 0; i < 6; i++) {
      EXPECT_EQ(parties[i].state, states[i]) << i;
      EXPECT_EQ(parties[i].ticket, i % 5);
   }
   EXPECT_TRUE(parties[1].local && parties[1].exclusive && !parties[4].local && !parties[4].exclusive);
   EXPECT_TRUE(parties[5].local && !parties[5].exclusive);
   EXPECT_EQ(parties[4].machine + std::string(parties[1].execution), std::string(64, 'e') + Self().execution);
   EXPECT_NEAR(static_cast<double>(parties[5].microseconds) / 1e6, static_cast<double>(std::time(nullptr)),
               60);
   EXPECT_EQ(Entries(directory_), before);
   EXPECT_EQ(log_.Text(), "");
   FileLock_Unlock(token, {});
   EXPECT_EQ(FileLock_List(folder_.Path("free").c_str(), &found), 0);
   EXPECT_EQ(FileLock_List(folder_.Path("none/file").c_str(), &found), -1);
}

TEST(ProcessIdentity, TellsAProcessFromALaterOneAndFromOneThatEnded)
{
   uint64_t mine = 0;
   uint64_t theirs = 0;
   usleep(20000);
   Program child("sleep 60");
   EXPECT_TRUE(ProcessIdentity_StartTime(getpid(), &mine) && ProcessIdentity_StartTime(child.Pid(), &theirs));
   /* In microseconds: the child is at least the sleep younger, by a clock of 10 ms. */
   EXPECT_GE(theirs, mine + 10000);
   EXPECT_LT(theirs, mine + 600 * 1000000ULL);
   const pid_t pid = child.Pid();
   kill(pid, SIGKILL);
   siginfo_t info;
   EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
   for (int collected = 0; collected < 2; collected++) {
      errno = 0;
      EXPECT_FALSE(ProcessIdentity_StartTime(pid, &mine));
      EXPECT_EQ(errno, ESRCH);
      child.Status();
   }
   std::array<char, 256> machine = {};
   std::array<char, 256> again = {};
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(machine.data(), machine.size()));
   const size_t length = strlen(machine.data());
   ASSERT_TRUE(ProcessIdentity_MachineIdentifier(again.data(), length + 1));
   EXPECT_STREQ(machine.data(), again.data());
   EXPECT_FALSE(ProcessIdentity_MachineIdentifier(again.data(), length));
   EXPECT_EQ(errno, ERANGE);
}

/* tessel-lock as users run it, with "@" for the file. */
class TesselLock : public FileLock {
 protected:
   [[nodiscard]] std::string Command(const std::string &words) const
   {
      return TESSEL_LOCK " " + Replaced(words, "@", path_);
   }

   int Run(const std::string &words)
   {
      Program program(Command(words));
      const int status = program.Status();
      said_ = program.Output();
      return status;
   }

   /* What --show prints. */
   std::string Shown()
   {
      EXPECT_EQ(Run("--show @"), 0);
      return said_;
   }

   std::string said_;
};

TEST_F(TesselLock, PassesOnWhatTheCommandEndsWith)
{
   const struct {
      const char *words;
      int status;
      const char *says;
   } cases[] = {
       {"@ -- echo done", 0, "done"},
       {"@ sh -c 'exit 7'", 7, ""},
       {"--shared --wait 1.5 @ -- sh -c 'kill -9 $$'", 128 + 9, ""},
       {"@ -- /nonexistent", 127, ""},
       {"@ -- /", 126, ""},
       {"", 64, "which file?"},
       {"@", 64, "no command to run"},
       {"--wait soon @ true", 64, "soon"},
       {"--wait 1.2345 @ true", 64, "1.2345"},
       {"--wait 99999999 @ true", 64, "99999999"},
       {"--sharred @ true", 64, "--sharred"},
       {"--show @ true", 64, "--show runs no command"},
       {"none/@ true", 71, "A file locking error (2) has occurred: No such"},
       {"--show none/@", 71, "No such"},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Run(c.words), c.status) << c.words;
      EXPECT_NE(said_.find(c.says), std::string::npos) << said_;
      EXPECT_FALSE(fs::exists(directory_));
   }
}

TEST_F(TesselLock, KeepsOthersOutAndReadersTogetherAndShowsThem)
{
   EXPECT_EQ(Shown(), "");
   for (const bool shared : {false, true}) {
      Program holder(Command(std::string(shared ? "--shared" : "--wait=9") +
                             " @ -- sh -c 'echo has it; exec sleep 60'"));
      ASSERT_TRUE(holder.Says("has it"));
      EXPECT_EQ(Run("--wait 0 @ -- true"), 75);
      EXPECT_EQ(Run("--shared --wait 0.1 @ -- true"), shared ? 0 : 75);
      Program waiter(Command("@ -- true"));
      EXPECT_TRUE(Eventually([&] {
         EXPECT_TRUE(Shown().starts_with((shared ? "holds    shared     " : "holds    exclusive  ") +
                                         std::to_string(holder.Pid()) + "-"))
             << said_;
         return said_.find("\nwaits    exclusive  " + std::to_string(waiter.Pid()) + "-") !=
                std::string::npos;
      }));
      EXPECT_NE(said_.find(" here "), std::string::npos);
      kill(waiter.Pid(), SIGTERM);
      EXPECT_EQ(waiter.Status(), 128 + SIGTERM);
      kill(holder.Pid(), SIGTERM);
      EXPECT_EQ(holder.Status(), 128 + SIGTERM);
   }
   for (const auto &[value, since] : {std::pair("1700000000000000", " 2023-11-14T22:13:20Z "),
                                      std::pair("1.5", " - "), std::pair("18446744073709551615", " - ")}) {
      Put("M00001.lck", Member("9-9", 4, "S", "m", value + std::string(" lc=@")));
      EXPECT_NE(Shown().find(since), std::string::npos) << said_;
   }
}

} // namespace
