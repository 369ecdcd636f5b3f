#include "fuzz/support/dictionaryText.h"
#include "lib/dict/dictll.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/user/dictionary/read.h"
#include "lib/user/msgList.h"

#include <algorithm>

/* A whole file gives the same settings or the same failure, with a reason, from memory and from a stream, and line by
   line the same lines. A definition that is written anew reads back the same. Written back the file means the
   same, keeps every line that it promises to keep, with all its bytes, and does not change when it is read
   and written again. */

namespace {

struct Line {
   std::string text;
   std::optional<std::string> name;
   std::optional<std::string> value;

   bool operator==(const Line &) const = default;

   [[nodiscard]] bool IsMetavariable() const
   {
      return name && (name->front() == '.' || DictionaryIsEncodingName(*name));
   }
};

/* Appends what was handed out. */
void TakeLine(std::vector<Line> *lines, char *text, char *name, char *value)
{
   REQUIRE((name == nullptr) == (value == nullptr));
   lines->push_back({Take(text), std::nullopt, std::nullopt});
   if (name != nullptr) {
      lines->back().name = Take(name);
      lines->back().value = Take(value);
   }
}

std::vector<Line> LinesOf(const Exactly &text)
{
   std::vector<Line> lines;
   const char *next = text.bytes.get();
   const char *const end = next + text.size;
   while (next != end) {
      char *line = nullptr;
      char *name = nullptr;
      char *value = nullptr;
      next = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), &line, &name, &value);
      TakeLine(&lines, line, name, value);
   }
   return lines;
}

using Stream = std::unique_ptr<FILE, int (*)(FILE *)>;

Stream Open(std::string *text)
{
   return {fmemopen(text->data(), text->size(), "r"), fclose};
}

std::vector<Line> ReadLines(std::string text)
{
   std::vector<Line> lines;
   const Stream stream = Open(&text);
   char *line = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   int result;
   while ((result = DictLL_ReadLine(stream.get(), &line, &name, &value)) == 2) {
      TakeLine(&lines, line, name, value);
   }
   REQUIRE(result == 1 && line == nullptr && name == nullptr && value == nullptr);
   return lines;
}

void CheckLine(const Line &line)
{
   if (!line.name) {
      return;
   }
   OwnedDynBuf buffer;
   REQUIRE(DictLL_MarshalLine(&buffer, line.name->c_str(), line.value->c_str()));
   const std::vector<Line> again = LinesOf(Exactly(std::string_view(buffer.data, buffer.size)));
   REQUIRE(again.size() == 1 && again[0].name == line.name && again[0].value == line.value);
}

template <typename Load> OwnedDictionary Loaded(Load load)
{
   OwnedDictionary dictionary(Dictionary_Create());
   MsgList *const messages = MsgList_Create();
   const bool loaded = load(dictionary.get(), messages);
   REQUIRE(loaded || MsgList_Count(messages) > 0);
   REQUIRE(!Dictionary_IsChanged(dictionary.get()));
   MsgList_Free(messages);
   return loaded ? std::move(dictionary) : nullptr;
}

OwnedDictionary FromMemory(const std::string &text)
{
   return Loaded([&](Dictionary *dictionary, MsgList *messages) {
      return Dictionary_LoadFromContent(dictionary, text, "fuzz", messages);
   });
}

OwnedDictionary FromStream(std::string text)
{
   const Stream stream = Open(&text);
   return Loaded([&](Dictionary *dictionary, MsgList *messages) {
      return DictionaryReadStream(dictionary, stream.get(), "fuzz", ENCODING_DEFAULT, messages);
   });
}

/* The lines that a writer keeps, all their bytes. */
std::vector<std::string> KeptLines(std::string_view text)
{
   std::vector<std::string> kept;
   text.remove_prefix(text.starts_with("\xEF\xBB\xBF") ? 3 : 0);
   while (!text.empty()) {
      const std::string line(text.substr(0, text.find('\n')));
      if (!LinesOf(Exactly(line + "\n"))[0].IsMetavariable()) {
         kept.push_back(line);
      }
      text.remove_prefix(std::min(line.size() + 1, text.size()));
   }
   return kept;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   const std::string text(reinterpret_cast<const char *>(data), size);
   const std::vector<Line> lines = LinesOf(Exactly(text));
   std::for_each(lines.begin(), lines.end(), CheckLine);
   const OwnedDictionary dictionary = FromMemory(text);
   if (!text.empty()) {
      REQUIRE(lines == ReadLines(text));
      const OwnedDictionary other = FromStream(text);
      REQUIRE((other != nullptr) == (dictionary != nullptr));
      REQUIRE(other == nullptr || AllSettings(other.get()) == AllSettings(dictionary.get()));
   }
   if (dictionary == nullptr) {
      return 0;
   }
   const Settings settings = AllSettings(dictionary.get());
   const EncodingId encoding = Dictionary_GetEncoding(dictionary.get());
   const std::optional<std::string> written = Written(dictionary.get());
   if (!written) {
      REQUIRE(Dictionary_IsDefined(dictionary.get(), "encryption.keySafe"));
      return 0;
   }
   REQUIRE(KeptLines(*written) == KeptLines(text));
   const OwnedDictionary again = FromStream(*written);
   REQUIRE(again != nullptr && Dictionary_GetEncoding(again.get()) == encoding);
   REQUIRE(AllSettings(again.get()) == settings);
   REQUIRE_SAME(Written(again.get()).value_or("(none)"), *written);
   return 0;
}
