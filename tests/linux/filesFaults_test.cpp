#include "lib/file/fileIO.h"
#include "tests/support/callFaults.h"
#include "tests/support/filesFixture.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>

namespace {

/* Deletes "top" while the action is given the calls. 0 or the error. */
class FilesFaults : public Files {
 protected:
   int Delete(const std::set<std::string> &calls, const CallAction &action)
   {
      const CallWatch watch(calls, action);
      return File_DeleteDirectoryTree(At("top").c_str()) ? 0 : errno;
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
   for (const size_t number : {1U, 4U}) {
      Make({"top/file"});
      EXPECT_EQ(Delete({"readdir"},
                       [&](Call &call) {
                          if (call.number == number) {
                             call.Fail(EIO);
                          }
                       }),
                EIO);
      EXPECT_EQ(List(At("top")), Names{"file"});
   }
   char **names = nullptr;
   const CallWatch watch({"readdir"}, [](Call &call) {
      if (call.number == 4) {
         call.Fail(EIO);
      }
   });
   EXPECT_EQ(File_ListDirectory(At("top").c_str(), &names), -1);
   EXPECT_EQ(errno, EIO);
   EXPECT_EQ(names, nullptr);
}

TEST_F(FilesFaults, WhatChangesMeanwhileIsNotFollowed)
{
   const struct {
      const char *call;
      size_t number;       /* The call before which a link is swapped in, */
      const char *swapped; /* for this folder. */
      int error;
      Names moved; /* What is left in the folder. */
   } cases[] = {
       {"openat", 1, "top/1", ENOTDIR, {"2"}},    /* Before it is entered. */
       {"unlinkat", 1, "top/1/2/3", ENOTDIR, {}}, /* While it is worked in: it is emptied where it is. */
       {"openat", 4, "top/1", ESTALE, {}}, /* While what is above is not open: the way back ends there. */
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.call);
      Make({"outside/2/kept", "top/1/2/3/file"});
      EXPECT_EQ(Delete({c.call},
                       [&](Call &call) {
                          if (call.number == c.number) {
                             Swap(c.swapped);
                          }
                       }),
                c.error);
      EXPECT_EQ(List(At("outside/2")), Names{"kept"});
      EXPECT_EQ(List(At("moved")), c.moved);
      fs::remove_all(At("moved"));
      fs::remove_all(At("top"));
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

/* Of several failures the last one counts. */
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

TEST_F(FilesFaults, AReplacementSurvivesWhatIsDoneBetweenItsSteps)
{
   const struct {
      const char *call;
      int acts; /* The error that it fails with; 0: a link is put in the place of a folder or file before it. */
      int error;
      const char *log;
   } cases[] = {
       {"open", 0, ESTALE, "create temporary file, Stale file handle (#). errno: #\n"},
       {"openat", 0, EEXIST, "create temporary file, File exists (#). errno: #\n"},
       {"fstatat", EIO, EIO, "create temporary file, Input/output error (#). errno: #\n"},
       {"fchmod", EPERM, EPERM, "chmod temporary file, errno: #\n"},
       {"fchown", EPERM, EPERM, "chown temporary file, errno: #\n"},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.call);
      Make({"top/f", "outside/f"});
      FileIOHandle target;
      FileIOHandle temporary;
      ASSERT_TRUE(FileIO_Open(&target, At("top/f").c_str(), O_RDWR, 0));
      {
         const CallWatch watch({c.call}, [&](Call &call) {
            if (c.acts != 0) {
               call.Fail(c.acts);
            } else if (call.name == "open") {
               Swap("top");
            } else {
               fs::create_symlink(At("outside/f"), At("top/f~"));
            }
         });
         EXPECT_FALSE(FileIO_AtomicTempFile(&target, &temporary));
      }
      EXPECT_EQ(errno, c.error);
      EXPECT_EQ(Log(c.error), std::string("FileIO_AtomicTempFile: Failed to ") + c.log);
      EXPECT_EQ(ReadFile(At("outside/f")), "content");
      EXPECT_EQ(List(At("outside")), Names{"f"});
      EXPECT_EQ(fs::exists(At("top/f~")), c.error == EEXIST);
      EXPECT_TRUE(FileIO_Close(&target));
      fs::remove_all(At("top"));
      fs::remove_all(At("moved"));
   }
}

} // namespace
