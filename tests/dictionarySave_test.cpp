#include "lib/public/program.h"
#include "tests/support/dictionaryFixture.h"
#include "tests/support/systemCallFaults.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *OLD = "# a comment\n.encoding = \"UTF-8\"\na = \"1\"\nb = \"an old value, longer\"\n";
constexpr const char *NEW = "# a comment\n.encoding = \"UTF-8\"\na = \"2\"\nb = \"short\"\n";

/* How a save ended, as the exit status of its process. */
enum Ending { SAVED = 10, FAILED = 11, LEAKED_DESCRIPTOR = 20, LEAKED_MEMORY = 21 };

/* What a save makes of a failed call. */
struct Expectation {
   Ending ending;
   const char *content;
   std::string told;
};

size_t OpenDescriptors()
{
   const fs::directory_iterator all("/proc/self/fd");
   return static_cast<size_t>(std::distance(begin(all), end(all)));
}

/* A save of one changed dictionary, over and over, each in a process of its own. */
class DictionarySave : public DictionaryFixture {
 protected:
   void SetUp() override
   {
      ::Log("the first line of a log has the time zone read, in calls that are not the save's\n");
      Restore();
      const FaultedRun run = Save({});
      if (!run.traced) {
         GTEST_SKIP() << "this system does not let a child be traced";
      }
      EXPECT_EQ(SAVED, run.exitStatus);
      EXPECT_EQ(NEW, ReadFile(path_));
      calls_ = run.calls;
   }

   void Restore(const char *content = OLD)
   {
      fs::remove_all(Path("d"));
      fs::create_directory(Path("d"));
      if (content != nullptr) {
         WriteFile(path_, content);
         chmod(path_.c_str(), 0640);
      }
   }

   void Change()
   {
      ASSERT_TRUE(Unmarshal(OLD));
      Dictionary_SetInt32(dictionary_, 2, 0, "a");
      Dictionary_SetString(dictionary_, "short", 0, "b");
   }

   int Check(bool saved, size_t descriptors, bool leakCheck)
   {
      const size_t count = MsgList_Count(messages_);
      const bool left = OpenDescriptors() != descriptors;
      WriteFile(Path("told"), count != 0 ? MsgList_Get(messages_, count - 1)->identifier : "");
      Dictionary_Free(std::exchange(dictionary_, nullptr));
      MsgList_Free(std::exchange(messages_, nullptr));
      if (left || (leakCheck && LeaksMemory())) {
         return left ? LEAKED_DESCRIPTOR : LEAKED_MEMORY;
      }
      return saved ? SAVED : FAILED;
   }

   FaultedRun Save(const SystemCallFault &fault, bool leakCheck = false)
   {
      size_t descriptors = 0;
      const auto setUp = [&] {
         Change();
         descriptors = OpenDescriptors();
      };
      fs::remove(Path("told"));
      return RunWithFault(
          fault, setUp, [&] { return Dictionary_WriteFile(dictionary_, path_.c_str()); },
          [&](bool saved) { return Check(saved, descriptors, leakCheck); });
   }

   /* The identifier of the last message, without what all have in common. */
   std::string Told()
   {
      const std::string id = ReadFile(Path("told"));
      return id.substr(std::min(id.size(), strlen("msg.dictionary.")));
   }

   /* Kills the save of a file with this content (null: there is none) at each of its calls in turn. Gives what was
      found in its place. */
   std::map<std::string, int> KillAtEveryCall(const char *content)
   {
      std::map<std::string, int> found;
      for (size_t call = 0;; call++) {
         Restore(content);
         const FaultedRun run = Save({.kind = FaultKind::KILL, .call = call});
         struct stat attributes = {};
         found[ReadFile(path_)]++;
         EXPECT_TRUE(content == nullptr ||
                     (stat(path_.c_str(), &attributes) == 0 && (attributes.st_mode & 07777) == 0640));
         if (run.exitStatus != -SIGKILL) {
            EXPECT_EQ(SAVED, run.exitStatus);
            EXPECT_LT(20U, call);
            return found;
         }
         /* A later save succeeds. */
         Change();
         EXPECT_TRUE(Dictionary_WriteFile(dictionary_, path_.c_str()));
         EXPECT_EQ(NEW, ReadFile(path_));
         EXPECT_FALSE(fs::exists(path_ + "~"));
      }
   }

   std::string path_ = Path("d/f");
   std::vector<long> calls_;
};

TEST_F(DictionarySave, KilledAtAnyCallLeavesTheOldFileOrTheNew)
{
   std::map<std::string, int> found = KillAtEveryCall(OLD);
   EXPECT_TRUE(found.size() == 2 && found[OLD] > 0 && found[NEW] > 0);
   found = KillAtEveryCall(nullptr);
   EXPECT_TRUE(found.size() == 2 && found[""] > 0 && found[NEW] > 0);
}

/* By the call's name, and how many of that name came before and come after it. */
Expectation Expected(const std::string &call, size_t before, size_t after, int error)
{
   static const std::map<std::string, const char *> fillingFailures = {{"fcntl", "writefile.descToStream"},
                                                                       {"lseek", "writefile.seek"},
                                                                       {"write", "writefile.write"},
                                                                       {"ftruncate", "writefile.truncate"},
                                                                       {"fsync", "writefile.sync"}};
   if (error == EINTR && (call == "openat" || call == "close" ||
                          (call != "fcntl" && call != "lseek" && fillingFailures.contains(call)))) {
      return {SAVED, NEW, ""};
   }
   if (call == "openat" && before == 0) {
      return {FAILED, OLD, error == EACCES || error == EROFS ? "permissions" : "open"};
   }
   if ((call == "openat" && before == 2 && error != EACCES) || (call == "fsync" && before == 1)) {
      return {FAILED, NEW, "writefile.sync"};
   }
   if (call == "close" && after == 0) {
      return {FAILED, NEW, "close"};
   }
   if (call == "rename") {
      return {SAVED, NEW, "writefile.atomicUpdate"};
   }
   if (const auto found = fillingFailures.find(call); found != fillingFailures.end()) {
      return {FAILED, OLD, found->second};
   }
   /* No temporary file can be made, or only a description is lost: the file is written all the same. */
   return {SAVED, NEW, ""};
}

TEST_F(DictionarySave, AnswersEveryFailedCallAsItShould)
{
   for (size_t i = 0; i < calls_.size(); i++) {
      const auto at = calls_.begin() + static_cast<std::ptrdiff_t>(i);
      const auto before = static_cast<size_t>(std::count(calls_.begin(), at, calls_[i]));
      const auto after = static_cast<size_t>(std::count(at + 1, calls_.end(), calls_[i]));
      for (const int error : {ENOSPC, EIO, EROFS, EACCES, EINTR}) {
         Restore();
         const std::string name = SystemCallName(calls_[i]);
         SCOPED_TRACE(name + " number " + std::to_string(before) + " fails with " + strerror(error));
         const FaultedRun run = Save({.kind = FaultKind::FAIL, .call = i, .error = error}, error == EIO);
         const Expectation expected = Expected(name, before, after, error);
         EXPECT_EQ(calls_[i], run.calls.at(i));
         EXPECT_EQ(expected.ending, run.exitStatus);
         EXPECT_EQ(expected.content, ReadFile(path_));
         EXPECT_EQ(expected.told, Told());
         EXPECT_FALSE(fs::exists(path_ + "~"));
      }
   }
   /* The same where the file can only be rewritten in place: a folder has the temporary file's name. */
   fs::create_directory(path_ + "~");
   const std::vector<long> calls = Save({}).calls;
   for (size_t i = 0; i < calls.size(); i++) {
      const Expectation expected = Expected(SystemCallName(calls[i]), 0, 1, EIO);
      if (expected.told.starts_with("writefile.") && calls[i] != SYS_rename && calls[i] != SYS_write) {
         const FaultedRun run = Save({.kind = FaultKind::FAIL, .call = i, .error = EIO}, true);
         EXPECT_EQ(FAILED, run.exitStatus) << SystemCallName(calls[i]);
         EXPECT_EQ(expected.told, Told());
      }
   }
}

TEST_F(DictionarySave, FlushesBeforeAndAfterTheRenameAndTakesShortWrites)
{
   std::string order;
   for (const long call : calls_) {
      if (call == SYS_write || call == SYS_ftruncate || call == SYS_fsync || call == SYS_rename) {
         order += SystemCallName(call) + " ";
      }
   }
   EXPECT_EQ("write ftruncate fsync rename fsync ", order);
   Restore();
   const auto write =
       static_cast<size_t>(std::find(calls_.begin(), calls_.end(), SYS_write) - calls_.begin());
   const FaultedRun run = Save({.kind = FaultKind::SHORTEN, .call = write});
   EXPECT_EQ(SAVED, run.exitStatus);
   EXPECT_EQ(NEW, ReadFile(path_));
   EXPECT_EQ(calls_.size() + 1, run.calls.size()) << "the rest takes one more write";
}

} // namespace
