#include "lib/misc/escape.h"

#include "tests/support/testSupport.h"

#include <cstring>
#include <string_view>

namespace {

using namespace std::string_view_literals;
using Routine = char *(*)(std::string_view input, size_t *outLength);

/* Control characters, the backslash and everything beyond printable ASCII. */
constexpr EscapeTable UNPRINTABLE = [] {
   EscapeTable table = {};
   for (size_t byte = 0; byte < table.size(); byte++) {
      table[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F ? -1 : 0;
   }
   return table;
}();

/* The routines in one shape; those that give no length get one here. */
char *WithText(std::string_view in, size_t *outLength)
{
   return Escape_Bytes("\\x", UNPRINTABLE, in.data(), in.size(), outLength);
}

template <char ESCAPE> char *WithChar(std::string_view in, size_t *outLength)
{
   return Escape_BytesWithChar(ESCAPE, UNPRINTABLE, in.data(), in.size(), outLength);
}

template <char ESCAPE> char *Unescape(std::string_view in, size_t *outLength)
{
   return Escape_Unescape(ESCAPE, in.data(), in.size(), outLength);
}

template <auto ROUTINE> char *Plain(std::string_view in, size_t *outLength)
{
   return ROUTINE(in.data(), in.size(), outLength);
}

char *Measured(char *text, size_t *outLength)
{
   if (text != nullptr) {
      *outLength = strlen(text);
   }
   return text;
}

char *StripEscape(std::string_view in, size_t *outLength)
{
   return Measured(Escape_StripEscapeChar('\\', in.data()), outLength);
}

char *Comma(std::string_view in, size_t *outLength)
{
   return Measured(Escape_CommaAndBackslash(in.data()), outLength);
}

char *Octal(std::string_view in, size_t *outLength)
{
   char *text = strdup(in.data());
   Escape_UnescapeOctalInPlace(text);
   return Measured(text, outLength);
}

constexpr Routine STRIP_CR = Plain<Escape_StripCarriageReturns>;
constexpr Routine QUOTE = Plain<Escape_ShellQuote>;
constexpr Routine REGEX = Plain<Escape_RegexMetachars>;

constexpr Routine ALLOCATING[] = {WithText, WithChar<'%'>, Unescape<'%'>, STRIP_CR,
                                  QUOTE,    REGEX,         StripEscape,   Comma};

constexpr struct {
   Routine routine;
   std::string_view input;
   std::string_view output;
} EXAMPLES[] = {{WithText, "A\n\xC3", "A\\x0A\\xC3"},
                {WithText, "\0\xFF\x7F\\ \x1F~"sv, "\\x00\\xFF\\x7F\\x5C \\x1F~"},
                {WithChar<'%'>, "a\tb\xAB", "a%09b%AB"},
                {WithChar<'\0'>, "\t", "\0\x30\x39"sv},
                {Unescape<'%'>, "a%41b", "aAb"},
                {Unescape<'%'>, "%4", "%4"},
                {Unescape<'%'>, "%", "%"},
                {Unescape<'%'>, "%4%41", "%4%41"},
                {Unescape<'%'>, "%4G%41", "%4GA"},
                {Unescape<'%'>, "%%41", "%%41"},
                {Unescape<'%'>, "%%%41", "%%A"},
                {Unescape<'%'>, "%fF%Ff%00%7c", "\xFF\xFF\0|"sv},
                {Unescape<'%'>, "%g1%@1%/1%:1%`1", "%g1%@1%/1%:1%`1"},
                {Unescape<'a'>, "a41aaa", "A\xAA"},
                {STRIP_CR, "\r\r\n", "\r\n"},
                {STRIP_CR, "\r\n\r\nb\r\n", "\n\nb\n"},
                {STRIP_CR, "a\rb\n\r", "a\rb\n\r"},
                {QUOTE, "", "''"},
                {QUOTE, "it's", R"('it'"'"'s')"},
                {QUOTE, "''", R"(''"'"''"'"'')"},
                {REGEX, "a$*.[\\]^b", R"(a\$\*\.\[\\\]\^b)"},
                {REGEX, "+?(){}|/-\0."sv, "+?(){}|/-\0\\."sv},
                {StripEscape, "a\\,b", "a,b"},
                {StripEscape, "\\\\\\\\x", "\\\\x"},
                {StripEscape, "\\a\\b", "ab"},
                {StripEscape, "end\\", "end"},
                {Comma, "a,b\\c", "a\\,b\\\\c"},
                {Octal, R"(a\\b\nc)", "a\\b\nc"},
                {Octal, R"(\1018\060)", "A80"},
                {Octal, R"(\10 \18 \108)", R"(\10 \18 \108)"},
                {Octal, R"(\ 12\q\)", R"(\ 12\q\)"},
                {Octal, R"(\\101)", R"(\101)"},
                {Octal, R"(\777\377)", "\xFF\xFF"},
                {Octal, R"(a\000b)", "a"}};

TEST(Escape, ExamplesOfEveryRoutine)
{
   for (const auto &[routine, input, output] : EXAMPLES) {
      size_t length = SIZE_MAX;
      char *text = routine(input, &length);
      EXPECT_EQ(std::string(text, length + 1), std::string(output) + '\0');
      free(text);
   }
   for (const Routine routine : ALLOCATING) {
      size_t length = SIZE_MAX;
      const std::string text = Take(routine("", &length));
      EXPECT_EQ(text, routine == QUOTE ? "''" : "");
      EXPECT_EQ(length, text.size());
   }
   EXPECT_EQ(Escape_CommaAndBackslash(nullptr), nullptr);
}

TEST(Escape, UnescapeUndoesBytesForEveryByte)
{
   std::string all;
   for (int byte = 0; byte < 256; byte++) {
      all += static_cast<char>(byte);
   }
   const std::string escaped = Take(Escape_BytesWithChar('\\', UNPRINTABLE, all.data(), all.size(), nullptr));
   EXPECT_EQ(escaped.size(), 256U + 2 * 162);
   std::string back(257, 'x');
   EXPECT_FALSE(Escape_UnescapeToBuffer('\\', escaped.data(), escaped.size(), back.data(), 256));
   EXPECT_EQ(back, std::string(257, 'x'));
   EXPECT_TRUE(Escape_UnescapeToBuffer('\\', escaped.data(), escaped.size(), back.data(), 257));
   EXPECT_EQ(back, all + '\0');
}

TEST(Escape, ShellTakesTheQuotedTextForOneWord)
{
   const std::string text = "a 'b' \"c\" $HOME `id` \\ \n*;&|<>";
   setenv("TEXT", text.c_str(), 1);
   const std::string quoted = Take(Escape_ShellQuote(text.data(), text.size(), nullptr));
   EXPECT_EQ(system(("test " + quoted + " = \"$TEXT\"").c_str()), 0);
}

TEST(Escape, FindUnescapedSkipsWhatIsEscaped)
{
   static constexpr struct {
      const char *string;
      char character;
      int index;
   } searches[] = {{"a,b", ',', 1}, {"a\\,b,", ',', 4}, {"\\\\,", ',', 2},    {"\\,", ',', -1},
                   {"", ',', -1},   {"a\\", ',', -1},   {"a\\\\b", '\\', -1}, {"\\\\\\,", ',', -1}};
   for (const auto &[string, character, index] : searches) {
      const char *found = Escape_FindUnescaped('\\', string, character);
      EXPECT_EQ(found != nullptr ? found - string : -1, index) << string;
   }
}

} // namespace
