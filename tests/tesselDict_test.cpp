#include "base/owned.h"
#include "lib/file/fileLock.h"
#include "tests/support/testSupport.h"

#include <filesystem>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

/* The program as it ships, on files of the test's own. */
class TesselDict : public testing::Test {
 protected:
   std::string Path(const std::string &name = "f")
   {
      return folder_.Path(name);
   }

   TesselDict()
   {
      setenv("F", Path().c_str(), 1);
      setenv("D", TESSEL_DICT, 1);
   }

   /* The exit status, and behind a blank all that was said. The words are the shell's, in which F is the file. */
   std::string Run(const std::string &words)
   {
      Program program("$D " + words);
      const int status = program.Status();
      return std::to_string(status) + " " + folder_.Shorten(program.Output());
   }

   ScratchFolder folder_;
};

TEST_F(TesselDict, ReadsFiles)
{
   WriteFile(Path(), "# c\nb = \"x|0Ay\" # n\nguestinfo.a=1\n");
   EXPECT_EQ("0 x\ny\n", Run("get $F B"));
   EXPECT_EQ("0 x\ny\n", Run("get - B <$F"));
   EXPECT_EQ("1 ", Run("get $F none"));
   EXPECT_EQ("0 b = \"x|0Ay\"\nguestinfo.a = \"1\"\n", Run("list $F"));
   EXPECT_EQ("0 DICT                         b = \"x\ny\"\n"
             "DICT               guestinfo.a = <not printed>\n",
             Run("dump $F"));
   EXPECT_TRUE(Run("--help").starts_with("0 usage: tessel-dict [OPTION...] get FILE NAME\n"));
}

TEST_F(TesselDict, SaysWhatIsWrong)
{
   const std::string content = "a=1\nA=2\nx y\n";
   WriteFile(Path(), content);
   EXPECT_EQ("65 tessel-dict: File \"@/f\" line 2: Variable \"A\" is already defined.\n"
             "tessel-dict: File \"@/f\" line 3: Syntax error.\n",
             Run("check $F"));
   EXPECT_TRUE(Run("set $F b 1").starts_with("65 "));
   EXPECT_EQ("66 tessel-dict: \"@/f\" is larger than 11 bytes; --max-size moves this limit.\n",
             Run("--max-size 11 set $F b 1"));
   EXPECT_EQ(content, ReadFile(Path()));
   EXPECT_EQ("66 tessel-dict: Cannot open file \"@/none\": No such file or directory.\n",
             Run("list $(dirname $F)/none"));
   /* None of these waits, and none makes a file. */
   ASSERT_EQ(0, mkfifo(Path("fifo").c_str(), 0600));
   fs::create_symlink("new", Path("dangling"));
   for (const char *command : {"get ${F%f}fifo a", "set ${F%f}fifo a 1", "set ${F%f}dangling a 1",
                               "unset ${F%f}new a", "get ${F%f} a"}) {
      EXPECT_TRUE(Run(command).starts_with("66 ")) << command;
   }
   EXPECT_EQ("64 tessel-dict: standard input cannot be edited\n", Run("set - a 1"));
   for (const char *misuse : {"", "get $F", "git", "--wait x check $F", "--max-size -1 check $F",
                              "set ${F%f}new '' 1", "set ${F%f}new Config.Encoding 1"}) {
      EXPECT_TRUE(Run(misuse).starts_with("64 ")) << misuse;
   }
   EXPECT_FALSE(fs::exists(Path("new")));
}

TEST_F(TesselDict, ChangesNothingButWhatWasAsked)
{
   const std::string mark = "\xEF\xBB\xBF";
   const struct {
      std::string before, words, after;
      int status = 0;
   } cases[] = {{mark + "#!/x\n\tA\t=\t1\t# n\n.other=1\nb=2", "set $F a 'x\"y'",
                 mark + "#!/x\n\tA\t=\t\"x|22y\"\t# n\n.other=1\nb=2"},
                {"a=\"1\"#n\n", "set $F a ''", "a=\"\"#n\n"},
                {"a =\nb=1\r\n", "set $F a v", "a =\"v\"\nb=1\r\n"},
                {"a=1", "set $F b 2", "a=1\nb = \"2\"\n"},
                {"a=1\n", "set $F b 2", "a=1\nb = \"2\"\n"},
                {mark, "set $F b 2", mark + "b = \"2\"\n"},
                {"# a=1\na=1\nb=2", "unset $F A", "# a=1\nb=2"},
                {"b=1\na=2", "unset $F a", "b=1\n"},
                {"a=1\n", "unset $F A", ""},
                {"a=1\n", "unset $F b", "a=1\n", 1},
                {".encoding=ASCII\na=1\n", "set $F a \xC3\xA9", ".encoding=ASCII\na=1\n", 65},
                {"a=1\n", "set $F a \xFF", "a=1\n", 65},
                {"encryption.keySafe=k\nencryption.integrityProtected=yes\n", "set $F a 2",
                 "encryption.keySafe=k\nencryption.integrityProtected=yes\n", 65}};
   for (const auto &[before, words, after, status] : cases) {
      WriteFile(Path(), before);
      chmod(Path().c_str(), 0604);
      const std::string outcome = Run(words);
      EXPECT_TRUE(outcome.starts_with(std::to_string(status) + " ")) << outcome;
      EXPECT_EQ(after, ReadFile(Path())) << before;
      struct stat attributes;
      ASSERT_EQ(0, stat(Path().c_str(), &attributes));
      EXPECT_EQ(0604U, attributes.st_mode & 07777);
   }
   EXPECT_EQ("0 ", Run("set ${F%f}new a 1"));
   EXPECT_EQ(".encoding = \"UTF-8\"\na = \"1\"\n", ReadFile(Path("new")));
}

TEST_F(TesselDict, WaitsForTheLockOfTheFileItself)
{
   WriteFile(Path("real"), "a=1\n");
   fs::create_symlink("real", Path());
   int error = 0;
   FileLockToken *const token =
       FileLock_Lock(fs::canonical(Path("real")).c_str(), true, FILE_LOCK_TRY_ONCE, {}, &error);
   ASSERT_NE(nullptr, token);
   const std::string busy = Run("--wait 0 set $F a 2");
   EXPECT_TRUE(busy.starts_with("75 ") &&
               busy.find("is locked by process " + std::to_string(getpid())) != std::string::npos)
       << busy;
   Program waiting("$D set $F a 2");
   EXPECT_EQ(0, FileLock_Unlock(token, {}));
   EXPECT_EQ(0, waiting.Status()) << waiting.Output();
   EXPECT_EQ("a=\"2\"\n", ReadFile(Path("real")));
}

/* Eight writers of different names, some of whose commands are killed: what a command said it did is in the file, and the
   file is whole at every moment. */
TEST_F(TesselDict, LosesNothingOfWhatItWrote)
{
   setenv("N", std::to_string(FromEnvironment("TESSEL_DICT_NAMES", 8)).c_str(), 1);
   setenv("WRITE", R"sh(
for w in 1 2 3 4 5 6 7 8; do (
   i=0
   while [ $i -lt $N ]; do
      i=$((i + 1))
      $D set $F w$w.$i $i & p=$!
      [ $((i % 4)) != $((w % 4)) ] || { sleep 0.0$((i * w % 10)); kill -9 $p; } 2>&-
      wait $p 2>&- && echo w$w.$i $i >>$F.$w
   done; echo >$F.done$w ) & done
until [ -e $F.done8 ] && [ $(ls $F.done? | wc -l) = 8 ]; do
   [ ! -e $F ] || { [ -s $F ] && $D check $F; } || echo torn
done
cat $F.[1-8] | while read name value; do
   [ "$($D get $F $name)" = $value ] || echo "lost $name"
done
[ $(cat $F.[1-8] | wc -l) -ge $N ] || echo idle)sh",
          1);
   Program writers("bash -c \"$WRITE\"");
   EXPECT_EQ(0, writers.Status());
   EXPECT_EQ(std::string::npos, writers.Output().find("torn")) << writers.Output();
   EXPECT_EQ(std::string::npos, writers.Output().find("lost")) << writers.Output();
   EXPECT_EQ(std::string::npos, writers.Output().find("idle")) << writers.Output();
}

TEST_F(TesselDict, ExplainsWhatDecidesAPreference)
{
   if (std::string(TESSEL_LIBRARY) == "/Library" && getenv("TESSEL_PRIVATE_LIBRARY") == nullptr) {
      GTEST_SKIP() << "needs a /Library of its own: tests/run-in-private-library";
   }
   const std::string folder = "Library/Preferences/Kestra Tessel/";
   const std::string host = TESSEL_LIBRARY "/Preferences/Kestra Tessel/";
   const std::string bundle = Path("b/Contents/Library/");
   for (const std::string &made : {host, Path("home/") + folder, bundle}) {
      fs::create_directories(made);
   }
   WriteFile(host + "config", "a = host\n");
   WriteFile(Path("home/") + folder + "preferences", "\n\nA = \"user|22\"\n");
   WriteFile(bundle + "settings", "b=1\n");
   fs::copy_file(TESSEL_DICT, bundle + "tessel-dict");
   setenv("HOME", Path("home").c_str(), 1);
   setenv("KESTRA_LOCATION_ROOT_FULLPATH", Path("elsewhere").c_str(), 1);
   const std::string elsewhere =
       "0 decided by USER PREFERENCES, @/home/Library/Preferences/Kestra Tessel/preferences line 3:\n"
       "a = \"user|22\"\n"
       "\n"
       "  GLOBAL SETTINGS   @/elsewhere/Contents/Library/settings (cannot be read)\n"
       "  NON PERSISTENT    no file\n"
       "* USER PREFERENCES  @/home/Library/Preferences/Kestra Tessel/preferences line 3\n"
       "     a = \"user|22\"\n"
       "  USER DEFAULTS     @/home/Library/Preferences/Kestra Tessel/config (cannot be read)\n"
       "  HOST DEFAULTS     " +
       host +
       "config line 1\n"
       "     a = \"host\"\n"
       "  SITE DEFAULTS     @/elsewhere/Contents/Library/config (cannot be read)\n";
   EXPECT_EQ(elsewhere, Run("explain a"));
   EXPECT_TRUE(Run("explain none").starts_with("1 "));
   /* What is too large or no file is not waited for, nor read. */
   ASSERT_EQ(0, mkfifo(Path("home/" + folder + "config").c_str(), 0600));
   EXPECT_EQ(elsewhere, Run("explain a"));
   EXPECT_TRUE(Run("-m 11 explain a").starts_with("0 decided by HOST DEFAULTS, "));
   setenv("D", (bundle + "tessel-dict").c_str(), 1);
   EXPECT_TRUE(Run("explain b").starts_with("0 decided by GLOBAL SETTINGS, ")) << Run("explain b");
}

} // namespace
