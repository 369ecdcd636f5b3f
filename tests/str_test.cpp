#include "lib/string/str.h"

#include "tests/support/testSupport.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

TEST(StrSnprintf, CutsAtTheEndOfACharacter)
{
   struct Case {
      size_t size;
      const char *text;
      int result;
      const char *stored;
   };
   static constexpr Case cases[] = {
       {4, "abc", 3, "abc"},
       {4, "abcd", -1, "abc"},
       {4, "ab\xE2\x82\xAC", -1, "ab"},
       {5, "ab\xE2\x82\xAC", -1, "ab"},
       {6, "ab\xE2\x82\xAC", 5, "ab\xE2\x82\xAC"},
       {6, "ab\xE2\x82\xAC!", -1, "ab\xE2\x82\xAC"},
       {4, "\xF0\x9F\x98\x80", -1, ""},
       {5, "\xF0\x9F\x98\x80\xF0\x9F\x98\x80", -1, "\xF0\x9F\x98\x80"},
       {4, "a\x80\x80\x80", -1, "a\x80\x80"},
       {3, "\x80\x80\x80", -1, ""},
       {3, "a\xC3\xA9", -1, "a"},
       {1, "a", -1, ""},
       {1, "", 0, ""},
   };
   for (const Case &c : cases) {
      char buffer[16];
      memset(buffer, '?', sizeof buffer);
      EXPECT_EQ(Str_Snprintf(buffer, c.size, "%s", c.text), c.result) << c.text << " in " << c.size;
      EXPECT_STREQ(buffer, c.stored) << c.size;
      EXPECT_EQ(buffer[c.size], '?');
   }
}

TEST(StrSnprintf, ReportsErrorsAndNoRoomAtAll)
{
   char buffer[] = "????????";
   EXPECT_EQ(Str_Snprintf(buffer, 0, "%d", 1), -1);
   EXPECT_EQ(Str_Snprintf(nullptr, 0, "%d", 1), -1);
   EXPECT_STREQ(buffer, "????????");
   EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "ab%lc", static_cast<wint_t>(0x110000)), -1);
   EXPECT_STREQ(buffer, "ab");
}

TEST(StrSprintf, PanicsWhereTheTextDoesNotFit)
{
   char buffer[8];
   EXPECT_EQ(Str_Sprintf(buffer, sizeof buffer, "%s-%d", "abc", 123), 7);
   EXPECT_STREQ(buffer, "abc-123");
   EXPECT_EQ(Str_SprintfCLocale(buffer, sizeof buffer, "%.5f", 0.5), 7);
   EXPECT_PANIC(Str_Sprintf(buffer, 7, "%s-%d", "abc", 123), "lib/string/str:214 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 7, "%.5f", 0.5), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 0, " "), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 8, "%lc", static_cast<wint_t>(0x110000)),
                "lib/string/str:177 Buffer too small\n");
}

TEST(StrSprintf, RepairsTheTextBeforeItPanics)
{
   static char buffer[4];
   EXPECT_EXIT(
       {
          atexit([] { dprintf(STDERR_FILENO, "left <%s>", buffer); });
          Str_Sprintf(buffer, sizeof buffer, "ab\xE2\x82\xAC");
       },
       testing::ExitedWithCode(1), "left <ab>");
}

TEST(StrAsprintf, GivesTheTextAndItsLengthOrNeither)
{
   size_t length = 99;
   EXPECT_EQ(Take(Str_Asprintf(&length, "%s/%s", "a", "b")), "a/b");
   EXPECT_EQ(length, 3U);
   EXPECT_EQ(Take(Str_SafeAsprintf(nullptr, "%04d", 7)), "0007");
   EXPECT_EQ(Take(Str_Asprintf(nullptr, "%s", "")), "");
   EXPECT_EQ(Str_Asprintf(&length, "a%lc", static_cast<wint_t>(0x110000)), nullptr);
   EXPECT_EQ(length, 3U);
   EXPECT_PANIC(Take(Str_SafeAsprintf(&length, "%lc", static_cast<wint_t>(0x110000))),
                "VERIFY lib/string/str:657\n");
}

TEST(StrStrcpy, CopiesWhatFitsAndPanicsOtherwise)
{
   char buffer[4];
   EXPECT_EQ(Str_Strcpy(buffer, "abc", sizeof buffer), buffer);
   EXPECT_STREQ(buffer, "abc");
   EXPECT_PANIC(Str_Strcpy(buffer, "abcd", sizeof buffer), "lib/string/str:284 Buffer too small\n");
   EXPECT_PANIC(Str_Strcpy(buffer, "", 0), "lib/string/str:284 Buffer too small\n");

   const char unterminated[] = {'x', 'y', 'z', 'w'};
   EXPECT_STREQ(Str_Strncpy(buffer, sizeof buffer, unterminated, 3), "xyz");
   EXPECT_STREQ(Str_Strncpy(buffer, sizeof buffer, "q", 100), "q");
   EXPECT_PANIC(Str_Strncpy(buffer, sizeof buffer, unterminated, 4), "lib/string/str:322 Buffer too small\n");
}

TEST(StrStrcat, AppendsWhatFitsAndPanicsOtherwise)
{
   char buffer[6] = "ab";
   EXPECT_EQ(Str_Strcat(buffer, "cd", sizeof buffer), buffer);
   EXPECT_STREQ(Str_Strncat(buffer, sizeof buffer, "efgh", 1), "abcde");
   EXPECT_STREQ(Str_Strncat(buffer, sizeof buffer, "fgh", 0), "abcde");
   EXPECT_STREQ(Str_Strncat(buffer, sizeof buffer, "", 9), "abcde") << "the source is shorter than n";
   EXPECT_PANIC(Str_Strcat(buffer, "f", sizeof buffer), "lib/string/str:444 Buffer too small\n");
   EXPECT_PANIC(Str_Strncat(buffer, sizeof buffer, "fg", 1), "lib/string/str:498 Buffer too small\n");
   EXPECT_PANIC(Str_Strncat(buffer, 3, "", 0), "lib/string/str:498 Buffer too small\n");
}

TEST(StrStrnstr, FindsMatchesThatEndInTime)
{
   static constexpr char text[] = "abcabd";
   EXPECT_EQ(Str_Strnstr(text, "abd", 6), text + 3);
   EXPECT_EQ(Str_Strnstr(text, "abd", 5), nullptr);
   EXPECT_EQ(Str_Strnstr(text, "abd", 1000), text + 3);
   EXPECT_EQ(Str_Strnstr("ab\0cd", "cd", 5), nullptr);
   EXPECT_EQ(Str_Strnstr(text, "", 0), text);
   EXPECT_EQ(Str_Strnstr(text, "a", 0), nullptr);
}

TEST(StrStrlen, StopsAtTheLimit)
{
   const char unterminated[] = {'a', 'b'};
   EXPECT_EQ(Str_Strlen(unterminated, 2), 2U);
   EXPECT_EQ(Str_Strlen("a", 2), 1U);
}

TEST(StrToUpper, ChangesAsciiLettersOnly)
{
   char text[] = "stra\xC3\x9F"
                 "e @[`{ aZ09";
   EXPECT_STREQ(Str_ToUpper(text), "STRA\xC3\x9F"
                                   "E @[`{ AZ09");
   EXPECT_STREQ(Str_ToLower(text), "stra\xC3\x9F"
                                   "e @[`{ az09");
}

} // namespace
