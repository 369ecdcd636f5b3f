#include "base/owned.h"
#include "lib/file/fileIO.h"
#include "tests/support/filesFixture.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>

namespace {

TEST_F(Files, TreesGoWithEverythingAndNoLinkIsFollowed)
{
   for (const bool contentOnly : {true, false}) {
      Make({"outside/kept", "top/a/b/empty/", "top/file", "top/a/b/\xC3\xA9", "top/a/toFolder>../../outside",
            "top/a/b/toFile>../../../outside/kept", "top/dangling>nowhere", "top/a/pipe|"});
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
   Make({"real/a/", "file", "dangling>nowhere", "toFolder>real"});
   const auto remove = [this](const char *name) {
      errno = EDOM;
      const bool deleted = File_DeleteDirectoryTree(At(name).c_str());
      return std::tuple(deleted, errno);
   };
   for (const char *name : {"absent", "file/below", "dangling"}) {
      EXPECT_EQ(remove(name), std::tuple(true, EDOM)) << name;
   }
   for (const char *name : {"file", "toFolder"}) { /* Behind the link the contents go. */
      EXPECT_EQ(remove(name), std::tuple(false, ENOTDIR)) << name;
   }
   EXPECT_EQ(List(At("")), (Names{"dangling", "file", "real", "toFolder"}));
   EXPECT_EQ(List(At("real")), Names());
   EXPECT_FALSE(File_DeleteDirectoryTree(nullptr));
   EXPECT_EQ(std::tuple(errno, Log()), std::tuple(EFAULT, ""));
}

TEST_F(Files, FailuresKeepNothingElse)
{
   Make({"top/closed/below/file", "top/unreadable/below/file", "top/a/file", "top/z/file"});
   Mode(0555, "top/closed/below");
   Mode(0444, "top/unreadable/below");
   Mode(0555, ""); /* Removing the top would fail for another reason. */
   EXPECT_FALSE(File_DeleteDirectoryTree(At("top").c_str()));
   EXPECT_EQ(errno, EACCES);
   EXPECT_EQ(List(At("top")), (Names{"closed", "unreadable"}));
   EXPECT_EQ(List(At("top/closed/below")), Names{"file"});
   EXPECT_EQ(Log(EACCES),
             "FILE: FileDeleteDirectoryTree: Lstat of '@/top/unreadable/below/file' failed, errno = #\n");
   for (const char *folder : {"", "top/closed/below", "top/unreadable/below"}) {
      Mode(0755, folder);
   }
}

/* Made in memory where there is such a place: disks take minutes for so many folders. */
TEST_F(Files, TreesOfAnyDepthTakeTwoDescriptors)
{
   char memory[] = "/dev/shm/tessel-XXXXXX";
   const std::string top = mkdtemp(memory) != nullptr ? memory : At("");
   OwnedDescriptor folder(open(top.c_str(), O_RDONLY | O_CLOEXEC));
   for (int level = 0; level < 20000; level++) {
      ASSERT_EQ(mkdirat(folder.get(), "deep", 0700), 0);
      ASSERT_EQ(mkdirat(folder.get(), "other", 0700), 0);
      folder.reset(openat(folder.get(), "deep", O_RDONLY | O_CLOEXEC));
   }
   struct rlimit before;
   getrlimit(RLIMIT_NOFILE, &before);
   const struct rlimit few = {static_cast<rlim_t>(folder.get()) + 2, before.rlim_max};
   folder.reset();
   setrlimit(RLIMIT_NOFILE, &few);
   EXPECT_TRUE(File_DeleteDirectoryContent(top.c_str()));
   setrlimit(RLIMIT_NOFILE, &before);
   EXPECT_TRUE(fs::is_empty(top));
   rmdir(top.c_str());
}

TEST_F(Files, EveryNameIsListedOnceAndNothingForNone)
{
   char **names = reinterpret_cast<char **>(&names);
   EXPECT_EQ(File_ListDirectory(At("").c_str(), &names), 0);
   EXPECT_EQ(names, nullptr);
   Names expected = {"..."};
   for (int i = 0; i < 300; i++) {
      expected.insert(std::to_string(i));
   }
   Make(expected);
   EXPECT_EQ(List(At("")), expected);
   EXPECT_EQ(File_ListDirectory(At("").c_str(), nullptr), 301);
   EXPECT_EQ(std::tuple(File_ListDirectory(At("absent").c_str(), &names), errno), std::tuple(-1, ENOENT));
   EXPECT_EQ(std::tuple(File_ListDirectory(nullptr, &names), errno), std::tuple(-1, EFAULT));
}

TEST_F(Files, LinksAndTheirTargetsGoAsAsked)
{
   Make({"folder/"});
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
      Make({"target"});
      if (c.target[0] != '\0') {
         Make({std::string(c.name) + ">" + At(c.target)});
      }
      EXPECT_EQ(FileDeletion(At(c.name).c_str(), c.handleLink), c.error);
      EXPECT_EQ(List(At("")), c.left);
      fs::remove(At("link"));
   }
   EXPECT_EQ(File_Unlink(At("target").c_str()), 0);
   EXPECT_EQ(std::tuple(File_Unlink(nullptr), errno), std::tuple(-1, EFAULT));
   EXPECT_EQ(std::tuple(FileRemoveDirectory(nullptr), FileAttributes(nullptr, nullptr)),
             std::tuple(EFAULT, EFAULT));
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
       {"absent", O_RDWR, 0, ENOENT},
       {"dangling", O_RDWR | O_CREAT, 0, ELOOP},
       {"new", O_RDWR | O_CREAT, 0, 0},
   };
   Make({"file", "link>file", "dangling>absent", "folder/", "pipe|"});
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

/* A file "d/f", and a folder "v" of somebody else's, where nothing must happen. */
class FileReplacement : public Files {
 protected:
   ~FileReplacement() override
   {
      FileIO_Close(&target_);
      FileIO_Close(&temporary_);
   }

   void Open()
   {
      for (const char *folder : {"d", "v", "moved"}) {
         fs::remove_all(At(folder));
      }
      Make({"d/f", "v/f"});
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
      EXPECT_EQ(List(At("v")), Names{"f"});
      EXPECT_EQ(ReadFile(At("v/f")), "content");
   }

   FileIOHandle target_;
   FileIOHandle temporary_;
   const std::string failed_ = "FileIO_AtomicTempFile: Failed to ";
};

TEST_F(FileReplacement, TakesOverModeAndOwnerAndLeavesPlantedEntriesAlone)
{
   const mode_t mask = umask(077);
   for (const char *planted : {"d/f~>../v/f", "d/f~", "d/f~|"}) {
      Open();
      const bool root = getuid() == 0 && seteuid(0) == 0;
      ASSERT_TRUE(!root || chown(At("d/f").c_str(), 1234, 4321) == 0);
      Mode(0666, "d/f");
      Make({planted});
      ASSERT_TRUE(MakeTemporary());
      ASSERT_TRUE(FileIO_AtomicUpdateEx(&temporary_, &target_));
      struct stat opened;
      struct stat found;
      ASSERT_TRUE(fstat(target_.fd, &opened) == 0 && lstat(At("d/f").c_str(), &found) == 0);
      EXPECT_EQ(std::tuple(opened.st_ino, opened.st_mode), std::tuple(found.st_ino, S_IFREG | 0666));
      EXPECT_TRUE(!root || (found.st_uid == 1234 && found.st_gid == 4321));
      EXPECT_EQ(ReadFile(At("d/f")), "new");
      EXPECT_EQ(temporary_.path, fs::canonical(At("d")).string() + "/f~");
      EXPECT_TRUE(FileIO_Close(&temporary_));
      ExpectVictimUntouched();
   }
   umask(mask);
}

TEST_F(FileReplacement, SaysWhyThereIsNone)
{
   const std::string denied = failed_ + "create temporary file, Permission denied (#). errno: #\n";
   Open();
   Make({"d/f~/"});
   const int isFolder = unlink(At("d/f~").c_str()) == -1 ? errno : 0;
   EXPECT_EQ(Refusal(isFolder), failed_ + "unlink temporary file, errno: #\n");
   fs::remove(At("d/f~"));
   for (const mode_t mode : {mode_t(0555), mode_t(0333)}) {
      Mode(mode, "d");
      EXPECT_EQ(Refusal(EACCES), denied);
   }
   Mode(0755, "d");
   ASSERT_TRUE(MakeTemporary());
   fs::remove(At("d/f"));
   Make({"d/f/full"});
   EXPECT_FALSE(FileIO_AtomicUpdateEx(&temporary_, &target_));
   EXPECT_EQ(Log(errno), "FileIO_AtomicUpdateEx: rename of '@/d/f~' to '@/d/f' failed #.\n");
   fs::remove(At("d/f~"));
   errno = EDOM;
   FileIO_AtomicDiscard(&temporary_);
   EXPECT_EQ(errno, EDOM);
   EXPECT_EQ(Log(ENOENT), failed_ + "clean up temporary file, errno: #\n");
   fs::remove_all(At("d/f"));
   EXPECT_EQ(Refusal(ENOENT), "FileIO_AtomicTempPath: File_FullPath of '@/d/f' failed.\n");
   Make({"d/f"});
   close(std::exchange(target_.fd, open("/dev/null", O_RDWR)));
   EXPECT_EQ(Refusal(EINVAL), "");
   close(std::exchange(target_.fd, -1));
   EXPECT_EQ(Refusal(EBADF), failed_ + "fstat '@/d/f', errno: #.\n");
}

TEST_F(FileReplacement, IsRefusedForAFileThatWasNotOpened)
{
   const struct {
      const char *moved, *put;
   } cases[] = {{"d/f", "d/f>../v/f"}, {"d", "d>v"}, {"d/f", "d/f"}};
   for (const auto &c : cases) {
      Open();
      fs::rename(At(c.moved), At("moved"));
      Make({c.put});
      EXPECT_TRUE(Refusal(ESTALE).starts_with(failed_ + "create temporary file, "));
      ExpectVictimUntouched();
      EXPECT_FALSE(fs::exists(At("d/f~")));
   }
}

TEST_F(FileReplacement, StaysInItsFolderWhereverThePathLeads)
{
   for (const bool used : {true, false}) {
      Open();
      ASSERT_TRUE(MakeTemporary());
      fs::rename(At("d"), At("moved"));
      Make({"d>v"});
      if (used) {
         EXPECT_TRUE(FileIO_AtomicUpdateEx(&temporary_, &target_));
         FileIO_Close(&temporary_);
      } else {
         FileIO_AtomicDiscard(&temporary_);
      }
      EXPECT_EQ(List(At("moved")), Names{"f"});
      EXPECT_EQ(ReadFile(At("moved/f")), used ? "new" : "content");
      ExpectVictimUntouched();
      EXPECT_EQ(Log(), "");
   }
}

} // namespace
