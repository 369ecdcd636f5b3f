#include "lib/misc/host/posixInt.h"

#include "tests/support/testSupport.h"

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

TEST(PosixReadLink, GivesTextsOfAnyLength)
{
   const ScratchFolder folder;
   for (const size_t length : {1U, 2047U, 2048U, 3072U, 4095U}) {
      const std::string link = folder.Path(std::to_string(length));
      fs::create_symlink(std::string(length, 'x'), link);
      EXPECT_EQ(Take(Posix_ReadLink(link.c_str())), std::string(length, 'x'));
   }
}

TEST(PosixPaths, SayWhyTheyFail)
{
   const ScratchFolder folder;
   const std::string absent = folder.Path("absent");
   const std::string undecodable = folder.Path("link");
   fs::create_symlink("a\xFF", undecodable);
   using Convert = char *(*)(const char *path);
   for (const auto &[convert, path, error] : {std::tuple{Convert{Posix_ReadLink}, "/", EINVAL},
                                              {Posix_ReadLink, absent.c_str(), ENOENT},
                                              {Posix_ReadLink, undecodable.c_str(), ERANGE},
                                              {Posix_ReadLink, nullptr, EFAULT},
                                              {Posix_RealPath, absent.c_str(), ENOENT},
                                              {Posix_RealPath, nullptr, EINVAL}}) {
      EXPECT_EQ(Take(convert(path)), "<null>");
      EXPECT_EQ(errno, error) << (path != nullptr ? path : "null");
   }
}

TEST(PosixRealPath, ResolvesLinksAndDotsUpTo1023Bytes)
{
   const ScratchFolder folder;
   const std::string top = fs::canonical(folder.Path());
   std::string real = top + "/\xC3\xA9";
   while (real.size() < 900) {
      real += "/" + std::string(100, 'd');
   }
   real += "/" + std::string(1022 - real.size(), 'f');
   fs::create_directories(real + "f");
   fs::create_directories(real);
   fs::create_symlink(real, top + "/link");
   fs::create_symlink(real + "f", top + "/tooLong");
   EXPECT_EQ(Take(Posix_RealPath((top + "/./\xC3\xA9/..//link/").c_str())), real);
   EXPECT_EQ(Take(Posix_RealPath((top + "/tooLong").c_str())), "<null>");
   EXPECT_EQ(errno, ENAMETOOLONG);

   const std::string notUtf8 = folder.Path("a\xFF");
   WriteFile(notUtf8, "");
   EXPECT_PANIC(Take(Posix_RealPath(notUtf8.c_str())),
                "Unicode_AllocWithLength: Couldn't convert invalid buffer .*a.xFF");
}

} // namespace
