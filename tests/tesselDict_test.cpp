#include "tests/support/testSupport.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Outcome {
   int status;
   std::string output;
   std::string complaints;

   bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *out)
{
   *out << outcome.status << " output [" << outcome.output << "] complaints [" << outcome.complaints << ']';
}

/* The program as it ships, on files of the test's own. */
class TesselDict : public testing::Test {
 protected:
   std::string Path(const std::string &name = "f")
   {
      return folder_.Path(name);
   }

   Outcome Run(std::vector<std::string> words)
   {
      std::vector<char *> argv;
      words.insert(words.begin(), "tessel-dict");
      for (std::string &word : words) {
         argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      const pid_t child = fork();
      if (child == 0) {
         dup2(open(Path("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
         dup2(open(Path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
         execv(TESSEL_DICT, argv.data());
         _exit(127);
      }
      int status = 0;
      waitpid(child, &status, 0);
      return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Relative(ReadFile(Path("out"))),
              Relative(ReadFile(Path("err")))};
   }

   std::string Relative(std::string text)
   {
      for (size_t at; (at = text.find(folder_.Path())) != std::string::npos;) {
         text.replace(at, folder_.Path().size(), "@");
      }
      return text;
   }

   ScratchFolder folder_;
};

const Outcome NOTHING = {0, "", ""};

TEST_F(TesselDict, ReadsFiles)
{
   WriteFile(Path(), "# c\nb = \"x|0Ay\" # n\nguestinfo.a=1\n");
   EXPECT_EQ((Outcome{0, "x\ny\n", ""}), Run({"get", Path(), "B"}));
   EXPECT_EQ((Outcome{1, "", ""}), Run({"get", Path(), "none"}));
   EXPECT_EQ((Outcome{0, "b = \"x|0Ay\"\nguestinfo.a = \"1\"\n", ""}), Run({"list", Path()}));
   EXPECT_EQ(NOTHING, Run({"check", Path()}));
   EXPECT_EQ(
       (Outcome{0,
                "DICT                         b = \"x\ny\"\nDICT               guestinfo.a = <not printed>\n",
                ""}),
       Run({"dump", Path()}));
}

TEST_F(TesselDict, NamesFileAndLineOfWhatIsWrong)
{
   WriteFile(Path(), "a=1\nA=2\nx y\n");
   EXPECT_EQ((Outcome{65, "",
                      "tessel-dict: File \"@/f\" line 2: Variable \"A\" is already defined.\n"
                      "tessel-dict: File \"@/f\" line 3: Syntax error.\n"}),
             Run({"check", Path()}));
   EXPECT_EQ(65, Run({"set", Path(), "b", "1"}).status);
   EXPECT_EQ("a=1\nA=2\nx y\n", ReadFile(Path()));
   EXPECT_EQ((Outcome{66, "", "tessel-dict: Cannot open file \"@/none\": No such file or directory.\n"}),
             Run({"list", Path("none")}));
   EXPECT_EQ(
       (Outcome{74, "",
                "tessel-dict: Cannot open configuration file \"@/none\": No such file or directory.\n"}),
       Run({"unset", Path("none"), "a"}));
   EXPECT_EQ(64, Run({}).status);
   EXPECT_EQ(64, Run({"get", Path()}).status);
   EXPECT_EQ(64, Run({"git"}).status);
   EXPECT_EQ(64, Run({"--socket", "x", "check", Path()}).status);
   EXPECT_EQ(64, Run({"set", "-", "a", "1"}).status);
   for (const char *name : {"", ".encoding", "Config.Encoding", "a b", "a=b", "#", "\xC3\xA9", "a\n"}) {
      EXPECT_EQ(64, Run({"set", Path("new"), name, "1"}).status) << name;
   }
   EXPECT_FALSE(std::filesystem::exists(Path("new")));
   const Outcome help = Run({"--help"});
   EXPECT_EQ(0, help.status);
   EXPECT_EQ(0U, help.output.find("usage: tessel-dict get FILE NAME\n"));
}

TEST_F(TesselDict, ChangesNothingButWhatWasAsked)
{
   struct Case {
      const char *before;
      std::vector<std::string> words; /* The file's path goes behind the first one. */
      const char *after;
      int status = 0;
   };
   static const Case cases[] = {
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
       {"a=1\n", {"unset", "b"}, "a=1\n", 1},
       {".encoding=ISO-8859-1\na=\xE9\nb=1\n",
        {"set", "b", "2"},
        ".encoding=ISO-8859-1\na=\xE9\nb=\"2\"\n",
        65},
       {".encoding=ASCII\na=1\n", {"set", "a", "\xC3\xA9"}, ".encoding=ASCII\na=1\n", 65},
       {"a=1\n", {"set", "a", "\xFF"}, "a=1\n", 65},
       {"encryption.keySafe=k\nencryption.integrityProtected=yes\na=1\n",
        {"set", "a", "2"},
        "encryption.keySafe=k\nencryption.integrityProtected=yes\na=1\n",
        65},
   };
   for (const Case &c : cases) {
      std::vector<std::string> words = c.words;
      words.insert(words.begin() + 1, Path());
      WriteFile(Path(), c.before);
      chmod(Path().c_str(), 0604);
      const Outcome outcome = Run(words);
      /* Without a converter for the encoding the file stays as it is; with one it is written in it. */
      const bool converted = outcome.status == 0 && c.status == 65;
      EXPECT_TRUE(outcome.status == c.status || converted) << c.before << testing::PrintToString(outcome);
      EXPECT_EQ(outcome.status == 0 ? c.after : c.before, ReadFile(Path()));
      EXPECT_EQ("", outcome.output);
      struct stat attributes;
      ASSERT_EQ(0, stat(Path().c_str(), &attributes));
      EXPECT_EQ(0604U, attributes.st_mode & 07777);
   }
   EXPECT_EQ(NOTHING, Run({"set", Path("new"), "a", "1"}));
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
      std::filesystem::create_directories(made);
   }
   WriteFile(folder + "config", "# c\na = host\n");
   WriteFile(Path() + folder + "preferences", "\n\nA = \"user|22\"\n");
   WriteFile(Path("product/Contents/Library/settings"), "b=1\n");
   EXPECT_EQ(
       (Outcome{0,
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
   EXPECT_EQ(1, Run({"explain", "none"}).status);
}

} // namespace
