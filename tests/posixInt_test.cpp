#include "lib/misc/posixInt.h"

#include "tests/support/testSupport.h"

#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

TEST(PosixEuidAccess, IsNotProvided)
{
   EXPECT_EQ(Posix_EuidAccess("/", F_OK), -1);
   EXPECT_EQ(errno, ENOSYS);
}

TEST(PosixReadLink, GivesTextsOfAnyLength)
{
   const ScratchFolder folder;
   const std::string link = folder.Path("link");
   for (const size_t length : {1U, 2047U, 2048U, 2049U, 3071U, 3072U, 4095U}) {
      const std::string text(length, 'x');
      ASSERT_EQ(symlink(text.c_str(), link.c_str()), 0);
      EXPECT_EQ(Take(Posix_ReadLink(link.c_str())), text);
      fs::remove(link);
   }
}

TEST(PosixReadLink, SaysWhyItFails)
{
   const ScratchFolder folder;
   const std::string undecodable = folder.Path("link");
   ASSERT_EQ(symlink("a\xFF", undecodable.c_str()), 0);
   const std::string paths[] = {folder.Path(), folder.Path("absent"), undecodable};
   const int errors[] = {EINVAL, ENOENT, ERANGE};
   for (size_t i = 0; i < std::size(paths); i++) {
      EXPECT_EQ(Take(Posix_ReadLink(paths[i].c_str())), "<null>");
      EXPECT_EQ(errno, errors[i]) << paths[i];
   }
   EXPECT_EQ(Take(Posix_ReadLink(nullptr)), "<null>");
   EXPECT_EQ(errno, EFAULT);
}

TEST(PosixRealPath, ResolvesLinksAndDots)
{
   const ScratchFolder folder;
   const std::string top = fs::canonical(folder.Path());
   fs::create_directories(top + "/real/\xC3\xA9");
   fs::create_symlink("real", top + "/link");
   EXPECT_EQ(Take(Posix_RealPath((top + "/./link/../link//\xC3\xA9/").c_str())), top + "/real/\xC3\xA9");
   EXPECT_EQ(Take(Posix_RealPath("/")), "/");
   EXPECT_EQ(Take(Posix_RealPath((top + "/absent").c_str())), "<null>");
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(Take(Posix_RealPath(nullptr)), "<null>");
   EXPECT_EQ(errno, EINVAL);
}

TEST(PosixRealPath, RefusesMoreThan1023Bytes)
{
   const ScratchFolder folder;
   std::string path = fs::canonical(folder.Path());
   while (path.size() < 900) {
      path += "/" + std::string(100, 'd');
   }
   const std::string fitting = path + "/" + std::string(1022 - path.size(), 'f');
   fs::create_directories(fitting);
   fs::create_directories(fitting + "f");
   EXPECT_EQ(Take(Posix_RealPath(fitting.c_str())), fitting);
   EXPECT_EQ(Take(Posix_RealPath((fitting + "f").c_str())), "<null>");
   EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(PosixRealPath, EndsTheProcessForAPathThatIsNotUtf8)
{
   const ScratchFolder folder;
   const std::string path = folder.Path("a\xFF");
   WriteFile(path, "");
   EXPECT_PANIC(Take(Posix_RealPath(path.c_str())),
                "Unicode_AllocWithLength: Couldn't convert invalid buffer .*a.xFF");
}

} // namespace
