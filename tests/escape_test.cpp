#include "lib/misc/escape.h"

#include "tests/support/callFaults.h"
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

/* The routines in one shape; the inputs end with a NUL too. */
char *Bytes(std::string_view in, size_t *outLength)
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

template <auto ROUTINE> char *Counted(std::string_view in, size_t *outLength)
{
   return ROUTINE(in.data(), in.size(), outLength);
}

/* For those that give no length. */
template <auto ROUTINE> char *Measured(std::string_view in, size_t *outLength)
{
   char *text = ROUTINE(in.data());
   *outLength = text != nullptr ? strlen(text) : *outLength;
   return text;
}

constexpr Routine STRIP_CR = Counted<Escape_StripCarriageReturns>;
constexpr Routine QUOTE = Counted<Escape_ShellQuote>;
constexpr Routine REGEX = Counted<Escape_RegexMetachars>;
constexpr Routine STRIP = Measured<[](const char *in) { return Escape_StripEscapeChar('\\', in); }>;
constexpr Routine COMMA = Measured<Escape_CommaAndBackslash>;
constexpr Routine OCTAL = Measured<[](const char *in) {
   char *text = strdup(in);
   Escape_UnescapeOctalInPlace(text);
   return text;
}>;

constexpr struct {
   Routine routine;
   std::string_view input;
   std::string_view output;
} EXAMPLES[] = {{Bytes, "A\n\xC3\0\xFF\x7F\\ \x1F~"sv, "A\\x0A\\xC3\\x00\\xFF\\x7F\\x5C \\x1F~"},
                {WithChar<'%'>, "a\tb\xAB", "a%09b%AB"},
                {WithChar<'\0'>, "\t", "\0\x30\x39"sv},
                {Unescape<'%'>, "a%41b%fF%Ff%00%7c", "aAb\xFF\xFF\0|"sv},
                {Unescape<'%'>, "%4%41", "%4%41"},
                {Unescape<'%'>, "%4G%41%", "%4GA%"},
                {Unescape<'%'>, "%%41%%%41%4", "%%41%%A%4"},
                {Unescape<'%'>, "%g1%@1%/1%:1%`1", "%g1%@1%/1%:1%`1"},
                {Unescape<'a'>, "a41aaa", "A\xAA"},
                {STRIP_CR, "\r\n\r\r\nb\r\n", "\n\r\nb\n"},
                {STRIP_CR, "a\rb\n\r", "a\rb\n\r"},
                {QUOTE, "", "''"},
                {QUOTE, "it's'", R"('it'"'"'s'"'"'')"},
                {REGEX, "a$*.[\\]^b+?(){}|/-\0."sv, "a\\$\\*\\.\\[\\\\\\]\\^b+?(){}|/-\0\\."sv},
                {STRIP, "a\\,b\\\\\\\\x\\", "a,b\\\\x"},
                {COMMA, "a,b\\c", "a\\,b\\\\c"},
                {OCTAL, R"(a\\b\nc\1018\060\\101\777)", "a\\b\ncA80\\101\xFF"},
                {OCTAL, R"(\10 \180 \108\ 12\q\)", R"(\10 \180 \108\ 12\q\)"},
                {OCTAL, R"(a\000b)", "a"}};

TEST(Escape, ExamplesOfEveryRoutine)
{
   for (const auto &[routine, input, output] : EXAMPLES) {
      size_t length = SIZE_MAX;
      char *text = routine(input, &length);
      EXPECT_EQ(std::string(text, length + 1), std::string(output) + '\0');
      free(text);
      if (routine != QUOTE) {
         EXPECT_EQ(Take(routine("", &length)), "");
         EXPECT_EQ(length, 0U);
      }
   }
   EXPECT_EQ(Escape_CommaAndBackslash(nullptr), nullptr);
}

TEST(Escape, UnescapeToBufferTakesWhatFits)
{
   char buffer[] = "%41xyz";
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', buffer, 4, buffer, 2));
   EXPECT_STREQ(buffer, "%41xyz");
   EXPECT_TRUE(Escape_UnescapeToBuffer('%', buffer, 4, buffer, 3));
   EXPECT_EQ(std::string(buffer, 6), "Ax\0xyz"sv);
   const FailingAllocations faults(1);
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', "x", 1, buffer, 3));
}

TEST(Escape, FindUnescapedSkipsWhatIsEscaped)
{
   static constexpr struct {
      const char *string;
      char character;
      int index;
   } searches[] = {{"a,b", ',', 1},  {"a\\,b,", ',', 4},   {"\\\\,", ',', 2},
                   {"a\\", ',', -1}, {"a\\\\b", '\\', -1}, {"\\\\\\,", ',', -1}};
   for (const auto &[string, character, index] : searches) {
      const char *found = Escape_FindUnescaped('\\', string, character);
      EXPECT_EQ(found != nullptr ? found - string : -1, index) << string;
   }
}

} // namespace
