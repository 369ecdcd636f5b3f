#include "fuzz/support/dictionaryText.h"
#include "fuzz/support/fuzz.h"
#include "lib/dict/dictll.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/icu.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/read.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <cstring>

/* A whole file, read from memory and from a stream, gives the same settings or the same failure, and those that a reading
   line by line gives. Written back it means the same, keeps every line that it promises to keep, and does not
   change when it is read and written again. A setting that is changed reads back as it was set, and no other
   changes with it. Whatever fails says why. */

namespace {

struct MessagesEnd {
   void operator()(MsgList *messages) const
   {
      MsgList_Free(messages);
   }
};

using Messages = std::unique_ptr<MsgList, MessagesEnd>;

void UseIcu(bool icu)
{
   static const CodeSetEngine *const engine = CodeSetIcu_Open("icudt44l.dat");
   REQUIRE(engine != nullptr);
   CodeSetEngine_Set(icu ? engine : nullptr);
}

/* Null: the text was refused, with a reason. */
OwnedDictionary Read(const std::string &text, EncodingId encoding)
{
   OwnedDictionary dictionary(Dictionary_Create());
   const Messages messages(MsgList_Create());
   const bool read = Dictionary_Unmarshal(dictionary.get(), text.c_str(), false, encoding, messages.get());
   REQUIRE(read || MsgList_Count(messages.get()) > 0);
   REQUIRE(!Dictionary_IsChanged(dictionary.get()));
   return read ? std::move(dictionary) : nullptr;
}

OwnedDictionary ReadStream(std::string text, EncodingId encoding)
{
   OwnedDictionary dictionary(Dictionary_Create());
   const Messages messages(MsgList_Create());
   FILE *const stream = fmemopen(text.data(), text.size(), "r");
   REQUIRE(stream != nullptr);
   const bool read = DictionaryReadStream(dictionary.get(), stream, "fuzz", encoding, messages.get());
   fclose(stream);
   REQUIRE(read || MsgList_Count(messages.get()) > 0);
   return read ? std::move(dictionary) : nullptr;
}

/* Nothing if it must not be written. */
std::optional<std::string> Write(Dictionary *dictionary)
{
   char *text = nullptr;
   size_t size = 0;
   if (!Dictionary_WriteToBuffer(dictionary, true, &text, &size)) {
      REQUIRE(text == nullptr);
      return std::nullopt;
   }
   const std::unique_ptr<char, Freed> owned(text);
   REQUIRE(size == strlen(text) + 1);
   return text;
}

/* Of the lines of a file those that a writer keeps. */
std::vector<std::string> KeptLines(const std::string &text)
{
   std::vector<std::string> kept;
   for (const FileLine &line : Lines(text)) {
      if (!line.IsMetavariable()) {
         kept.push_back(line.text);
      }
   }
   return kept;
}

void CheckAgainstLines(const Settings &settings, const std::string &text)
{
   Settings expected;
   for (const FileLine &line : Lines(text)) {
      if (line.name && !line.IsMetavariable()) {
         expected.emplace_back(*line.name, *line.value);
      }
   }
   RequireSame(settings, expected);
}

/* Written and read until nothing changes, which is at once. */
void CheckWriting(Dictionary *dictionary, const std::string &text, bool mayUpgrade)
{
   const Settings settings = AllSettings(dictionary);
   const EncodingId encoding = Dictionary_GetEncoding(dictionary);
   const std::optional<std::string> written = Write(dictionary);
   if (!written) {
      REQUIRE(Dictionary_IsDefined(dictionary, "encryption.keySafe"));
      return;
   }
   const bool upgraded = Dictionary_GetEncoding(dictionary) != encoding;
   REQUIRE(!upgraded || (mayUpgrade && Dictionary_GetEncoding(dictionary) == ENCODING_UTF8));
   if (!upgraded && !text.empty()) {
      REQUIRE(KeptLines(*written) == KeptLines(text));
   }
   /* A stream keeps the carriage returns. */
   const OwnedDictionary again = ReadStream(*written, ENCODING_US_ASCII);
   if (again == nullptr) {
      Fuzz_Show("written", *written);
   }
   REQUIRE(again != nullptr && Dictionary_GetEncoding(again.get()) == Dictionary_GetEncoding(dictionary));
   RequireSame(AllSettings(again.get()), settings);
   REQUIRE_SAME(Write(again.get()).value_or("(none)"), *written);
}

void CheckChange(Dictionary *dictionary, FuzzedDataProvider *input)
{
   Settings expected = AllSettings(dictionary);
   std::string name = "new.setting";
   if (!expected.empty() && input->ConsumeBool()) {
      name = expected[input->ConsumeIntegralInRange<size_t>(0, expected.size() - 1)].first;
   }
   const auto place = std::find_if(expected.begin(), expected.end(),
                                   [&name](const auto &setting) { return SameName(setting.first, name); });
   const bool there = place != expected.end();
   std::string value = AsString(input->ConsumeRandomLengthString(40));
   switch (input->ConsumeIntegralInRange(0, 2)) {
   case 0:
      Dictionary_Unset(dictionary, name.c_str());
      if (there) {
         expected.erase(place);
      }
      break;
   default:
      /* The dictionary's text is UTF-8; what it is not given is none. */
      value = DecodeUtf8(value) ? value : "not UTF-8";
      Dictionary_SetString(dictionary, value.c_str(), 0, name.c_str());
      if (there) {
         place->second = value;
      } else {
         expected.emplace_back(name, value);
      }
      break;
   }
   RequireSame(AllSettings(dictionary), expected);
   CheckWriting(dictionary, "", true);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   UseIcu(input.ConsumeBool());
   const EncodingId encoding = input.PickValueInArray(
       {ENCODING_UTF8, ENCODING_DEFAULT, ENCODING_ISO_8859_1, ENCODING_US_ASCII, ENCODING_WINDOWS_1252});
   FuzzedDataProvider change(data, std::min<size_t>(size, 32));
   const std::string text = RestAsString(&input);

   const OwnedDictionary dictionary = Read(text, encoding);
   const bool special = text.find('\r') != std::string::npos || text.starts_with("\xEF\xBB\xBF");
   if (!special && !text.empty()) {
      const OwnedDictionary other = ReadStream(text, encoding);
      REQUIRE((other != nullptr) == (dictionary != nullptr));
      REQUIRE(other == nullptr || AllSettings(other.get()) == AllSettings(dictionary.get()));
   }
   if (dictionary == nullptr) {
      return 0;
   }
   const std::string stripped = WithoutReturns(text);
   const EncodingId settled = Dictionary_GetEncoding(dictionary.get());
   if (settled == ENCODING_UTF8 || settled == ENCODING_US_ASCII) {
      CheckAgainstLines(AllSettings(dictionary.get()), stripped);
   }
   CheckWriting(dictionary.get(), stripped, false);
   CheckChange(dictionary.get(), &change);
   return 0;
}
