#include "location/location.h"

#include "lib/misc/host/hostinfo.h"
#include "location/locationTables.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char VARIABLE[] = "TESSEL_TEST_ROOT";
constexpr LocationKey KEYS[] = {{"file", "/a/b"}, {"nothing", nullptr}, {nullptr, nullptr}};

/* The module with a configuration of the test's own, and without a process tag at first. */
class Location : public testing::Test {
 protected:
   Location()
   {
      Forget();
   }

   ~Location() override
   {
      LocationSetConfig(product_);
   }

   void Forget() const
   {
      unsetenv(VARIABLE);
      fs::remove(lastUsed_);
      Location_Init("unknown");
      log_.Clear();
   }

   /* Where the key leads for this tag, variable and last-used file, if there are any, and what is logged. */
   std::string Get(const char *tag, const char *variable, const std::optional<std::string> &lastUsed)
   {
      Forget();
      if (variable != nullptr) {
         setenv(VARIABLE, variable, 1);
      }
      if (lastUsed.has_value()) {
         WriteFile(lastUsed_, *lastUsed);
      }
      if (tag != nullptr) {
         Location_Init(tag);
      }
      const std::string path = Take(Location_Get("file"));
      return path + "|" + log_.Text();
   }

   const CapturedLog log_;
   const ScratchFolder folder_;
   const std::string lastUsed_ = folder_.Path("lastUsed");
   const fs::path path_ = fs::canonical(Take(Hostinfo_GetModulePath(1)));
   const std::string text_ = path_.string();
   const uint32_t depth_ = static_cast<uint32_t>(std::count(text_.begin(), text_.end(), '/'));
   const LocationProcessTag tags_[6] = {{"one", 1}, {"zero", 0},     {"far", depth_ + 1},
                                        {"one", 7}, {"all", depth_}, {nullptr, 0}};
   LocationConfig config_ = {
       .processTags = tags_, .rootVariable = VARIABLE, .lastUsedFile = lastUsed_.c_str(), .keys = KEYS};
   const LocationConfig *product_ = LocationSetConfig(&config_);
};

TEST_F(Location, ProductTablesNameWhatTheDaemonUses)
{
   LocationSetConfig(product_);
   for (const auto &[key, path] : {std::pair{"rootDir", ""},
                                   {"idFile", "/Contents/Library/kestra-id"},
                                   {"serviceScriptFile", "/Contents/Library/services/services.sh"},
                                   {"icuDir", "/Contents/Library/icu"},
                                   {"prefDir", "/Contents/Library"},
                                   {"msgDir", "/Contents/Library/messages"},
                                   {"resourcesDir", "/Contents/Resources"}}) {
      EXPECT_STREQ(Location_GetRelative(key), path) << key;
   }
   EXPECT_EQ(Location_GetRelative("IDFILE"), nullptr);
   EXPECT_STREQ(Location_GetLastUsedFile(), "/Library/Preferences/Kestra Tessel/lastLocationUsed");
   Location_Init("tessel-daemon");
   EXPECT_EQ(log_.Text(), "");
   ASSERT_GT(depth_, 4U) << "a program this near to the root has no bundle";
   const fs::path bundle = path_.parent_path().parent_path().parent_path().parent_path();
   EXPECT_EQ(Take(Location_GetLookup()("idFile")), bundle.string() + "/Contents/Library/kestra-id");
   Location_Init("tessel-daemon");
   EXPECT_EQ(log_.Text(),
             "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag tessel-daemon.\n");
}

TEST_F(Location, IsThatOfTheExecutableOrTheVariableOrTheLastUsedFile)
{
   const std::string none =
       "<null>|LocationLastUsed: Failed opening lastLocationUsed.\n"
       "Warning: LocationGetRoot: Unable to determine the product location. It is likely "
       "that the product has never been run on this machine.\n";
   EXPECT_EQ(Get("one", "/x", "/y"), path_.parent_path().string() + "/a/b|");
   EXPECT_EQ(Get("all", "/x", "/y"), "/a/b|");
   EXPECT_EQ(Get("far", "/x", "/y"), "<null>|Warning: LocationGetRoot: sUpCount (" +
                                         std::to_string(depth_ + 1) + ") is too large for " + text_ + "\n");
   EXPECT_EQ(Get("zero", "/x", "/y"),
             "/x/a/b|Warning: Location_Init: Invalid initialization: sUpCount 0, processTag zero.\n");
   EXPECT_EQ(Get(nullptr, "", "/y"), "/a/b|") << "set but empty counts as set";
   EXPECT_EQ(Get(nullptr, nullptr, "/root\n"), "/root\n/a/b|");
   EXPECT_EQ(Get(nullptr, nullptr, std::string("/cut\0here", 9)), "/cut/a/b|");
   EXPECT_EQ(Get(nullptr, nullptr, std::string(1023, 'r')), std::string(1023, 'r') + "/a/b|");
   EXPECT_EQ(Get(nullptr, nullptr, std::string(1024, 'r')), none);
   EXPECT_EQ(Get(nullptr, nullptr, std::nullopt), none);
   EXPECT_EQ(Location_Get("absent"), nullptr);
   EXPECT_EQ(Location_Get("nothing"), nullptr);
   config_.lastUsedFile = "/";
   EXPECT_EQ(Get(nullptr, nullptr, std::nullopt), none);
   config_.lastUsedFile = nullptr;
   EXPECT_EQ(Get(nullptr, nullptr, "/y"), text_ + "/a/b|");
   config_.rootVariable = nullptr;
   EXPECT_EQ(Get(nullptr, "/x", "/y"), text_ + "/a/b|");
}

TEST_F(Location, RefusesEnvironmentAndFileWhenUsersDiffer)
{
   if (geteuid() != 0) {
      GTEST_SKIP() << "only root can have an effective user other than the real one";
   }
   setenv(VARIABLE, "/x", 1);
   ASSERT_EQ(seteuid(65534), 0);
   const std::string path = Take(Location_Get("file"));
   ASSERT_EQ(seteuid(0), 0);
   EXPECT_EQ(path, "<null>");
   EXPECT_EQ(log_.Text(), "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n");
}

} // namespace
