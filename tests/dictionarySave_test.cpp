#include "lib/public/program.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tests/support/systemCallFaults.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr const char *OLD = "# a comment\n.encoding = \"UTF-8\"\na = \"1\"\nb = \"an old value, longer\"\n";
constexpr const char *NEW = "# a comment\n.encoding = \"UTF-8\"\na = \"2\"\nb = \"short\"\n";

/* How a save ended, as the exit status of its process. */
enum Ending { SAVED = 10, FAILED = 11, LEAKED_DESCRIPTOR = 20, LEAKED_MEMORY = 21 };

/* A save of one changed dictionary, over and over, each in a process of its own. */
class DictionarySave : public testing::Test {
 protected:
   DictionarySave()
   {
      Log("the first line of a log has the time zone read, in calls that are not the save's\n");
   }

   void Restore(const char *content = OLD)
   {
      std::filesystem::remove_all(folder_.Path("d"));
      std::filesystem::create_directory(folder_.Path("d"));
      if (content != nullptr) {
         WriteFile(path_, content);
         chmod(path_.c_str(), 0640);
      }
   }

   static size_t OpenDescriptors()
   {
      const std::filesystem::directory_iterator all("/proc/self/fd");
      return static_cast<size_t>(std::distance(begin(all), end(all)));
   }

   void Change()
   {
      dictionary_ = Dictionary_Create();
      messages_ = MsgList_Create();
      Dictionary_SetMessageList(dictionary_, messages_);
      ASSERT_TRUE(Dictionary_Unmarshal(dictionary_, OLD, false, 0, messages_));
      Dictionary_SetInt32(dictionary_, 2, 0, "a");
      Dictionary_SetString(dictionary_, "short", 0, "b");
   }

   int Check(bool saved, size_t descriptors, bool leakCheck)
   {
      const std::string told = Take(MsgList_ToString(messages_));
      const bool left = OpenDescriptors() != descriptors;
      WriteFile(folder_.Path("told"), MsgList_Count(messages_) != 0
                                          ? MsgList_Get(messages_, MsgList_Count(messages_) - 1)->identifier
                                          : "");
      Dictionary_Free(dictionary_);
      MsgList_Free(messages_);
      dictionary_ = nullptr;
      messages_ = nullptr;
      if (left) {
         return LEAKED_DESCRIPTOR;
      }
      if (leakCheck && LeaksMemory()) {
         return LEAKED_MEMORY;
      }
      return saved ? SAVED : FAILED;
   }

   FaultedRun Save(const SystemCallFault &fault, bool leakCheck = false)
   {
      size_t descriptors = 0;
      std::filesystem::remove(folder_.Path("told"));
      return RunWithFault(
          fault,
          [&] {
             Change();
             descriptors = OpenDescriptors();
          },
          [&] { return Dictionary_WriteFile(dictionary_, path_.c_str()); },
          [&](bool saved) { return Check(saved, descriptors, leakCheck); });
   }

   /* The calls of a save that nothing disturbs; empty, with the test skipped, where there is no tracing. */
   std::vector<long> CallsOfASave()
   {
      const FaultedRun run = Save({});
      if (!run.traced) {
         return {};
      }
      EXPECT_EQ(SAVED, run.exitStatus);
      EXPECT_EQ(NEW, ReadFile(path_));
      return run.calls;
   }

   /* The last message's identifier without what all have in common. */
   std::string Told()
   {
      const std::string id = ReadFile(folder_.Path("told"));
      return id.substr(std::min(id.size(), strlen("msg.dictionary.")));
   }

   void ExpectALaterSaveToSucceed()
   {
      Change();
      EXPECT_TRUE(Dictionary_WriteFile(dictionary_, path_.c_str()));
      Dictionary_Free(dictionary_);
      MsgList_Free(messages_);
      EXPECT_EQ(NEW, ReadFile(path_));
      EXPECT_FALSE(std::filesystem::exists(path_ + "~"));
   }

   ScratchFolder folder_;
   CapturedLog log_;
   std::string path_ = folder_.Path("d/f");
   Dictionary *dictionary_ = nullptr;
   MsgList *messages_ = nullptr;
};

/* Kills the save of a file with this content (null: there is none) at each of its calls in turn. look is then given
   what is there and whether the save came to its end. */
#define KILL_AT_EVERY_CALL(content, look)                                                                    \
   for (size_t call = 0;; call++) {                                                                          \
      Restore(content);                                                                                      \
      const FaultedRun run = Save({.kind = FaultKind::KILL, .call = call});                                  \
      if (!run.traced) {                                                                                     \
         GTEST_SKIP() << "this system does not let a child be traced";                                       \
      }                                                                                                      \
      look(ReadFile(path_));                                                                                 \
      if (run.exitStatus != -SIGKILL) {                                                                      \
         EXPECT_EQ(SAVED, run.exitStatus);                                                                   \
         EXPECT_LT(20U, call);                                                                               \
         break;                                                                                              \
      }                                                                                                      \
      ExpectALaterSaveToSucceed();                                                                           \
   }

TEST_F(DictionarySave, KilledAtAnyCallLeavesTheOldFileOrTheNew)
{
   bool sawOld = false;
   bool sawNew = false;
   KILL_AT_EVERY_CALL(OLD, [&](const std::string &content) {
      struct stat attributes;
      EXPECT_TRUE(content == OLD || content == NEW) << content;
      sawOld = sawOld || content == OLD;
      sawNew = sawNew || content == NEW;
      ASSERT_EQ(0, stat(path_.c_str(), &attributes));
      EXPECT_EQ(0640U, attributes.st_mode & 07777);
   });
   EXPECT_TRUE(sawOld && sawNew);
}

TEST_F(DictionarySave, KilledAtAnyCallLeavesANewFileEmptyOrWhole)
{
   KILL_AT_EVERY_CALL(nullptr, [](const std::string &content) {
      EXPECT_TRUE(content.empty() || content == NEW) << content;
   });
}

/* What a save makes of a failed call. */
struct Expectation {
   Ending ending;
   const char *content;
   std::string told;
};

/* By the call's name, and how many of that name came before and come after it. */
Expectation Expected(const std::string &call, size_t before, size_t after, int error)
{
   static const std::map<std::string, const char *> fillingFailures = {{"fcntl", "writefile.descToStream"},
                                                                       {"lseek", "writefile.seek"},
                                                                       {"write", "writefile.write"},
                                                                       {"ftruncate", "writefile.truncate"},
                                                                       {"fsync", "writefile.sync"}};
   const bool permission = error == EACCES || error == EROFS;
   const bool interrupted = error == EINTR;
   if (interrupted &&
       (call == "openat" || call == "write" || call == "ftruncate" || call == "fsync" || call == "close")) {
      return {SAVED, NEW, ""};
   }
   if (call == "openat" && before == 0) {
      return {FAILED, OLD, permission ? "permissions" : "open"};
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
   Restore();
   const std::vector<long> calls = CallsOfASave();
   if (calls.empty()) {
      GTEST_SKIP() << "this system does not let a child be traced";
   }
   for (size_t i = 0; i < calls.size(); i++) {
      const auto at = calls.begin() + static_cast<std::ptrdiff_t>(i);
      const auto before = static_cast<size_t>(std::count(calls.begin(), at, calls[i]));
      const auto after = static_cast<size_t>(std::count(at + 1, calls.end(), calls[i]));
      for (const int error : {ENOSPC, EIO, EROFS, EACCES, EINTR}) {
         Restore();
         const std::string name = SystemCallName(calls[i]);
         SCOPED_TRACE(name + " number " + std::to_string(before) + " fails with " + strerror(error));
         const FaultedRun run = Save({.kind = FaultKind::FAIL, .call = i, .error = error}, error == EIO);
         const Expectation expected = Expected(name, before, after, error);
         EXPECT_EQ(calls[i], run.calls.at(i));
         EXPECT_EQ(expected.ending, run.exitStatus);
         EXPECT_EQ(expected.content, ReadFile(path_));
         EXPECT_EQ(expected.told, Told());
         EXPECT_FALSE(std::filesystem::exists(path_ + "~"));
      }
   }
}

TEST_F(DictionarySave, TakesShortWrites)
{
   Restore();
   const std::vector<long> calls = CallsOfASave();
   if (calls.empty()) {
      GTEST_SKIP() << "this system does not let a child be traced";
   }
   const auto write = std::find(calls.begin(), calls.end(), SYS_write);
   ASSERT_NE(calls.end(), write);
   Restore();
   const FaultedRun run =
       Save({.kind = FaultKind::SHORTEN, .call = static_cast<size_t>(write - calls.begin())});
   EXPECT_EQ(SAVED, run.exitStatus);
   EXPECT_EQ(NEW, ReadFile(path_));
   EXPECT_EQ(calls.size() + 1, run.calls.size()) << "the rest takes one more write";
}

TEST_F(DictionarySave, ReportsEveryFailureOfRewritingInPlace)
{
   const auto restore = [this] {
      Restore();
      std::filesystem::create_directory(path_ + "~");
   };
   restore();
   const std::vector<long> calls = CallsOfASave();
   const std::map<long, const char *> messages = {{SYS_fcntl, "writefile.descToStream"},
                                                  {SYS_lseek, "writefile.seek"},
                                                  {SYS_ftruncate, "writefile.truncate"},
                                                  {SYS_fsync, "writefile.sync"}};
   for (size_t i = 0; i < calls.size(); i++) {
      const auto expected = messages.find(calls[i]);
      if (expected != messages.end()) {
         restore();
         const FaultedRun run = Save({.kind = FaultKind::FAIL, .call = i, .error = EIO}, true);
         EXPECT_EQ(FAILED, run.exitStatus) << SystemCallName(calls[i]);
         EXPECT_EQ(expected->second, Told());
      }
   }
}

TEST_F(DictionarySave, FlushesBeforeAndAfterTheRename)
{
   Restore();
   const std::vector<long> calls = CallsOfASave();
   if (calls.empty()) {
      GTEST_SKIP() << "this system does not let a child be traced";
   }
   std::string order;
   for (const long call : calls) {
      if (call == SYS_write || call == SYS_ftruncate || call == SYS_fsync || call == SYS_rename) {
         order += SystemCallName(call) + " ";
      }
   }
   EXPECT_EQ("write ftruncate fsync rename fsync ", order);
}

} // namespace
