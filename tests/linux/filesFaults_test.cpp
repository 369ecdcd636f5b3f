#include "lib/file/fileIO.h"
#include "tests/support/callFaults.h"
#include "tests/support/filesFixture.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/xattr.h>

namespace {

/* Deletes "top" while the action is given the calls. 0 or the error. */
class FilesFaults : public Files {
 protected:
   int Delete(const std::set<std::string> &calls, const CallAction &action)
   {
      const CallWatch watch(calls, action);
      return File_DeleteDirectoryTree(At("top").c_str()) ? 0 : errno;
   }

   /* The calls with these numbers fail. */
   static CallAction Failing(const std::set<size_t> &numbers, int error)
   {
      return [=](Call &call) {
         if (numbers.contains(call.number)) {
            call.Fail(error);
         }
      };
   }

   /* Puts a link to a folder outside in the place of the folder. */
   void Swap(const std::string &folder) const
   {
      fs::rename(At(folder), At("moved"));
      fs::create_directory_symlink(At("outside"), At(folder));
   }
};

TEST_F(FilesFaults, TreesGoWhereTheListingTellsNoKind)
{
   Make({"outside/kept", "top/a/b/file", "top/a/link>../../outside", "top/file"});
   EXPECT_EQ(Delete({"readdir"},
                    [](Call &call) {
                       if (auto *entry = reinterpret_cast<struct dirent *>(call.Make()); entry != nullptr) {
                          entry->d_type = DT_UNKNOWN;
                       }
                    }),
             0);
   EXPECT_EQ(List(At("")), Names{"outside"});
   EXPECT_EQ(List(At("outside")), Names{"kept"});
}

TEST_F(FilesFaults, NoNameIsTakenForAPath)
{
   Make({"top/file", "kept"});
   EXPECT_EQ(Delete({"readdir"},
                    [](Call &call) {
                       auto *const entry = reinterpret_cast<struct dirent *>(call.Make());
                       if (entry != nullptr && entry->d_name[0] == 'f') {
                          strcpy(entry->d_name, "../kept");
                       }
                    }),
             EINVAL);
   EXPECT_EQ(List(At("")), (Names{"kept", "top"}));
}

TEST_F(FilesFaults, NothingGoesWhenTheListingBreaksOff)
{
   Make({"top/file"});
   EXPECT_EQ(Delete({"readdir"}, Failing({1}, EIO)), EIO);
   EXPECT_EQ(Delete({"readdir"}, Failing({4}, EIO)), EIO);
   EXPECT_EQ(List(At("top")), Names{"file"});
   char **names = nullptr;
   const CallWatch watch({"readdir"}, Failing({4}, EIO));
   EXPECT_EQ(File_ListDirectory(At("top").c_str(), &names), -1);
   EXPECT_EQ(errno, EIO);
   EXPECT_EQ(names, nullptr);
}

/* What is swapped before it is entered, while it is worked in, and while what is above it is not open. */
TEST_F(FilesFaults, WhatChangesMeanwhileIsNotFollowed)
{
   const struct {
      const char *call;
      size_t number; /* Before this call a link is put in the place of the folder. */
      const char *folder;
      int error;
      Names left; /* In the folder. */
   } cases[] = {{"openat", 1, "top/1", ENOTDIR, {"2"}},
                {"unlinkat", 1, "top/1/2/3", ENOTDIR, {}},
                {"openat", 4, "top/1", ESTALE, {}}};
   for (const auto &c : cases) {
      SCOPED_TRACE(c.call);
      fs::remove_all(At("moved"));
      fs::remove_all(At("top"));
      Make({"outside/2/kept", "top/1/2/3/file"});
      EXPECT_EQ(Delete({c.call},
                       [&](Call &call) {
                          if (call.number == c.number) {
                             Swap(c.folder);
                          }
                       }),
                c.error);
      EXPECT_EQ(List(At("outside/2")), Names{"kept"});
      EXPECT_EQ(List(At("moved")), c.left);
   }
}

TEST_F(FilesFaults, WhatVanishesIsSkippedAndWhatAppearsIsAFailure)
{
   Make({"top/a/b", "top/a/c"});
   EXPECT_EQ(Delete({"unlinkat"},
                    [this](Call &call) {
                       if (call.number == 1) {
                          fs::remove(At("top/a/b"));
                          fs::remove(At("top/a/c"));
                          Make({"top/late"});
                       }
                    }),
             ENOTEMPTY);
   EXPECT_EQ(List(At("top")), Names{"late"});
   EXPECT_EQ(Log(), "");
}

TEST_F(FilesFaults, UndecodableNamesStayAndAreGivenAsOne)
{
   const std::string replacement = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";
   Make({"top/a\\\xFF", "top/good"});
   EXPECT_FALSE(File_DeleteDirectoryTree(At("top").c_str()));
   EXPECT_EQ(errno, ENOTEMPTY);
   EXPECT_FALSE(fs::exists(At("top/good")));
   EXPECT_EQ(Log(), "Warning: File_WalkDirectoryNext: file '@/top' in directory 'a\\x5C\\xFF' cannot be "
                    "converted to UTF8\n");
   Make({"top/\xC0\x80", "top/" + replacement});
   WalkDirContext *const walk = File_WalkDirectoryStart(At("top").c_str());
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

TEST_F(FilesFaults, TheLastFailureIsReported)
{
   Make({"top/a", "top/b", "top/c"});
   EXPECT_EQ(Delete({"unlinkat"},
                    [](Call &call) {
                       if (call.number <= 4) {
                          call.Fail(call.number <= 2 ? EIO : EROFS);
                       }
                    }),
             EROFS);
   EXPECT_EQ(List(At("top")).size(), 2U);
}

/* Makes a temporary file for "top/f" while the action is given the calls: what is logged, with "#" for the error. */
class ReplacementFaults : public FilesFaults {
 protected:
   std::string Refusal(const char *call, int error, const CallAction &action)
   {
      fs::remove_all(At("top"));
      Make({"top/f", "outside/f"});
      FileIOHandle target;
      FileIOHandle temporary;
      EXPECT_TRUE(FileIO_Open(&target, At("top/f").c_str(), O_RDWR, 0));
      {
         const CallWatch watch({call}, action);
         EXPECT_FALSE(FileIO_AtomicTempFile(&target, &temporary));
      }
      EXPECT_EQ(errno, error);
      EXPECT_EQ(ReadFile(At("outside/f")), "content");
      EXPECT_EQ(List(At("outside")), Names{"f"});
      EXPECT_TRUE(FileIO_Close(&target));
      return Log(error);
   }
};

TEST_F(ReplacementFaults, ARefusalLeavesNothingBehindAndLeadsNowhereElse)
{
   const std::string failed = "FileIO_AtomicTempFile: Failed to ";
   const std::string io = "create temporary file, Input/output error (#). errno: #\n";
   EXPECT_EQ(Refusal("fstatat", EIO, Failing({1}, EIO)), failed + io);
   EXPECT_EQ(Refusal("openat", EIO, Failing({1}, EIO)), failed + io);
   EXPECT_EQ(Refusal("fchmod", EPERM, Failing({1}, EPERM)), failed + "chmod temporary file, errno: #\n");
   EXPECT_EQ(Refusal("fgetxattr", EIO, Failing({1}, EIO)), failed + "chmod temporary file, errno: #\n");
   EXPECT_EQ(Refusal("fchown", EPERM, Failing({1}, EPERM)), failed + "chown temporary file, errno: #\n");
   EXPECT_EQ(List(At("top")), Names{"f"});
   EXPECT_EQ(Refusal("openat", EEXIST, [this](Call &) { Make({"top/f~>../outside/f"}); }),
             failed + "create temporary file, File exists (#). errno: #\n");
   EXPECT_EQ(Refusal("open", ESTALE, [this](Call &) { Swap("top"); }),
             failed + "create temporary file, Stale file handle (#). errno: #\n");
}

TEST_F(ReplacementFaults, LetNobodyInBeforeTheFileIsItsOwners)
{
   Make({"top/f"});
   fs::permissions(At("top/f"), fs::perms(04666));
   FileIOHandle target;
   FileIOHandle temporary;
   fs::perms before{};
   ASSERT_TRUE(FileIO_Open(&target, At("top/f").c_str(), O_RDWR, 0));
   {
      const CallWatch watch({"fchown"}, [&](Call &) { before = fs::status(At("top/f~")).permissions(); });
      ASSERT_TRUE(FileIO_AtomicTempFile(&target, &temporary));
   }
   EXPECT_EQ(before, fs::perms(0600));
   EXPECT_EQ(fs::status(At("top/f~")).permissions(), fs::perms(04666));
   FileIO_AtomicDiscard(&temporary);
   EXPECT_TRUE(FileIO_Close(&target));
}

TEST_F(ReplacementFaults, TakeOverWhoIsLetInAndNotWhatTheFolderHandsDown)
{
   /* Version 2: the owner all, user 65534 all, group and mask and others nothing but the mask's all. */
   const char list[] = "\2\0\0\0"
                       "\1\0\7\0\377\377\377\377"
                       "\2\0\7\0\376\377\0\0"
                       "\4\0\0\0\377\377\377\377"
                       "\20\0\7\0\377\377\377\377"
                       "\40\0\0\0\377\377\377\377";
   Make({"top/f"});
   fs::permissions(At("top/f"), fs::perms(0640));
   if (setxattr(At("top").c_str(), "system.posix_acl_default", list, sizeof list - 1, 0) == -1) {
      GTEST_SKIP() << "the file system of the scratch folder has no access lists";
   }
   FileIOHandle target;
   FileIOHandle temporary;
   ASSERT_TRUE(FileIO_Open(&target, At("top/f").c_str(), O_RDWR, 0));
   ASSERT_TRUE(FileIO_AtomicTempFile(&target, &temporary));
   EXPECT_EQ(getxattr(At("top/f~").c_str(), "system.posix_acl_access", nullptr, 0), -1);
   EXPECT_EQ(fs::status(At("top/f~")).permissions(), fs::perms(0640));
   FileIO_AtomicDiscard(&temporary);
   EXPECT_TRUE(FileIO_Close(&target));
}

} // namespace
