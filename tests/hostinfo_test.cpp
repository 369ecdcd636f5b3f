#include "lib/misc/hostinfo.h"

#include "platform/processFacts.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>

namespace {

TEST(HostinfoRosettaState, IsNativeWhereTheSystemKnowsNoTranslation)
{
   int32_t value = 42;
   EXPECT_FALSE(ProcessFacts_SystemValue("sysctl.no_such_value", &value));
   EXPECT_EQ(errno, ENOENT);
   EXPECT_EQ(value, 42);
   EXPECT_EQ(Hostinfo_RosettaState(), 0);
}

TEST(HostinfoGetModulePath, RefusesAnUnknownPrivilege)
{
   const CapturedLog log;
   EXPECT_EQ(Take(Hostinfo_GetModulePath(2)), "<null>");
   EXPECT_EQ(Take(Hostinfo_GetModulePath(UINT32_MAX)), "<null>");
   const std::string line = "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n";
   EXPECT_EQ(log.Text(), line + line);
}

TEST(ProcessFactsExecutablePath, NeedsRoomForThePathAndItsEnd)
{
   const std::string path = Take(Hostinfo_GetModulePath(0));
   std::array<char, 1024> buffer;
   EXPECT_EQ(path, Take(Hostinfo_GetModulePath(1)));
   ASSERT_TRUE(ProcessFacts_ExecutablePath(buffer.data(), path.size() + 1));
   EXPECT_EQ(buffer.data(), path);
   EXPECT_FALSE(ProcessFacts_ExecutablePath(buffer.data(), path.size()));
}

/* A path of exactly so many bytes to a program in a new folder below this one. */
std::string PathOfLength(std::string folder, size_t length)
{
   while (folder.size() + 1 < length - 200) {
      folder += "/" + std::string(100, 'd');
   }
   std::filesystem::create_directories(folder);
   return folder + "/" + std::string(length - folder.size() - 1, 'p');
}

/* What the child-report program says of its own path when it lies at this one. */
std::string ReportFrom(const ScratchFolder &folder, const std::string &path)
{
   const std::string report = folder.Path("report");
   std::string arguments[] = {path, "path", report};
   char *const argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
   std::filesystem::remove(report);
   std::filesystem::copy_file(CHILD_REPORT_PROGRAM, path);
   EXPECT_EQ(Hostinfo_Execute(path.c_str(), argv, true, nullptr, 0), 0);
   return ReadFile(report);
}

TEST(HostinfoGetModulePath, RefusesAPathOfMoreThan1023Bytes)
{
   const ScratchFolder folder;
   const std::string fitting = PathOfLength(folder.Path("a"), 1023);
   const std::string tooLong = PathOfLength(folder.Path("b"), 1024);
   EXPECT_EQ(ReportFrom(folder, fitting), fitting);
   const std::string refusal = ReportFrom(folder, tooLong);
   EXPECT_NE(refusal.find("| Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\nnone"),
             std::string::npos)
       << refusal;
}

} // namespace
