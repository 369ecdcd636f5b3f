#include "lib/public/program.h"
#include "tests/support/callFaults.h"
#include "tests/support/dictionaryFixture.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
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

/* A save of one changed dictionary, over and over, each in a process of its own. */
class DictionarySave : public DictionaryFixture {
 protected:
   DictionarySave()
   {
      ::Log("the first line of a log has the time zone read, in calls that are not the save's\n");
      Restore();
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

   /* How the save ended, in a process of its own: an Ending, or -signal. */
   int Save(CallWatch *watch, bool leakCheck = false)
   {
      fs::remove(Path("told"));
      const pid_t child = fork();
      if (child == 0) {
         Change();
         const size_t descriptors = OpenDescriptors();
         watch->Arm();
         const bool saved = Dictionary_WriteFile(dictionary_, path_.c_str());
         CallWatch::Disarm();
         _exit(Check(saved, descriptors, leakCheck));
      }
      int status = -1;
      waitpid(child, &status, 0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
   }

   /* The calls of a save that nothing disturbs, but for those that only take memory. */
   std::vector<std::string> CallsOfASave()
   {
      CallWatch watch;
      EXPECT_EQ(SAVED, Save(&watch));
      EXPECT_EQ(NEW, ReadFile(path_));
      std::vector<std::string> calls = watch.Called();
      std::erase_if(calls, [](const std::string &call) {
         return call == "malloc" || call == "calloc" || call == "realloc" || call == "strndup";
      });
      return calls;
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
      for (int call = 1;; call++) {
         CallWatch watch({"", call, CALL_KILLS});
         Restore(content);
         const int status = Save(&watch);
         struct stat attributes = {};
         found[ReadFile(path_)]++;
         EXPECT_TRUE(content == nullptr ||
                     (stat(path_.c_str(), &attributes) == 0 && (attributes.st_mode & 07777) == 0640));
         if (status != -SIGKILL) {
            EXPECT_EQ(SAVED, status);
            EXPECT_LT(20, call);
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
};

TEST_F(DictionarySave, KilledAtAnyCallLeavesTheOldFileOrTheNew)
{
   std::map<std::string, int> found = KillAtEveryCall(OLD);
   EXPECT_TRUE(found.size() == 2 && found[OLD] > 0 && found[NEW] > 0);
   found = KillAtEveryCall(nullptr);
   EXPECT_TRUE(found.size() == 2 && found[""] > 0 && found[NEW] > 0);
}

const std::map<std::string, const char *> FILLING_FAILURES = {
    {"fcntl", "writefile.descToStream"},   {"fdopen", "writefile.descToStream"},
    {"setvbuf", "writefile.descToStream"}, {"fseeko", "writefile.seek"},
    {"fwrite", "writefile.write"},         {"ftruncate", "writefile.truncate"},
    {"fflush", "writefile.flush"},         {"fsync", "writefile.sync"}};

/* By the call's name, and how many of that name came before and come after it. */
Expectation Expected(const std::string &call, size_t before, size_t after, int error)
{
   const bool permission = error == EACCES || error == EROFS;
   const bool interrupted = error == EINTR;
   if (interrupted &&
       (call == "open" || call == "openat" || call == "fwrite" || call == "ftruncate" || call == "fsync" || call == "close")) {
      return {SAVED, NEW, ""};
   }
   if (call == "open" && before == 0) {
      return {FAILED, OLD, permission ? "permissions" : "open"};
   }
   if (call == "fsync" && before == 1) {
      return {FAILED, NEW, "writefile.sync"};
   }
   if (call == "close" && after == 0) {
      return {FAILED, NEW, "close"};
   }
   if (call == "renameat") {
      return {SAVED, NEW, "writefile.atomicUpdate"};
   }
   if (const auto found = FILLING_FAILURES.find(call); found != FILLING_FAILURES.end()) {
      return {FAILED, OLD, found->second};
   }
   /* No temporary file can be made, or only a description is lost: the file is written all the same. */
   return {SAVED, NEW, ""};
}

TEST_F(DictionarySave, AnswersEveryFailedCallAsItShould)
{
   Restore();
   const std::vector<std::string> calls = CallsOfASave();
   for (auto at = calls.begin(); at != calls.end(); at++) {
      const auto before = static_cast<size_t>(std::count(calls.begin(), at, *at));
      const auto after = static_cast<size_t>(std::count(at + 1, calls.end(), *at));
      for (const int error : {ENOSPC, EIO, EROFS, EACCES, EINTR}) {
         Restore();
         SCOPED_TRACE(*at + " number " + std::to_string(before) + " fails with " + strerror(error));
         CallWatch watch({*at, static_cast<int>(before) + 1, error});
         const int status = Save(&watch, error == EIO);
         const Expectation expected = Expected(*at, before, after, error);
         EXPECT_TRUE(watch.Struck());
         EXPECT_EQ(expected.ending, status);
         EXPECT_EQ(expected.content, ReadFile(path_));
         EXPECT_EQ(expected.told, Told());
         EXPECT_FALSE(fs::exists(path_ + "~"));
      }
   }
}

TEST_F(DictionarySave, ReportsEveryFailureOfRewritingInPlace)
{
   for (const auto &[call, message] : FILLING_FAILURES) {
      Restore();
      fs::create_directory(path_ + "~");
      CallWatch watch({call, 1, EIO});
      EXPECT_EQ(FAILED, Save(&watch, true)) << call;
      EXPECT_EQ(message, Told());
   }
}

TEST_F(DictionarySave, FlushesBeforeAndAfterTheRename)
{
   Restore();
   std::string order;
   for (const std::string &call : CallsOfASave()) {
      if (call == "fwrite" || call == "ftruncate" || call == "fflush" || call == "fsync" ||
          call == "renameat") {
         order += call + " ";
      }
   }
   EXPECT_EQ("fwrite ftruncate fflush fsync renameat fsync ", order);
}

} // namespace
