#include "lib/misc/hostinfo.h"

#include "tests/support/testSupport.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

TEST(HostinfoRosettaState, IsNativeWhereTheSystemKnowsNoTranslation)
{
   EXPECT_EQ(Hostinfo_RosettaState(), 0);
}

TEST(HostinfoGetModulePath, RefusesAnUnknownPrivilege)
{
   const CapturedLog log;
   EXPECT_EQ(Take(Hostinfo_GetModulePath(2)), "<null>");
   EXPECT_EQ(log.Text(), "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n");
}

TEST(HostinfoGetModulePath, GivesAPathOfUpTo1023Bytes)
{
   const CapturedLog log;
   const std::string path = fs::read_symlink("/proc/self/exe");
   const bool fits = path.size() <= 1023;
   for (const uint32_t privilege : {0U, 1U}) {
      log.Clear();
      EXPECT_EQ(Take(Hostinfo_GetModulePath(privilege)), fits ? path : "<null>");
      EXPECT_EQ(log.Text(),
                fits ? "" : "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n");
   }
}

/* The test above, in copies of this program at paths just short enough and just too long. */
TEST(HostinfoGetModulePath, DependsOnTheLengthOfThePath)
{
   char name[] = "copy";
   char filter[] = "--gtest_filter=HostinfoGetModulePath.GivesAPathOfUpTo1023Bytes";
   char *const argv[] = {name, filter, nullptr};
   for (const size_t length : {1023U, 1024U}) {
      const ScratchFolder scratch;
      std::string path = scratch.Path();
      while (path.size() < 900) {
         path += "/" + std::string(100, 'd');
      }
      fs::create_directories(path);
      path += "/" + std::string(length - path.size() - 1, 'p');
      fs::copy_file("/proc/self/exe", path);
      EXPECT_EQ(Hostinfo_Execute(path.c_str(), argv, true, nullptr, 0), 0);
   }
}

} // namespace
