#include "lib/file/file.h"

#include "base/owned.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

/* The library's readdir, so that a test can act, or fail the call, right before one that it chooses, and change a name;
   the linker sends the calls here. */
/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
extern "C" struct dirent *__real_readdir(DIR *stream);
extern "C" struct dirent *__wrap_readdir(DIR *stream);

namespace {

int sReadsLeft; /* 0: none is chosen. */
std::function<int()> sAct;
const char *sReadAs = nullptr; /* What "file" is given out as. */

} // namespace

struct dirent *__wrap_readdir(DIR *stream)
{
   const int error = sReadsLeft != 0 && --sReadsLeft == 0 ? sAct() : 0;
   if (error != 0) {
      errno = error;
      return nullptr;
   }
   struct dirent *const entry = __real_readdir(stream);
   if (sReadAs != nullptr && entry != nullptr && entry->d_name == std::string_view("file")) {
      strcpy(entry->d_name, sReadAs);
   }
   return entry;
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

namespace {

using Names = std::vector<std::string>;

/* Before the n-th readdir from now on, acts; fails it with the error that act gives unless that is 0. */
void BeforeRead(int n, std::function<int()> act)
{
   sReadsLeft = n;
   sAct = std::move(act);
}

Names List(const std::string &path)
{
   char **names = nullptr;
   const int count = File_ListDirectory(path.c_str(), &names);
   Names list(static_cast<size_t>(std::max(count, 0)));
   std::transform(names, names + list.size(), list.begin(), Take);
   free(names);
   return list;
}

Names Sorted(Names list)
{
   std::sort(list.begin(), list.end());
   return list;
}

class FileTree : public testing::Test {
 protected:
   /* Someone who can be refused things, unlike root. */
   static void SetUpTestSuite()
   {
      ASSERT_TRUE(geteuid() != 0 || seteuid(65534) == 0);
   }

   static void TearDownTestSuite()
   {
      EXPECT_EQ(seteuid(getuid()), 0);
   }

   void SetUp() override
   {
      Folder("");
   }

   void TearDown() override
   {
      EXPECT_EQ(sReadsLeft, 0) << "never got so far";
   }

   /* All below the tree's top is made here; "" is the top. */
   [[nodiscard]] std::string At(const std::string &name) const
   {
      return name.empty() ? top_ : top_ + "/" + name;
   }

   void Folder(const std::string &name) const
   {
      fs::create_directories(At(name));
   }

   void File(const std::string &name) const
   {
      WriteFile(At(name), "content");
   }

   const ScratchFolder scratch_;
   const std::string top_ = scratch_.Path("top");
   const CapturedLog log_;
};

TEST_F(FileTree, RemovesEverythingAndFollowsNoLink)
{
   const std::string outside = scratch_.Path("outside");
   fs::create_directories(outside);
   WriteFile(outside + "/kept", "");
   for (const bool contentOnly : {true, false}) {
      Folder("a/b/empty");
      File("file");
      File("a/b/\xC3\xA9");
      fs::create_symlink(outside, At("a/toFolder"));
      fs::create_symlink(outside + "/kept", At("a/b/toFile"));
      fs::create_symlink("nowhere", At("dangling"));
      ASSERT_EQ(mkfifo(At("a/pipe").c_str(), 0600), 0);
      errno = EDOM;
      EXPECT_TRUE((contentOnly ? File_DeleteDirectoryContent : File_DeleteDirectoryTree)(top_.c_str()));
      EXPECT_EQ(errno, 0);
      EXPECT_EQ(fs::exists(top_), contentOnly);
      EXPECT_EQ(List(top_), Names());
   }
   EXPECT_EQ(List(outside), Names{"kept"});
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(FileTree, TellsWhatIsMissingFromWhatIsNoDirectory)
{
   const struct {
      const char *name;
      bool deleted;
      int error; /* EDOM: that from before. */
   } cases[] = {
       {"absent", true, EDOM},   {"file/below", true, EDOM},   {"dangling", true, EDOM},
       {"file", false, ENOTDIR}, {"toFolder", false, ENOTDIR}, /* Its contents go. */
   };
   Folder("real/a");
   File("file");
   fs::create_symlink("nowhere", At("dangling"));
   fs::create_symlink("real", At("toFolder"));
   for (const auto &c : cases) {
      errno = EDOM;
      EXPECT_EQ(File_DeleteDirectoryTree(At(c.name).c_str()), c.deleted) << c.name;
      EXPECT_EQ(errno, c.error) << c.name;
   }
   EXPECT_EQ(Sorted(List(top_)), (Names{"dangling", "file", "real", "toFolder"}));
   EXPECT_EQ(List(At("real")), Names());
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(FileTree, DeletesWhatItCanAndReportsTheLastFailure)
{
   for (const char *name : {"a", "b", "c", "d"}) {
      Folder(name);
      File(std::string(name) + "/file");
   }
   /* The last one succeeds, and only the one before fails with ENOTEMPTY. */
   const Names order = List(top_);
   File(order[2] + "/\xFF");
   chmod(At(order[0]).c_str(), 0555);
   chmod(At(order[1]).c_str(), 0444);
   chmod(scratch_.Path().c_str(), 0555); /* Removing the top would fail for another reason. */
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_EQ(Sorted(List(top_)), Sorted({order[0], order[1], order[2]}));

   log_.Clear();
   for (const std::string &name : {order[0], order[1]}) {
      EXPECT_FALSE(File_DeleteDirectoryTree(At(name).c_str()));
      EXPECT_EQ(errno, EACCES) << name;
      chmod(At(name).c_str(), 0755);
      EXPECT_EQ(List(At(name)), Names{"file"});
   }
   chmod(scratch_.Path().c_str(), 0755);
   EXPECT_EQ(log_.Text(), "FILE: FileDeleteDirectoryTree: Lstat of '" + At(order[1] + "/file") +
                              "' failed, errno = " + std::to_string(EACCES) + "\n");
}

TEST_F(FileTree, SkipsWhatVanishesAndFailsForWhatAppears)
{
   Folder("a");
   File("a/file");
   /* The top's four reads come first; the new entry is outside what the last reading of "a" has seen. */
   BeforeRead(8, [this] {
      fs::remove(At("a/file"));
      File("late");
      return 0;
   });
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_EQ(List(top_), Names{"late"});
   EXPECT_EQ(log_.Text(), "");
}

TEST_F(FileTree, DeletesNothingWhenTheListingBreaksOff)
{
   File("file");
   for (const int call : {1, 4}) {
      BeforeRead(call, [] { return EIO; });
      EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
      EXPECT_EQ(errno, EIO);
   }
   EXPECT_EQ(List(top_), Names{"file"});
   EXPECT_EQ(log_.Text(), "");
}

/* Made in memory where there is such a place: disks take minutes for so many folders. */
TEST_F(FileTree, DeletesTreesOfAnyDepth)
{
   char memory[] = "/dev/shm/tessel-XXXXXX";
   const std::string top = mkdtemp(memory) != nullptr ? memory : top_;
   OwnedDescriptor folder(open(top.c_str(), O_RDONLY | O_CLOEXEC));
   for (int level = 0; level < 20000; level++) {
      ASSERT_EQ(mkdirat(folder.get(), "deep", 0700), 0);
      ASSERT_EQ(mkdirat(folder.get(), "other", 0700), 0);
      folder.reset(openat(folder.get(), "deep", O_RDONLY | O_CLOEXEC));
   }
   folder.reset();
   struct rlimit before;
   getrlimit(RLIMIT_NOFILE, &before);
   const struct rlimit few = {64, before.rlim_max};
   setrlimit(RLIMIT_NOFILE, &few);
   const bool deleted = File_DeleteDirectoryTree(top.c_str());
   setrlimit(RLIMIT_NOFILE, &before);
   EXPECT_TRUE(deleted);
   EXPECT_FALSE(fs::exists(top));
}

TEST_F(FileTree, StopsWhereItsFolderWasMovedAway)
{
   const std::string outside = scratch_.Path("outside");
   fs::create_directories(outside);
   Folder("1/2/3/4/5/6/7/8");
   /* The first of four reads of the last folder. */
   BeforeRead(33, [&] {
      fs::rename(At("1/2/3"), outside + "/3");
      return 0;
   });
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ESTALE);
   EXPECT_EQ(List(outside), Names{"3"});
   EXPECT_EQ(List(outside + "/3"), Names());
   EXPECT_EQ(List(At("1")), Names{"2"});
}

TEST_F(FileTree, TakesNoNameForAPath)
{
   Folder("a");
   File("a/file");
   File("kept");
   sReadAs = "../kept";
   EXPECT_FALSE(File_DeleteDirectoryTree(At("a").c_str()));
   sReadAs = nullptr;
   EXPECT_EQ(errno, EINVAL);
   EXPECT_TRUE(fs::exists(At("kept")));
}

/* Another process, which exchanges two entries over and over while this lives. */
class Exchanger {
 public:
   Exchanger(const std::string &one, const std::string &other)
       : exchanges_(static_cast<std::atomic<int> *>(mmap(
             nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
         process_(fork())
   {
      while (process_ == 0) {
         usleep(1); /* Or the folder's lock would hardly ever be free. */
         *exchanges_ += renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
      }
   }

   ~Exchanger()
   {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
      munmap(exchanges_, sizeof *exchanges_);
   }

   Exchanger(const Exchanger &) = delete;
   Exchanger &operator=(const Exchanger &) = delete;

   [[nodiscard]] int Exchanges() const
   {
      return *exchanges_;
   }

 private:
   std::atomic<int> *exchanges_;
   pid_t process_;
};

/* A deletion that goes by paths loses what is outside in one round of ten. */
TEST_F(FileTree, IsNotLedOutsideByLinksPutInPlaceOfFolders)
{
   const std::string outside = scratch_.Path("outside");
   fs::create_directories(outside + "/folder");
   WriteFile(outside + "/folder/kept", "");
   const Exchanger attacker(At("a/folder"), At("a/link"));
   for (int rounds = 0; rounds < 300 || attacker.Exchanges() < 300; rounds++) {
      Folder("a/folder/folder");
      File("a/folder/folder/kept");
      fs::create_symlink(outside, At("a/link"));
      while (!File_DeleteDirectoryTree(top_.c_str())) {
      }
      ASSERT_TRUE(fs::exists(outside + "/folder/kept")) << rounds;
   }
}

TEST_F(FileTree, ListsEveryNameOnceAndNothingForNone)
{
   char **names = reinterpret_cast<char **>(this);
   EXPECT_EQ(File_ListDirectory(top_.c_str(), &names), 0);
   EXPECT_EQ(names, nullptr);
   EXPECT_EQ(File_ListDirectory(At("absent").c_str(), &names), -1);
   EXPECT_EQ(errno, ENOENT);

   Names expected = {"..."};
   File("...");
   for (int i = 0; i < 600; i++) {
      expected.push_back(std::to_string(i));
      File(expected.back());
   }
   EXPECT_EQ(Sorted(List(top_)), Sorted(expected));
}

TEST_F(FileTree, KeepsAndGivesAllUndecodableNamesAsOne)
{
   const std::string replacement = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";
   File("a\\\xFF");
   File("good");
   EXPECT_FALSE(File_DeleteDirectoryTree(top_.c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_FALSE(fs::exists(At("good")));
   EXPECT_EQ(log_.Text(), "Warning: File_WalkDirectoryNext: file '" + top_ +
                              "' in directory 'a\\x5C\\xFF' cannot be converted to UTF8\n");
   File("\xC0\x80");
   File(replacement);
   WalkDirContext *const walk = File_WalkDirectoryStart(top_.c_str());
   char *name = nullptr;
   EXPECT_TRUE(File_WalkDirectoryNext(walk, &name));
   EXPECT_EQ(Take(name), replacement);
   EXPECT_FALSE(File_WalkDirectoryNext(walk, &name));
   EXPECT_EQ(errno, 0);
   errno = EDOM;
   File_WalkDirectoryEnd(walk);
   File_WalkDirectoryEnd(nullptr);
   EXPECT_EQ(errno, EDOM);
}

TEST_F(FileTree, RemovesLinksAndTheirTargetsAsAsked)
{
   const struct {
      const char *name, *target;
      bool handleLink;
      int error;
      Names left;
   } cases[] = {
       {"target", "", true, 0, {"folder"}},
       {"link", "target", false, 0, {"folder", "target"}},
       {"link", "target", true, 0, {"folder"}},
       {"link", "folder", true, EISDIR, {"folder", "link", "target"}},
       {"link", "nowhere", true, 0, {"folder", "target"}},
       {"absent", "", false, ENOENT, {"folder", "target"}},
       {"absent", "", true, ENOENT, {"folder", "target"}},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(std::string(c.name) + " to " + c.target);
      File("target");
      Folder("folder");
      if (c.target[0] != '\0') {
         fs::create_symlink(At(c.target), At(c.name));
      }
      EXPECT_EQ(FileDeletion(At(c.name).c_str(), c.handleLink), c.error);
      EXPECT_EQ(Sorted(List(top_)), c.left);
      EXPECT_TRUE(File_DeleteDirectoryContent(top_.c_str()));
   }
   EXPECT_EQ(File_Unlink(nullptr), -1);
   EXPECT_EQ(errno, EFAULT);
}

} // namespace
