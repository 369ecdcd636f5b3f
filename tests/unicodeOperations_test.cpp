#include "lib/unicode/unicodeSimpleOperations.h"

#include "lib/misc/codeset/codeset.h"
#include "lib/unicode/data/caseFolding.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <random>
#include <vector>
#if TESSEL_HAVE_ICU && __has_include(<unicode/uchar.h>)
#include <unicode/uchar.h>
#endif

namespace {

std::string ToUtf8(const std::u32string &string)
{
   char *result = nullptr;
   const std::vector<uint32_t> units(string.c_str(), string.c_str() + string.size() + 1);
   EXPECT_TRUE(CodeSet_Utf32ToUtf8(units.data(), &result));
   return Take(result);
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

/* A part of a string, and where it starts. */
struct Range {
   Range(const std::u32string &string, ssize_t start, ssize_t length)
       : from(std::min(static_cast<size_t>(start), string.size())),
         text(string.substr(from, static_cast<size_t>(length)))
   {
   }

   size_t from;
   std::u32string text;
};

ssize_t Found(const Range &range, const std::u32string &sought, size_t at)
{
   return at == std::u32string::npos ? -1 : static_cast<ssize_t>(range.from + (sought.empty() ? 0 : at));
}

/* Against the plain model, over strings short and repetitive enough for everything to happen. */
TEST(UnicodeOperations, AreThoseOfTheStandardLibraryOnCodePoints)
{
   const std::u32string alphabet = U"abAB\u00E9\u00C9\uFFFD\U0001F600\U0001F601\U00010400";
   std::mt19937 random(1);
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
      const char *const s1 = one8.c_str();
      const char *const s2 = two8.c_str();
      const ssize_t at1 = pick(-2, 14), n1 = pick(-2, 14), at2 = pick(-1, 4), n2 = pick(-1, 4);
      const Range range(one, at1, n1);
      const std::u32string sought = Range(two, at2, n2).text;
      SCOPED_TRACE(testing::PrintToString(std::tuple{one8, at1, n1, two8, at2, n2}));
      const size_t first = range.text.find(sought);
      const size_t last = range.text.rfind(sought);
      const int order = range.text.compare(sought);
      const int folded = Fold(range.text).compare(Fold(sought));

      ASSERT_EQ(Take(Unicode_Substr(s1, at1, n1)), ToUtf8(range.text));
      ASSERT_EQ(Unicode_FindSubstrInRange(s1, at1, n1, s2, at2, n2), Found(range, sought, first));
      ASSERT_EQ(Unicode_FindLastSubstrInRange(s1, at1, n1, s2, at2, n2), Found(range, sought, last));
      ASSERT_EQ(Take(Unicode_ReplaceRange(s1, at1, n1, s2, at2, n2)),
                ToUtf8(std::u32string(one).replace(range.from, range.text.size(), sought)));
      ASSERT_EQ(Unicode_CompareRange(s1, at1, n1, s2, at2, n2, false), (order > 0) - (order < 0));
      ASSERT_EQ(Unicode_CompareRange(s1, at1, n1, s2, at2, n2, true), (folded > 0) - (folded < 0));
   }
}

TEST(UnicodeOperations, TakeNullForNoString)
{
   EXPECT_EQ(Take(Unicode_Join("a", "", "\xC3\xA9", "c", nullptr)) + Take(Unicode_Join("a", nullptr)),
             "aéca");
   EXPECT_EQ(Unicode_Join(nullptr, "b", nullptr), nullptr);
   EXPECT_EQ(Unicode_Substr(nullptr, 0, -1), nullptr);
   EXPECT_EQ(Whole(nullptr, "a", false) + Whole("a", nullptr, false), -2);
   EXPECT_EQ(Unicode_CompareRange(nullptr, 1, 2, "a", 0, -1, false), -1);
   EXPECT_EQ(Whole("STRASSE", "strasse", true), 0);
   EXPECT_NE(Whole("\xC3\x9F", "ss", true), 0) << "each folds to one";
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

/* That of Unicode 5.0, where there is a table to compare it with. */
TEST(CaseFolding, HasThirteenPages)
{
   std::vector<size_t> pages;
   for (size_t i = 0; i < UNICODE_CASE_FOLDING_PAGES.size(); i++) {
      if (UNICODE_CASE_FOLDING_PAGES[i] != nullptr) {
         pages.push_back(i);
      }
   }
   EXPECT_EQ(pages, (std::vector<size_t>{0, 1, 2, 3, 4, 5, 0x10, 0x1E, 0x1F, 0x21, 0x24, 0x2C, 0xFF}));
   for (const auto &[from, to] : {std::pair{u'A', u'a'},
                                  {u'z', u'z'},
                                  {u'\u00B5', u'\u03BC'},
                                  {u'\u0178', u'\u00FF'},
                                  {u'\u0130', u'\u0130'},
                                  {u'\u1E9E', u'\u1E9E'},
                                  {u'\u10A0', u'\u2D00'},
                                  {u'\uFF21', u'\uFF41'}}) {
      EXPECT_EQ(CaseFolding_Unit(from), to) << std::hex << int{from};
   }
#ifdef U_UNICODE_VERSION
   for (uint32_t unit = 0; unit < 0x10000; unit++) {
      UVersionInfo age;
      u_charAge(static_cast<UChar32>(unit), age);
      const bool existed = age[0] > 0 && age[0] <= 5 && !(age[0] == 5 && age[1] > 0);
      const auto folded = static_cast<uint32_t>(u_foldCase(static_cast<UChar32>(unit), U_FOLD_CASE_DEFAULT));
      ASSERT_EQ(CaseFolding_Unit(static_cast<char16_t>(unit)), existed ? folded : unit) << std::hex << unit;
   }
#endif
}

} // namespace
