#include "lib/string/bsd_vsnprintf.h"
#include "lib/string/str.h"

#include "tests/support/testSupport.h"

#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Engine = int (*)(char **output, size_t size, const char *format, va_list args);

/* An engine with group sizes, and with a decimal point of two bytes. */
template <char... SIZES> int Grouped(char **output, size_t size, const char *format, va_list args)
{
   static constexpr char grouping[] = {SIZES..., '\0'};
   return Fmt_Format(output, grouping, ',', "::", size, format, args);
}

/* The helpers carry no format attribute: the compiler does not know all that the engine understands. */

int Fixed(char *buffer, size_t size, const char *format, ...)
{
   va_list args;
   va_start(args, format);
   const int result = Fmt_Vsnprintf(&buffer, size, format, args);
   va_end(args);
   return result;
}

/* The output in allocating mode; a failure is "<-1>". */
template <Engine ENGINE = Fmt_Vsnprintf> std::string F(const char *format, ...)
{
   char *output = nullptr;
   va_list args;
   va_start(args, format);
   const int result = ENGINE(&output, 0, format, args);
   va_end(args);
   const std::unique_ptr<char, Freed> owned(output);
   if (result < 0) {
      EXPECT_TRUE(output == nullptr && result == -1);
      return "<-1>";
   }
   EXPECT_EQ(output[result], '\0');
   return {output, static_cast<size_t>(result)};
}

/* Generated formats through the C library's engine, which rounds correctly too, and through ours in both modes, the
   fixed one with less room than the text may need. Ends at the first difference. */
class FmtAgainstLibrary : public testing::Test {
 protected:
   template <typename... Arguments> void Expect(const std::string &format, Arguments... arguments)
   {
      static char expected[8192];
      const int length = snprintf(expected, sizeof expected, format.c_str(), arguments...);
      const size_t size = Below(static_cast<size_t>(length) + 2) + 1;
      std::vector<char> buffer(size, '?');

      ASSERT_EQ(F(format.c_str(), arguments...), expected) << format;
      ASSERT_EQ(Fixed(buffer.data(), size, format.c_str(), arguments...), length) << format;
      ASSERT_EQ(std::string(buffer.data()), std::string(expected).substr(0, size - 1)) << format;
   }

   size_t Below(size_t n)
   {
      return random_() % n;
   }

   std::string OneOf(const std::vector<const char *> &values)
   {
      return values[Below(values.size())];
   }

   /* The start of a directive, with some of the flags. */
   std::string Directive(const char *flags, size_t precisionLimit)
   {
      std::string text = "%";
      for (; *flags != '\0'; flags++) {
         text.append(Below(4) == 0 ? 1 : 0, *flags);
      }
      text += Below(2) == 0 ? "" : std::to_string(1 + Below(40));
      return text + (Below(2) == 0 ? OneOf({"", ".", ".0"}) : "." + std::to_string(Below(precisionLimit)));
   }

   /* All magnitudes alike; one in ten is 0. */
   uint64_t Integer()
   {
      return Below(10) == 0 ? 0 : random_() >> Below(64);
   }

   double Real()
   {
      const auto integer = static_cast<double>(static_cast<int64_t>(Integer()));
      return Below(2) == 0 ? integer / 1000.0 : std::ldexp(integer, static_cast<int>(Below(2060)) - 1100);
   }

 private:
   std::mt19937_64 random_{20240611};
};

TEST_F(FmtAgainstLibrary, IntegersAndText)
{
   static const std::string letters(300, 'q');

   for (int i = 0; i < 20000 && !HasFatalFailure(); i++) {
      const std::string directive = "<" + Directive("#-+ 0'", 60);
      const std::string conversion = OneOf({"d>", "i>", "o>", "u>", "x>", "X>"});
      const uint64_t value = Integer();
      Expect(directive + OneOf({"", "hh", "h"}) + conversion, static_cast<unsigned>(value));
      Expect(directive + OneOf({"l", "ll", "j", "z", "t", "q"}) + conversion, value);
      const char *const text = letters.c_str() + Below(letters.size());
      const int width = static_cast<int>(Below(80)) - 40;
      const int precision = static_cast<int>(Below(40)) - 3;
      Expect(std::string(Below(200), '.') + Directive("-", 30) + "s|%*c|%-3c%%", text, width, 'x', 'y');
      Expect("%2$s|%1$*3$d%5$.*4$e%1$x%2$.3s", width, text, 12, precision, Real());
   }
}

/* Apart from halves without a place for them, where the library takes the even side, and its %#g, which loses the
   zeros where rounding carries into a new digit: see below for ours. */
TEST_F(FmtAgainstLibrary, FloatingNumbers)
{
   for (int i = 0; i < 30000 && !HasFatalFailure(); i++) {
      const std::string conversion = OneOf({"e", "E", "f", "F", "g", "G"});
      const std::string directive =
          Directive(conversion < "g" && conversion != "G" ? "#-+ 0'" : "-+ 0'", Below(50) == 0 ? 1200 : 30);
      const bool whole = directive.ends_with('.') || directive.ends_with(".0");
      const double value = whole ? std::round(Real()) : Real();
      Expect(directive + conversion, value);
      Expect(directive + "L" + conversion, static_cast<long double>(value));
   }
   for (int exponent = -323; exponent <= 308 && !HasFatalFailure(); exponent++) {
      const double power = strtod(("1e" + std::to_string(exponent)).c_str(), nullptr);
      Expect("%e|%.16e|%g|%.3f|%f", power, power, power, power, power);
      Expect("%.0e|%.1f|%.2f", 25 * power, 25 * power / 100, 25 * power / 1000);
   }
}

TEST(Fmt, GoesItsOwnWay)
{
   EXPECT_EQ(F("%5-d|%-+ 5d|% +d", 7, 7, 7), "7    |+7   |+7") << "any order; a blank never overrides a plus";
   EXPECT_EQ(F("%05s|%05c|%05%|%-05s|", "ab", 'c', "ab"), "000ab|0000c|0000%|ab   |") << "zeros for all";
   EXPECT_EQ(F("") + F("%5") + F("ab%"), "ab");
   void *const address = reinterpret_cast<void *>(0x1f);
   EXPECT_EQ(F("%+p|%#p|%8p|%08p|%.4p|%p", address, address, address, address, address, nullptr),
             "1F|1F|      1F|0000001F|001F|0");
   EXPECT_EQ(F("%a%A%y%d|%4a|%-3y|%\x80|%\x1f|%{", 1), "aAy1|   a|y  |\x80|\x1f|{")
       << "none takes an argument";
   EXPECT_EQ(F("%c|%%|%3%|%5$%|%$", 0), std::string("\0|%|  %|%|$", 11));
   EXPECT_EQ(F("%I32d|%I64d|%Id|%I3d", -1, INT64_MIN, INT64_MIN, 5L),
             "-1|-9223372036854775808|-9223372036854775808|  5");
   EXPECT_EQ(F("%D|%U|%O|%Zu|%Ld", LONG_MIN, ULONG_MAX, 8L, SIZE_MAX, INT64_MIN),
             "-9223372036854775808|18446744073709551615|10|18446744073709551615|-9223372036854775808");
   EXPECT_EQ(F("%qlld|%Llld|%I64lld|%lllld|%hhhhd|%Lllg", 8589934593, 8589934593, 8589934593, 8589934593, 255,
               0.5L),
             "8589934593|8589934593|8589934593|8589934593|-1|0.5")
       << "a doubled size counts, whatever came before";

   EXPECT_EQ(F("%O|%S|%s|%1$d%", 1L << 40, L"ab", "cd"), "20000000000000|ab|cd|0")
       << "the last one ends the format";

   EXPECT_EQ(F("%.0f|%.0f|%.0f|%.0f|%#.0f|%.0F", 2.5, -2.5, 0.5, 0.49999999999999994, 3.5, 1.5),
             "3|-3|1|0|4.|2");
   EXPECT_EQ(F("%E|%f|%G|%F|%e|%g", INFINITY, NAN, -INFINITY, NAN, INFINITY, -INFINITY),
             "INF|nan|-INF|NAN|inf|-inf");
   EXPECT_EQ(F("%08f|%+F|%-6e|%.1f|%f", INFINITY, INFINITY, -INFINITY, INFINITY, std::copysign(NAN, -1)),
             "00000inf|+INF|-inf  |inf|nan");
   EXPECT_EQ(F("%.20Lf|%.3f|%.2f|%.2f", 0.1L, 0.001, 0.125, 0.375), "0.10000000000000000555|0.001|0.12|0.38");
   EXPECT_EQ(F("%#g|%#g|%#g|%#g|%#g|%#.0g|%#.3G", 0.0, 1.0, 999999.5, 1e5, 1e-4, 3.0, 99999.0),
             "0.00000|1.00000|1.00000e+06|100000.|0.000100000|3.|1.00E+05");
}

TEST(Fmt, CutsAndConvertsTextByCharacters)
{
   static constexpr wchar_t wide[] = {'a', 0xE9, 0x20AC, 0xD800, 0x1F600, 0x110000, -1, 0};
   static constexpr wchar_t edges[] = {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0x10FFFF, 0};
   const char unterminated[] = {'a', 'b'};
   EXPECT_EQ(F("%.4s|%.5s|%5.4s|", "abc\u00E9", "abc\u00E9", "abc\u00E9"), "abc|abc\u00E9|  abc|");
   EXPECT_EQ(F("%.9s|%.2s", "ab\xE2\x82", unterminated), "ab|ab") << "incomplete before the cut already";
   EXPECT_EQ(F("%ls", wide), "a\u00E9\u20AC\xED\xA0\x80\U0001F600\uFFFD\uFFFD");
   EXPECT_EQ(F("%ls", edges), "\x7F\xC2\x80\u07FF\u0800\uFFFF\U00010000\U0010FFFF");
   EXPECT_EQ(F("%.5ls|%.6ls|%6.2ls|%.0ls|%-3.1S|", wide, wide, wide, wide, L"xyz"),
             "a\u00E9|a\u00E9\u20AC|     a||x  |");
   EXPECT_EQ(F("%s|%ls|%.3S|%9s", nullptr, nullptr, nullptr, nullptr), "(null)|(null)|(nu|   (null)");
   EXPECT_EQ(F("%lc%C|%3lc|%lc", L'a', L'b', L'c', 0), std::string("ab|  c|\0", 8));
}

TEST(Fmt, GroupsDecimalDigits)
{
   EXPECT_EQ(F<Grouped<3>>("%'d|%'d|%'u|%'d", 1234567, -123456, 999U, 1000), "1,234,567|-123,456|999|1,000");
   EXPECT_EQ(F<Grouped<3>>("%'x|%'o|%d|%'.0d|", 0x123456, 01234567, 1234, 0), "123456|1234567|1234||");
   EXPECT_EQ(F<Grouped<3>>("%'12d|%'.9d|%'-8d|", 12345, 12345, 1234), "      12,345|00012,345|1,234   |");
   EXPECT_EQ(F<Grouped<3>>("%'.2f|%'g|%f|%'.1e|%'f", 1234567.891, 123456.0, 1234.5, 12345.0, 0.5),
             "1,234,567::89|123,456|1234::500000|1::2e+04|0::500000");
   EXPECT_EQ(F<Grouped<3>>("%8.1f|", 1.5), "    1::5|") << "the whole point counts";
   EXPECT_EQ(F<Grouped<1>>("%'.0f", DBL_MAX).size(), 2 * 309 - 1);
   EXPECT_EQ((F<Grouped<3, 2>>("%'lu", UINT64_MAX)), "1,84,46,74,40,73,70,95,51,615");
   EXPECT_EQ((F<Grouped<3, 127>>("%'d", 123456789)), "123456,789");
   EXPECT_EQ(F<Grouped<>>("%'d", 1234567), "1234567");
   EXPECT_EQ(F<Fmt_VsnprintfCLocale>("%'d %.1f", 1234567, 1.5), "1234567 1.5");
}

TEST(Fmt, TakesNumberedArguments)
{
   EXPECT_EQ(F("%s %2$s %s %1$s", "a", "b", "c"), "a b c a") << "numbers after the first conversion";
   EXPECT_EQ(F("%3$d %1$d", 1, 99, 3), "3 1") << "a gap is an int";
   EXPECT_EQ(F("%3$Lg %1$s %2$ld %4$d", "x", LONG_MIN, 2.5L, 4), "2.5 x -9223372036854775808 4");
   EXPECT_EQ(F("%1$lc%1$d %2$g %3$p", 'a', 0.5, reinterpret_cast<void *>(0xab)), "a97 0.5 AB");
   EXPECT_EQ(F("%2$*1$d|%-*d|", 3, 5, -4, 6), "  5|6   |") << "after the second come the third and on";
   EXPECT_EQ(F("%1$d%", 5), "5") << "a lone % ends the format";
   EXPECT_EQ(F("%*0$d|%2$d", 7, 8), "7|8") << "there is no argument 0";
   EXPECT_EQ(F("%30$s%9$s%1$d", 1, 2, 3, 4, 5, 6, 7, 8, "nine", 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
               21, 22, 23, 24, 25, 26, 27, 28, 29, "thirty"),
             "thirtynine1");
}

TEST(Fmt, StoresTheCountInTheWidthAsked)
{
   const std::string text(300, 'x');
   std::array<int64_t, 6> counts;
   counts.fill(-1);
   F("%2$s%1$n%3$hhn%4$hn%5$ln%6$zn%7$I64n", &counts[0], text.c_str(), &counts[1], &counts[2], &counts[3],
     &counts[4], &counts[5]);
   EXPECT_EQ(counts, (std::array<int64_t, 6>{-0xFFFFFED4LL, -0xD4, -0xFED4, 300, 300, 300}));
}

TEST(Fmt, KeepsWithinTheFixedBuffer)
{
   char buffer[] = "????????????";
   int32_t count = 0;
   EXPECT_EQ(Fixed(buffer, 8, "%s%n", "abcdefghij", &count), 10);
   EXPECT_EQ(count, 10) << "what was dropped counts";
   EXPECT_EQ(std::string(buffer, sizeof buffer - 1), std::string("abcdefg\0????", 12));
   EXPECT_EQ(Fixed(buffer, 0, "%d %30s", 12345, "a"), 36);
   EXPECT_EQ(buffer[0], 'a');
   EXPECT_EQ(Fixed(buffer, SIZE_MAX, "%+d|%3s", 1, "a"), 6);
   EXPECT_STREQ(buffer, "+1|  a");
   EXPECT_EQ(Fixed(buffer, 6, "abc%lcdef", 0x110000), -1);
   EXPECT_STREQ(buffer, "abc");
}

TEST(Fmt, FailsWhereTheCountWouldNotFitAnInt)
{
   char unused = '?';
   EXPECT_EQ(Fixed(&unused, 0, "%2147483647d", 1), INT_MAX);
   EXPECT_EQ(Fixed(&unused, 0, "%.2147483645f", 1.5), INT_MAX);
   for (const char *format :
        {"%2147483648d", "x%2147483647d", "%-2147483647dx", "%.2147483647f", "%.2147483648d", "%.2147483647e",
         "%99999999999999999999d", "%2147483647d%2147483647d"}) {
      EXPECT_EQ(Fixed(&unused, 0, format, 1, 1, 1.5), -1) << format;
   }
   EXPECT_EQ(Fixed(&unused, 0, "%*d", INT_MIN, 1), -1);
}

TEST(Fmt, GivesTheSameDigitsToManyThreads)
{
   OnThreads(4, [](size_t thread) {
      const double seed = static_cast<double>(thread) + 1;
      const std::string expected = F("%.9f|%.15e", seed / 7.0, seed * 1e30);
      for (int n = 0; n < 500; n++) {
         ASSERT_EQ(F("%.9f|%.15e", seed / 7.0, seed * 1e30), expected);
      }
   });
}

/* No character has this value: to format it is an error. */
constexpr auto NO_CHARACTER = static_cast<wint_t>(0x110000);

TEST(Str, CutsAtTheEndOfACharacterOrPanics)
{
   struct Row {
      size_t size;
      const char *text;
      int result;
      const char *stored;
   };
   for (const auto &[size, text, result, stored] : {Row{4, "abc", 3, "abc"},
                                                    {4, "abcd", -1, "abc"},
                                                    {4, "ab\u20AC", -1, "ab"},
                                                    {5, "ab\u20AC", -1, "ab"},
                                                    {6, "ab\u20AC!", -1, "ab\u20AC"},
                                                    {5, "\U0001F600\u00E9", -1, "\U0001F600"},
                                                    {4, "a\x80\x80\x80", -1, "a\x80\x80"},
                                                    {3, "\x80\x80\x80", -1, ""},
                                                    {1, "a", -1, ""},
                                                    {0, "a", -1, "????????"}}) {
      char buffer[] = "????????";
      EXPECT_EQ(Str_Snprintf(buffer, size, "%s", text), result) << text << " in " << size;
      EXPECT_STREQ(buffer, stored) << size;
      EXPECT_EQ(buffer[size], '?');
   }
   static char buffer[8];
   EXPECT_EQ(Str_Snprintf(buffer, 4, "ab\xC3%lc", NO_CHARACTER), -1);
   EXPECT_STREQ(buffer, "ab");
   EXPECT_EQ(Str_Snprintf(nullptr, 0, "%d", 1), -1);
   EXPECT_EQ(Str_Sprintf(buffer, sizeof buffer, "%s-%d", "abc", 123), 7);
   EXPECT_EQ(Str_SprintfCLocale(buffer, sizeof buffer, "%.5f", 0.5), 7);
   EXPECT_STREQ(buffer, "0.50000");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 7, "%.5f", 0.5), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 0, " "), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(Str_SprintfCLocale(buffer, 8, "%lc", NO_CHARACTER), "lib/string/str:177 Buffer too small\n");
   EXPECT_PANIC(
       {
          atexit([] { dprintf(STDERR_FILENO, "left <%s>", buffer); });
          Str_Sprintf(buffer, 4, "ab\u20AC");
       },
       "lib/string/str:214 Buffer too small\nleft <ab>");
}

TEST(Str, AsprintfGivesTheTextAndItsLengthOrNeither)
{
   size_t length = 99;
   EXPECT_EQ(Take(Str_Asprintf(&length, "%s/%s", "a", "b")), "a/b");
   EXPECT_EQ(length, 3U);
   EXPECT_EQ(Str_Asprintf(&length, "a%lc", NO_CHARACTER), nullptr);
   EXPECT_EQ(length, 3U);
   EXPECT_EQ(Take(Str_SafeAsprintf(nullptr, "%04d", 7)), "0007");
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
