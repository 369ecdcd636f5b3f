#include "lib/misc/codeset/codeset.h"

#include "lib/misc/codeset/conversion/builtin.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/init.h"
#include "lib/misc/codeset/conversion/utf8.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "platform/processor.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string_view>
#include <vector>

using namespace std::string_literals;

namespace {

const std::string failed = "<failed>";

/* A copy in a block of exactly its size, so that a read beyond its end is seen by the sanitizer. */
std::unique_ptr<char, Freed> Exact(const std::string &text)
{
   std::unique_ptr<char, Freed> block(static_cast<char *>(malloc(text.size() + (text.empty() ? 1 : 0))));
   std::copy(text.begin(), text.end(), block.get());
   return block;
}

/* What a routine allocated, with its length and the zeros behind it checked; "<failed>" for a failure. */
std::string Allocated(size_t terminator, const std::function<bool(char **output, size_t *length)> &convert)
{
   char *output = nullptr;
   size_t length = 99;
   if (!convert(&output, &length)) {
      EXPECT_TRUE(output == nullptr && length == 99);
      return failed;
   }
   const std::unique_ptr<char, Freed> owned(output);
   EXPECT_EQ(std::string(output + length, terminator), std::string(terminator, '\0'));
   return {output, length};
}

std::string Convert(const char *source, const std::string &input, const char *target,
                    uint32_t mode = CODESET_REFUSE)
{
   const auto exact = Exact(input);
   return Allocated(4, [&](char **output, size_t *length) {
      return CodeSet_Convert(source, exact.get(), input.size(), target, mode, output, length);
   });
}

/* The encodings of a code point, or of what is none, by their definition. */

std::string Utf8(uint32_t codePoint)
{
   constexpr uint32_t leads[] = {0, 0xC0, 0xE0, 0xF0};
   const size_t more = codePoint < 0x80 ? 0 : codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
   std::string bytes(1, static_cast<char>(leads[more] | codePoint >> 6 * more));
   for (size_t i = more; i-- > 0;) {
      bytes += static_cast<char>(0x80 | (codePoint >> 6 * i & 0x3F));
   }
   return bytes;
}

std::string Utf16(uint32_t codePoint, bool bigEndian = false)
{
   if (codePoint > 0xFFFF) {
      const uint32_t beyond = codePoint - 0x10000;
      return Utf16(0xD800 + (beyond >> 10), bigEndian) + Utf16(0xDC00 + (beyond & 0x3FF), bigEndian);
   }
   const auto high = static_cast<char>(codePoint >> 8);
   const auto low = static_cast<char>(codePoint);
   return bigEndian ? std::string{high, low} : std::string{low, high};
}

bool IsSurrogate(uint32_t unit)
{
   return unit >= 0xD800 && unit < 0xE000;
}

/* The length of the sequence that the bytes begin with, and what it stands for: that which encodes to it. Surrogates
   and what lies just beyond Unicode are sequences too. */
int Sequence(std::string_view bytes, uint32_t *codePoint)
{
   for (size_t n = 1; n <= bytes.size() && n <= 4; n++) {
      *codePoint = static_cast<unsigned char>(bytes[0]) & (n == 1 ? 0x7FU : 0x7FU >> n);
      for (size_t i = 1; i < n; i++) {
         *codePoint = *codePoint << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3FU);
      }
      if (*codePoint < 0x140000 && Utf8(*codePoint) == bytes.substr(0, n)) {
         return static_cast<int>(n);
      }
   }
   return 0;
}

/* Every routine that reads UTF-8, on the bytes alone and among ASCII that is passed over in wide steps. */
bool AreReadRight(const std::string &bytes)
{
   uint32_t expected = 0;
   uint32_t codePoint = 0;
   const int first = Sequence(bytes, &expected);
   bool agree = CodeSet_GetUtf8(bytes.data(), bytes.data() + bytes.size(), &codePoint) == first &&
                (first == 0 || codePoint == expected);
   std::string utf16;
   bool valid = true;
   for (size_t i = 0; i < bytes.size() && valid;) {
      const int length = Sequence(std::string_view(bytes).substr(i), &expected);
      valid = length > 0 && expected <= 0x10FFFF && !IsSurrogate(expected);
      utf16 += valid ? Utf16(expected) : "";
      i += static_cast<size_t>(length);
   }
   const std::string padded = std::string(30, 'a') + bytes + std::string(30, 'z');
   agree = agree && CodeSet_IsValidUtf8Buffer(bytes.data(), bytes.size()) == valid &&
           CodeSet_IsValidUtf8Buffer(padded.data(), padded.size()) == valid &&
           CodeSet_IsValidUtf8NoNul(bytes.data(), bytes.size()) ==
               (valid && bytes.find('\0') == std::string::npos);
   return agree && Convert("UTF-8", bytes, "UTF-16LE") == (valid ? utf16 : failed);
}

} // namespace

/* Each byte in each place, with bytes of every kind in the others. */
TEST(CodeSetUtf8, IsReadByItsDefinition)
{
   const std::string kinds = "\0a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC2\xE0\xED\xEE\xF0\xF4"s;
   for (size_t n = 1; n <= 4; n++) {
      size_t others = 1;
      for (size_t place = 0; place < n; place++, others = 1) {
         for (size_t i = 1; i < n; i++) {
            others *= n == 4 && place != 0 ? 1 : kinds.size();
         }
         for (size_t value = 0; value < others * 256; value++) {
            std::string bytes(1, static_cast<char>(value));
            for (size_t rest = value / 256, i = 1; i < n; i++, rest /= kinds.size()) {
               bytes.insert(i <= place ? 0 : bytes.size(), 1, kinds[rest % kinds.size()]);
            }
            ASSERT_TRUE(AreReadRight(bytes)) << testing::PrintToString(bytes);
         }
      }
   }
}

/* Each code point at every distance from the end of a wide step, then all of them in one text. */
TEST(CodeSetUtf8, CarriesEveryCodePoint)
{
   std::string utf8;
   std::string utf16;
   std::vector<uint32_t> codePoints;
   for (uint32_t c = 1; c <= 0x10FFFF; c += IsSurrogate(c + 1) ? 0x801 : 1) {
      codePoints.push_back(c);
      utf8 += Utf8(c);
      utf16 += Utf16(c);
      if (c < 0x3000 || c % 61 == 0) {
         const std::string before(c % 67, 'x');
         const std::string text = before + Utf8(c) + std::string(c % 5, 'y');
         std::string bigEndian;
         for (const char byte : before) {
            bigEndian += {'\0', byte};
         }
         bigEndian += Utf16(c, true);
         ASSERT_EQ(Convert("UTF-16LE", Convert("UTF-8", text, "UTF-16LE"), "UTF-8"), text);
         ASSERT_EQ(Convert("UTF-16BE", bigEndian, "UTF-8"), before + Utf8(c));
         ASSERT_EQ(Convert("UTF-16BE", bigEndian, "UTF-16BE"), bigEndian);
      }
   }
   EXPECT_TRUE(Convert("UTF-8", utf8, "UTF-16LE") == utf16);
   EXPECT_TRUE(Convert("UTF-16LE", utf16, "UTF-8") == utf8);
   EXPECT_EQ(CodeSet_LengthInCodePoints(utf8.c_str()), static_cast<ssize_t>(codePoints.size()));
   uint32_t *units = nullptr;
   char *back = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32(utf8.c_str(), &units) && CodeSet_Utf32ToUtf8(units, &back));
   EXPECT_TRUE(std::equal(codePoints.begin(), codePoints.end(), units) && units[codePoints.size()] == 0);
   EXPECT_TRUE(Take(back) == utf8);
   free(units);
}

/* Three units of every kind; a surrogate without its other half is refused. */
TEST(CodeSetUtf16, IsRefusedUnlessItsSurrogatesPair)
{
   constexpr uint32_t kinds[] = {0,      'a',    0x80,   0x7FF,  0x800,  0xD7FF,
                                 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000, 0xFFFF};
   for (const uint32_t one : kinds) {
      for (const uint32_t two : kinds) {
         for (const uint32_t three : kinds) {
            const uint32_t units[] = {one, two, three};
            std::string utf8;
            for (size_t i = 0; i < 3 && utf8 != failed; i++) {
               const bool paired = i < 2 && units[i] >> 10 == 0x36 && units[i + 1] >> 10 == 0x37;
               if (IsSurrogate(units[i]) && !paired) {
                  utf8 = failed;
               } else {
                  utf8 += Utf8(paired ? (units[i] << 10) + units[i + 1] - 0x35FDC00 : units[i]);
               }
               i += paired ? 1 : 0;
            }
            const std::string little = Utf16(one) + Utf16(two) + Utf16(three);
            const std::string big = Utf16(one, true) + Utf16(two, true) + Utf16(three, true);
            ASSERT_EQ(Convert("UTF-16LE", little, "UTF-8"), utf8) << one << " " << two << " " << three;
            ASSERT_EQ(Convert("UTF-16BE", big, "UTF-8"), utf8);
            ASSERT_EQ(Convert("UTF-16LE", little, "UTF-16LE"), utf8 == failed ? failed : little);
            ASSERT_EQ(Convert("UTF-16BE", big, "UTF-16BE"), utf8 == failed ? failed : big);
         }
      }
   }
   for (const std::string name : {"UTF-16LE", "UTF-16BE"}) {
      EXPECT_EQ(Convert(name.c_str(), "\0a\0"s, "UTF-8", CODESET_SKIP), failed);
      EXPECT_EQ(Convert(name.c_str(), "\0a\0"s, name.c_str(), CODESET_SKIP), failed);
   }
}

TEST(CodeSetBuiltin, ConvertsWhatItKnowsAsTheModeSays)
{
   const std::string ascii = "a\xE9\xE9z\x80";
   const std::string substituted = "a\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD";
   const struct {
      const char *source;
      std::string input;
      const char *target;
      std::string refusing, substituting, skipping;
   } cases[] = {
       {"US-ASCII", "plain", "UTF-8", "plain", "plain", "plain"},
       {"US-ASCII", ascii, "UTF-8", failed, substituted, "az"},
       {"ISO-8859-1", "\xE9\x7F\x80\xFF", "UTF-8", "\xC3\xA9\x7F\xC2\x80\xC3\xBF",
        "\xC3\xA9\x7F\xC2\x80\xC3\xBF", "\xC3\xA9\x7F\xC2\x80\xC3\xBF"},
       {"UTF-8", "0123456789abcdef\xE2\x82", "UTF-16LE", failed, failed, failed},
       {"ISO-8859-2", "", "KOI8-R", "", "", ""},
       /* The same encoding on both sides: a copy, of what is valid. */
       {"UTF-8", "\xE2\x82\xAC\0x"s, "utf8", "\xE2\x82\xAC\0x"s, "\xE2\x82\xAC\0x"s, "\xE2\x82\xAC\0x"s},
       {"UTF-8", "a\xFF", "UTF-8", failed, failed, failed},
       {"ASCII", "az", "US-ASCII", "az", "az", "az"},
       {"ASCII", "a\x80", "US-ASCII", failed, failed, failed},
       {"UTF-16", "abc", "UTF-16", "abc", "abc", "abc"},
       {"ISO-8859-1", "\xFF", "ISO-8859-1", "\xFF", "\xFF", "\xFF"},
       {"GB18030", "\xFF", "EUC-JP", "\xFF", "\xFF", "\xFF"},
   };
   for (const auto &c : cases) {
      EXPECT_EQ(Convert(c.source, c.input, c.target, 0), c.refusing) << c.source << " to " << c.target;
      EXPECT_EQ(Convert(c.source, c.input, c.target, 1), c.substituting) << c.source << " to " << c.target;
      EXPECT_EQ(Convert(c.source, c.input, c.target, 2), c.skipping) << c.source << " to " << c.target;
   }
   EXPECT_EQ(Convert("US-ASCII", ascii, "UTF-8", 3), substituted);
   EXPECT_EQ(Convert("US-ASCII", ascii, "UTF-8", 4), "az");
   for (const char *target : {"US-ASCII", "ISO-8859-1", "UTF-16BE", "UTF-16", "windows-1252"}) {
      EXPECT_EQ(Convert("UTF-8", "a", target, CODESET_SUBSTITUTE), failed) << target;
   }
   for (const char *source : {"UTF-32LE", "windows-1252", "UTF-16", "no such"}) {
      EXPECT_EQ(Convert(source, "abcd", "UTF-8", CODESET_SUBSTITUTE), failed) << source;
   }
   EXPECT_EQ(Convert("UTF-16LE", "ab", "UTF-16BE") + Convert("US-ASCII", "ab", "ISO-8859-1"),
             failed + failed);
   const CapturedLog log;
   EXPECT_EQ(Convert("no-such-1", "\xFF\xFE", "no-such-2"), "\xFF\xFE") << "both unknown";
   EXPECT_EQ(Convert("no-such-1", "", "UTF-8"), "");
   EXPECT_EQ(log.Text(), "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such-1\"\n"
                         "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such-2\"\n"
                         "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such-1\"\n");
}

TEST(CodeSetBuiltin, AppendsToTheBufferAndRestoresItsSize)
{
   DynBuf buffer;
   DynBuf_Init(&buffer);
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "ab", 2, "UTF-16LE", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size + 4), "a\0b\0\0\0\0\0"s);
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "\xC3\xA9", 2, "UTF-16LE", 0, &buffer));
   ASSERT_TRUE(CodeSet_Utf16leToUtf8Buffer("c\0", 2, &buffer));
   ASSERT_TRUE(CodeSet_ConvertToBuffer("ISO-8859-1", "\xE9", 1, "UTF-8", 0, &buffer));
   const std::string all(buffer.data, buffer.size);
   EXPECT_EQ(all, "a\0b\0\xE9\0c\xC3\xA9"s);
   EXPECT_FALSE(CodeSet_ConvertToBuffer("ASCII", "xyz\x80", 4, "UTF-8", 0, &buffer));
   EXPECT_FALSE(CodeSet_ConvertToBuffer("UTF-8", "xyz\x80", 4, "UTF-16LE", 0, &buffer));
   EXPECT_TRUE(CodeSet_ConvertToBuffer("UTF-8", nullptr, 4, "KOI8-R", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size), all);
   DynBuf_Destroy(&buffer);
}

TEST(CodeSetBuiltin, WritesAsciiWhereTheCurrentEncodingIsAnother)
{
   const struct {
      std::string input;
      uint32_t mode;
      std::string expected;
   } cases[] = {{"plain", 0, "plain"},
                {"a\xF0\x9F\x98\x80z", 0, failed},
                {"a\xF0\x9F\x98\x80z\xC3\xA9", 1, "a\x1Az\x1A"},
                {"a\xF0\x9F\x98z\xE2\x82", 1, "a\x1A\x1A\x1Az\x1A\x1A"},
                {"a\xF0\x9F\x98\x80z", 2, "az"}};
   for (const auto &[input, mode, expected] : cases) {
      DynBuf buffer;
      DynBuf_Init(&buffer);
      const bool converted = CodeSetBuiltin_Convert(ENCODING_UTF8, Exact(input).get(), input.size(),
                                                    ENCODING_US_ASCII, ENCODING_ISO_8859_1, mode, &buffer);
      EXPECT_EQ(converted ? std::string(buffer.data, buffer.size) : failed, expected);
      EXPECT_TRUE(converted || buffer.size == 0);
      DynBuf_Destroy(&buffer);
   }
}

TEST(CodeSetWrappers, ConvertTheirPairWithFourZerosBehind)
{
   const struct {
      bool (*wrapper)(const char *input, size_t length, char **output, size_t *outLength);
      std::string input, expected;
      size_t terminator = 4;
   } cases[] = {{CodeSet_Utf16leToUtf8, "\xE9\0"s, "\xC3\xA9"},
                {CodeSet_Utf8ToUtf16le, "\xC3\xA9", "\xE9\0"s},
                {CodeSet_CurrentToUtf16le, "\xC3\xA9", "\xE9\0"s},
                {CodeSet_Utf16leToCurrent, "\xE9\0"s, "\xC3\xA9"},
                {CodeSet_Utf16beToCurrent, "\0\xE9"s, "\xC3\xA9"},
                {CodeSet_CurrentToUtf8, "a\0\xFF"s, "a\0\xFF"s, 1},
                {CodeSet_Utf8ToCurrent, "a\0\xFF"s, "a\0\xFF"s, 1},
                {CodeSet_Utf16leToUtf8, "abc", failed},
                {CodeSet_Utf8ToUtf16le, "\xC3", failed},
                {CodeSet_Utf16beToCurrent, "\xDC\0"s, failed},
                {CodeSet_Utf16leToUtf8, "", ""},
                {CodeSet_Utf8ToCurrent, "", "", 1}};
   for (const auto &c : cases) {
      const auto convert = [&](char **output, size_t *length) {
         return c.wrapper(Exact(c.input).get(), c.input.size(), output, length);
      };
      EXPECT_EQ(Allocated(c.terminator, convert), c.expected) << testing::PrintToString(c.input);
   }
   char *output = nullptr;
   EXPECT_FALSE(CodeSet_CurrentToUtf8("", SIZE_MAX, &output, nullptr));
   EXPECT_STREQ(CodeSet_GetCurrentCodeSet(), "UTF-8");
}

/* All sequences of four of the bytes at which a rule begins or ends, across the border of two steps: inside a text, and
   at its end. */
TEST(CodeSetUtf8, WideStepsAgreeWithTheAutomaton)
{
   if (!Processor_HasWideRegisters()) {
      GTEST_SKIP() << "this processor has no wide steps";
   }
   constexpr unsigned char borders[] = {0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF,
                                        0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xEC, 0xED,
                                        0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
   constexpr size_t count = std::size(borders);
   unsigned char inside[128] = {};
   unsigned char atEnd[34] = {};
   size_t differing = 0;
   for (size_t i = 0; i < count * count * count * count; i++) {
      const unsigned char four[] = {borders[i / (count * count * count)],
                                    borders[i / (count * count) % count], borders[i / count % count],
                                    borders[i % count]};
      memcpy(&inside[62], four, sizeof four);
      memcpy(&atEnd[30], four, sizeof four);
      const bool valid = CodeSetIsValidUtf8Portable(four, sizeof four);
      differing += CodeSetIsValidUtf8Wide(inside, sizeof inside) == valid ? 0 : 1;
      differing += CodeSetIsValidUtf8Wide(atEnd, sizeof atEnd) == valid ? 0 : 1;
   }
   EXPECT_EQ(differing, 0U);
}

TEST(CodeSetUtf8, IsMeasuredAndCheckedAsAString)
{
   const char *text = "a\xC3\xA9\xF0\x9F\x98\x80z";
   const ssize_t offsets[] = {0, 1, 3, 7, 8, -1};
   for (ssize_t i = 0; i < 6; i++) {
      EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset(text, i), offsets[i]) << i;
   }
   EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset("a\xFFz", 1), 1);
   EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset("a\xFFz", 2), -1);
   EXPECT_EQ(CodeSet_LengthInCodePoints("a\xE2\x82"), -1);
   EXPECT_EQ(CodeSet_GetUtf8(text + 1, text + 3, nullptr), 2);
   EXPECT_EQ(CodeSet_GetUtf8(text, text, nullptr), 0);
   EXPECT_TRUE(CodeSet_IsValidUtf8("a\0\xFF") && !CodeSet_IsValidUtf8("a\xFF"));
   EXPECT_TRUE(CodeSet_IsValidUtf8NoNul(nullptr, 0));
   /* ASCII passed over in wide steps does not hide that it stands inside a sequence. */
   for (size_t before = 0; before < 64; before++) {
      const std::string broken = std::string(before, 'a') + "\xE2\x82" + std::string(128, 'a') + "\xAC";
      EXPECT_FALSE(CodeSet_IsValidUtf8Buffer(broken.data(), broken.size())) << before;
   }

   uint32_t *units = nullptr;
   char *back = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32("\xED\xA0\x80", &units) && CodeSet_Utf32ToUtf8(units, &back));
   EXPECT_EQ(Take(back), "\xED\xA0\x80") << "surrogates pass";
   free(units);
   const uint32_t beyond[] = {'a', 0x110000, 0};
   EXPECT_FALSE(CodeSet_Utf8ToUtf32("a\xC3", &units) || CodeSet_Utf32ToUtf8(beyond, &back));
   EXPECT_TRUE(units == nullptr && back == nullptr);
   units = std::exchange(back, nullptr) == nullptr ? units : nullptr;
   EXPECT_TRUE(CodeSet_Utf8ToUtf32(nullptr, &units) && CodeSet_Utf32ToUtf8(nullptr, &back));
   EXPECT_TRUE(units == nullptr && back == nullptr);
}

TEST(CodeSetValidate, ConvertsToFindOut)
{
   EXPECT_TRUE(CodeSet_Validate("\xC3\xA9", 2, "UTF-8") && CodeSet_Validate("\xFF", 1, "ISO-8859-1"));
   EXPECT_FALSE(CodeSet_Validate("\xC3", 1, "UTF-8") || CodeSet_Validate("a", 1, "windows-1252"));
   EXPECT_TRUE(CodeSet_Validate("", 0, "no such"));
   EXPECT_TRUE(CodeSet_IsEncodingSupported("windows-1252"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("EUC-JP"));
   EXPECT_PANIC((void)CodeSet_Validate("", size_t{1} << 31, "UTF-8"), "VERIFY lib/misc/codeset:[0-9]+");
}

TEST(CodeSetInit, LooksForTheDataFile)
{
   const ScratchFolder folder;
   const std::string empty = folder.Path("empty");
   const std::string taken = folder.Path("taken");
   static std::string sComplete;
   sComplete = folder.Path("complete");
   for (const std::string &path : {empty, sComplete, taken + "/icudt44l.dat"}) {
      std::filesystem::create_directories(path);
   }
   WriteFile(sComplete + "/icudt44l.dat", "");
   const auto lookup = [](const char *key) {
      return std::string(key) == "icuDir" ? strdup(sComplete.c_str()) : nullptr;
   };
   const auto nothing = [](const char * /*key*/) -> char * { return nullptr; };
   const struct {
      const char *directory;
      LocationLookup lookup;
      bool found;
   } cases[] = {{sComplete.c_str(), nullptr, true}, {empty.c_str(), lookup, false},
                {taken.c_str(), nullptr, false},    {nullptr, lookup, true},
                {nullptr, nothing, false},          {nullptr, nullptr, false}};
   for (const auto &c : cases) {
      CodeSetInit_FindIcu(c.directory, c.lookup);
      EXPECT_EQ(CodeSetEngine_Get() != nullptr, c.found && TESSEL_HAVE_ICU) << &c - cases;
   }
   EXPECT_TRUE(CodeSet_Init(sComplete.c_str()));
   CodeSet_DontUseIcu();
   EXPECT_TRUE(CodeSet_Init(empty.c_str()));
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);

   /* The first caller's directory decides, whoever that is: all pass the same here, and later calls change nothing. */
   OnThreads(4, [](size_t) { Unicode_Init(0, nullptr, nullptr, sComplete.c_str()); });
   Unicode_Init();
   Unicode_InitDefault();
   Unicode_Init("/nowhere");
   EXPECT_EQ(CodeSetEngine_Get() != nullptr, TESSEL_HAVE_ICU != 0);
   CodeSet_DontUseIcu();
   Unicode_Init(sComplete.c_str());
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
}

TEST(CodeSetNormalization, ComposesAndDecomposes)
{
   const struct {
      bool compose;
      std::string text, expected;
   } cases[] = {{true, "A\xCC\x8A", "\xC3\x85"},
                {false, "\xE2\x84\xAB", "A\xCC\x8A"},
                {true, "", ""},
                {false, "\xED\x95\x9C", "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB"},
                {true, "a\0A\xCC\x8A"s, "a"},
                {true, "a\xFF", failed},
                {false, "\xED\xA0\x80", failed}};
   for (const auto &c : cases) {
      const auto normalize = [&c](char **output, size_t *length) {
         return (c.compose ? CodeSet_Utf8FormC : CodeSet_Utf8FormD)(c.text.data(), c.text.size(), output,
                                                                    length);
      };
      EXPECT_EQ(Allocated(4, normalize), TESSEL_HAVE_ICU ? c.expected : failed);
   }
}
