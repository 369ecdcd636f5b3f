#include "lib/config/preference.h"
#include "lib/misc/host/home.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

/* The files of the layers, under a /Library and a home folder of the test's own. */
class Preferences : public testing::Test {
 protected:
   void SetUp() override
   {
      if (std::string(TESSEL_LIBRARY) == "/Library" && getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
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

   std::string Log()
   {
      return folder_.Shorten(log_.TakeText());
   }

   ScratchFolder folder_;
   CapturedLog log_;
   std::string host_ = TESSEL_LIBRARY "/Preferences/Kestra Tessel/";
   std::string home_ = folder_.Path("home/Library/Preferences/Kestra Tessel/");
   std::string product_ = folder_.Path("product/Contents/Library/");
};

std::string Get(const char *name, const char *fallback = nullptr)
{
   return Take(Preference_GetString(fallback, name));
}

/* What each layer says of a name: its value and line, and "!" behind the one that decides. */
std::string Explained(const char *name)
{
   std::string told;
   Preference_Explain(
       name,
       [](const PreferenceLayer *layer, void *context) {
          *static_cast<std::string *>(context) +=
              (layer->value != nullptr ? std::string(layer->value) + ":" + std::to_string(layer->line)
                                       : "-") +
              (layer->decides ? "! " : " ");
       },
       &told);
   return told;
}

TEST_F(Preferences, AreDecidedByTheFirstLayer)
{
   /* Each name is missing from one layer more, from the first on; "from6" is in all of them. */
   const std::vector<std::string> files = {product_ + "settings", "",
                                           home_ + "preferences", home_ + "config",
                                           host_ + "config",      product_ + "config"};
   for (size_t layer = 0; layer < files.size(); layer++) {
      std::string content = layer == 5 ? "" : "# a comment\n";
      for (size_t name = 1; name <= layer + 1; name++) {
         content += "from" + std::to_string(name) + " = \"" + std::to_string(layer + 1) + "\"\n";
      }
      if (!files[layer].empty()) {
         WriteFile(files[layer], content);
      }
   }
   ASSERT_TRUE(Preference_Init());
   ASSERT_TRUE(Preference_InitNoUser()) << "changes nothing";
   Preference_SetFromString("from1=2", true);
   Preference_SetFromString("from2=2", true);
   for (int name = 1; name <= 6; name++) {
      const std::string key = "From" + std::to_string(name);
      EXPECT_FALSE(Preference_NotSet(key.c_str()));
      EXPECT_EQ(name, Preference_GetInt32(0, key.c_str()));
   }
   EXPECT_EQ("- - - 4:5! 5:5 6:4 ", Explained("from4"));
   EXPECT_EQ("1:2! 2:0 3:2 4:2 5:2 6:1 ", Explained("from1"));
   EXPECT_EQ("new", Get("none", "new"));
   EXPECT_EQ("- - new:0! - - - ", Explained("none"));
   EXPECT_EQ("", Log());
   Preference_Log();
   const std::string log = Log();
   EXPECT_TRUE(log.starts_with("DICT --- GLOBAL SETTINGS @/product/Contents/Library/settings\n"
                               "DICT                     from1 = \"1\"\n"
                               "DICT --- NON PERSISTENT (null)\n"
                               "DICT                     from1 = \"2\"\n"));
   EXPECT_NE(std::string::npos, log.find("DICT --- USER DEFAULTS @/home/"));
}

TEST_F(Preferences, ComeInEveryTypeOnceTheyAreInitialised)
{
   EXPECT_EQ(3, Preference_GetInt32(3, "%s"));
   EXPECT_EQ("x", Get("s", "x"));
   EXPECT_TRUE(Preference_NotSet("a"));
   Preference_SetFromString("a=1", true);
   Preference_Log();
   EXPECT_EQ("PREF early PreferenceGet(%s), using default\nPREF early PreferenceGet(s), using default\n",
             Log());

   WriteFile(host_ + "config", "b=on\nt=auto\ni=0x10\nl=5000000000\nd=1.5\np=~/x\nbad=12abc\n"
                               "disableUserPreferences = \"ture\"\n");
   Preference_Init();
   EXPECT_NE(std::string::npos,
             Log().find("Warning: PREF " + host_ +
                        "config line 8: Value \"ture\" for variable \"disableUserPreferences\" is not a "
                        "valid boolean value. Using value \"FALSE\".\n"));
   EXPECT_TRUE(Preference_GetBool(false, "b"));
   EXPECT_EQ(-1, Preference_GetTriState(1, "t"));
   EXPECT_EQ(16, Preference_GetInt32(0, "i"));
   EXPECT_EQ(5000000000, Preference_GetInt64(0, "l"));
   EXPECT_EQ(1.5, Preference_GetDouble(0, "d"));
   EXPECT_EQ(folder_.Path("home/x"), Take(Preference_GetPathName(nullptr, "p")));
   EXPECT_EQ("<null>", Take(Preference_GetPathName(nullptr, "none")));
   EXPECT_EQ("", Log());
   EXPECT_EQ(7, Preference_GetInt32(7, "bad"));
   EXPECT_EQ(7, Preference_GetInt32(8, "bad"));
   EXPECT_EQ("Warning: PREF " + host_ +
                 "config line 7: Value \"12abc\" for variable \"bad\" is not a valid "
                 "integer value. Using value \"7\".\n",
             Log());

   MsgList *messages = MsgList_Create();
   Preference_SetFromString("a=1", false, messages);
   EXPECT_EQ(0U, MsgList_Count(messages));
   Preference_SetFromString("A=2", false, messages);
   EXPECT_EQ("1", Get("a"));
   EXPECT_EQ("Variable \"A\" is already defined.\n", Take(MsgList_ToString(messages)));
   MsgList_Free(messages);
}

TEST_F(Preferences, LeaveTheUsersFilesOut)
{
   WriteFile(home_ + "config", "a=user\n");
   WriteFile(product_ + "config", "a=site\n");
   for (const std::string &file : {home_ + "preferences", product_ + "settings", host_ + "config"}) {
      WriteFile(file, "");
   }
   Preference_InitNoUser();
   EXPECT_EQ("site", Get("a"));
   Preference_Exit();
   EXPECT_EQ("", Log());

   /* In a process with another effective user, if it may take one on. */
   const pid_t child = fork();
   if (child == 0) {
      const bool taken = seteuid(65534) == 0;
      Preference_Init();
      _exit(taken && !Preference_NotSet("a") ? 1 : 0);
   }
   int status = -1;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   EXPECT_EQ(0, status);
   EXPECT_TRUE(geteuid() != 0 || Log().ends_with("setuid: ignoring user's config and preferences\n"));
   log_.Clear();

   WriteFile(host_ + "config", "DisableUserPreferences = yes\njunk junk\n");
   Preference_Init();
   EXPECT_EQ("site", Get("a"));
   EXPECT_EQ("DictionaryParseReadLine: syntax error with line, \"junk junk\".\n"
             "PREF Optional preferences file not found at " +
                 host_ +
                 "config. Using default values.\n"
                 "PREF Disabling user preferences because disableUserPreferences is set.\n",
             Log());
   Preference_Exit();
   std::filesystem::remove(host_ + "config");
   Preference_Init();
   EXPECT_EQ("user", Get("a"));
}

TEST_F(Preferences, StandThreadsThatReadAndSet)
{
   WriteFile(home_ + "preferences", "text=\"x\"\n");
   OnThreads(4, [](size_t thread) {
      Preference_Init();
      for (int i = 0; i < 300; i++) {
         const std::string name = "n" + std::to_string(i % 7);
         if (thread % 2 == 0) {
            Preference_SetFromString((name + "=" + std::to_string(i)).c_str(), true);
         }
         const int32_t value = Preference_GetInt32(i + 1, name.c_str());
         EXPECT_TRUE(value >= 0 && value <= 300 && Get("text") == "x");
      }
   });
}

TEST(UtilExpandHome, ReplacesALeadingTilde)
{
   const auto expand = [](const char *path) { return Take(Util_ExpandHome(path)); };
   setenv("HOME", "/h", 1);
   EXPECT_EQ("/h /h/a/~ a/~/b", expand("~") + " " + expand("~/a/~") + " " + expand("a/~/b"));
   EXPECT_EQ("<null><null>", expand("~no-such-user-here/a") + expand(nullptr));
   EXPECT_EQ(0U, expand("~root/a").find('/'));
   setenv("HOME", "", 1);
   EXPECT_NE("<null>", expand("~/a"));
   EXPECT_NE("/a", expand("~/a"));
}

} // namespace
