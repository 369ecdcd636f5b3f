#include "lib/string/str.h"

#include "tests/support/testSupport.h"

#include <cstring>

namespace {

/* No character has this value: to format it is an error. */
constexpr auto NO_CHARACTER = static_cast<wint_t>(0x110000);

TEST(Str, SnprintfCutsAtTheEndOfACharacter)
{
   static constexpr struct {
      size_t size;
      const char *text;
      int result;
      const char *stored;
   } cases[] = {{4, "abc", 3, "abc"},
                {4, "abcd", -1, "abc"},
                {4, "ab\xE2\x82\xAC", -1, "ab"},
                {5, "ab\xE2\x82\xAC", -1, "ab"},
                {6, "ab\xE2\x82\xAC", 5, "ab\xE2\x82\xAC"},
                {6, "ab\xE2\x82\xAC!", -1, "ab\xE2\x82\xAC"},
                {4, "\xF0\x9F\x98\x80", -1, ""},
                {5, "\xF0\x9F\x98\x80\xC3\xA9", -1, "\xF0\x9F\x98\x80"},
                {4, "a\x80\x80\x80", -1, "a\x80\x80"},
                {3, "\x80\x80\x80", -1, ""},
                {1, "a", -1, ""},
                {0, "a", -1, "????????"}};
   for (const auto &[size, text, result, stored] : cases) {
      char buffer[] = "????????";
      EXPECT_EQ(Str_Snprintf(buffer, size, "%s", text), result) << text << " in " << size;
      EXPECT_STREQ(buffer, stored) << size;
      EXPECT_EQ(buffer[size], '?');
   }
   char buffer[] = "????????";
   EXPECT_EQ(Str_Snprintf(buffer, 4, "ab\xC3%lc", NO_CHARACTER), -1);
   EXPECT_STREQ(buffer, "ab");
   EXPECT_EQ(Str_Snprintf(nullptr, 0, "%d", 1), -1);
}

TEST(Str, SprintfPanicsWhereTheTextDoesNotFit)
{
   static char buffer[8];
   EXPECT_EQ(Str_Sprintf(buffer, sizeof buffer, "%s-%d", "abc", 123), 7);
   EXPECT_STREQ(buffer, "abc-123");
   EXPECT_EQ(Str_SprintfCLocale(buffer, sizeof buffer, "%.5f", 0.5), 7);
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 7, "%.5f", 0.5), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 0, " "), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 8, "%lc", NO_CHARACTER), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(
       {
          atexit([] { dprintf(STDERR_FILENO, "left <%s>", buffer); });
          Str_Sprintf(buffer, 4, "ab\xE2\x82\xAC");
       },
       "lib/string/str:214 Buffer too small\nleft <ab>");
}

TEST(Str, AsprintfGivesTheTextAndItsLengthOrNeither)
{
   size_t length = 99;
   EXPECT_EQ(Take(Str_Asprintf(&length, "%s/%s", "a", "b")), "a/b");
   EXPECT_EQ(length, 3U);
   EXPECT_EQ(Take(Str_SafeAsprintf(nullptr, "%04d", 7)), "0007");
   EXPECT_EQ(Str_Asprintf(&length, "a%lc", NO_CHARACTER), nullptr);
   EXPECT_EQ(length, 3U);
   EXPECT_PANIC(Take(Str_SafeAsprintf(&length, "%lc", NO_CHARACTER)), "VERIFY lib/string/str:657\n");
}

TEST(Str, CopiesAndAppendsWhatFitsAndPanicsOtherwise)
{
   static constexpr char unterminated[] = {'x', 'y', 'z', 'w'};
   char buffer[6];
   EXPECT_STREQ(Str_Strcpy(buffer, "abc", 4), "abc");
   EXPECT_PANIC(Str_Strcpy(buffer, "abcd", 4), "lib/string/str:284 Buffer too small\n");
   EXPECT_STREQ(Str_Strncpy(buffer, 4, unterminated, 3), "xyz");
   EXPECT_STREQ(Str_Strncpy(buffer, 4, "q", 100), "q");
   EXPECT_PANIC(Str_Strncpy(buffer, 4, unterminated, 4), "lib/string/str:322 Buffer too small\n");
   EXPECT_STREQ(Str_Strcat(buffer, "rst", 5), "qrst");
   EXPECT_PANIC(Str_Strcat(buffer, "u", 5), "lib/string/str:444 Buffer too small\n");
   EXPECT_STREQ(Str_Strncat(buffer, 6, "uvw", 1), "qrstu");
   EXPECT_STREQ(Str_Strncat(buffer, 6, "", 9), "qrstu") << "the source is shorter than n";
   EXPECT_PANIC(Str_Strncat(buffer, 6, "vw", 1), "lib/string/str:498 Buffer too small\n");
   EXPECT_PANIC(Str_Strncat(buffer, 3, "", 0), "lib/string/str:498 Buffer too small\n");
}

TEST(Str, StrnstrFindsMatchesThatEndInTime)
{
   static constexpr char text[] = "abcabd";
   const char unterminated[] = {'a', 'b'};
   EXPECT_EQ(Str_Strnstr(text, "abd", 1000), text + 3);
   EXPECT_EQ(Str_Strnstr(text, "abd", 6), text + 3);
   EXPECT_EQ(Str_Strnstr(text, "abd", 5), nullptr);
   EXPECT_EQ(Str_Strnstr("ab\0cd", "cd", 5), nullptr);
   EXPECT_EQ(Str_Strnstr(text, "", 0), text);
   EXPECT_EQ(Str_Strlen(unterminated, 2), 2U);
}

TEST(Str, ToUpperAndToLowerChangeAsciiLettersOnly)
{
   char text[] = "\xC3\x9F @[`{ aAzZ09";
   EXPECT_STREQ(Str_ToUpper(text), "\xC3\x9F @[`{ AAZZ09");
   EXPECT_STREQ(Str_ToLower(text), "\xC3\x9F @[`{ aazz09");
}

} // namespace
