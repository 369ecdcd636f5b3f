#include "lib/file/fileIO.h"
#include "lib/misc/memory/secret.h"
#include "lib/public/program.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tests/support/callFaults.h"
#include "tests/support/testSupport.h"
#include "tools/dictEdit.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <map>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *OLD = "# a comment\n.encoding = \"UTF-8\"\na = \"1\"\nb = \"an old value, longer\"\n";
constexpr const char *NEW = "# a comment\n.encoding = \"UTF-8\"\na = \"2\"\nb = \"short\"\n";

/* A save of one changed dictionary in a process of its own. */
class DictionarySave : public testing::Test {
 protected:
   DictionarySave()
   {
      Log("the first line of a log has the time zone read, in calls that are not the save's\n");
   }

   /* "saved" or "failed", a blank and the identifier of the last message; or how else it ended. */
   std::string Save(CallWatch *watch)
   {
      WriteFile(path_, OLD);
      chmod(path_.c_str(), 0640);
      const pid_t child = fork();
      if (child == 0) {
         MsgList *const messages = MsgList_Create();
         Dictionary *const dictionary = Dictionary_Create();
         Dictionary_SetMessageList(dictionary, messages);
         bool saved = Dictionary_Unmarshal(dictionary, OLD, false, ENCODING_DEFAULT, messages);
         Dictionary_SetInt32(dictionary, 2, 0, "a");
         Dictionary_SetString(dictionary, "short", 0, "b");
         const size_t descriptors = OpenDescriptors();
         watch->Arm();
         saved = Dictionary_WriteFile(dictionary, path_.c_str()) && saved;
         CallWatch::Disarm();
         const size_t count = MsgList_Count(messages);
         const std::string told =
             count != 0 ? MsgList_Get(messages, count - 1)->identifier : "msg.dictionary.";
         WriteFile(folder_.Path("told"),
                   (saved ? "saved " : "failed ") + told.substr(strlen("msg.dictionary.")));
         _exit(OpenDescriptors() != descriptors ? 1 : 0);
      }
      int status = -1;
      waitpid(child, &status, 0);
      return status == 0 ? ReadFile(folder_.Path("told")) : "status " + std::to_string(status);
   }

   ScratchFolder folder_;
   std::string path_ = folder_.Path("f");
};

TEST_F(DictionarySave, KilledAtAnyCallLeavesTheOldFileOrTheNew)
{
   std::map<std::string, int> found;
   std::string outcome;
   for (int call = 1; outcome != "saved "; call++) {
      CallWatch watch({"", call, CALL_KILLS});
      outcome = Save(&watch);
      struct stat attributes = {};
      EXPECT_EQ(0, stat(path_.c_str(), &attributes));
      EXPECT_EQ(0640U, attributes.st_mode & 07777);
      found[ReadFile(path_)]++;
   }
   EXPECT_TRUE(found.size() == 2 && found[OLD] > 10 && found[NEW] > 0);
   EXPECT_NE(0, access((path_ + "~").c_str(), F_OK));
}

TEST_F(DictionarySave, AnswersEveryFailedCallAsItShould)
{
   /* What the first failure of each call makes of the save; of those not named nothing. */
   const std::map<std::string, std::string> expected = {
       {"fdopen", "failed writefile.descToStream"}, {"setvbuf", "failed writefile.descToStream"},
       {"fseeko", "failed writefile.seek"},         {"fwrite", "failed writefile.write"},
       {"ftruncate", "failed writefile.truncate"},  {"fflush", "failed writefile.flush"},
       {"fsync", "failed writefile.sync"},          {"renameat", "saved writefile.atomicUpdate"}};
   CallWatch usual;
   EXPECT_EQ("saved ", Save(&usual));
   std::string order;
   for (const std::string &call : usual.Called()) {
      order += expected.contains(call) ? call + " " : "";
   }
   EXPECT_EQ("fdopen setvbuf fseeko fwrite ftruncate fflush fsync renameat fsync ", order);
   for (const auto &[call, outcome] : expected) {
      CallWatch watch({call, 1, ENOSPC});
      EXPECT_EQ(outcome, Save(&watch)) << call;
      EXPECT_EQ(outcome.starts_with("saved") ? NEW : OLD, ReadFile(path_)) << call;
      EXPECT_NE(0, access((path_ + "~").c_str(), F_OK)) << call;
   }
   for (const char *call : {"fwrite", "ftruncate", "fsync", "open"}) {
      CallWatch watch({call, 1, EINTR});
      EXPECT_EQ("saved ", Save(&watch)) << call;
   }
   CallWatch denied({"open", 1, EACCES});
   EXPECT_EQ("failed permissions", Save(&denied));
   CallWatch last({"fsync", 2, EIO});
   EXPECT_EQ("failed writefile.sync", Save(&last));
   EXPECT_EQ(NEW, ReadFile(path_));
}

TEST_F(DictionarySave, FailsWhereTheFileVanished)
{
   for (const char *call : {"realpath", "fstatat"}) {
      CallWatch watch({call}, [this](Call & /* call */) { unlink(path_.c_str()); });
      EXPECT_EQ("failed writefile.atomicUpdate", Save(&watch)) << call;
      EXPECT_NE(0, access(path_.c_str(), F_OK)) << call;
   }
}

/* What others do to the file and its folder while the lock is held, right before a call for the file. */
TEST_F(DictionarySave, EditsWhatWasThereBeforeTheLockOrNothing)
{
   const std::string made = ".encoding = \"UTF-8\"\na = \"2\"\n";
   const struct {
      const char *call;
      size_t argument;
      std::string prepare, change, after, told;
   } cases[] = {
       {"fstatat", 1, ":", "mv d e; ln -s o d", "a=o\n" + made + "a=o\nt\n", ""},
       {"linkat", 3, ":", "echo new >d/f", "new\na=o\nt\n", "msg.dictionary.writefile.atomicUpdate"},
       {"open", 0, "echo a=1 >d/f", "ln -sf ../o/f d/f", "a=o\na=o\nt\n", "msg.dictionary.load.openFailed"},
       /* No hard links there. */
       {"linkat", 3, ":", "", made + "a=o\nt\n", ""}};
   for (const auto &[call, argument, prepare, change, after, told] : cases) {
      const ScratchFolder folder;
      const auto shell = [&folder](const std::string &words) {
         setenv("WORDS", ("cd " + folder.Path("") + "; exec 2>&-; " + words).c_str(), 1);
         Program program("sh -c \"$WORDS\"");
         program.Status();
         return program.Output();
      };
      shell("mkdir d o; echo a=o >o/f; echo t >o/f~; " + prepare);
      CallWatch watch({call}, [&, done = false, place = argument, made = change](Call &bent) mutable {
         const auto *const path = reinterpret_cast<const char *>(bent.arguments[place]);
         if (done || !std::string_view(path).ends_with('f')) {
            return;
         }
         done = true;
         if (made.empty()) {
            bent.Fail(EPERM);
         }
         shell(made);
      });
      const std::string path = folder.Path("d/f");
      MsgList *const messages = MsgList_Create();
      const DictEditResult result = DictEdit_Run({path.c_str(), "a", "2", 100, 0}, messages);
      CallWatch::Disarm();
      /* Whether the lock was found again in the exchanged folder is no matter here. */
      EXPECT_TRUE(told.empty() || result == DictEditResult::FAILED) << change;
      EXPECT_EQ(told, MsgList_Count(messages) != 0 ? MsgList_Get(messages, 0)->identifier : "") << change;
      EXPECT_EQ(after, shell("cat d/f e/f o/f o/f~; ls e/f~; [ -L d ] || ls d/f~")) << change;
      MsgList_Free(messages);
   }
}

/* A file that is longer than its size. */
TEST(DictionaryFile, IsReadNoFurtherThanAllowed)
{
   SecretBuffer content;
   FileIOHandle file;
   EXPECT_FALSE(DictEdit_ReadFile(&file, "/proc/self/status", O_RDONLY, 10, content.get(), nullptr));
   EXPECT_EQ(EFBIG, errno);
   FileIO_Close(&file);
}

/* No block that is released still holds it. */
TEST(DictionarySecrets, AreZeroedBeforeTheyAreReleased)
{
   const std::string secret = "S3cr3t-that-stays-in-no-block";
   const ScratchFolder folder;
   const CapturedLog log;
   const std::string path = folder.Path("f");
   WriteFile(path, "# " + secret + "\na=" + secret + "\nb = \"|41" + secret + "\"\nc=" +
                       std::string(600, 'x') + secret + "\nd=\xE9" + secret + "\n.encoding = ISO-8859-1\n");
   int leaked = 0;
   CallWatch watch({"free"}, [&](Call &call) {
      auto *const block = reinterpret_cast<char *>(call.arguments[0]);
      const std::string_view content(block, block != nullptr ? malloc_usable_size(block) : 0);
      leaked += content.find(secret) != std::string_view::npos ? 1 : 0;
   });
   Dictionary *dictionary = Dictionary_Create();
   EXPECT_TRUE(Dictionary_Load(dictionary, path.c_str()));
   EXPECT_FALSE(Dictionary_GetBool(dictionary, false, "a"));
   Dictionary_SetString(dictionary, "other", 0, "b");
   Dictionary_SetString(dictionary, secret.c_str(), 0, "e");
   EXPECT_TRUE(Dictionary_WriteFile(dictionary, folder.Path("g").c_str()));
   Dictionary_Unset(dictionary, "c");
   EXPECT_FALSE(Dictionary_Append(dictionary, path.c_str()));
   EXPECT_FALSE(Dictionary_Unmarshal(dictionary, ("junk " + secret).c_str(), true, 0, nullptr));
   Dictionary_Free(dictionary);
   EXPECT_EQ(0, leaked);

   /* The watch itself works. */
   char *volatile unzeroed = strdup(secret.c_str());
   free(unzeroed);
   EXPECT_EQ(1, leaked);
}

} // namespace
