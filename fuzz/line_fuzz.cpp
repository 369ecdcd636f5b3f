#include "fuzz/support/fuzz.h"
#include "lib/dict/dictll.h"
#include "lib/misc/memory/dynbuf.h"

#include <cstring>
#include <vector>

/* Text taken line by line, from memory and from a stream, gives the same lines, and those are definitions where a plain
   reading of the grammar says so. What is written for a name and a value is one line, in which no byte stands
   that would have to be escaped, and reads back the same. */

namespace {

struct Line {
   std::string text;
   std::optional<std::string> name;
   std::optional<std::string> value;

   bool operator==(const Line &) const = default;
};

bool IsBlank(char c)
{
   return c == ' ' || c == '\t';
}

bool IsBare(char c)
{
   return c != '\0' && !IsBlank(c) && c != '#';
}

bool IsName(char c)
{
   return IsBare(c) && c != '=';
}

template <typename Is> std::string_view TakeWhile(std::string_view *text, Is is)
{
   size_t length = 0;
   while (length < text->size() && is((*text)[length])) {
      length++;
   }
   const std::string_view run = text->substr(0, length);
   text->remove_prefix(length);
   return run;
}

int HexValue(char c)
{
   const size_t value = std::string_view("0123456789abcdef0123456789ABCDEF").find(c);
   return value == std::string_view::npos || c == '\0' ? -1 : static_cast<int>(value & 15);
}

/* A bar whose two digits are not there stands for itself, and so does the byte that shows this. */
std::string WithoutBars(std::string_view value)
{
   std::string plain;
   for (size_t i = 0; i < value.size();) {
      const auto digit = [&](size_t at) { return at < value.size() ? HexValue(value[at]) : -1; };
      const size_t taken = value[i] != '|' ? 1 : digit(i + 1) < 0 ? 2 : 3;
      if (taken == 3 && digit(i + 2) >= 0) {
         plain += static_cast<char>(digit(i + 1) << 4 | digit(i + 2));
      } else {
         plain += value.substr(i, taken);
      }
      i += taken;
   }
   return plain;
}

Line ReadPlainly(std::string_view text)
{
   Line line = {AsString(std::string(text)), std::nullopt, std::nullopt};
   TakeWhile(&text, IsBlank);
   const std::string_view name = TakeWhile(&text, IsName);
   TakeWhile(&text, IsBlank);
   if (name.empty() || !text.starts_with('=')) {
      return line;
   }
   text.remove_prefix(1);
   TakeWhile(&text, IsBlank);
   std::string_view value;
   if (text.starts_with('"')) {
      text.remove_prefix(1);
      value = TakeWhile(&text, [](char c) { return c != '"'; });
      if (text.empty()) {
         return line;
      }
      text.remove_prefix(1);
   } else {
      value = TakeWhile(&text, IsBare);
   }
   TakeWhile(&text, IsBlank);
   if (text.empty() || text.starts_with('#')) {
      line.name = std::string(name);
      line.value = AsString(WithoutBars(value));
   }
   return line;
}

std::optional<std::string> TakeOptional(char *text)
{
   return text == nullptr ? std::nullopt : std::optional(Take(text));
}

Line TakeLine(char *text, char *name, char *value)
{
   return {Take(text), TakeOptional(name), TakeOptional(value)};
}

std::vector<Line> FromMemory(const Exactly &bytes)
{
   std::vector<Line> lines;
   const char *next = bytes.bytes.get();
   const char *const end = next + bytes.size;
   char *text = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   while (true) {
      const char *after = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), &text, &name, &value);
      if (after == nullptr) {
         REQUIRE(next == end && text == nullptr && name == nullptr && value == nullptr);
         return lines;
      }
      const auto *feed = static_cast<const char *>(memchr(next, '\n', static_cast<size_t>(end - next)));
      REQUIRE(after == (feed == nullptr ? end : feed + 1));
      lines.push_back(TakeLine(text, name, value));
      const Line plain = ReadPlainly({next, static_cast<size_t>((feed == nullptr ? end : feed) - next)});
      if (lines.back() != plain) {
         Fuzz_Show("line", plain.text);
         REQUIRE_SAME(lines.back().name.value_or("(none)"), plain.name.value_or("(none)"));
         REQUIRE_SAME(lines.back().value.value_or("(none)"), plain.value.value_or("(none)"));
         REQUIRE_SAME(lines.back().text, plain.text);
      }
      next = after;
   }
}

std::vector<Line> FromStream(std::string bytes)
{
   std::vector<Line> lines;
   FILE *const stream = fmemopen(bytes.data(), bytes.size(), "r");
   REQUIRE(stream != nullptr);
   const bool marked = DictLL_ReadUTF8BOM(stream);
   REQUIRE(marked == bytes.starts_with("\xEF\xBB\xBF"));
   REQUIRE(ftell(stream) == (marked ? 3 : 0));
   rewind(stream);
   char *text = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   int result;
   while ((result = DictLL_ReadLine(stream, &text, &name, &value)) == 2) {
      lines.push_back(TakeLine(text, name, value));
   }
   REQUIRE(result == 1 && text == nullptr && name == nullptr && value == nullptr);
   fclose(stream);
   return lines;
}

void CheckReading(const std::string &bytes)
{
   const Exactly exact(bytes);
   const std::vector<Line> lines = FromMemory(exact);
   REQUIRE(bytes.empty() || lines == FromStream(bytes));
}

std::string Marshalled(const char *name, const char *value)
{
   DynBuf buffer;
   DynBuf_Init(&buffer);
   REQUIRE(DictLL_MarshalLine(&buffer, name, value));
   std::string line(buffer.data, buffer.size);
   DynBuf_Destroy(&buffer);
   std::string written(line.size() + 1, '#');
   FILE *const stream = fmemopen(written.data(), written.size(), "w");
   REQUIRE(stream != nullptr && DictLL_WriteLine(stream, name, value) && fclose(stream) == 0);
   REQUIRE_SAME(written.substr(0, line.size()), line);
   return line;
}

void CheckWriting(std::string name, const std::string &value)
{
   std::erase_if(name, [](char c) { return !IsName(c) || c == '\n'; });
   if (name.empty()) {
      return;
   }
   const std::string line = Marshalled(name.c_str(), value.c_str());
   REQUIRE(line.find('\n') == line.size() - 1);
   const std::vector<Line> lines = FromMemory(Exactly(line));
   REQUIRE(lines.size() == 1);
   REQUIRE_SAME(lines[0].name.value_or("(none)"), name);
   REQUIRE_SAME(lines[0].value.value_or("(none)"), value);
   for (const char c : std::string_view(line).substr(name.size() + 4, line.size() - name.size() - 6)) {
      REQUIRE(c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\x7F'));
   }
   REQUIRE_SAME(Marshalled(nullptr, value.c_str()), value + "\n");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   if (input.ConsumeBool()) {
      CheckReading(input.ConsumeRemainingBytesAsString());
   } else {
      const std::string name = AsString(input.ConsumeRandomLengthString(40));
      CheckWriting(name, RestAsString(&input));
   }
   return 0;
}
