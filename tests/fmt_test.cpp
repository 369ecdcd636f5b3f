#include "lib/string/bsd_vsnprintf.h"

#include "tests/support/testSupport.h"

#include <cerrno>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

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
std::string F(const char *format, ...)
{
   char *output = nullptr;
   va_list args;
   va_start(args, format);
   const int result = Fmt_Vsnprintf(&output, 0, format, args);
   va_end(args);
   if (result < 0) {
      EXPECT_EQ(output, nullptr);
      EXPECT_EQ(result, -1);
      return "<-1>";
   }
   std::string text(output, static_cast<size_t>(result));
   EXPECT_EQ(output[result], '\0');
   free(output);
   return text;
}

std::string Grouped(const char *grouping, const char *point, const char *format, ...)
{
   char *output = nullptr;
   va_list args;
   va_start(args, format);
   const int result = Fmt_Format(&output, grouping, ',', point, 0, format, args);
   va_end(args);
   EXPECT_GE(result, 0);
   return Take(output);
}

std::string InCLocale(const char *format, ...)
{
   char *output = nullptr;
   va_list args;
   va_start(args, format);
   EXPECT_GE(Fmt_VsnprintfCLocale(&output, 0, format, args), 0);
   va_end(args);
   return Take(output);
}

/* The same format and arguments through the C library's engine, which rounds correctly too, and through ours in both
   modes, the fixed one with less room than the text may need. */
template <typename... Arguments>
void ExpectAsLibrary(std::mt19937_64 *random, const std::string &format, Arguments... arguments)
{
   static char expected[8192];
   const int length = snprintf(expected, sizeof expected, format.c_str(), arguments...);
   ASSERT_TRUE(length >= 0 && static_cast<size_t>(length) < sizeof expected) << format;

   ASSERT_EQ(F(format.c_str(), arguments...), expected) << format;

   const size_t size = (*random)() % (static_cast<size_t>(length) + 2) + 1;
   std::vector<char> buffer(size, '?');
   ASSERT_EQ(Fixed(buffer.data(), size, format.c_str(), arguments...), length) << format;
   ASSERT_EQ(std::string(buffer.data()), std::string(expected).substr(0, size - 1)) << format;
}

class Generator {
 public:
   std::mt19937_64 random{20240611};

   size_t Below(size_t n)
   {
      return random() % n;
   }

   std::string SomeOf(const char *characters)
   {
      std::string some;
      for (; *characters != '\0'; characters++) {
         if (Below(4) == 0) {
            some += *characters;
         }
      }
      return some;
   }

   template <typename T, size_t N> const T &OneOf(const T (&values)[N])
   {
      return values[Below(N)];
   }

   std::string Width()
   {
      return Below(2) == 0 ? "" : std::to_string(1 + Below(40));
   }

   std::string Precision(size_t limit)
   {
      static constexpr const char *usual[] = {"", "", ".", ".0", ".1", ".2", ".3"};
      return Below(2) == 0 ? OneOf(usual) : std::string(".").append(std::to_string(Below(limit)));
   }

   /* All magnitudes alike. */
   uint64_t Integer()
   {
      return random() >> Below(64);
   }

   double Real()
   {
      static constexpr double special[] = {0.0,      -0.0,      0.5,    1.5,  2.5,      0.125,        9.995,
                                           999999.5, 9.9999995, 1e15,   1e22, 1e23,     DBL_MAX,      DBL_MIN,
                                           0.0001,   0.00001,   123456, 1e-5, 99999.95, DBL_TRUE_MIN, -1e100};
      switch (Below(5)) {
      case 0:
         return OneOf(special);
      case 1:
         return static_cast<double>(Integer()) / static_cast<double>(1ULL << Below(30));
      case 2: { /* any finite bit pattern */
         const double value = std::bit_cast<double>(random());
         return std::isfinite(value) ? value : 1.0;
      }
      case 3:
         return std::ldexp(static_cast<double>(random() >> 11), static_cast<int>(Below(140)) - 120);
      default:
         return static_cast<double>(static_cast<int64_t>(Integer())) / 1000.0;
      }
   }
};

TEST(FmtFormat, AgreesWithTheLibraryOnIntegers)
{
   static constexpr const char *sizes[] = {"", "hh", "h", "l", "ll", "j", "z", "t", "q"};
   Generator g;

   for (int i = 0; i < 30000; i++) {
      const std::string size = g.OneOf(sizes);
      const std::string format =
          "<%" + g.SomeOf("#-+ 0'") + g.Width() + g.Precision(60) + size + "diouxX"[g.Below(6)] + ">";
      const uint64_t value = g.Below(10) == 0 ? 0 : g.Integer();
      if (size.empty() || size[0] == 'h') {
         ASSERT_NO_FATAL_FAILURE(ExpectAsLibrary(&g.random, format, static_cast<unsigned>(value)));
      } else {
         ASSERT_NO_FATAL_FAILURE(ExpectAsLibrary(&g.random, format, value));
      }
   }
}

TEST(FmtFormat, AgreesWithTheLibraryOnFloatingNumbers)
{
   Generator g;

   /* The library's %#g loses the zeros where rounding carries into a new digit: see below for ours. */
   for (int i = 0; i < 40000; i++) {
      const char conversion = "eEfFgG"[g.Below(6)];
      const std::string precision = g.Precision(g.Below(50) == 0 ? 1200 : 30);
      const std::string flags = g.SomeOf((conversion | 0x20) == 'g' ? "-+ 0'" : "#-+ 0'");
      const std::string start = "%" + flags + g.Width() + precision;
      double value = g.Real();
      if ((precision == "." || precision == ".0") && (conversion == 'f' || conversion == 'F')) {
         value = std::round(value); /* halves, where the library takes the even side */
      }
      if (g.Below(8) == 0) {
         ASSERT_NO_FATAL_FAILURE(
             ExpectAsLibrary(&g.random, start + "L" + conversion, static_cast<long double>(value)))
             << value;
      } else {
         ASSERT_NO_FATAL_FAILURE(ExpectAsLibrary(&g.random, start + conversion, value)) << value;
      }
   }
}

TEST(FmtFormat, AgreesWithTheLibraryOnTextAndMixedArguments)
{
   static const std::string letters(300, 'q');
   Generator g;

   for (int i = 0; i < 15000; i++) {
      const char *const text = letters.c_str() + g.Below(letters.size());
      const int width = static_cast<int>(g.Below(80)) - 40;
      const int precision = static_cast<int>(g.Below(40)) - 3;
      const std::string literal(g.Below(200), '.');

      ASSERT_NO_FATAL_FAILURE(ExpectAsLibrary(
          &g.random, literal + "%" + g.SomeOf("-") + g.Width() + g.Precision(30) + "s|%*c|%-3c%%", text,
          width, 'x', 'y'));
      ASSERT_NO_FATAL_FAILURE(
          ExpectAsLibrary(&g.random, literal + "%*.*f%s%d", width, precision | 1, g.Real(), text, width));
      ASSERT_NO_FATAL_FAILURE(ExpectAsLibrary(&g.random, "%2$s" + literal + "%1$*3$d%5$.*4$e%1$x%2$.3s",
                                              width, text, 12, precision, g.Real()));
   }
}

TEST(FmtFormat, LaysOutFields)
{
   EXPECT_EQ(F("%5s|%-5s|", "ab", "cd"), "   ab|cd   |");
   EXPECT_EQ(F("%5-d|%-+ 5d|% +d", 7, 7, 7), "7    |+7   |+7") << "any order; a blank never overrides a plus";
   EXPECT_EQ(F("%0*d|%*d|", -4, 7, -4, 7), "7   |7   |");
   EXPECT_EQ(F("%.*d|%.*s", -1, 0, -5, "abc"), "0|abc");
   EXPECT_EQ(F("%05s|%05c|%05%|%-05s|", "ab", 'c', "ab"), "000ab|0000c|0000%|ab   |") << "zeros for all";
   EXPECT_EQ(F("%+u|% x|%+s|%+c|%+p", 1U, 2U, "a", 'b', nullptr), "1|2|a|b|0");
   EXPECT_EQ(F("%+.3d|%05.3d|%-5.2d|", 7, 7, 7), "+007|  007|07   |");
   EXPECT_EQ(F(""), "");
   EXPECT_EQ(F("%5"), "");
   EXPECT_EQ(F("ab%"), "ab");
}

TEST(FmtFormat, GoesItsOwnWayWithIntegersAndUnknownConversions)
{
   EXPECT_EQ(F("%p|%#p|%8p|%08p|%.4p|%p", 0x1f, 0x1f, 0x1f, 0x1f, 0x1f, nullptr),
             "1F|1F|      1F|0000001F|001F|0");
   EXPECT_EQ(F("%#x|%#X|%#o|%#.0o|%.0d|%.0x|", 0, 255, 8, 0, 0, 0), "0|0XFF|010|0|||");
   EXPECT_EQ(F("%a%A%y%d", 1), "aAy1") << "they take no argument";
   EXPECT_EQ(F("%4a|%-3y|%\x80|%\x1f|%{", 1), "   a|y  |\x80|\x1f|{");
   EXPECT_EQ(F("%%|%3%|%5$%|%$"), "%|  %|%|$");
   EXPECT_EQ(F("%c", 0), std::string(1, '\0'));
   EXPECT_EQ(F("%c|%hhd|%hd|%hhu", 0x141, 0x1ff, 0x18000, -1), "A|-1|-32768|255");
   EXPECT_EQ(F("%I32d|%I64d|%Id|%Ix|%I3d", -1, INT64_MIN, INT64_MIN, UINT64_MAX, 5L),
             "-1|-9223372036854775808|-9223372036854775808|ffffffffffffffff|  5");
   EXPECT_EQ(F("%D|%U|%O|%Zu|%Ld|%qx", LONG_MIN, ULONG_MAX, 8L, SIZE_MAX, INT64_MIN, UINT64_MAX),
             "-9223372036854775808|18446744073709551615|10|18446744073709551615|-9223372036854775808|"
             "ffffffffffffffff");
}

TEST(FmtFormat, GoesItsOwnWayWithFloatingNumbers)
{
   EXPECT_EQ(F("%.0f|%.0f|%.0f|%.0f|%#.0f|%.0F", 2.5, -2.5, 0.5, 0.49999999999999994, 3.5, 1.5),
             "3|-3|1|0|4.|2");
   EXPECT_EQ(F("%.0e|%.0g|%.1f", 2.5, 2.5, 0.25), "2e+00|2|0.2") << "ties to even elsewhere";
   EXPECT_EQ(F("%E|%f|%G|%F|%e", INF, NOT_A_NUMBER, -INF, NOT_A_NUMBER, INF), "INF|nan|-INF|NAN|inf");
   EXPECT_EQ(F("%08f|%+F|%-6e|%+f|%.1f|%f", INF, INF, -INF, -INF, INF, std::copysign(NOT_A_NUMBER, -1)),
             "00000inf|+INF|-inf  |-inf|inf|nan");
   EXPECT_EQ(F("%Lf|%.20Lf", 1.5L, 0.1L), "1.500000|0.10000000000000000555");
   EXPECT_EQ(F("%f|%e|%g|%.0f|%#g", -0.0, -0.0, -0.0, -0.0, 0.0), "-0.000000|-0.000000e+00|-0|-0|0.00000");
   EXPECT_EQ(F("%g|%g|%g|%g|%.0g|%#.3g", 1e5, 1e6, 1e-4, 1e-5, 12.0, 1.0),
             "100000|1e+06|0.0001|1e-05|1e+01|1.00");
   EXPECT_EQ(F("%#g|%#g|%#g|%#.0g|%#.3G", 999999.5, 1e5, 1e-4, 3.0, 99999.0),
             "1.00000e+06|100000.|0.000100000|3.|1.00E+05");
   EXPECT_EQ(F("%e|%e|%.2E", 0.0, 1e-300, 1e300), "0.000000e+00|1.000000e-300|1.00E+300");
}

TEST(FmtFormat, NeverCutsThroughAUtf8Character)
{
   EXPECT_EQ(F("%.4s|%.5s|%.9s", "abc\xC3\xA9", "abc\xC3\xA9", "abc\xC3\xA9"), "abc|abc\xC3\xA9|abc\xC3\xA9");
   EXPECT_EQ(F("%.3s|%.2s|%.1s|%.0s|", "\xE2\x82\xAC", "\xE2\x82\xAC", "\xE2\x82\xAC", "\xE2\x82\xAC"),
             "\xE2\x82\xAC||||");
   EXPECT_EQ(F("%.3s|%.4s", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80z"), "|\xF0\x9F\x98\x80");
   EXPECT_EQ(F("%.9s", "ab\xE2\x82"), "ab") << "incomplete before the cut already";
   EXPECT_EQ(F("%.2s|%.3s|", "\x80\x80z", "a\x80\x80"), "|a\x80\x80|");
   EXPECT_EQ(F("%5.4s|", "abc\xC3\xA9"), "  abc|");
   const char unterminated[] = {'a', 'b'};
   EXPECT_EQ(F("%.2s", unterminated), "ab");
}

TEST(FmtFormat, ConvertsWideText)
{
   static constexpr wchar_t text[] = {'a', 0xE9, 0x20AC, 0xD800, 0x1F600, 0x110000, -1, 0};
   EXPECT_EQ(F("%ls|%S", text, L"z"),
             "a\xC3\xA9\xE2\x82\xAC\xED\xA0\x80\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD|z");
   EXPECT_EQ(F("%.5ls|%.6ls|%6.2ls|%.0ls|%-3.1S|", text, text, text, text, L"xyz"),
             "a\xC3\xA9|a\xC3\xA9\xE2\x82\xAC|     a||x  |");
   EXPECT_EQ(F("%s|%ls|%.3S|%9s", nullptr, nullptr, nullptr, nullptr), "(null)|(null)|(nu|   (null)");
   EXPECT_EQ(F("%lc%C|%3lc|%lc", L'a', L'b', L'c', 0), std::string("ab|  c|\0", 8));
   EXPECT_EQ(F("ab%lc", 0x110000), "<-1>");
}

TEST(FmtFormat, GroupsDecimalDigits)
{
   EXPECT_EQ(Grouped("\3", ".", "%'d|%'d|%'u|%'d", 1234567, -123456, 999U, 1000),
             "1,234,567|-123,456|999|1,000");
   EXPECT_EQ(Grouped("\3\2", ".", "%'d|%'lu", 123456789, UINT64_MAX),
             "12,34,56,789|1,84,46,74,40,73,70,95,51,615");
   EXPECT_EQ(Grouped("\3\177", ".", "%'d", 123456789), "123456,789");
   EXPECT_EQ(Grouped("", ".", "%'d", 1234567), "1234567");
   EXPECT_EQ(Grouped(nullptr, ".", "%'d", 1234567), "1234567");
   EXPECT_EQ(Grouped("\1", ".", "%'lu", UINT64_MAX), "1,8,4,4,6,7,4,4,0,7,3,7,0,9,5,5,1,6,1,5");
   EXPECT_EQ(Grouped("\3", ".", "%'x|%'o|%d|%'.0d|%012d", 0x123456, 01234567, 1234, 0, 1234),
             "123456|1234567|1234||000000001234");
   EXPECT_EQ(Grouped("\3", ".", "%'12d|%'.9d|%'-8d|", 12345, 12345, 1234),
             "      12,345|00012,345|1,234   |");
   EXPECT_EQ(Grouped("\3", "::", "%'.2f|%'g|%f|%'.1e|%'f", 1234567.891, 123456.0, 1234.5, 12345.0, 0.5),
             "1,234,567::89|123,456|1234::500000|1::2e+04|0::500000");
   EXPECT_EQ(Grouped("\3", "::", "%8.1f|", 1.5), "    1::5|") << "the whole point counts";
   EXPECT_EQ(Grouped("\1", ".", "%'.0f", DBL_MAX).size(), 2 * 309 - 1);
   EXPECT_EQ(InCLocale("%'d %.1f", 1234567, 1.5), "1234567 1.5");
}

TEST(FmtFormat, TakesNumberedArguments)
{
   EXPECT_EQ(F("%2$s %1$s", "a", "b"), "b a");
   EXPECT_EQ(F("%1$*2$.*3$f|", 3.14159, 8, 2), "    3.14|");
   EXPECT_EQ(F("%s %2$s %s %1$s", "a", "b", "c"), "a b c a") << "numbers after the first conversion";
   EXPECT_EQ(F("%3$d %1$d", 1, 99, 3), "3 1") << "a gap is an int";
   EXPECT_EQ(F("%3$Lg %1$s %2$ld %4$d", "x", LONG_MIN, 2.5L, 4), "2.5 x -9223372036854775808 4");
   EXPECT_EQ(F("%1$lc%1$d %2$g %3$p", 'a', 0.5, 0xab), "a97 0.5 AB");
   EXPECT_EQ(F("%2$*1$d|%-*d|", 3, 5, -4, 6), "  5|6   |")
       << "the next after the second are the third and on";
   EXPECT_EQ(F("%*2$d%3$s", 7, 3, "z"), "  7z");
   EXPECT_EQ(F("%*0$d|%2$d", 7, 8), "7|8") << "there is no argument 0";
   EXPECT_EQ(F("%30$s%9$s%1$d", 1, 2, 3, 4, 5, 6, 7, 8, "nine", 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
               21, 22, 23, 24, 25, 26, 27, 28, 29, "thirty"),
             "thirtynine1");
   int count = 0;
   F("abc%2$d%1$n", &count, 42);
   EXPECT_EQ(count, 5);
}

TEST(FmtFormat, StoresTheCountInTheWidthAsked)
{
   struct Guarded {
      int64_t value = -1;
   } plain, chars, shorts, longs, sizes, large;
   const std::string text(300, 'x');

   F("%s%n%hhn%hn%ln%zn%I64n", text.c_str(), &plain, &chars, &shorts, &longs, &sizes, &large);
   EXPECT_EQ(plain.value, static_cast<int64_t>(0xFFFFFFFF0000012C));
   EXPECT_EQ(chars.value, static_cast<int64_t>(0xFFFFFFFFFFFFFF2C));
   EXPECT_EQ(shorts.value, static_cast<int64_t>(0xFFFFFFFFFFFF012C));
   EXPECT_EQ(longs.value, 300);
   EXPECT_EQ(sizes.value, 300);
   EXPECT_EQ(large.value, 300);
   int32_t beyond = 0;
   char small[4];
   EXPECT_EQ(Fixed(small, sizeof small, "%s%n", text.c_str(), &beyond), 300);
   EXPECT_EQ(beyond, 300) << "what was dropped counts";
}

TEST(FmtFormat, KeepsWithinTheFixedBuffer)
{
   char buffer[] = "????????????";
   EXPECT_EQ(Fixed(buffer, 8, "%s", "abcdefghij"), 10);
   EXPECT_EQ(std::string(buffer, sizeof buffer - 1), std::string("abcdefg\0????", 12));
   EXPECT_EQ(Fixed(buffer, 1, "%d", 12345), 5);
   EXPECT_EQ(buffer[0], '\0');
   buffer[0] = '?';
   EXPECT_EQ(Fixed(buffer, 0, "%d %30s", 12345, "a"), 36);
   EXPECT_EQ(buffer[0], '?');
   EXPECT_EQ(Fixed(buffer, SIZE_MAX, "%+d|%3s", 1, "a"), 6);
   EXPECT_STREQ(buffer, "+1|  a");
   EXPECT_EQ(Fixed(buffer, 6, "abc%lcdef", 0x110000), -1);
   EXPECT_STREQ(buffer, "abc");
}

TEST(FmtFormat, FailsWhereTheCountWouldNotFitAnInt)
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
   EXPECT_EQ(unused, '?');
}

TEST(FmtFormat, LeavesErrnoAlone)
{
   errno = 77;
   EXPECT_EQ(F("%lc", 0x110000), "<-1>");
   EXPECT_EQ(F("%.300f%ls%40s", 1.5, L"wide", "x").size(), 302U + 4 + 40);
   EXPECT_EQ(errno, 77);
}

TEST(FmtFormat, GivesTheSameDigitsToManyThreads)
{
   std::vector<std::thread> threads;
   for (int i = 1; i <= 4; i++) {
      threads.emplace_back([i] {
         const std::string expected = F("%.9f|%.15e", i / 7.0, i * 1e30);
         for (int n = 0; n < 500; n++) {
            ASSERT_EQ(F("%.9f|%.15e", i / 7.0, i * 1e30), expected);
         }
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
}

} // namespace
