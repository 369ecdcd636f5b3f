#include "fuzz/support/fuzz.h"
#include "fuzz/support/scratchFolder.h"
#include "lib/misc/host/hostinfo.h"
#include "location/location.h"
#include "location/locationTables.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <filesystem>
#include <vector>

/* For tables, an environment and a last-used file of the input's making, a key resolves to a root that the rules allow and
   its path in the first row, or to nothing, and each failure is reported as often as it should be. */

namespace {

constexpr const char *VARIABLE = "TESSEL_FUZZ_ROOT";
constexpr size_t LAST_USED_MAX = 1024;

struct Input {
   FuzzedDataProvider data;
   std::deque<std::string> texts;

   /* One of few distinct texts, so that keys and tags meet, or one of any kind. */
   const char *Name()
   {
      return texts
          .emplace_back(data.ConsumeBool() ? std::string(1, data.ConsumeIntegralInRange('a', 'd'))
                                           : AsString(data.ConsumeRandomLengthString(8)))
          .c_str();
   }
};

/* The row of this name; the row that ends the table if there is none. */
template <typename Row>
const Row &Find(const std::vector<Row> &rows, const char *Row::*name, std::string_view text)
{
   return *std::find_if(rows.begin(), rows.end() - 1, [&](const Row &row) { return row.*name == text; });
}

/* The module's state, which outlives an input. */
uint32_t upCount = 0;

void CheckInit(const char *tag, uint32_t expected)
{
   const size_t logged = Fuzz_LogCount();
   Location_Init(tag);
   REQUIRE(Fuzz_LogCount() - logged == (expected == 0 || upCount != 0 ? 1 : 0));
   upCount = expected;
}

/* The root is the executable's path without that many components; there is none if it has fewer. */
void CheckStripped(const std::optional<std::string> &root)
{
   static const std::string executable = std::filesystem::canonical(Take(Hostinfo_GetModulePath(1)));
   const auto depth = std::count(executable.begin(), executable.end(), '/');
   REQUIRE(root.has_value() == (depth >= static_cast<ptrdiff_t>(upCount)));
   if (root) {
      const std::string rest = executable.substr(root->size());
      REQUIRE(executable.starts_with(*root) && (rest.empty() || rest[0] == '/'));
      REQUIRE(std::count(rest.begin(), rest.end(), '/') == static_cast<ptrdiff_t>(upCount));
   }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const ScratchFolder folder;
   static const std::string file = folder.Path("lastUsed");
   Input input = {FuzzedDataProvider(data, size), {}};
   std::vector<LocationProcessTag> tags;
   std::vector<LocationKey> keys;
   for (auto left = input.data.ConsumeIntegralInRange(0, 4); left > 0; left--) {
      tags.push_back({input.Name(), input.data.ConsumeIntegralInRange<uint32_t>(0, 12)});
      keys.push_back({input.Name(), input.data.ConsumeIntegralInRange(0, 7) == 0 ? nullptr : input.Name()});
   }
   tags.push_back({nullptr, 0});
   keys.push_back({nullptr, nullptr});
   const char *const variable = input.data.ConsumeBool() ? input.Name() : nullptr;
   const bool hasFile = input.data.ConsumeBool();
   const char *const tag = input.Name();
   const char *const key = input.Name();
   std::string lastUsed = input.data.ConsumeRemainingBytesAsString();
   if (lastUsed.starts_with('L')) {
      lastUsed.resize(LAST_USED_MAX - 2 + lastUsed.size() % 4, 'x');
   }
   variable != nullptr ? setenv(VARIABLE, variable, 1) : unsetenv(VARIABLE);
   WriteFile(file, lastUsed);

   const LocationConfig config = {.processTags = tags.data(),
                                  .rootVariable = VARIABLE,
                                  .lastUsedFile = hasFile ? file.c_str() : nullptr,
                                  .keys = keys.data()};
   const LocationConfig *const before = LocationSetConfig(&config);
   CheckInit(tag, Find(tags, &LocationProcessTag::tag, tag).upCount);
   const char *const relative = Find(keys, &LocationKey::key, key).relativePath;
   REQUIRE(Location_GetRelative(key) == relative);
   const size_t logged = Fuzz_LogCount();
   char *const path = Location_Get(key);
   const size_t reports = Fuzz_LogCount() - logged;
   std::optional<std::string> root;
   if (path != nullptr) {
      root = Take(path);
      REQUIRE(relative != nullptr && root->ends_with(relative));
      root->resize(root->size() - strlen(relative));
   }
   const bool ofFile = upCount == 0 && variable == nullptr && hasFile;
   REQUIRE(reports == (root || relative == nullptr ? 0U : ofFile ? 2U : 1U));
   if (relative == nullptr) {
      REQUIRE(!root);
   } else if (upCount == 0 && variable != nullptr) {
      REQUIRE(root == variable);
   } else if (ofFile) {
      REQUIRE(root ? *root == AsString(lastUsed) : lastUsed.size() >= LAST_USED_MAX);
      REQUIRE(!root || lastUsed.size() < LAST_USED_MAX);
   } else {
      CheckStripped(root);
   }
   LocationSetConfig(before);
   return 0;
}
