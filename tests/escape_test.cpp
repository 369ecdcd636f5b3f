#include "lib/misc/escape.h"

#include "tests/support/allocationFaults.h"
#include "tests/support/testSupport.h"

#include <functional>
#include <string_view>

namespace {

using namespace std::string_view_literals;

struct Example {
   std::string_view input;
   std::string_view output;
};

using Routine = std::function<char *(const void *input, size_t length, size_t *outLength)>;

/* Each example gives its output with and without a length asked for. */
void Check(const Routine &routine, std::initializer_list<Example> examples)
{
   for (const Example &example : examples) {
      size_t length = SIZE_MAX;
      char *text = routine(example.input.data(), example.input.size(), &length);
      ASSERT_NE(text, nullptr);
      EXPECT_EQ(length, example.output.size());
      EXPECT_EQ(std::string_view(text, length + 1), std::string(example.output) + '\0');
      free(text);
      EXPECT_EQ(Take(routine(example.input.data(), example.input.size(), nullptr)),
                std::string(example.output).c_str());
   }
}

/* Control characters, the backslash and everything beyond ASCII. */
EscapeTable UnprintableBytes()
{
   EscapeTable table = {};
   for (size_t byte = 0; byte < table.size(); byte++) {
      table[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F ? 1 : 0;
   }
   return table;
}

TEST(Escape, BytesWithTextAndWithChar)
{
   static const EscapeTable table = UnprintableBytes();
   Check([](auto... a) { return Escape_Bytes("\\x", table, a...); },
         {{"", ""},
          {"A\n\xC3", "A\\x0A\\xC3"},
          {"plain"sv, "plain"},
          {"\0\xFF\x7F\\ \x1F"sv, "\\x00\\xFF\\x7F\\x5C \\x1F"}});
   Check([](auto... a) { return Escape_BytesWithChar('%', table, a...); },
         {{"a\tb", "a%09b"}, {"\xAB", "%AB"}});
   Check([](auto... a) { return Escape_BytesWithChar('\0', table, a...); }, {{"\t", "\0"
                                                                                    "09"sv}});
   Check([](auto... a) { return Escape_Bytes("", table, a...); }, {{"\x80", "80"}});
}

TEST(Escape, UnescapeReadsCompleteSequencesOnly)
{
   Check([](auto... a) { return Escape_Unescape('%', a...); }, {{"", ""},
                                                                {"a%41b", "aAb"},
                                                                {"%4", "%4"},
                                                                {"%", "%"},
                                                                {"%4%41", "%4%41"},
                                                                {"%4G%41", "%4GA"},
                                                                {"%%41", "%%41"},
                                                                {"%%%41", "%%A"},
                                                                {"%fF%Ff%00%7c", "\xFF\xFF\0|"sv},
                                                                {"%41%42C%43", "ABCC"},
                                                                {"%g1%@1%/1%:1%`1", "%g1%@1%/1%:1%`1"}});
   Check([](auto... a) { return Escape_Unescape('a', a...); }, {{"a41", "A"}, {"aaa", "\xAA"}});
}

TEST(Escape, UnescapeUndoesBytesForEveryByte)
{
   EscapeTable table = UnprintableBytes();
   table['%'] = -1;
   std::string all;
   for (int byte = 0; byte < 256; byte++) {
      all += static_cast<char>(byte);
   }
   size_t length = 0;
   const std::string escaped = Take(Escape_BytesWithChar('%', table, all.data(), all.size(), nullptr));
   EXPECT_EQ(escaped.size(), 256U + 2 * 163);
   char *back = Escape_Unescape('%', escaped.data(), escaped.size(), &length);
   EXPECT_EQ(std::string_view(back, length), all);
   free(back);
}

TEST(Escape, UnescapeToBufferFitsOrLeavesItAlone)
{
   char buffer[] = "%41%42";
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', buffer, 6, buffer, 2));
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', buffer, 6, buffer, 0));
   EXPECT_STREQ(buffer, "%41%42");
   EXPECT_TRUE(Escape_UnescapeToBuffer('%', buffer, 6, buffer, 3));
   EXPECT_EQ(std::string_view(buffer, 5), "AB\0%4"sv);
   const FailingAllocations faults(1);
   EXPECT_FALSE(Escape_UnescapeToBuffer('%', "x", 1, buffer, sizeof buffer));
}

TEST(Escape, StripCarriageReturnsBeforeLineFeedsOnly)
{
   Check(Escape_StripCarriageReturns, {{"", ""},
                                       {"\r\r\n", "\r\n"},
                                       {"a\r\nb\r\n", "a\nb\n"},
                                       {"\r\n\r\n", "\n\n"},
                                       {"a\rb\n\r", "a\rb\n\r"},
                                       {"\r\0\n"sv, "\r\0\n"sv}});
}

TEST(Escape, ShellQuoteMakesOneWord)
{
   Check(Escape_ShellQuote,
         {{"", "''"}, {"it's", R"('it'"'"'s')"}, {"''", R"(''"'"''"'"'')"}, {"$x `y`\\", "'$x `y`\\'"}});
   const std::string all = "a 'b' \"c\" $HOME `id` \\ \n*;&|<>";
   const std::string command =
       "test " + Take(Escape_ShellQuote(all.data(), all.size(), nullptr)) + " = \"$TEXT\"";
   setenv("TEXT", all.c_str(), 1);
   EXPECT_EQ(system(command.c_str()), 0);
}

TEST(Escape, RegexMetacharsOfBasicExpressions)
{
   Check(Escape_RegexMetachars,
         {{"", ""}, {"a$*.[\\]^b", R"(a\$\*\.\[\\\]\^b)"}, {"+?(){}|/-", "+?(){}|/-"}, {"\0."sv, "\0\\."sv}});
}

TEST(Escape, FindUnescapedSkipsWhatIsEscaped)
{
   struct Search {
      const char *string;
      char character;
      int index;
   };
   static constexpr Search searches[] = {
       {"a,b", ',', 1},  {"a\\,b,", ',', 4}, {"\\\\,", ',', 2},    {"\\,", ',', -1},     {"", ',', -1},
       {"a\\", ',', -1}, {"\\", '\\', -1},   {"a\\\\b", '\\', -1}, {"\\\\\\,", ',', -1}, {"abc", 'c', 2}};
   for (const Search &search : searches) {
      const char *found = Escape_FindUnescaped('\\', search.string, search.character);
      EXPECT_EQ(found != nullptr ? found - search.string : -1, search.index) << search.string;
   }
}

TEST(Escape, StripEscapeCharKeepsTheByteBehindIt)
{
   static constexpr Example examples[] = {{"", ""},         {"a\\,b", "a,b"},
                                          {"\\\\", "\\"},   {"\\\\\\\\x", "\\\\x"},
                                          {"\\a\\b", "ab"}, {"end\\", "end"}};
   for (const Example &example : examples) {
      EXPECT_EQ(Take(Escape_StripEscapeChar('\\', example.input.data())), example.output);
   }
}

TEST(Escape, UnescapeOctalInPlace)
{
   static constexpr Example examples[] = {{"", ""},
                                          {R"(a\\b)", R"(a\b)"},
                                          {R"(a\nb)", "a\nb"},
                                          {R"(\101\060)", "A0"},
                                          {R"(\1018)", "A8"},
                                          {R"(\10)", R"(\10)"},
                                          {R"(\18)", R"(\18)"},
                                          {R"(\ 12)", R"(\ 12)"},
                                          {R"(\)", R"(\)"},
                                          {R"(\\101)", R"(\101)"},
                                          {R"(\777\377)", "\xFF\xFF"},
                                          {R"(\q\t)", R"(\q\t)"},
                                          {R"(\108)", R"(\108)"},
                                          {R"(a\000b)", "a"}};
   for (const Example &example : examples) {
      std::string text(example.input);
      Escape_UnescapeOctalInPlace(text.data());
      EXPECT_EQ(text.c_str(), example.output) << example.input;
   }
}

TEST(Escape, CommaAndBackslash)
{
   EXPECT_EQ(Escape_CommaAndBackslash(nullptr), nullptr);
   EXPECT_EQ(Take(Escape_CommaAndBackslash("")), "");
   EXPECT_EQ(Take(Escape_CommaAndBackslash("a,b\\c")), "a\\,b\\\\c");
}

/* Each routine fails cleanly whichever of its allocations fails; what it leaks, the leak checker reports. */
TEST(Escape, ExhaustionGivesNullAndLeavesTheLengthAlone)
{
   static const EscapeTable table = UnprintableBytes();
   static const std::string text(200, '\n');
   const std::pair<Routine, std::string> routines[] = {
       {[](auto... a) { return Escape_Bytes("\\x", table, a...); }, std::string(300, '\n')},
       {[](auto... a) { return Escape_Unescape('%', a...); }, std::string(300, 'u')},
       {Escape_StripCarriageReturns, std::string(300, 's')},
       {Escape_ShellQuote, std::string(300, '\'')},
       {Escape_RegexMetachars, std::string(300, '*')},
       {[](const void *input, size_t, size_t *) {
           return Escape_StripEscapeChar('\\', static_cast<const char *>(input));
        },
        std::string(300, 'x')},
       {[](const void *input, size_t, size_t *) {
           return Escape_CommaAndBackslash(static_cast<const char *>(input));
        },
        std::string(300, ',')},
   };
   for (const auto &[routine, input] : routines) {
      int failures = 0;
      for (bool failed = true; failed; failures++) {
         size_t length = 4711;
         const FailingAllocations faults(failures + 1);
         char *result = routine(input.data(), input.size(), &length);
         failed = FailingAllocations::Failed();
         EXPECT_EQ(result == nullptr, failed);
         EXPECT_TRUE(!failed || length == 4711);
         free(result);
      }
      EXPECT_GT(failures, 2);
   }
}

} // namespace
