#include "fuzz/support/fuzz.h"
#include "lib/misc/escape.h"

#include <algorithm>
#include <cstring>

/* What was escaped reads back as it was, and holds nothing any more that had to be escaped; reported lengths are those of
   the results, which a NUL follows. */

namespace {

/* A result given with its length. */
template <typename Routine, typename... Arguments>
std::string Measured(Routine routine, const Arguments &...arguments)
{
   size_t length = SIZE_MAX;
   const std::unique_ptr<char, Freed> text(routine(arguments..., &length));
   REQUIRE(text != nullptr && length != SIZE_MAX && text.get()[length] == '\0');
   return {text.get(), length};
}

std::string Without(std::string text, char c)
{
   std::erase(text, c);
   return text;
}

void CheckBytes(FuzzedDataProvider *input, const std::string &text, const Exactly &exact)
{
   const char escapeChar = input->ConsumeIntegral<char>();
   EscapeTable table{};
   for (const char byte : input->ConsumeRandomLengthString(16) + escapeChar) {
      table[static_cast<unsigned char>(byte)] = -1;
   }
   const std::string escaped =
       Measured(Escape_BytesWithChar, escapeChar, table, exact.bytes.get(), exact.size);
   REQUIRE(std::ranges::all_of(Without(escaped, escapeChar), [&table](unsigned char byte) {
      return table[byte] == 0 || strchr("0123456789ABCDEF", byte) != nullptr;
   }));
   REQUIRE_SAME(Measured(Escape_Unescape, escapeChar, escaped.data(), escaped.size()), text);

   /* In place, with room for the result, or for nearly all of it. */
   const std::string plain = Measured(Escape_Unescape, escapeChar, exact.bytes.get(), exact.size);
   REQUIRE(plain.size() <= text.size() && (text.size() - plain.size()) % 2 == 0);
   std::string buffer = text + "##";
   const std::string before = buffer;
   const size_t room = plain.size() + input->ConsumeIntegralInRange<size_t>(0, 2);
   const bool fits = Escape_UnescapeToBuffer(escapeChar, buffer.data(), text.size(), buffer.data(), room);
   REQUIRE(fits == (plain.size() < room));
   REQUIRE_SAME(fits ? buffer.substr(0, plain.size()) : buffer, fits ? plain : before);
}

void CheckTexts(const std::string &text, const Exactly &exact)
{
   const std::string stripped = Measured(Escape_StripCarriageReturns, exact.bytes.get(), exact.size);
   REQUIRE_SAME(Without(stripped, '\r'), Without(text, '\r'));

   /* A quote of the text is the only thing that stands outside of single quotes. */
   std::string quoted = Measured(Escape_ShellQuote, exact.bytes.get(), exact.size);
   REQUIRE(quoted.starts_with('\'') && quoted.ends_with('\''));
   for (size_t at = 1; (at = quoted.find("'\"'\"'", at)) != std::string::npos; at++) {
      quoted.replace(at, 5, "'");
   }
   REQUIRE_SAME(quoted.substr(1, quoted.size() - 2), text);

   const std::string string = AsString(text);
   const std::string commas = Take(Escape_CommaAndBackslash(string.c_str()));
   REQUIRE_SAME(Take(Escape_StripEscapeChar('\\', commas.c_str())), string);
   REQUIRE(Escape_FindUnescaped('\\', commas.c_str(), ',') == nullptr);
   const std::string regex = Measured(Escape_RegexMetachars, string.data(), string.size());
   REQUIRE_SAME(Take(Escape_StripEscapeChar('\\', regex.c_str())), string);
   std::string octal = regex;
   Escape_UnescapeOctalInPlace(octal.data());
   REQUIRE(strlen(octal.c_str()) <= regex.size());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const std::string text = input.ConsumeRandomLengthString();
   CheckBytes(&input, text, Exactly(text));
   CheckTexts(text, Exactly(text));
   return 0;
}
