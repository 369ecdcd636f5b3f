#include "base/owned.h"
#include "lib/file/file.h"
#include "lib/file/fileIO.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Names = std::multiset<std::string>;

Names List(const std::string &path)
{
   char **names = nullptr;
   const int count = File_ListDirectory(path.c_str(), &names);
   Names list;
   for (int i = 0; i < count; i++) {
      list.insert(Take(names[i]));
   }
   free(names);
   return list;
}

class Files : public testing::Test {
 protected:
   ~Files() override
   {
      EXPECT_TRUE(ordinary_ && seteuid(getuid()) == 0);
   }

   [[nodiscard]] std::string At(const std::string &name) const
   {
      return scratch_.Path(name);
   }

   void Folder(const std::string &name) const
   {
      fs::create_directories(At(name));
   }

   void File(const std::string &name, const std::string &content = "content") const
   {
      WriteFile(At(name), content);
   }

   void Link(const std::string &to, const std::string &name) const
   {
      fs::create_symlink(to, At(name));
   }

   /* What was logged, with "#" for the error. */
   [[nodiscard]] std::string Log(int error = 0) const
   {
      std::string text = scratch_.Shorten(log_.TakeText());
      const std::string number = std::to_string(error);
      for (size_t at = 0; (at = text.find(number, at)) != std::string::npos;) {
         text.replace(at, number.size(), "#");
      }
      return text;
   }

   /* Someone who can be refused things, unlike root. */
   const bool ordinary_ = geteuid() != 0 || seteuid(65534) == 0;
   const ScratchFolder scratch_;
   const CapturedLog log_;
};

TEST_F(Files, TreesGoWithEverythingAndNoLinkIsFollowed)
{
   Folder("outside");
   File("outside/kept");
   for (const bool contentOnly : {true, false}) {
      Folder("top/a/b/empty");
      File("top/file");
      File("top/a/b/\xC3\xA9");
      Link(At("outside"), "top/a/toFolder");
      Link(At("outside/kept"), "top/a/b/toFile");
      Link("nowhere", "top/dangling");
      ASSERT_EQ(mkfifo(At("top/a/pipe").c_str(), 0600), 0);
      errno = EDOM;
      EXPECT_TRUE((contentOnly ? File_DeleteDirectoryContent : File_DeleteDirectoryTree)(At("top").c_str()));
      EXPECT_EQ(errno, 0);
      EXPECT_EQ(fs::exists(At("top")), contentOnly);
      EXPECT_EQ(List(At("top")), Names());
   }
   EXPECT_EQ(List(At("outside")), Names{"kept"});
   EXPECT_EQ(Log(), "");
}

TEST_F(Files, WhatIsMissingIsToldFromWhatIsNoTree)
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
   Link("nowhere", "dangling");
   Link("real", "toFolder");
   for (const auto &c : cases) {
      errno = EDOM;
      EXPECT_EQ(File_DeleteDirectoryTree(At(c.name).c_str()), c.deleted) << c.name;
      EXPECT_EQ(errno, c.error) << c.name;
   }
   EXPECT_EQ(List(At("")), (Names{"dangling", "file", "real", "toFolder"}));
   EXPECT_EQ(List(At("real")), Names());
   EXPECT_EQ(Log(), "");
   EXPECT_FALSE(File_DeleteDirectoryTree(nullptr));
   EXPECT_EQ(errno, EFAULT);
}

TEST_F(Files, FailuresKeepNothingElse)
{
   for (const char *folder : {"top/closed/below", "top/unreadable/below", "top/a", "top/z"}) {
      Folder(folder);
      File(std::string(folder) + "/file");
   }
   chmod(At("top/closed/below").c_str(), 0555);
   chmod(At("top/unreadable/below").c_str(), 0444);
   chmod(At("").c_str(), 0555); /* Removing the top would fail for another reason. */
   EXPECT_FALSE(File_DeleteDirectoryTree(At("top").c_str()));
   EXPECT_EQ(errno, EACCES);
   EXPECT_EQ(List(At("top")), (Names{"closed", "unreadable"}));
   EXPECT_EQ(List(At("top/closed/below")), Names{"file"});
   EXPECT_EQ(Log(EACCES),
             "FILE: FileDeleteDirectoryTree: Lstat of '@/top/unreadable/below/file' failed, errno = #\n");
   for (const char *folder : {"", "top/closed/below", "top/unreadable/below"}) {
      chmod(At(folder).c_str(), 0755);
   }
}

/* Made in memory where there is such a place: disks take minutes for so many folders. */
TEST_F(Files, TreesOfAnyDepthTakeTwoDescriptors)
{
   char memory[] = "/dev/shm/tessel-XXXXXX";
   const std::string top = mkdtemp(memory) != nullptr ? memory : At("top");
   fs::create_directories(top);
   OwnedDescriptor folder(open(top.c_str(), O_RDONLY | O_CLOEXEC));
   for (int level = 0; level < 20000; level++) {
      ASSERT_EQ(mkdirat(folder.get(), "deep", 0700), 0);
      ASSERT_EQ(mkdirat(folder.get(), "other", 0700), 0);
      folder.reset(openat(folder.get(), "deep", O_RDONLY | O_CLOEXEC));
   }
   struct rlimit before;
   getrlimit(RLIMIT_NOFILE, &before);
   struct rlimit few = before;
   few.rlim_cur = static_cast<rlim_t>(folder.get()) + 2;
   folder.reset();
   setrlimit(RLIMIT_NOFILE, &few);
   const bool deleted = File_DeleteDirectoryTree(top.c_str());
   setrlimit(RLIMIT_NOFILE, &before);
   EXPECT_TRUE(deleted);
   EXPECT_FALSE(fs::exists(top));
}

TEST_F(Files, EveryNameIsListedOnceAndNothingForNone)
{
   char **names = reinterpret_cast<char **>(&names);
   Folder("top");
   EXPECT_EQ(File_ListDirectory(At("top").c_str(), &names), 0);
   EXPECT_EQ(names, nullptr);
   Names expected = {"..."};
   File("top/...");
   for (int i = 0; i < 300; i++) {
      File("top/" + *expected.insert(std::to_string(i)));
   }
   EXPECT_EQ(List(At("top")), expected);
   EXPECT_EQ(File_ListDirectory(At("top").c_str(), nullptr), 301);
   EXPECT_EQ(File_ListDirectory(At("absent").c_str(), &names), -1);
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(File_ListDirectory(nullptr, &names), -1);
   EXPECT_EQ(errno, EFAULT);
}

TEST_F(Files, LinksAndTheirTargetsGoAsAsked)
{
   Folder("folder");
   const int refusal = unlink(At("folder").c_str()) == -1 ? errno : 0; /* Differs between systems. */
   const struct {
      const char *name, *target;
      bool handleLink;
      int error;
      Names left;
   } cases[] = {
       {"target", "", true, 0, {"folder"}},
       {"link", "target", false, 0, {"folder", "target"}},
       {"link", "target", true, 0, {"folder"}},
       {"link", "folder", true, refusal, {"folder", "link", "target"}},
       {"link", "nowhere", true, 0, {"folder", "target"}},
       {"absent", "", true, ENOENT, {"folder", "target"}},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(std::string(c.name) + " to " + c.target);
      File("target");
      if (c.target[0] != '\0') {
         Link(At(c.target), c.name);
      }
      EXPECT_EQ(FileDeletion(At(c.name).c_str(), c.handleLink), c.error);
      EXPECT_EQ(List(At("")), c.left);
      fs::remove(At("link"));
   }
   EXPECT_EQ(File_Unlink(At("target").c_str()), 0);
   EXPECT_EQ(File_Unlink(nullptr), -1);
   EXPECT_EQ(errno, EFAULT);
   EXPECT_EQ(FileRemoveDirectory(nullptr), EFAULT);
   EXPECT_EQ(FileAttributes(nullptr, nullptr), EFAULT);
}

/* A file "d/f", and a folder "v" of somebody else's, where nothing must happen. */
class FileReplacement : public Files {
 protected:
   FileReplacement()
   {
      Restore();
   }

   ~FileReplacement() override
   {
      FileIO_Close(&target_);
      FileIO_Close(&temporary_);
   }

   void Restore() const
   {
      for (const char *folder : {"d", "v", "moved"}) {
         fs::remove_all(At(folder));
      }
      Folder("d");
      Folder("v");
      File("d/f", "old");
      File("v/f", "precious");
      log_.Clear();
   }

   void Open()
   {
      ASSERT_TRUE(FileIO_Close(&target_));
      ASSERT_TRUE(FileIO_Open(&target_, At("d/f").c_str(), O_RDWR, 0));
   }

   bool MakeTemporary()
   {
      return FileIO_AtomicTempFile(&target_, &temporary_) && write(temporary_.fd, "new", 3) == 3;
   }

   std::string Refusal(int error)
   {
      EXPECT_FALSE(MakeTemporary());
      EXPECT_EQ(errno, error);
      EXPECT_EQ(std::tuple(temporary_.fd, temporary_.path, temporary_.folder), std::tuple(-1, nullptr, -1));
      return Log(error);
   }

   void ExpectVictimUntouched() const
   {
      EXPECT_EQ(ReadFile(At("v/f")), "precious");
      EXPECT_FALSE(fs::exists(At("v/f~")));
   }

   FileIOHandle target_;
   FileIOHandle temporary_;
};

TEST_F(FileReplacement, TakesOverModeAndOwnerAndLeavesPlantedEntriesAlone)
{
   const mode_t mask = umask(077);
   for (const mode_t mode : {0666U, 0640U, 0751U}) {
      Restore();
      const bool root = getuid() == 0 && seteuid(0) == 0;
      ASSERT_TRUE(!root || chown(At("d/f").c_str(), 1234, 4321) == 0);
      chmod(At("d/f").c_str(), mode);
      Open();
      mode == 0666 ? Link("../v/f", "d/f~") : File("d/f~", "an old one");
      ASSERT_TRUE(MakeTemporary());
      ASSERT_TRUE(FileIO_AtomicUpdateEx(&temporary_, &target_));
      struct stat opened;
      struct stat found;
      ASSERT_TRUE(fstat(target_.fd, &opened) == 0 && lstat(At("d/f").c_str(), &found) == 0);
      EXPECT_EQ(opened.st_ino, found.st_ino);
      EXPECT_EQ(found.st_mode, S_IFREG | mode);
      EXPECT_TRUE(!root || (found.st_uid == 1234 && found.st_gid == 4321));
      EXPECT_EQ(ReadFile(At("d/f")), "new");
      EXPECT_EQ(std::tuple(temporary_.fd, temporary_.path),
                std::tuple(-1, fs::canonical(At("d")).string() + "/f~"));
      EXPECT_TRUE(FileIO_Close(&temporary_));
      ExpectVictimUntouched();
   }
   umask(mask);
}

TEST_F(FileReplacement, SaysWhyThereIsNone)
{
   const std::string routine = "FileIO_AtomicTempFile: Failed to ";
   Open();
   Folder("d/f~");
   const int isFolder = unlink(At("d/f~").c_str()) == -1 ? errno : 0;
   EXPECT_EQ(Refusal(isFolder), routine + "unlink temporary file, errno: #\n");
   fs::remove(At("d/f~"));
   chmod(At("d").c_str(), 0555);
   EXPECT_EQ(Refusal(EACCES), routine + "create temporary file, Permission denied (#). errno: #\n");
   chmod(At("d").c_str(), 0333);
   EXPECT_EQ(Refusal(EACCES), routine + "create temporary file, Permission denied (#). errno: #\n");
   chmod(At("d").c_str(), 0755);

   ASSERT_TRUE(MakeTemporary());
   fs::rename(At("d/f"), At("moved"));
   Folder("d/f/full");
   EXPECT_FALSE(FileIO_AtomicUpdateEx(&temporary_, &target_));
   const int error = errno;
   EXPECT_EQ(Log(error), "FileIO_AtomicUpdateEx: rename of '@/d/f~' to '@/d/f' failed #.\n");
   fs::remove(At("d/f~"));
   errno = EDOM;
   FileIO_AtomicDiscard(&temporary_);
   EXPECT_EQ(errno, EDOM);
   EXPECT_EQ(Log(ENOENT), routine + "clean up temporary file, errno: #\n");
   fs::remove_all(At("d/f"));
   EXPECT_EQ(Refusal(ENOENT), "FileIO_AtomicTempPath: File_FullPath of '@/d/f' failed.\n");
   ASSERT_EQ(mkfifo(At("d/f").c_str(), 0600), 0);
   Open();
   EXPECT_EQ(Refusal(EINVAL), "");
   close(std::exchange(target_.fd, -1));
   EXPECT_EQ(Refusal(EBADF), routine + "fstat '@/d/f', errno: #.\n");
}

TEST_F(FileReplacement, IsRefusedForAFileThatWasNotOpened)
{
   const struct {
      const char *moved,
          *link; /* What is moved away, and what a link in its place leads to; null: another file. */
   } cases[] = {{"d/f", "../v/f"}, {"d", "v"}, {"d/f", nullptr}};
   for (const auto &c : cases) {
      Restore();
      Open();
      fs::rename(At(c.moved), At("moved"));
      c.link != nullptr ? fs::create_symlink(c.link, At(c.moved)) : WriteFile(At(c.moved), "another");
      EXPECT_FALSE(FileIO_AtomicTempFile(&target_, &temporary_));
      EXPECT_EQ(errno, ESTALE);
      EXPECT_TRUE(Log().starts_with("FileIO_AtomicTempFile: Failed to create temporary file, "));
      ExpectVictimUntouched();
      EXPECT_FALSE(fs::exists(At("d/f~")));
   }
}

TEST_F(FileReplacement, StaysInItsFolderWhereverThePathLeads)
{
   for (const bool used : {true, false}) {
      Restore();
      Open();
      ASSERT_TRUE(MakeTemporary());
      fs::rename(At("d"), At("moved"));
      fs::create_symlink("v", At("d"));
      if (used) {
         EXPECT_TRUE(FileIO_AtomicUpdateEx(&temporary_, &target_));
         FileIO_Close(&temporary_);
      } else {
         FileIO_AtomicDiscard(&temporary_);
      }
      EXPECT_EQ(ReadFile(At("moved/f")), used ? "new" : "old");
      EXPECT_FALSE(fs::exists(At("moved/f~")));
      ExpectVictimUntouched();
      EXPECT_EQ(Log(), "");
   }
}

TEST_F(Files, AreOpenedWithoutWaitingAndMadeBehindNoLink)
{
   const struct {
      const char *name;
      int flags;
      uint64_t maxBytes;
      int error;
   } cases[] = {
       {"file", O_RDONLY, 7, 0},
       {"file", O_RDWR | O_CREAT, 6, EFBIG},
       {"link", O_RDWR | O_CREAT, 7, 0},
       {"folder", O_RDONLY, 9999999, EISDIR},
       {"pipe", O_RDONLY, 0, EINVAL},
       {"pipe", O_WRONLY | O_CREAT, 0, ENXIO},
       {"absent", O_RDWR, 0, ENOENT},
       {"dangling", O_RDWR, 0, ENOENT},
       {"dangling", O_RDWR | O_CREAT, 0, ELOOP},
       {"new", O_RDWR | O_CREAT, 0, 0},
   };
   File("file");
   Link("file", "link");
   Link("absent", "dangling");
   Folder("folder");
   ASSERT_EQ(mkfifo(At("pipe").c_str(), 0600), 0);
   for (const auto &c : cases) {
      FileIOHandle handle;
      const bool opened = FileIO_OpenRegular(&handle, At(c.name).c_str(), c.flags, 0600, c.maxBytes);
      EXPECT_EQ(opened ? 0 : errno, c.error) << c.name;
      EXPECT_EQ(handle.fd != -1 && handle.path == At(c.name), opened) << c.name;
      EXPECT_TRUE(FileIO_Close(&handle));
   }
   EXPECT_FALSE(fs::exists(At("absent")));
   EXPECT_EQ(fs::status(At("new")).permissions(), fs::perms(0600));
}

} // namespace
