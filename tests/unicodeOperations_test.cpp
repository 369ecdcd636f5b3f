#include "lib/unicode/unicodeSimpleOperations.h"

#include "lib/misc/codeset.h"
#include "lib/unicode/caseFolding.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <random>
#include <vector>

namespace {

const char *const mixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";

std::string ToUtf8(const std::u32string &string)
{
   std::vector<uint32_t> units(string.begin(), string.end());
   units.push_back(0);
   char *result = nullptr;
   EXPECT_TRUE(CodeSet_Utf32ToUtf8(units.data(), &result));
   return Take(result);
}

/* The range of a string by the plainest possible reading. */
std::pair<size_t, std::u32string> Range(const std::u32string &string, ssize_t start, ssize_t length)
{
   const size_t from =
       start < 0 || static_cast<size_t>(start) > string.size() ? string.size() : static_cast<size_t>(start);
   std::u32string range;
   for (size_t i = from; i < string.size() && (length < 0 || i < from + static_cast<size_t>(length)); i++) {
      range += string[i];
   }
   return {from, range};
}

ssize_t NaiveFind(const std::u32string &range, size_t from, const std::u32string &sought, bool last)
{
   ssize_t found = -1;
   for (size_t i = 0; i + sought.size() <= range.size() && (last || found < 0); i++) {
      if (range.compare(i, sought.size(), sought) == 0) {
         found = static_cast<ssize_t>(from + i);
      }
   }
   return sought.empty() ? static_cast<ssize_t>(from) : found;
}

std::u32string Fold(std::u32string string)
{
   std::transform(string.begin(), string.end(), string.begin(), [](char32_t codePoint) {
      return codePoint < 0x10000 ? static_cast<char32_t>(CaseFolding_Unit(static_cast<char16_t>(codePoint)))
                                 : codePoint;
   });
   return string;
}

int Whole(const char *string1, const char *string2, bool ignoreCase)
{
   return Unicode_CompareRange(string1, 0, -1, string2, 0, -1, ignoreCase);
}

} // namespace

TEST(UnicodeSubstr, CutsCodePoints)
{
   const struct {
      ssize_t start, length;
      const char *expected;
   } cases[] = {
       {1, 2, "\xC3\xA9\xE2\x82\xAC"},
       {0, -1, mixed},
       {0, 0, ""},
       {3, 9, "\xF0\x9F\x98\x80"},
       {10, 1, ""},
       {4, -1, ""},
       {-1, 2, ""},
       {2, -7, "\xE2\x82\xAC\xF0\x9F\x98\x80"},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Take(Unicode_Substr(mixed, c.start, c.length)), c.expected) << c.start << ", " << c.length;
   }
   EXPECT_EQ(Unicode_Substr(nullptr, 0, -1), nullptr);
}

TEST(UnicodeFind, FindsFirstAndLast)
{
   EXPECT_EQ(Unicode_FindSubstrInRange("abcabc", 0, -1, "bc", 0, -1), 1);
   EXPECT_EQ(Unicode_FindLastSubstrInRange("abcabc", 0, -1, "bc", 0, -1), 4);
   EXPECT_EQ(Unicode_FindSubstrInRange(mixed, 1, -1, "x\xF0\x9F\x98\x80", 1, -1), 3);
   for (const ssize_t start : {0, 2, 6}) {
      EXPECT_EQ(Unicode_FindSubstrInRange("abcabc", start, -1, "", 0, -1), start);
      EXPECT_EQ(Unicode_FindLastSubstrInRange("abcabc", start, -1, "x", 1, -1), start);
   }
   EXPECT_EQ(Unicode_FindSubstrInRange("abc", 0, 2, "bc", 0, -1), -1);
   EXPECT_EQ(Unicode_FindLastSubstrInRange("a", 0, -1, "ab", 0, -1), -1);
}

TEST(UnicodeOperations, JoinAndReplace)
{
   EXPECT_EQ(Take(Unicode_Join("a", "", "\xC3\xA9", "c", nullptr)), "a\xC3\xA9"
                                                                    "c");
   EXPECT_EQ(Take(Unicode_Join("a", nullptr)), "a");
   EXPECT_EQ(Unicode_Join(nullptr, "b", nullptr), nullptr);
   EXPECT_EQ(Take(Unicode_ReplaceRange(mixed, 1, 2, "xyz", 1, 1)), "ay\xF0\x9F\x98\x80");
}

/* Substrings, searches, replacement and comparison against the plain model, over strings short and repetitive enough for
   everything to happen. */
TEST(UnicodeOperations, AgreeWithANaiveModel)
{
   std::mt19937 random(20240229);
   const std::u32string alphabet = U"aAbB\u00E9\u00C9\u20AC\uFFFD\U0001F600\U00010400";
   const auto pick = [&random](int low, int high) {
      return std::uniform_int_distribution<int>(low, high)(random);
   };
   const auto makeString = [&](int maxLength) {
      std::u32string string;
      for (int n = pick(0, maxLength); n > 0; n--) {
         string += alphabet[static_cast<size_t>(pick(0, pick(0, 1) != 0 ? 1 : 9))];
      }
      return string;
   };
   for (int round = 0; round < 4000; round++) {
      const std::u32string one = makeString(12);
      const std::u32string two = makeString(3);
      const std::string one8 = ToUtf8(one);
      const std::string two8 = ToUtf8(two);
      const ssize_t start1 = pick(-2, 14), length1 = pick(-2, 14), start2 = pick(-1, 4),
                    length2 = pick(-1, 4);
      const auto [from, range] = Range(one, start1, length1);
      const std::u32string sought = Range(two, start2, length2).second;
      SCOPED_TRACE(one8 + " " + two8 + testing::PrintToString(std::vector{start1, length1, start2, length2}));

      ASSERT_EQ(Take(Unicode_Substr(one8.c_str(), start1, length1)), ToUtf8(range));
      ASSERT_EQ(Unicode_FindSubstrInRange(one8.c_str(), start1, length1, two8.c_str(), start2, length2),
                NaiveFind(range, from, sought, false));
      ASSERT_EQ(Unicode_FindLastSubstrInRange(one8.c_str(), start1, length1, two8.c_str(), start2, length2),
                NaiveFind(range, from, sought, true));
      std::u32string replaced = one;
      replaced.replace(from, range.size(), sought);
      ASSERT_EQ(Take(Unicode_ReplaceRange(one8.c_str(), start1, length1, two8.c_str(), start2, length2)),
                ToUtf8(replaced));
      for (const bool ignoreCase : {false, true}) {
         const int order = ignoreCase ? Fold(range).compare(Fold(sought)) : range.compare(sought);
         ASSERT_EQ(
             Unicode_CompareRange(one8.c_str(), start1, length1, two8.c_str(), start2, length2, ignoreCase),
             (order > 0) - (order < 0));
      }
   }
}

TEST(UnicodeCompare, OrdersByCodePoint)
{
   EXPECT_EQ(Whole("\xEF\xBF\xBD", "\xF0\x9F\x98\x80", false), -1);
   EXPECT_EQ(Whole("\xF0\x9F\x98\x80", "\xEF\xBF\xBD", true), 1);
   EXPECT_EQ(Whole("\xF0\x9F\x98\x80", "\xF0\x9F\x98\x81", true), -1);
   EXPECT_EQ(Whole("STRASSE", "strasse", true), 0);
   EXPECT_EQ(Whole("STRASSE", "strasse", false), -1);
   EXPECT_NE(Whole("\xC3\x9F", "ss", true), 0);
   EXPECT_EQ(Whole("\xC3\x89", "\xC3\xA9", true), 0);
   EXPECT_EQ(Whole("", "", false), 0);
   EXPECT_EQ(Whole("", "a", false), -1);
   EXPECT_EQ(Whole(nullptr, "a", false), -1);
   EXPECT_EQ(Whole("a", nullptr, false), -1);
   EXPECT_EQ(Unicode_CompareRange(nullptr, 1, 2, "a", 0, -1, false), -1);
}

TEST(UnicodeOperations, EndTheProcessOnInvalidUtf8)
{
   const char *bad = "a\xFF";
   EXPECT_PANIC((void)Unicode_Substr(bad, 0, -1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC((void)Unicode_Substr("\xF4\x90\x80\x80", 0, -1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC(Unicode_FindSubstrInRange("a", 0, -1, bad, 0, 1),
                "Unicode_FindSubstrInRange: invalid UTF8 string @ ");
   EXPECT_PANIC(Unicode_FindLastSubstrInRange(bad, 0, -1, "a", 0, 1),
                "Unicode_FindLastSubstrInRange: invalid UTF8 string @ ");
   EXPECT_PANIC((void)Unicode_ReplaceRange(bad, 0, 0, "a", 0, 1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC((void)Unicode_ReplaceRange("a", 0, 0, bad, 0, 1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC(Whole(bad, "a", false), "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:[0-9]+\n");
   EXPECT_PANIC(Unicode_CompareRange("a", 0, -1, bad, 1, 1, false), "Unicode_Substr: invalid UTF8 string @ ");
}

TEST(CaseFolding, HasThirteenPages)
{
   std::vector<size_t> pages;
   for (size_t i = 0; i < caseFoldingPages.size(); i++) {
      if (caseFoldingPages[i] != nullptr) {
         pages.push_back(i);
      }
   }
   EXPECT_EQ(pages, (std::vector<size_t>{0, 1, 2, 3, 4, 5, 0x10, 0x1E, 0x1F, 0x21, 0x24, 0x2C, 0xFF}));
   const std::pair<char16_t, char16_t> foldings[] = {{u'A', u'a'},     {u'z', u'z'},     {0x00B5, 0x03BC},
                                                     {0x017F, u's'},   {0x0178, 0x00FF}, {0x0130, 0x0130},
                                                     {0x00DF, 0x00DF}, {0x1E9E, 0x1E9E}, {0xA640, 0xA640},
                                                     {0x10A0, 0x2D00}, {0xFF21, 0xFF41}, {0xD800, 0xD800}};
   for (const auto &[from, to] : foldings) {
      EXPECT_EQ(CaseFolding_Unit(from), to) << std::hex << int{from};
   }
}
