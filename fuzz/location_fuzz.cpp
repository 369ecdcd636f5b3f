#include "base/owned.h"
#include "fuzz/support/fuzz.h"
#include "location/location.h"
#include "location/locationTables.h"

#include <array>
#include <climits>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

/* For tables, an environment and a last-used file of the input's making, a key resolves to the path that the rules give,
   or to nothing, and each failure is reported as often as it should be. */

namespace {

constexpr const char *VARIABLE = "TESSEL_FUZZ_ROOT";
constexpr size_t LAST_USED_MAX = 1024;

/* The last-used file: its content, or none that can be read. */
class LastUsedFile {
 public:
   LastUsedFile() : file_(memfd_create("lastLocationUsed", MFD_CLOEXEC))
   {
      REQUIRE(file_.get() != -1);
      path_ = "/proc/self/fd/" + std::to_string(file_.get());
   }

   const char *Write(const std::string &content)
   {
      REQUIRE(ftruncate(file_.get(), 0) == 0);
      REQUIRE(pwrite(file_.get(), content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
      return path_.c_str();
   }

 private:
   OwnedDescriptor file_;
   std::string path_;
};

std::string Executable()
{
   std::array<char, PATH_MAX> path;
   const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
   REQUIRE(length > 0);
   return {path.data(), static_cast<size_t>(length)};
}

/* Without its last components; nothing if there are too few. */
std::optional<std::string> Stripped(std::string path, uint32_t count)
{
   for (; count > 0; count--) {
      const size_t slash = path.rfind('/');
      if (slash == std::string::npos) {
         return std::nullopt;
      }
      path.resize(slash);
   }
   return path;
}

/* Few distinct texts, so that keys and tags meet. */
std::string TakeName(FuzzedDataProvider *input)
{
   return input->ConsumeBool() ? std::string(1, input->ConsumeIntegralInRange('a', 'd'))
                               : AsString(input->ConsumeRandomLengthString(8));
}

struct Tables {
   std::vector<std::string> texts;
   std::vector<LocationProcessTag> tags;
   std::vector<LocationKey> keys;
};

void FillTables(FuzzedDataProvider *input, Tables *tables)
{
   const auto tagCount = input->ConsumeIntegralInRange<size_t>(0, 4);
   const auto keyCount = input->ConsumeIntegralInRange<size_t>(0, 4);
   for (size_t i = 0; i < tagCount + 2 * keyCount; i++) {
      tables->texts.push_back(TakeName(input));
   }
   const std::string *text = tables->texts.data();
   for (size_t i = 0; i < tagCount; i++) {
      tables->tags.push_back({(text++)->c_str(), input->ConsumeIntegralInRange<uint32_t>(0, 12)});
   }
   for (size_t i = 0; i < keyCount; i++, text += 2) {
      tables->keys.push_back(
          {text[0].c_str(), input->ConsumeIntegralInRange(0, 7) == 0 ? nullptr : text[1].c_str()});
   }
   tables->tags.push_back({nullptr, 0});
   tables->keys.push_back({nullptr, nullptr});
}

/* The module's state, which outlives an input. */
uint32_t upCount = 0;

void CheckInit(const Tables &tables, const std::string &tag)
{
   uint32_t expected = 0;
   for (const LocationProcessTag &row : tables.tags) {
      if (row.tag != nullptr && tag == row.tag) {
         expected = row.upCount;
         break;
      }
   }
   const size_t logged = Fuzz_LogCount();
   const uint32_t before = upCount;
   Location_Init(tag.c_str());
   upCount = expected;
   const bool reported = expected == 0 || before != 0;
   REQUIRE(Fuzz_LogCount() - logged == (reported ? 1 : 0));
   REQUIRE(!reported || tag.size() > 900 ||
           Fuzz_LastLog() == "Location_Init: Invalid initialization: sUpCount " + std::to_string(before) +
                                 ", processTag " + tag + ".\n");
}

struct Expected {
   std::optional<std::string> root;
   size_t reports;
};

Expected ExpectedRoot(const LocationConfig &config, const std::optional<std::string> &variable,
                      const std::string &lastUsed)
{
   if (upCount == 0 && config.rootVariable != nullptr && variable) {
      return {variable, 0};
   }
   if (upCount == 0 && config.lastUsedFile != nullptr) {
      return lastUsed.size() >= LAST_USED_MAX ? Expected{std::nullopt, 2} : Expected{AsString(lastUsed), 0};
   }
   const std::optional<std::string> root = Stripped(Executable(), upCount);
   return {root, root ? 0U : 1U};
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static LastUsedFile lastUsedFile;
   FuzzedDataProvider input(data, size);
   Tables tables;
   FillTables(&input, &tables);
   const bool hasVariable = input.ConsumeBool();
   const bool hasFile = input.ConsumeBool();
   std::optional<std::string> variable;
   if (input.ConsumeBool()) {
      variable = AsString(input.ConsumeRandomLengthString(40));
      REQUIRE(setenv(VARIABLE, variable->c_str(), 1) == 0);
   } else {
      unsetenv(VARIABLE);
   }
   const std::string tag = TakeName(&input);
   const std::string key = TakeName(&input);
   std::string lastUsed = input.ConsumeRemainingBytesAsString();
   if (lastUsed.starts_with('L')) {
      lastUsed.resize(LAST_USED_MAX - 2 + lastUsed.size() % 4, 'x');
   }

   const LocationConfig config = {.processTags = tables.tags.data(),
                                  .rootVariable = hasVariable ? VARIABLE : nullptr,
                                  .lastUsedFile = hasFile ? lastUsedFile.Write(lastUsed) : nullptr,
                                  .keys = tables.keys.data()};
   const LocationConfig *const before = LocationSetConfig(&config);
   CheckInit(tables, tag);
   REQUIRE(Location_GetLastUsedFile() == config.lastUsedFile);

   const LocationKey *row = tables.keys.data();
   while (row->key != nullptr && key != row->key) {
      row++;
   }
   REQUIRE(Location_GetRelative(key.c_str()) == row->relativePath);
   const Expected expected =
       row->relativePath == nullptr ? Expected{std::nullopt, 0} : ExpectedRoot(config, variable, lastUsed);
   const size_t logged = Fuzz_LogCount();
   char *const path = Location_GetLookup()(key.c_str());
   REQUIRE(Fuzz_LogCount() - logged == expected.reports);
   REQUIRE((path != nullptr) == expected.root.has_value());
   if (path != nullptr) {
      REQUIRE_SAME(Take(path), *expected.root + row->relativePath);
   }
   LocationSetConfig(before);
   return 0;
}
