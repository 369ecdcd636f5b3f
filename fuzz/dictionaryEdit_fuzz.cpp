#include "fuzz/support/dictionaryText.h"
#include "fuzz/support/fuzz.h"
#include "fuzz/support/scratchFolder.h"
#include "lib/user/dictionary/edit.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>

/* One setting of a file is set or removed: the file then means what it meant, with that one difference, and every line
   but one is the same, byte for byte. A file that would not load is left as it was, and so is one that needs
   no change. */

namespace {

/* Nothing if the file does not load. */
std::optional<Settings> Load(const std::string &path)
{
   const OwnedDictionary dictionary(Dictionary_Create());
   if (!Dictionary_Load(dictionary.get(), path.c_str())) {
      return std::nullopt;
   }
   return AllSettings(dictionary.get());
}

/* The byte-order mark, which stays where it is, is no part of the first line. */
std::vector<std::string> SplitLines(const std::string &content)
{
   constexpr std::string_view mark = "\xEF\xBB\xBF";
   std::vector<std::string> lines = {content.starts_with(mark) ? "mark\n" : "no mark\n", ""};
   for (const char c : content.substr(content.starts_with(mark) ? mark.size() : 0)) {
      lines.back() += c;
      if (c == '\n') {
         lines.emplace_back();
      }
   }
   if (lines.back().empty()) {
      lines.pop_back();
   } else {
      lines.back() += '\n'; /* What is put behind it ends it. */
   }
   return lines;
}

/* How many lines of the longer text are not in the other, in order. */
size_t LinesThatDiffer(const std::vector<std::string> &before, const std::vector<std::string> &after)
{
   const auto start = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
   const auto end = std::mismatch(before.rbegin(), std::make_reverse_iterator(start.first), after.rbegin(),
                                  std::make_reverse_iterator(start.second));
   return static_cast<size_t>(std::max(end.first.base() - start.first, end.second.base() - start.second));
}

bool Mentions(const Settings &settings, const std::string &name)
{
   return std::any_of(settings.begin(), settings.end(),
                      [&name](const auto &setting) { return SameName(setting.first, name); });
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const ScratchFolder folder;
   static const std::string path = folder.Path("file");
   static constexpr std::array<const char *, 3> names = {"a", "new.setting", "b"};
   FuzzedDataProvider input(data, size);
   const bool remove = input.ConsumeBool();
   const auto picked = input.ConsumeIntegralInRange<size_t>(0, 7);
   std::string value = AsString(input.ConsumeRandomLengthString(32));
   value = DecodeUtf8(value) ? value : "not UTF-8";
   const std::string before = input.ConsumeRemainingBytesAsString();
   WriteFile(path, before);
   const std::optional<Settings> settings = Load(path);
   std::string name = names[picked % names.size()];
   if (settings && !settings->empty() && picked >= names.size()) {
      name = (*settings)[picked % settings->size()].first;
   }
   if (!Dictionary_IsSettingName(name.c_str())) {
      return 0;
   }

   MsgList *const messages = MsgList_Create();
   const DictionaryEditResult result =
       Dictionary_EditFile(path.c_str(), name.c_str(), remove ? nullptr : value.c_str(), messages);
   REQUIRE((MsgList_Count(messages) != 0) == (result == DictionaryEditResult::FAILED));
   MsgList_Free(messages);
   const std::string after = ReadFile(path);
   const std::optional<Settings> found = Load(path);
   if (result != DictionaryEditResult::DONE) {
      REQUIRE_SAME(after, before);
      REQUIRE(!settings || result == DictionaryEditResult::FAILED || (remove && !Mentions(*settings, name)));
      return 0;
   }
   REQUIRE(settings && found);
   Settings expected = *settings;
   const auto place = std::find_if(expected.begin(), expected.end(),
                                   [&name](const auto &setting) { return SameName(setting.first, name); });
   if (remove) {
      REQUIRE(place != expected.end());
      expected.erase(place);
   } else if (place != expected.end()) {
      place->second = value;
   } else {
      expected.emplace_back(name, value);
   }
   RequireSame(*found, expected);
   REQUIRE(LinesThatDiffer(SplitLines(before), SplitLines(after)) <= 1);
   return 0;
}
