#include "lib/config/preference.h"
#include "lib/misc/util.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *FOLDER = "Library/Preferences/Kestra Tessel/";

/* The files of the layers, under a /Library and a home folder of the test's own. */
class Preferences : public testing::Test {
 protected:
   void SetUp() override
   {
      if (getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
         GTEST_SKIP() << "needs a /Library of its own: tests/run-in-private-library";
      }
      for (const std::string &folder : {host_, home_, product_}) {
         std::filesystem::remove_all(folder);
         std::filesystem::create_directories(folder);
      }
      setenv("HOME", folder_.Path("home").c_str(), 1);
      setenv("KESTRA_LOCATION_ROOT_FULLPATH", folder_.Path("product").c_str(), 1);
   }

   ~Preferences() override
   {
      Preference_Exit();
   }

   std::string Relative(std::string text)
   {
      for (size_t at; (at = text.find(folder_.Path())) != std::string::npos;) {
         text.replace(at, folder_.Path().size(), "@");
      }
      return text;
   }

   std::string Log()
   {
      const std::string text = Relative(log_.Text());
      log_.Clear();
      return text;
   }

   ScratchFolder folder_;
   CapturedLog log_;
   std::string host_ = std::string("/") + FOLDER;
   std::string home_ = folder_.Path("home/") + FOLDER;
   std::string product_ = folder_.Path("product/Contents/Library/");
};

std::string Get(const char *name)
{
   return Take(Preference_GetString(nullptr, name));
}

TEST_F(Preferences, AreDecidedByTheFirstLayer)
{
   /* Each name is missing from one layer more, from the first on; "all" is in all of them. */
   const std::vector<std::string> files = {product_ + "settings", "",
                                           home_ + "preferences", home_ + "config",
                                           host_ + "config",      product_ + "config"};
   for (size_t layer = 0; layer < files.size(); layer++) {
      std::string content = "# a comment\n";
      for (size_t name = 1; name <= layer + 1; name++) {
         content += "from" + std::to_string(name) + " = \"" + std::to_string(layer + 1) + "\"\n";
      }
      if (!files[layer].empty()) {
         WriteFile(files[layer], content);
      }
   }
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_InitNoUser()) << "changes nothing";
   for (int name = 1; name <= 2; name++) {
      Preference_SetFromString(("from" + std::to_string(name) + "=2").c_str(), true);
   }
   for (int name = 1; name <= 6; name++) {
      const std::string key = "From" + std::to_string(name);
      EXPECT_FALSE(Preference_NotSet(key.c_str()));
      EXPECT_EQ(name, Preference_GetInt32(0, key.c_str()));
   }
   std::string told;
   Preference_Explain(
       "from4",
       [](const PreferenceLayer *layer, void *context) {
          *static_cast<std::string *>(context) +=
              std::string(layer->heading) + " " + (layer->value != nullptr ? layer->value : "-") +
              std::to_string(layer->line) + (layer->decides ? "!\n" : "\n");
       },
       &told);
   EXPECT_EQ(
       "GLOBAL SETTINGS -0\nNON PERSISTENT -0\nUSER PREFERENCES -0\nUSER DEFAULTS 45!\nHOST DEFAULTS 55\n"
       "SITE DEFAULTS 65\n",
       told);
   EXPECT_EQ("", Log());
   Preference_Log();
   const std::string logged = Log();
   EXPECT_EQ(0U, logged.find("DICT --- GLOBAL SETTINGS @/product/Contents/Library/settings\n"
                             "DICT                     from1 = \"1\"\n"
                             "DICT --- NON PERSISTENT (null)\n"
                             "DICT                     from1 = \"2\"\n"))
       << logged;
}

TEST_F(Preferences, ComeInEveryType)
{
   WriteFile(host_ + "config", "b=on\nt=auto\ni=0x10\nl=5000000000\nd=1.5\np=~/x\nbad=12abc\n");
   Preference_Init();
   EXPECT_TRUE(Preference_GetBool(false, "b"));
   EXPECT_EQ(-1, Preference_GetTriState(1, "t"));
   EXPECT_EQ(16, Preference_GetInt32(0, "i"));
   EXPECT_EQ(5000000000, Preference_GetInt64(0, "l"));
   EXPECT_EQ(1.5, Preference_GetDouble(0, "d"));
   EXPECT_EQ("@/home/x", Relative(Take(Preference_GetPathName(nullptr, "p"))));
   EXPECT_EQ("<null>", Take(Preference_GetPathName(nullptr, "none")));
   EXPECT_EQ(7, Preference_GetInt32(7, "bad"));

   EXPECT_TRUE(Preference_NotSet("none"));
   EXPECT_EQ("fallback", Take(Preference_GetString("fallback", "none")));
   EXPECT_EQ("fallback", Take(Preference_GetString("another", "none"))) << "kept with the user's preferences";
}

TEST_F(Preferences, AnswerWithFallbacksBeforeTheInitialisation)
{
   EXPECT_EQ(3, Preference_GetInt32(3, "%s"));
   EXPECT_EQ("x", Take(Preference_GetString("x", "s")));
   EXPECT_TRUE(Preference_NotSet("a"));
   Preference_SetFromString("a=1", true);
   Preference_Log();
   EXPECT_EQ("PREF early PreferenceGet(%s), using default\nPREF early PreferenceGet(s), using default\n",
             Log());
}

TEST_F(Preferences, AreSetInMemoryWithOrWithoutOverwriting)
{
   MsgList *messages = MsgList_Create();
   Preference_Init();
   Preference_SetFromString("a=1", false, messages);
   EXPECT_EQ(0U, MsgList_Count(messages));
   Preference_SetFromString("A=2", false, messages);
   EXPECT_EQ("1", Get("a"));
   EXPECT_EQ("Variable \"A\" is already defined.\n", Take(MsgList_ToString(messages)));
   Preference_SetFromString("a=2", true, messages);
   EXPECT_EQ("2", Get("a"));
   MsgList_Free(messages);
}

TEST_F(Preferences, LeaveTheUsersFilesOut)
{
   WriteFile(home_ + "config", "a=user\n");
   WriteFile(home_ + "preferences", "");
   WriteFile(product_ + "config", "a=site\n");
   WriteFile(product_ + "settings", "");
   WriteFile(host_ + "config", "");

   Preference_InitNoUser();
   EXPECT_EQ("site", Get("a"));
   Preference_Exit();
   EXPECT_EQ("", Log());

   WriteFile(host_ + "config", "DisableUserPreferences = yes\njunk junk\n");
   Preference_Init();
   EXPECT_EQ("site", Get("a"));
   EXPECT_EQ("DictionaryParseReadLine: syntax error with line, \"junk junk\".\n"
             "PREF Optional preferences file not found at /Library/Preferences/Kestra Tessel/config. Using "
             "default values.\n"
             "PREF Disabling user preferences because disableUserPreferences is set.\n",
             Log());
   Preference_Exit();

   std::filesystem::remove(host_ + "config");
   Preference_Init();
   EXPECT_EQ("user", Get("a"));
   EXPECT_EQ(
       "DictionaryLoad: Cannot open file \"/Library/Preferences/Kestra Tessel/config\": No such file or "
       "directory.\n"
       "PREF Optional preferences file not found at /Library/Preferences/Kestra Tessel/config. Using "
       "default values.\n",
       Log());
}

TEST_F(Preferences, IgnoreTheUserInASetUidProcess)
{
   WriteFile(host_ + "config", "");
   WriteFile(home_ + "config", "a=user\n");
   const pid_t child = fork();
   if (child == 0) {
      if (seteuid(65534) == -1) {
         _exit(77);
      }
      Preference_Init();
      _exit(Preference_NotSet("a") ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   if (WEXITSTATUS(status) == 77) {
      GTEST_SKIP() << "may not take on another effective user";
   }
   EXPECT_EQ(0, status);
   EXPECT_NE(std::string::npos, Log().find("setuid: ignoring user's config and preferences\n"));
}

TEST_F(Preferences, StandThreadsThatReadAndSet)
{
   WriteFile(home_ + "preferences", "number=1\ntext=\"x\"\n");
   std::vector<std::thread> threads;
   for (int thread = 0; thread < 4; thread++) {
      threads.emplace_back([thread] {
         Preference_Init();
         for (int i = 0; i < 300; i++) {
            const std::string name = "n" + std::to_string(i % 7);
            if (thread % 2 == 0) {
               Preference_SetFromString((name + "=" + std::to_string(i)).c_str(), true);
            }
            const int32_t value = Preference_GetInt32(i + 1, name.c_str());
            EXPECT_TRUE(value >= 0 && value <= 300);
            EXPECT_EQ(1, Preference_GetInt32(0, "number"));
            EXPECT_EQ("x", Get("text"));
            EXPECT_FALSE(Preference_NotSet("number"));
         }
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
}

TEST(UtilExpandHome, ReplacesALeadingTilde)
{
   setenv("HOME", "/h", 1);
   EXPECT_EQ("/h", Take(Util_ExpandHome("~")));
   EXPECT_EQ("/h/a/~", Take(Util_ExpandHome("~/a/~")));
   EXPECT_EQ("a/~/b", Take(Util_ExpandHome("a/~/b")));
   EXPECT_EQ("/root/a", Take(Util_ExpandHome("~root/a")));
   EXPECT_EQ("<null>", Take(Util_ExpandHome("~no-such-user-here/a")));
   EXPECT_EQ("<null>", Take(Util_ExpandHome(nullptr)));
   setenv("HOME", "", 1);
   EXPECT_NE("<null>", Take(Util_ExpandHome("~/a")));
   EXPECT_NE("/a", Take(Util_ExpandHome("~/a")));
}

} // namespace
