#include "lib/file/file.h"

#include "tests/support/testSupport.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

/* The library's readdir, so that a test can act, or fail the call, right before one that it chooses (counted from 1);
   the linker sends the calls here. */
/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
extern "C" struct dirent *__real_readdir(DIR *stream);
extern "C" struct dirent *__wrap_readdir(DIR *stream);

namespace {

constexpr int NO_CALL = -1;
constexpr uid_t ORDINARY_USER = 65534;

int sCallsLeft = NO_CALL;
int sInjectedError;
std::function<void()> sInterference;

} // namespace

struct dirent *__wrap_readdir(DIR *stream)
{
   if (sCallsLeft != NO_CALL && --sCallsLeft == 0) {
      sCallsLeft = NO_CALL;
      if (sInterference) {
         sInterference();
      }
      if (sInjectedError != 0) {
         errno = sInjectedError;
         return nullptr;
      }
   }
   return __real_readdir(stream);
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

namespace {

/* Before the n-th readdir from now on: acts, and fails the call if error is not 0. */
class AtRead {
 public:
   AtRead(int n, int error, std::function<void()> interference = {})
   {
      sCallsLeft = n;
      sInjectedError = error;
      sInterference = std::move(interference);
   }

   ~AtRead()
   {
      EXPECT_EQ(sCallsLeft, NO_CALL) << "never got so far";
      sCallsLeft = NO_CALL;
      sInterference = nullptr;
   }

   AtRead(const AtRead &) = delete;
   AtRead &operator=(const AtRead &) = delete;
};

constexpr int NO_SUCH_USER = -1;

/* The error of deleting a tree as someone who can be refused things, unlike root. */
int DeleteAsOrdinaryUser(const std::string &path)
{
   const bool root = geteuid() == 0;
   if (root && seteuid(ORDINARY_USER) != 0) {
      return NO_SUCH_USER;
   }
   const int error = File_DeleteDirectoryTree(path.c_str()) ? 0 : errno;
   if (root && seteuid(0) != 0) {
      abort();
   }
   return error;
}

class FileTree : public testing::Test {
 protected:
   void SetUp() override
   {
      chmod(scratch_.Path().c_str(), 0755);
      Folder("");
   }

   /* Lets the scratch folder be removed by an ordinary user. */
   void TearDown() override
   {
      chmod(scratch_.Path().c_str(), 0755);
      for (const char *name : {"sealed", "x", "y", "z"}) {
         chmod(At(name).c_str(), 0755);
      }
   }

   /* All below the tree's top is made here; "" is the top. */
   [[nodiscard]] std::string At(const std::string &name) const
   {
      return name.empty() ? top_ : top_ + "/" + name;
   }

   void Folder(const std::string &name, mode_t mode = 0755) const
   {
      fs::create_directories(At(name));
      chmod(At(name).c_str(), mode);
      Give(At(name));
   }

   void File(const std::string &name) const
   {
      WriteFile(At(name), "content");
      Give(At(name));
   }

   static bool Exists(const std::string &path)
   {
      struct stat attributes;
      return lstat(path.c_str(), &attributes) == 0;
   }

   const ScratchFolder scratch_;
   const std::string top_ = scratch_.Path("top");
   const std::string outside_ = scratch_.Path("outside");

 private:
   static void Give(const std::string &path)
   {
      if (geteuid() == 0 && chown(path.c_str(), ORDINARY_USER, static_cast<gid_t>(-1)) != 0) {
         abort();
      }
   }
};

using FileDeleteDirectoryTree = FileTree;
using FileListDirectory = FileTree;
using FileWalkDirectory = FileTree;
using FileDeletionOfOne = FileTree;

std::vector<std::string> List(const std::string &path)
{
   char **names = nullptr;
   const int count = File_ListDirectory(path.c_str(), &names);
   std::vector<std::string> list(static_cast<size_t>(std::max(count, 0)));
   std::transform(names, names + list.size(), list.begin(), Take);
   free(names);
   return list;
}

std::vector<std::string> Sorted(std::vector<std::string> list)
{
   std::sort(list.begin(), list.end());
   return list;
}

TEST_F(FileDeleteDirectoryTree, RemovesEverythingAndFollowsNoLink)
{
   const CapturedLog log;
   fs::create_directories(outside_);
   WriteFile(outside_ + "/kept", "");
   Folder("a/b/c");
   Folder("empty");
   File("file");
   File("a/b/\xC3\xA9");
   fs::create_symlink(outside_, At("a/toFolder"));
   fs::create_symlink(outside_ + "/kept", At("a/b/toFile"));
   fs::create_symlink("nowhere", At("dangling"));
   ASSERT_EQ(mkfifo(At("a/pipe").c_str(), 0600), 0);
   errno = EDOM;
   EXPECT_TRUE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, 0);
   EXPECT_FALSE(Exists(top_));
   EXPECT_TRUE(Exists(outside_ + "/kept"));
   EXPECT_EQ(log.Text(), "");
}

TEST_F(FileDeleteDirectoryTree, KeepsTheTopIfOnlyTheContentIsToGo)
{
   Folder("a/b");
   File("a/b/file");
   for (int i = 0; i < 2; i++) {
      EXPECT_TRUE(File_DeleteDirectoryContent(top_.c_str()));
      EXPECT_EQ(errno, 0);
      EXPECT_TRUE(fs::is_empty(top_));
   }
   EXPECT_TRUE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_FALSE(Exists(top_));
}

TEST_F(FileDeleteDirectoryTree, TakesAMissingTreeForDeleted)
{
   File("file");
   fs::create_symlink("nowhere", At("dangling"));
   for (const char *name : {"absent", "absent/deeper", "file/below", "dangling"}) {
      errno = EDOM;
      EXPECT_TRUE(File_DeleteDirectoryTree(At(name).c_str())) << name;
      EXPECT_EQ(errno, EDOM) << name;
   }
   EXPECT_EQ(Sorted(List(top_)), (std::vector<std::string>{"dangling", "file"}));
}

TEST_F(FileDeleteDirectoryTree, LeavesWhatIsNoDirectory)
{
   File("file");
   EXPECT_FALSE(File_DeleteDirectoryTree(At("file").c_str()));
   EXPECT_EQ(errno, ENOTDIR);
   EXPECT_TRUE(Exists(At("file")));
}

TEST_F(FileDeleteDirectoryTree, EmptiesWhatTheTopLinksToAndKeepsTheLink)
{
   Folder("real/a");
   fs::create_symlink("real", At("link"));
   EXPECT_FALSE(File_DeleteDirectoryTree(At("link").c_str()));
   EXPECT_EQ(errno, ENOTDIR);
   EXPECT_TRUE(Exists(At("link")));
   EXPECT_TRUE(fs::is_empty(At("real")));
}

TEST_F(FileDeleteDirectoryTree, LeavesNamesThatAreNotUtf8)
{
   const CapturedLog log;
   File("good");
   File("a\\\xFF");
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_FALSE(Exists(At("good")));
   EXPECT_TRUE(Exists(At("a\\\xFF")));
   EXPECT_EQ(log.Text(), "Warning: File_WalkDirectoryNext: file '" + top_ +
                             "' in directory 'a\\x5C\\xFF' cannot be converted to UTF8\n");
}

TEST_F(FileDeleteDirectoryTree, LogsAnEntryItCannotLookAt)
{
   const CapturedLog log;
   Folder("sealed", 0755);
   File("sealed/file");
   Folder("sealed", 0444);
   const int error = DeleteAsOrdinaryUser(top_);
   if (error == NO_SUCH_USER) {
      GTEST_SKIP() << "cannot become an ordinary user";
   }
   EXPECT_EQ(error, EACCES);
   EXPECT_EQ(log.Text(), "FILE: FileDeleteDirectoryTree: Lstat of '" + At("sealed/file") +
                             "' failed, errno = " + std::to_string(EACCES) + "\n");
}

TEST_F(FileDeleteDirectoryTree, DeletesWhatItCanAndReportsTheLastFailure)
{
   const CapturedLog log;
   for (int i = 0; i < 40; i++) {
      File("file" + std::to_string(i));
   }
   for (const char *name : {"x", "y", "z"}) {
      Folder(name);
   }
   /* Only the last of the three to be tried fails with ENOTEMPTY, and only files come after it. */
   std::vector<std::string> order = List(top_);
   ASSERT_GT(order.back().size(), 1U);
   std::erase_if(order, [](const std::string &name) { return name.size() > 1; });
   File(order[0] + "/file");
   Folder(order[0], 0555);
   Folder(order[1], 0);
   File(order[2] + "/\xFF");
   chmod(scratch_.Path().c_str(), 0555); /* Removing the top would fail for another reason. */

   const int error = DeleteAsOrdinaryUser(top_);
   if (error == NO_SUCH_USER) {
      GTEST_SKIP() << "cannot become an ordinary user";
   }
   EXPECT_EQ(error, ENOTEMPTY);
   EXPECT_EQ(Sorted(List(top_)), (std::vector<std::string>{"x", "y", "z"}));
   EXPECT_TRUE(Exists(At(order[0] + "/file")));
   EXPECT_EQ(log.Text().find("FILE:"), std::string::npos);
}

TEST_F(FileDeleteDirectoryTree, SkipsWhatVanishesAfterTheListing)
{
   const CapturedLog log;
   File("file");
   const AtRead last(4, 0, [this] { fs::remove(At("file")); });
   EXPECT_TRUE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_FALSE(Exists(top_));
   EXPECT_EQ(log.Text(), "");
}

TEST_F(FileDeleteDirectoryTree, FailsWhenAnEntryAppearsAfterTheListing)
{
   Folder("a");
   File("a/file");
   /* The top's four reads come first; the new entry is outside what the reading of "a" has seen. */
   const AtRead last(8, 0, [this] { File("late"); });
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_EQ(List(top_), std::vector<std::string>{"late"});
}

TEST_F(FileDeleteDirectoryTree, DeletesNothingWhenTheListingBreaksOff)
{
   const CapturedLog log;
   File("file");
   File("other");
   for (const int call : {1, 4, 5}) {
      char **names = nullptr;
      {
         const AtRead failing(call, EIO);
         EXPECT_EQ(File_ListDirectory(top_.c_str(), &names), -1);
         EXPECT_EQ(errno, EIO);
         EXPECT_EQ(names, nullptr);
      }
      const AtRead failing(call, EIO);
      EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
      EXPECT_EQ(errno, EIO);
   }
   EXPECT_EQ(List(top_).size(), 2U);
   EXPECT_EQ(log.Text(), "");
}

/* A chain of so many folders of one letter below the top. */
void MakeDeep(const std::string &top, int depth)
{
   int at = open(top.c_str(), O_RDONLY | O_DIRECTORY);
   for (int i = 0; i < depth; i++) {
      ASSERT_EQ(mkdirat(at, "d", 0755), 0);
      const int next = openat(at, "d", O_RDONLY | O_DIRECTORY);
      close(at);
      at = next;
   }
   close(at);
}

TEST_F(FileDeleteDirectoryTree, GoesAsDeepAsPathsReach)
{
   MakeDeep(top_, 2000);
   EXPECT_TRUE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_FALSE(Exists(top_));

   Folder("");
   MakeDeep(top_, 2100);
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENAMETOOLONG);
   EXPECT_TRUE(Exists(At("d/d/d")));
}

TEST_F(FileListDirectory, GivesEveryNameOnceAndNothingForNone)
{
   char **names = reinterpret_cast<char **>(this);
   EXPECT_EQ(File_ListDirectory(top_.c_str(), &names), 0);
   EXPECT_EQ(names, nullptr);
   EXPECT_EQ(errno, 0);

   std::vector<std::string> expected;
   for (int i = 0; i < 600; i++) {
      expected.push_back(std::to_string(i) + "n");
      File(expected.back());
   }
   expected.emplace_back("...");
   File("...");
   EXPECT_EQ(Sorted(List(top_)), Sorted(expected));
   EXPECT_EQ(File_ListDirectory(top_.c_str(), nullptr), 601);

   EXPECT_EQ(File_ListDirectory(At("absent").c_str(), &names), -1);
   EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileWalkDirectory, GivesAllUndecodableNamesAsOne)
{
   const CapturedLog log;
   const std::string replacement = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";
   for (const char *name : {"a\xFF", "b\xFF", "\xC0\x80", "good", replacement.c_str()}) {
      File(name);
   }
   std::vector<std::string> names;
   WalkDirContext *const walk = File_WalkDirectoryStart(top_.c_str());
   char *name = nullptr;
   while (File_WalkDirectoryNext(walk, &name)) {
      EXPECT_EQ(errno, 0);
      names.push_back(Take(name));
   }
   EXPECT_EQ(errno, 0);
   EXPECT_FALSE(File_WalkDirectoryNext(walk, nullptr));
   errno = EDOM;
   File_WalkDirectoryEnd(walk);
   File_WalkDirectoryEnd(nullptr);
   EXPECT_EQ(errno, EDOM);
   EXPECT_EQ(Sorted(names), (std::vector<std::string>{"good", replacement}));
   const std::string text = log.Text();
   EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);

   EXPECT_EQ(File_WalkDirectoryStart(At("good").c_str()), nullptr);
   EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FileDeletionOfOne, RemovesLinksAndTheirTargetsAsAsked)
{
   const struct {
      const char *name;
      const char *target; /* Null: a plain file. */
      bool handleLink;
      int error;
      const char *left;
   } cases[] = {
       {"plain", nullptr, false, 0, "folder target"},
       {"plain", nullptr, true, 0, "folder target"},
       {"link", "target", false, 0, "folder target"},
       {"link", "target", true, 0, "folder"},
       {"link", "folder", false, 0, "folder target"},
       {"link", "folder", true, EISDIR, "folder link target"},
       {"link", "nowhere", true, 0, "folder target"},
       {"absent", nullptr, false, ENOENT, "folder target"},
       {"absent", nullptr, true, ENOENT, "folder target"},
   };
   for (const auto &c : cases) {
      File("target");
      Folder("folder");
      if (c.target != nullptr) {
         fs::create_symlink(At(c.target), At(c.name));
      } else if (c.error == 0) {
         File(c.name);
      }
      EXPECT_EQ(FileDeletion(At(c.name).c_str(), c.handleLink), c.error) << c.name << " to " << c.target;
      std::string left;
      for (const std::string &name : Sorted(List(top_))) {
         left += (left.empty() ? "" : " ") + name;
      }
      EXPECT_EQ(left, c.left) << c.name << " to " << c.target;
      EXPECT_TRUE(File_DeleteDirectoryContent(top_.c_str()));
   }
   EXPECT_EQ(FileDeletion(nullptr, false), EFAULT);
   EXPECT_EQ(FileDeletion(nullptr, true), EFAULT);
}

TEST_F(FileDeletionOfOne, ReportsThroughErrno)
{
   const std::string loop = At("loop/below");
   Folder("folder/below");
   fs::create_symlink("loop", At("loop"));
   EXPECT_EQ(File_Unlink(loop.c_str()), -1);
   EXPECT_EQ(errno, ELOOP);
   File("file");
   EXPECT_EQ(File_Unlink(At("file").c_str()), 0);
   EXPECT_EQ(FileRemoveDirectory(At("folder").c_str()), ENOTEMPTY);
   EXPECT_EQ(FileRemoveDirectory(At("folder/below").c_str()), 0);
   struct stat attributes;
   EXPECT_EQ(FileAttributes(At("folder").c_str(), &attributes), 0);
   EXPECT_TRUE(S_ISDIR(attributes.st_mode));
   EXPECT_EQ(FileAttributes(At("file").c_str(), nullptr), ENOENT);
}

} // namespace
