#include "base/owned.h"
#include "lib/file/fileIO.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/* A file "d/f", and a folder "v" of somebody else's, where nothing must happen. */
class FileReplacement : public testing::Test {
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

   [[nodiscard]] std::string At(const std::string &name) const
   {
      return scratch_.Path(name);
   }

   void Restore() const
   {
      for (const char *folder : {"d", "v", "moved"}) {
         fs::remove_all(At(folder));
      }
      fs::create_directory(At("d"));
      fs::create_directory(At("v"));
      WriteFile(At("d/f"), "old");
      WriteFile(At("v/f"), "precious");
      log_.Clear();
   }

   void Open(const char *name = "d/f")
   {
      FileIO_Close(&target_);
      ASSERT_TRUE(FileIO_Open(&target_, At(name).c_str(), O_RDWR, 0));
   }

   bool MakeTemporary()
   {
      return FileIO_AtomicTempFile(&target_, &temporary_) && write(temporary_.fd, "new", 3) == 3;
   }

   [[nodiscard]] std::string Log() const
   {
      return scratch_.Shorten(log_.TakeText());
   }

   void ExpectVictimUntouched() const
   {
      EXPECT_EQ(ReadFile(At("v/f")), "precious");
      EXPECT_FALSE(fs::exists(At("v/f~")));
   }

   const ScratchFolder scratch_;
   const CapturedLog log_;
   FileIOHandle target_;
   FileIOHandle temporary_;
};

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

TEST(FileIO, OpensRegularFilesWithoutWaitingAndMakesThemBehindNoLink)
{
   const ScratchFolder scratch;
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
   WriteFile(scratch.Path("file"), "content");
   fs::create_symlink("file", scratch.Path("link"));
   fs::create_symlink("absent", scratch.Path("dangling"));
   fs::create_directory(scratch.Path("folder"));
   ASSERT_EQ(mkfifo(scratch.Path("pipe").c_str(), 0600), 0);
   for (const auto &c : cases) {
      FileIOHandle handle;
      const bool opened =
          FileIO_OpenRegular(&handle, scratch.Path(c.name).c_str(), c.flags, 0600, c.maxBytes);
      EXPECT_EQ(opened ? 0 : errno, c.error) << c.name;
      EXPECT_EQ(handle.fd != -1 && handle.path == scratch.Path(c.name), opened) << c.name;
      EXPECT_TRUE(FileIO_Close(&handle));
   }
   EXPECT_FALSE(fs::exists(scratch.Path("absent")));
   EXPECT_EQ(fs::status(scratch.Path("new")).permissions(), fs::perms(0600));
}

} // namespace
