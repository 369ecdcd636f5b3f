#include "fuzz/support/dictionaryText.h"
#include "fuzz/support/scratchFolder.h"
#include "lib/file/fileLock.h"
#include "lib/user/msgList.h"
#include "tools/dictEdit.h"

#include <algorithm>
#include <array>
#include <strings.h>

/* One setting of a file is set or removed: the file then means what it meant, with that one difference, and every line
   but one is the same, byte for byte. A file that would not load is left as it was, and so is one that needs
   no change.

   Values that are set and asked for in any order and as any type: what was set with a type is what is got,
   what is asked for twice is the same twice, a change is told of, and what is written reads back as the same
   texts. */

namespace {

Settings Load(const std::string &content, bool *loads)
{
   const OwnedDictionary dictionary(Dictionary_Create());
   *loads = Dictionary_LoadFromContent(dictionary.get(), content, "fuzz", nullptr);
   return AllSettings(dictionary.get());
}

/* The byte-order mark, which stays where it is, is no part of the first line; what is put behind the last line ends it. */
std::vector<std::string> SplitLines(std::string content)
{
   const bool marked = content.starts_with("\xEF\xBB\xBF");
   std::vector<std::string> lines = {marked ? "mark" : "no mark"};
   content.erase(0, marked ? 3 : 0);
   for (size_t start = 0; start < content.size();) {
      lines.push_back(content.substr(start, content.find('\n', start) - start));
      start += lines.back().size() + 1;
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

void CheckEdit(FuzzedDataProvider *input)
{
   static const ScratchFolder folder;
   static const std::string path = folder.Path("file");
   const bool remove = input->ConsumeBool();
   const auto picked = input->ConsumeIntegralInRange<size_t>(0, 7);
   std::string value = AsString(input->ConsumeRandomLengthString(32));
   value = DecodeUtf8(value) ? value : "not UTF-8";
   const std::string before = input->ConsumeRemainingBytesAsString();
   bool loads = false;
   Settings expected = Load(before, &loads);
   const std::string name = picked < expected.size() ? expected[picked].first : "new.setting";
   if (!Dictionary_IsSettingName(name)) {
      return;
   }
   WriteFile(path, before);
   const DictEdit edit = {.path = path.c_str(),
                          .name = name.c_str(),
                          .value = remove ? nullptr : value.c_str(),
                          .maxBytes = UINT64_MAX,
                          .maxWaitMs = FILE_LOCK_WAIT_FOREVER};
   MsgList *const messages = MsgList_Create();
   const DictEditResult result = DictEdit_Run(edit, messages);
   REQUIRE((MsgList_Count(messages) != 0) == (result == DictEditResult::FAILED));
   MsgList_Free(messages);
   const std::string after = ReadFile(path);
   const auto place = std::find_if(expected.begin(), expected.end(), [&name](const auto &setting) {
      return strcasecmp(setting.first.c_str(), name.c_str()) == 0;
   });
   if (result != DictEditResult::DONE) {
      REQUIRE_SAME(after, before);
      REQUIRE(result == DictEditResult::FAILED || (loads && remove && place == expected.end()));
      return;
   }
   REQUIRE(loads && (!remove || place != expected.end()));
   if (remove) {
      expected.erase(place);
   } else if (place != expected.end()) {
      place->second = value;
   } else {
      expected.emplace_back(name, value);
   }
   REQUIRE(Load(after, &loads) == expected && loads);
   REQUIRE(LinesThatDiffer(SplitLines(before), SplitLines(after)) <= 1);
}

constexpr std::array<const char *, 4> NAMES = {"a", "B", "setting.long", "b2"};

/* Asks for a value as a type, which gives a text of it. */
std::string Get(Dictionary *dictionary, uint32_t type, const char *name)
{
   switch (type) {
   case DICTIONARY_BOOL:
      return std::to_string(static_cast<int>(Dictionary_GetBool(dictionary, false, "%s", name)));
   case DICTIONARY_INT32:
      return std::to_string(Dictionary_GetInt32(dictionary, 0, "%s", name));
   case DICTIONARY_INT64:
      return std::to_string(Dictionary_GetInt64(dictionary, 0, "%s", name));
   case DICTIONARY_TRISTATE:
      return std::to_string(Dictionary_GetTriState(dictionary, 0, "%s", name));
   case DICTIONARY_DOUBLE:
      return std::to_string(Dictionary_GetDouble(dictionary, 0, "%s", name));
   default:
      char *const text = Dictionary_GetString(dictionary, nullptr, "%s", name);
      return text != nullptr ? Take(text) : "(none)";
   }
}

void Set(Dictionary *dictionary, FuzzedDataProvider *input, const char *name)
{
   const Settings before = AllSettings(dictionary);
   const bool wasChanged = Dictionary_IsChanged(dictionary);
   const auto number = input->ConsumeIntegral<int32_t>();
   const std::string text = AsString(input->ConsumeRandomLengthString(24));
   switch (input->ConsumeIntegralInRange(0, 6)) {
   case 0:
      Dictionary_SetBool(dictionary, number != 0, 0, name);
      REQUIRE_SAME(Get(dictionary, DICTIONARY_BOOL, name), number != 0 ? "1" : "0");
      break;
   case 1:
      Dictionary_SetInt32(dictionary, number, 0, name);
      REQUIRE_SAME(Get(dictionary, DICTIONARY_INT32, name), std::to_string(number));
      break;
   case 2:
      Dictionary_SetInt64(dictionary, number * int64_t{4294967297}, 0, name);
      REQUIRE_SAME(Get(dictionary, DICTIONARY_INT64, name), std::to_string(number * int64_t{4294967297}));
      break;
   case 3:
      Dictionary_SetDouble(dictionary, number / 8.0, 0, name);
      REQUIRE_SAME(Get(dictionary, DICTIONARY_DOUBLE, name), std::to_string(number / 8.0));
      break;
   case 4:
      Dictionary_SetString(dictionary, DecodeUtf8(text) ? text.c_str() : "text", 0, name);
      break;
   case 5:
      Dictionary_SetFromString(
          dictionary, (std::string(name) + "=" + (DecodeUtf8(text) ? text : "5")).c_str(), false, nullptr);
      break;
   default:
      Dictionary_Unset(dictionary, name);
      REQUIRE(!Dictionary_IsDefined(dictionary, name));
      break;
   }
   REQUIRE(Dictionary_IsChanged(dictionary) || (!wasChanged && AllSettings(dictionary) == before));
}

void CheckValues(FuzzedDataProvider *input)
{
   const OwnedDictionary dictionary(Dictionary_Create());
   while (input->remaining_bytes() != 0) {
      const char *const name = input->PickValueInArray(NAMES);
      if (input->ConsumeBool()) {
         Set(dictionary.get(), input, name);
      } else {
         const auto type = input->ConsumeIntegralInRange<uint32_t>(DICTIONARY_STRING, DICTIONARY_INT64);
         const std::string first = Get(dictionary.get(), type, name);
         REQUIRE_SAME(Get(dictionary.get(), type, name), first);
      }
   }
   const std::string written = Written(dictionary.get()).value();
   bool loads = false;
   REQUIRE(Load(written, &loads) == AllSettings(dictionary.get()) && loads);
   REQUIRE_SAME(Written(dictionary.get()).value(), written);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   if (input.ConsumeBool()) {
      CheckEdit(&input);
   } else {
      CheckValues(&input);
   }
   return 0;
}
