#include "tests/support/testSupport.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

/* The exit status, the output and the complaints, one behind the other. */
using Outcome = std::vector<std::string>;

/* The program as it ships, on files of the test's own. */
class TesselDict : public testing::Test {
 protected:
   std::string Path(const std::string &name = "f")
   {
      return folder_.Path(name);
   }

   Outcome Run(std::vector<std::string> words)
   {
      words.insert(words.begin(), "tessel-dict");
      std::vector<char *> argv(words.size() + 1);
      std::transform(words.begin(), words.end(), argv.begin(), [](std::string &word) { return word.data(); });
      const pid_t child = fork();
      if (child == 0) {
         dup2(open(Path("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
         dup2(open(Path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
         execv(TESSEL_DICT, argv.data());
         _exit(127);
      }
      int status = 0;
      waitpid(child, &status, 0);
      return {std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1),
              folder_.Shorten(ReadFile(Path("out"))), folder_.Shorten(ReadFile(Path("err")))};
   }

   ScratchFolder folder_;
};

TEST_F(TesselDict, ReadsFiles)
{
   WriteFile(Path(), "# c\nb = \"x|0Ay\" # n\nguestinfo.a=1\n");
   EXPECT_EQ((Outcome{"0", "x\ny\n", ""}), Run({"get", Path(), "B"}));
   EXPECT_EQ((Outcome{"1", "", ""}), Run({"get", Path(), "none"}));
   EXPECT_EQ((Outcome{"0", "b = \"x|0Ay\"\nguestinfo.a = \"1\"\n", ""}), Run({"list", Path()}));
   EXPECT_EQ((Outcome{"0", "", ""}), Run({"check", Path()}));
   EXPECT_EQ((Outcome{"0",
                      "DICT                         b = \"x\ny\"\n"
                      "DICT               guestinfo.a = <not printed>\n",
                      ""}),
             Run({"dump", Path()}));
   EXPECT_EQ(0U, Run({"--help"})[1].find("usage: tessel-dict get FILE NAME\n"));
}

TEST_F(TesselDict, NamesFileAndLineOfWhatIsWrong)
{
   const std::string content = "a=1\nA=2\nx y\n";
   WriteFile(Path(), content);
   EXPECT_EQ((Outcome{"65", "",
                      "tessel-dict: File \"@/f\" line 2: Variable \"A\" is already defined.\n"
                      "tessel-dict: File \"@/f\" line 3: Syntax error.\n"}),
             Run({"check", Path()}));
   EXPECT_EQ("65", Run({"set", Path(), "b", "1"})[0]);
   EXPECT_EQ(content, ReadFile(Path()));
   EXPECT_EQ((Outcome{"66", "", "tessel-dict: Cannot open file \"@/none\": No such file or directory.\n"}),
             Run({"list", Path("none")}));
   EXPECT_EQ(
       (Outcome{"74", "",
                "tessel-dict: Cannot open configuration file \"@/none\": No such file or directory.\n"}),
       Run({"unset", Path("none"), "a"}));
   std::vector<std::vector<std::string>> misuses = {
       {}, {"get", Path()}, {"git"}, {"--socket", "x", "check", Path()}, {"set", "-", "a", "1"}};
   for (const char *name : {"", ".encoding", "Config.Encoding", "a b", "a=b", "#", "\xC3\xA9", "a\n"}) {
      misuses.push_back({"set", Path("new"), name, "1"});
   }
   for (const std::vector<std::string> &words : misuses) {
      EXPECT_EQ("64", Run(words)[0]) << testing::PrintToString(words);
   }
   EXPECT_FALSE(fs::exists(Path("new")));
}

TEST_F(TesselDict, ChangesNothingButWhatWasAsked)
{
   const struct {
      std::string before;
      std::vector<std::string> words; /* The file's path goes behind the first one. */
      std::string after;
      std::string status = "0";
   } cases[] = {
       {"\xEF\xBB\xBF#!/x\n\tA\t=\t1\t# n\n.other=1\nb=2",
        {"set", "a", "x\"y"},
        "\xEF\xBB\xBF#!/x\n\tA\t=\t\"x|22y\"\t# n\n.other=1\nb=2"},
       {"a=\"1\"#n\n", {"set", "a", ""}, "a=\"\"#n\n"},
       {"a =\nb=1\n", {"set", "a", "v"}, "a =\"v\"\nb=1\n"},
       {"a=1\n", {"set", "a", "1"}, "a=1\n"},
       {"a=1", {"set", "b", "2"}, "a=1\nb = \"2\"\n"},
       {"", {"set", "b", "2"}, "b = \"2\"\n"},
       {"\xEF\xBB\xBF",
        {"set", "b", "2"},
        "\xEF\xBB\xBF"
        "b = \"2\"\n"},
       {"# a=1\na=1\nb=2", {"unset", "A"}, "# a=1\nb=2"},
       {"b=1\na=2", {"unset", "a"}, "b=1\n"},
       {"a=1\n", {"unset", "b"}, "a=1\n", "1"},
       {".encoding=ISO-8859-1\na=\xE9\nb=1\n",
        {"set", "b", "2"},
        ".encoding=ISO-8859-1\na=\xE9\nb=\"2\"\n",
        "65"},
       {".encoding=ASCII\na=1\n", {"set", "a", "\xC3\xA9"}, "", "65"},
       {"a=1\n", {"set", "a", "\xFF"}, "", "65"},
       {"encryption.keySafe=k\nencryption.integrityProtected=yes\na=1\n", {"set", "a", "2"}, "", "65"}};
   for (const auto &c : cases) {
      std::vector<std::string> words = c.words;
      words.insert(words.begin() + 1, Path());
      WriteFile(Path(), c.before);
      chmod(Path().c_str(), 0604);
      const Outcome outcome = Run(words);
      /* Without a converter for the encoding the file stays as it is; with one it is written in it. */
      EXPECT_TRUE(outcome[0] == c.status || (outcome[0] == "0" && !c.after.empty())) << c.before;
      EXPECT_EQ(outcome[0] == "0" ? c.after : c.before, ReadFile(Path()));
      EXPECT_EQ("", outcome[1]);
      struct stat attributes;
      ASSERT_EQ(0, stat(Path().c_str(), &attributes));
      EXPECT_EQ(0604U, attributes.st_mode & 07777);
   }
   EXPECT_EQ((Outcome{"0", "", ""}), Run({"set", Path("new"), "a", "1"}));
   EXPECT_EQ(".encoding = \"UTF-8\"\na = \"1\"\n", ReadFile(Path("new")));
}

TEST_F(TesselDict, ExplainsWhatDecidesAPreference)
{
   if (getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
      GTEST_SKIP() << "needs a /Library of its own: tests/run-in-private-library";
   }
   const std::string folder = "/Library/Preferences/Kestra Tessel/";
   setenv("HOME", Path().c_str(), 1);
   setenv("KESTRA_LOCATION_ROOT_FULLPATH", Path("product").c_str(), 1);
   for (const std::string &made : {folder, Path() + folder, Path("product/Contents/Library")}) {
      fs::create_directories(made);
   }
   WriteFile(folder + "config", "# c\na = host\n");
   WriteFile(Path() + folder + "preferences", "\n\nA = \"user|22\"\n");
   WriteFile(Path("product/Contents/Library/settings"), "b=1\n");
   EXPECT_EQ(
       (Outcome{"0",
                "decided by USER PREFERENCES, @/f/Library/Preferences/Kestra Tessel/preferences line 3:\n"
                "a = \"user|22\"\n"
                "\n"
                "  GLOBAL SETTINGS   @/product/Contents/Library/settings\n"
                "  NON PERSISTENT    no file\n"
                "* USER PREFERENCES  @/f/Library/Preferences/Kestra Tessel/preferences line 3\n"
                "     a = \"user|22\"\n"
                "  USER DEFAULTS     @/f/Library/Preferences/Kestra Tessel/config (cannot be read)\n"
                "  HOST DEFAULTS     /Library/Preferences/Kestra Tessel/config line 2\n"
                "     a = \"host\"\n"
                "  SITE DEFAULTS     @/product/Contents/Library/config (cannot be read)\n",
                ""}),
       Run({"explain", "a"}));
   EXPECT_EQ("1", Run({"explain", "none"})[0]);
}

} // namespace
