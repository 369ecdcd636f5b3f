#include "fuzz/support/fuzz.h"
#include "lib/misc/escape.h"

#include <array>
#include <cstring>

/* Every routine of lib/misc/escape.h gives what a plain rewriting of its rule, byte by byte, gives; what was escaped
   reads back as it was; reported lengths are those of the results, which a NUL follows. */

namespace {

constexpr std::string_view HEX_DIGITS = "0123456789ABCDEF";

/* A result given with its length. */
template <typename Routine, typename... Arguments>
std::string Measured(Routine routine, Arguments... arguments)
{
   size_t length = SIZE_MAX;
   const std::unique_ptr<char, Freed> text(routine(arguments..., &length));
   REQUIRE(text != nullptr && length != SIZE_MAX && text.get()[length] == '\0');
   return {text.get(), length};
}

int HexValue(char digit)
{
   const size_t value = HEX_DIGITS.find(digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 32) : digit);
   return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

bool IsHex(std::string_view text, size_t i)
{
   return i < text.size() && HexValue(text[i]) >= 0;
}

std::string EscapedBytes(std::string_view escapeText, const EscapeTable &table, std::string_view text)
{
   std::string result;
   for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (table[byte] == 0) {
         result += c;
      } else {
         result += escapeText;
         result += {HEX_DIGITS[byte >> 4], HEX_DIGITS[byte & 15]};
      }
   }
   return result;
}

/* What is not complete is copied with the byte that ended it. */
std::string Unescaped(char escapeChar, std::string_view text)
{
   std::string result;
   for (size_t i = 0; i < text.size();) {
      size_t taken = 1;
      if (text[i] == escapeChar) {
         taken = IsHex(text, i + 1) ? 3 : 2;
         if (taken == 3 && IsHex(text, i + 2)) {
            result += static_cast<char>(HexValue(text[i + 1]) << 4 | HexValue(text[i + 2]));
            i += 3;
            continue;
         }
      }
      result += text.substr(i, taken);
      i += taken;
   }
   return result;
}

/* With prefix before each byte that is in marked. */
std::string Prefixed(std::string_view text, std::string_view marked, char prefix)
{
   std::string result;
   for (const char c : text) {
      if (marked.find(c) != std::string_view::npos) {
         result += prefix;
      }
      result += c;
   }
   return result;
}

std::string WithoutPrefixes(std::string_view text, char prefix)
{
   std::string result;
   for (size_t i = 0; i < text.size(); i++) {
      if (text[i] != prefix || ++i < text.size()) {
         result += text[i];
      }
   }
   return result;
}

/* A POSIX shell's reading of single and double quotes, side by side. */
std::string ShellWord(std::string_view quoted)
{
   std::string word;
   char quote = '\0';
   for (const char c : quoted) {
      if (quote == '\0') {
         REQUIRE(c == '\'' || c == '"');
         quote = c;
      } else if (c == quote) {
         quote = '\0';
      } else {
         REQUIRE(quote == '\'' || c == '\'');
         word += c;
      }
   }
   REQUIRE(quote == '\0');
   return word;
}

void CheckBytes(FuzzedDataProvider *input)
{
   EscapeTable table{};
   const char escapeChar = input->ConsumeIntegralInRange<char>(1, 127);
   table[static_cast<unsigned char>(escapeChar)] = 1;
   for (size_t i = input->ConsumeIntegralInRange<size_t>(0, 16); i > 0; i--) {
      table[input->ConsumeIntegral<uint8_t>()] = -1;
   }
   const std::string escapeText = AsString(input->ConsumeRandomLengthString(4));
   const std::string text = input->ConsumeRemainingBytesAsString();
   const Exactly exact(text);

   REQUIRE_SAME(Measured(Escape_Bytes, escapeText.c_str(), table, exact.bytes.get(), exact.size),
                EscapedBytes(escapeText, table, text));
   const std::string escaped =
       Measured(Escape_BytesWithChar, escapeChar, table, exact.bytes.get(), exact.size);
   REQUIRE_SAME(escaped, EscapedBytes({&escapeChar, 1}, table, text));
   REQUIRE_SAME(Measured(Escape_Unescape, escapeChar, escaped.data(), escaped.size()), text);
}

void CheckUnescape(FuzzedDataProvider *input)
{
   const char escapeChar = input->ConsumeIntegral<char>();
   const size_t spare = input->ConsumeIntegralInRange<size_t>(0, 4);
   const std::string text = input->ConsumeRemainingBytesAsString();
   const std::string expected = Unescaped(escapeChar, text);
   const Exactly exact(text);

   REQUIRE_SAME(Measured(Escape_Unescape, escapeChar, exact.bytes.get(), exact.size), expected);

   /* In place, with room for the result, or for nearly all of it. */
   std::string buffer = text + std::string(4, '#');
   const std::string before = buffer;
   const size_t room = std::min(expected.size() + spare, buffer.size());
   const bool fits = Escape_UnescapeToBuffer(escapeChar, buffer.data(), text.size(), buffer.data(), room);
   REQUIRE(fits == (expected.size() < room));
   REQUIRE(fits ? buffer.compare(0, expected.size() + 1, expected.c_str(), expected.size() + 1) == 0
                : buffer == before);
}

void CheckLengthRoutines(FuzzedDataProvider *input)
{
   const std::string text = input->ConsumeRemainingBytesAsString();
   const Exactly exact(text);

   std::string stripped;
   for (size_t i = 0; i < text.size(); i++) {
      if (text.compare(i, 2, "\r\n") != 0) {
         stripped += text[i];
      }
   }
   REQUIRE_SAME(Measured(Escape_StripCarriageReturns, exact.bytes.get(), exact.size), stripped);
   REQUIRE_SAME(ShellWord(Measured(Escape_ShellQuote, exact.bytes.get(), exact.size)), text);
   REQUIRE_SAME(Measured(Escape_RegexMetachars, exact.bytes.get(), exact.size),
                Prefixed(text, "$*.[\\]^", '\\'));
}

void CheckStringRoutines(FuzzedDataProvider *input)
{
   const char escapeChar = input->ConsumeIntegralInRange<char>(1, 127);
   const char sought = input->ConsumeIntegral<char>();
   const std::string text = RestAsString(input);

   const char *expected = nullptr;
   for (size_t i = 0; i < text.size() && expected == nullptr; i++) {
      if (text[i] == escapeChar) {
         i++;
      } else if (text[i] == sought) {
         expected = text.c_str() + i;
      }
   }
   const char *found = Escape_FindUnescaped(escapeChar, text.c_str(), sought);
   REQUIRE(found == expected || (sought == '\0' && found == text.c_str() + text.size()));

   REQUIRE_SAME(Take(Escape_StripEscapeChar(escapeChar, text.c_str())), WithoutPrefixes(text, escapeChar));
   const std::string commas = Take(Escape_CommaAndBackslash(text.c_str()));
   REQUIRE_SAME(commas, Prefixed(text, ",\\", '\\'));
   REQUIRE_SAME(Take(Escape_StripEscapeChar('\\', commas.c_str())), text);
}

void CheckOctal(FuzzedDataProvider *input)
{
   const std::string text = RestAsString(input);
   const auto octal = [&text](size_t i) { return i < text.size() && text[i] >= '0' && text[i] <= '7'; };
   std::string expected;
   for (size_t i = 0; i < text.size(); i++) {
      if (text[i] != '\\') {
         expected += text[i];
      } else if (text.compare(i, 2, "\\\\") == 0 || text.compare(i, 2, "\\n") == 0) {
         expected += text[++i] == 'n' ? '\n' : '\\';
      } else if (octal(i + 1) && octal(i + 2) && octal(i + 3)) {
         expected += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
         i += 3;
      } else {
         expected += text[i];
      }
   }
   std::string buffer = text;
   Escape_UnescapeOctalInPlace(buffer.data());
   REQUIRE(strcmp(buffer.c_str(), expected.c_str()) == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   const auto check = input.PickValueInArray(
       {CheckBytes, CheckUnescape, CheckLengthRoutines, CheckStringRoutines, CheckOctal});
   check(&input);
   return 0;
}
