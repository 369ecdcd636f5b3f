#include "location/location.h"

#include "location/locationTables.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char VARIABLE[] = "TESSEL_TEST_ROOT";

constexpr LocationProcessTag TAGS[] = {{"one", 1}, {"zero", 0}, {"far", 1000}, {"one", 7}, {nullptr, 0}};
constexpr LocationKey KEYS[] = {{"rootDir", ""}, {"file", "/a/b"}, {"nothing", nullptr}, {nullptr, nullptr}};

std::string Executable()
{
   return fs::read_symlink("/proc/self/exe").string();
}

/* The module with a configuration of the test's own, and without a process tag at first. */
class Location : public testing::Test {
 protected:
   Location()
   {
      unsetenv(VARIABLE);
      const CapturedLog ignored;
      Location_Init("unknown");
   }

   ~Location() override
   {
      LocationSetConfig(product_);
   }

   const ScratchFolder folder_;
   const std::string lastUsed_ = folder_.Path("lastUsed");
   LocationConfig config_ = {
       .processTags = TAGS, .rootVariable = VARIABLE, .lastUsedFile = lastUsed_.c_str(), .keys = KEYS};
   const LocationConfig *product_ = LocationSetConfig(&config_);
};

TEST_F(Location, ProductTablesNameWhatTheDaemonUses)
{
   LocationSetConfig(&LOCATION_PRODUCT_CONFIG);
   const std::pair<const char *, const char *> rows[] = {
       {"rootDir", ""},
       {"idFile", "/Contents/Library/kestra-id"},
       {"serviceScriptFile", "/Contents/Library/services/services.sh"},
       {"icuDir", "/Contents/Library/icu"},
       {"prefDir", "/Contents/Library"},
       {"msgDir", "/Contents/Library/messages"},
       {"resourcesDir", "/Contents/Resources"},
   };
   for (const auto &[key, path] : rows) {
      EXPECT_STREQ(Location_GetRelative(key), path) << key;
   }
   EXPECT_EQ(Location_GetRelative("IDFILE"), nullptr);
   EXPECT_STREQ(Location_GetLastUsedFile(), "/Library/Preferences/Kestra Tessel/lastLocationUsed");
   EXPECT_EQ(Location_GetLookup(), Location_Get);

   const CapturedLog log;
   Location_Init("tessel-daemon");
   EXPECT_EQ(log.Text(), "");
   fs::path bundle = Executable();
   for (int i = 0; i < 4; i++) {
      bundle = bundle.parent_path();
   }
   ASSERT_NE(bundle, "/") << "a test program this near to the root has no bundle";
   EXPECT_EQ(Take(Location_Get("idFile")), bundle.string() + "/Contents/Library/kestra-id");
   Location_Init("tessel-daemon");
   EXPECT_EQ(log.Text(),
             "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag tessel-daemon.\n");
   EXPECT_EQ(Take(Location_Get("rootDir")), bundle.string());
}

TEST_F(Location, TheExecutableAloneSaysItWithAKnownTagOrNothingElse)
{
   config_.rootVariable = nullptr;
   config_.lastUsedFile = nullptr;
   EXPECT_EQ(Take(Location_Get("file")), Executable() + "/a/b");
   config_.rootVariable = VARIABLE;
   setenv(VARIABLE, "/x", 1);
   const CapturedLog log;
   Location_Init("zero");
   Location_Init("one");
   EXPECT_EQ(log.Text(), "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag zero.\n");
   EXPECT_EQ(Take(Location_Get("file")), fs::path(Executable()).parent_path().string() + "/a/b");
}

TEST_F(Location, TooManyComponentsAreReportedWithTheWholePath)
{
   const CapturedLog log;
   Location_Init("far");
   EXPECT_EQ(Location_Get("file"), nullptr);
   EXPECT_EQ(log.Text(), "Warning: LocationGetRoot: sUpCount (1000) is too large for " + Executable() + "\n");
}

TEST_F(Location, StrippingEverythingLeavesTheFileSystemRoot)
{
   const std::string path = Executable();
   const LocationProcessTag tags[] = {
       {"all", static_cast<uint32_t>(std::count(path.begin(), path.end(), '/'))}, {nullptr, 0}};
   config_.processTags = tags;
   Location_Init("all");
   EXPECT_EQ(Take(Location_Get("rootDir")), "");
   EXPECT_EQ(Take(Location_Get("file")), "/a/b");
}

TEST_F(Location, UnknownTagUsesTheVariableAsItIs)
{
   setenv(VARIABLE, "/x", 1);
   EXPECT_EQ(Take(Location_Get("rootDir")), "/x");
   EXPECT_EQ(Take(Location_Get("file")), "/x/a/b");
   setenv(VARIABLE, "", 1);
   const CapturedLog log;
   EXPECT_EQ(Take(Location_Get("file")), "/a/b") << "set but empty counts as set";
   EXPECT_EQ(Location_Get("absent"), nullptr);
   EXPECT_EQ(Location_Get("nothing"), nullptr);
   EXPECT_EQ(log.Text(), "");
}

TEST_F(Location, LastUsedFileIsTakenAsItIsUpTo1023Bytes)
{
   const std::pair<std::string, std::string> contents[] = {
       {"/root\n", "/root\n/a/b"},
       {"", "/a/b"},
       {std::string("/cut\0here", 9), "/cut/a/b"},
       {"/" + std::string(1022, 'r'), "/" + std::string(1022, 'r') + "/a/b"},
   };
   for (const auto &[content, path] : contents) {
      WriteFile(lastUsed_, content);
      EXPECT_EQ(Take(Location_Get("file")), path);
   }
}

TEST_F(Location, UnusableLastUsedFileIsReportedTwice)
{
   static constexpr char report[] = "LocationLastUsed: Failed opening lastLocationUsed.\n"
                                    "Warning: LocationGetRoot: Unable to determine the product location. It "
                                    "is likely that the product has "
                                    "never been run on this machine.\n";
   const CapturedLog missing;
   EXPECT_EQ(Location_Get("file"), nullptr);
   EXPECT_EQ(missing.Text(), report);

   const CapturedLog tooLong;
   WriteFile(lastUsed_, std::string(1024, 'r'));
   EXPECT_EQ(Location_Get("file"), nullptr);
   EXPECT_EQ(tooLong.Text(), report);

   const CapturedLog folder;
   config_.lastUsedFile = "/";
   EXPECT_EQ(Location_Get("file"), nullptr);
   EXPECT_EQ(folder.Text(), report);
}

TEST_F(Location, RefusesEnvironmentAndFileWhenUsersDiffer)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "only root can have an effective user other than the real one";
   }
   setenv(VARIABLE, "/x", 1);
   const CapturedLog log;
   ASSERT_EQ(seteuid(65534), 0);
   const std::string path = Take(Location_Get("file"));
   ASSERT_EQ(seteuid(0), 0);
   EXPECT_EQ(path, "<null>");
   EXPECT_EQ(log.Text(), "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n");
}

} // namespace
