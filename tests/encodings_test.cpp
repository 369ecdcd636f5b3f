#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/builtin.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/init.h"
#include "lib/misc/codeset/conversion/utf8.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/unicode/data/caseFolding.h"
#include "lib/unicode/data/encodingNames.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/unicode/unicodeSimpleOperations.h"
#include "platform/processor.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
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

/* What a routine allocates, with its length and the zeros behind it checked. */
std::string Allocated(size_t zeros, const std::function<bool(char **output, size_t *length)> &convert)
{
   char *output = nullptr;
   size_t length = 99;
   if (!convert(&output, &length)) {
      EXPECT_TRUE(output == nullptr && length == 99);
      return failed;
   }
   const std::unique_ptr<char, Freed> owned(output);
   EXPECT_EQ(std::string(output + length, zeros), std::string(zeros, '\0'));
   return {output, length};
}

std::string Convert(const char *source, const std::string &input, const char *target, uint32_t mode = 0)
{
   return Allocated(4, [&, exact = Exact(input).release()](char **output, size_t *length) {
      const std::unique_ptr<char, Freed> owned(exact);
      return CodeSet_Convert(source, exact, input.size(), target, mode, output, length);
   });
}

struct Conversion {
   const char *source;
   std::string input;
   const char *target;
   std::string refusing, substituting, skipping;
};

void ExpectConversions(const std::vector<Conversion> &conversions)
{
   for (const auto &[source, input, target, refusing, substituting, skipping] : conversions) {
      EXPECT_EQ(Convert(source, input, target, 0), refusing) << source << " to " << target;
      EXPECT_EQ(Convert(source, input, target, 1), substituting) << source << " to " << target;
      EXPECT_EQ(Convert(source, input, target, 2), skipping) << source << " to " << target;
   }
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
      return Utf16(0xD7C0 + (codePoint >> 10), bigEndian) + Utf16(0xDC00 + (codePoint & 0x3FF), bigEndian);
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

/* Both walks, the wide one where the processor has it. */
bool AreValid(const std::string &text, bool valid)
{
   const auto *const bytes = reinterpret_cast<const unsigned char *>(text.data());
   return CodeSetIsValidUtf8Portable(bytes, text.size()) == valid &&
          (!Processor_HasWideRegisters() || CodeSetIsValidUtf8Wide(bytes, text.size()) == valid);
}

/* Every routine that reads UTF-8, on the bytes alone; the validations also across the border of wide steps, and at the end
   of a text, among ASCII that is passed over. */
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
   const std::string before(62, 'a');
   agree = agree && AreValid(bytes, valid) && AreValid(before + bytes + std::string(99, 'z'), valid) &&
           AreValid(before.substr(32) + bytes, valid) &&
           CodeSet_IsValidUtf8NoNul(bytes.data(), bytes.size()) ==
               (valid && bytes.find('\0') == std::string::npos);
   return agree && Convert("UTF-8", bytes, "UTF-16LE") == (valid ? utf16 : failed);
}

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
            if (n == 4 && place == 0 && value % 256 < 0xE0) {
               continue; /* Over before the fourth byte. */
            }
            std::string bytes(1, static_cast<char>(value));
            for (size_t rest = value / 256, i = 1; i < n; i++, rest /= kinds.size()) {
               bytes.insert(i <= place ? 0 : bytes.size(), 1, kinds[rest % kinds.size()]);
            }
            ASSERT_TRUE(AreReadRight(bytes)) << testing::PrintToString(bytes);
         }
      }
   }
   for (size_t before = 0; before < 64; before++) {
      const std::string broken = std::string(before, 'a') + "\xE2\x82" + std::string(128, 'a') + "\xAC";
      ASSERT_TRUE(AreValid(broken, false)) << "hidden by ASCII, " << before;
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
         std::string big;
         for (const char byte : before) {
            big += {'\0', byte};
         }
         big += Utf16(c, true);
         ASSERT_EQ(Convert("UTF-16LE", Convert("UTF-8", text, "UTF-16LE"), "UTF-8"), text);
         ASSERT_EQ(Convert("UTF-16BE", big, "UTF-8") + Convert("UTF-16BE", big, "UTF-16BE"),
                   before + Utf8(c) + big);
      }
   }
   EXPECT_TRUE(Convert("UTF-8", utf8, "UTF-16LE") == utf16 && Convert("UTF-16LE", utf16, "UTF-8") == utf8);
   EXPECT_EQ(Unicode_LengthInCodePoints(utf8.c_str()), static_cast<ssize_t>(codePoints.size()));
   uint32_t *units = nullptr;
   char *back = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32(utf8.c_str(), &units) && CodeSet_Utf32ToUtf8(units, &back));
   EXPECT_TRUE(std::equal(codePoints.begin(), codePoints.end(), units) && units[codePoints.size()] == 0);
   EXPECT_TRUE(Take(back) == utf8);
   free(units);
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
   uint32_t *units = nullptr;
   char *back = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32("\xED\xA0\x80", &units) && CodeSet_Utf32ToUtf8(units, &back));
   EXPECT_EQ(Take(back), "\xED\xA0\x80") << "surrogates pass";
   free(units);
   const uint32_t beyond[] = {'a', 0x110000, 0};
   EXPECT_FALSE(CodeSet_Utf8ToUtf32("a\xC3", &units) || CodeSet_Utf32ToUtf8(beyond, &back));
   EXPECT_TRUE(units == nullptr && back == nullptr);
   EXPECT_TRUE(CodeSet_Utf8ToUtf32(nullptr, &units) && CodeSet_Utf32ToUtf8(nullptr, &back));
   EXPECT_TRUE(units == nullptr && back == nullptr);
}

/* Three units of every kind; a surrogate without its other half is refused. */
TEST(CodeSetUtf16, IsRefusedUnlessItsSurrogatesPair)
{
   constexpr uint32_t kinds[] = {0,      'a',    0x80,   0x7FF,  0x800,  0xD7FF,
                                 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000, 0xFFFF};
   for (size_t n = 0; n < 12 * 12 * 12; n++) {
      const uint32_t units[] = {kinds[n / 144], kinds[n / 12 % 12], kinds[n % 12]};
      std::string utf8;
      for (size_t i = 0; i < 3 && utf8 != failed; i++) {
         const bool paired = i < 2 && units[i] >> 10 == 0x36 && units[i + 1] >> 10 == 0x37;
         utf8 += Utf8(paired ? (units[i] << 10) + units[i + 1] - 0x35FDC00 : units[i]);
         utf8 = IsSurrogate(units[i]) && !paired ? failed : utf8;
         i += paired ? 1 : 0;
      }
      const std::string little = Utf16(units[0]) + Utf16(units[1]) + Utf16(units[2]);
      const std::string big = Utf16(units[0], true) + Utf16(units[1], true) + Utf16(units[2], true);
      ASSERT_EQ(Convert("UTF-16LE", little, "UTF-8"), utf8) << n;
      ASSERT_EQ(Convert("UTF-16BE", big, "UTF-8"), utf8) << n;
      ASSERT_EQ(Convert("UTF-16LE", little, "UTF-16LE"), utf8 == failed ? failed : little) << n;
      ASSERT_EQ(Convert("UTF-16BE", big, "UTF-16BE"), utf8 == failed ? failed : big) << n;
   }
}

TEST(CodeSetBuiltin, ConvertsWhatItKnowsAsTheModeSays)
{
   const std::string ascii = "a\xE9\xE9z\x80";
   const std::string substituted = "a\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD";
   const std::string euro = "\xE2\x82\xAC\0x"s;
   ExpectConversions(
       {{"US-ASCII", "plain text", "UTF-8", "plain text", "plain text", "plain text"},
        {"US-ASCII", ascii, "UTF-8", failed, substituted, "az"},
        {"ISO-8859-1", "\xE9\x7F\x80", "UTF-8", "é\x7F\xC2\x80", "é\x7F\xC2\x80", "é\x7F\xC2\x80"},
        {"UTF-8", "0123456789abcdef\xE2\x82", "UTF-16LE", failed, failed, failed},
        {"UTF-16LE", "\0a\0"s, "UTF-8", failed, failed, failed},
        {"UTF-16BE", "\0a\0"s, "UTF-8", failed, failed, failed},
        {"ISO-8859-2", "", "KOI8-R", "", "", ""},
        /* The same encoding on both sides: a copy, of what is valid. */
        {"UTF-8", euro, "utf8", euro, euro, euro},
        {"UTF-8", "a\xFF", "UTF-8", failed, failed, failed},
        {"UTF-16LE", "\0a\0"s, "UTF-16LE", failed, failed, failed},
        {"UTF-16BE", "\0a\0"s, "UTF-16BE", failed, failed, failed},
        {"ASCII", "az", "US-ASCII", "az", "az", "az"},
        {"ASCII", "a\x80", "US-ASCII", failed, failed, failed},
        {"GB18030", "\xFF", "EUC-JP", "\xFF", "\xFF", "\xFF"}});
   EXPECT_EQ(Convert("US-ASCII", ascii, "UTF-8", 3) + Convert("US-ASCII", ascii, "UTF-8", 4),
             substituted + "az");
   for (const char *other : {"US-ASCII", "ISO-8859-1", "UTF-16BE", "UTF-16", "windows-1252"}) {
      EXPECT_EQ(Convert("UTF-8", "a", other, CODESET_SUBSTITUTE), failed) << other;
   }
   for (const char *other : {"UTF-32LE", "windows-1252", "UTF-16", "no such"}) {
      EXPECT_EQ(Convert(other, "abcd", "UTF-8", CODESET_SUBSTITUTE), failed) << other;
      EXPECT_EQ(Convert("US-ASCII", "abcd", other), failed) << other;
   }
   const CapturedLog log;
   EXPECT_EQ(Convert("no-such-1", "\xFF\xFE", "no-such-2"), "\xFF\xFE") << "both unknown";
   EXPECT_EQ(log.Text(), "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such-1\"\n"
                         "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such-2\"\n");
}

TEST(CodeSetBuiltin, AppendsToTheBufferOrLeavesItsSize)
{
   OwnedDynBuf buffer;
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "ab", 2, "UTF-16LE", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size + 4), "a\0b\0\0\0\0\0"s);
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "é", 2, "UTF-16LE", 0, &buffer));
   ASSERT_TRUE(CodeSet_Utf16leToUtf8Buffer("c\0", 2, &buffer));
   ASSERT_TRUE(CodeSet_ConvertToBuffer("ISO-8859-1", "\xE9", 1, "UTF-8", 0, &buffer));
   EXPECT_FALSE(CodeSet_ConvertToBuffer("ASCII", "xyz\x80", 4, "UTF-8", 0, &buffer));
   EXPECT_FALSE(CodeSet_ConvertToBuffer("UTF-8", "xyz\x80", 4, "UTF-16LE", 0, &buffer));
   EXPECT_FALSE(CodeSet_ConvertToBuffer("UTF-16LE", "x\0\0\xDC", 4, "UTF-8", 0, &buffer));
   EXPECT_TRUE(CodeSet_ConvertToBuffer("UTF-8", nullptr, 4, "KOI8-R", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size), "a\0b\0\xE9\0c\xC3\xA9"s);
   /* Where the current encoding is another, UTF-8 becomes ASCII: a substitute for each sequence, or byte of none. */
   const std::string bytes = "a\xF0\x9F\x98\x80z\xE2\x82é";
   for (const auto &[mode, expected] : {std::pair{0U, ""s}, {1U, "a\x1Az\x1A\x1A\x1A"s}, {2U, "az"s}}) {
      buffer.size = 0;
      EXPECT_EQ(CodeSetBuiltin_Convert(ENCODING_UTF8, Exact(bytes).get(), bytes.size(), ENCODING_US_ASCII,
                                       ENCODING_ISO_8859_1, mode, &buffer),
                mode != CODESET_REFUSE);
      EXPECT_EQ(std::string(buffer.data, buffer.size), expected);
   }
}

TEST(CodeSetWrappers, ConvertTheirPairWithFourZerosBehind)
{
   const struct {
      bool (*wrapper)(const char *input, size_t length, char **output, size_t *outLength);
      std::string input, expected;
      size_t zeros = 4;
   } cases[] = {{CodeSet_Utf16leToUtf8, "\xE9\0"s, "é"},
                {CodeSet_Utf8ToUtf16le, "é", "\xE9\0"s},
                {CodeSet_CurrentToUtf16le, "é", "\xE9\0"s},
                {CodeSet_Utf16leToCurrent, "\xE9\0"s, "é"},
                {CodeSet_Utf16beToCurrent, "\0\xE9"s, "é"},
                {CodeSet_CurrentToUtf8, "a\0\xFF"s, "a\0\xFF"s, 1},
                {CodeSet_Utf8ToCurrent, "a\xFF", "a\xFF", 1},
                {CodeSet_Utf16leToUtf8, "abc", failed},
                {CodeSet_Utf8ToUtf16le, "\xC3", failed},
                {CodeSet_Utf16beToCurrent, "\xDC\0"s, failed},
                {CodeSet_Utf16leToUtf8, "", ""},
                {CodeSet_Utf8ToCurrent, "", "", 1},
                {CodeSet_Utf8FormC, "A\xCC\x8A", "Å"},
                {CodeSet_Utf8FormD, "\xE2\x84\xAB", "A\xCC\x8A"},
                {CodeSet_Utf8FormC, "a\0A\xCC\x8A"s, "a"},
                {CodeSet_Utf8FormC, "a\xFF", failed},
                {CodeSet_Utf8FormD, "\xED\xA0\x80", failed},
                {CodeSet_Utf8FormC, "", ""}};
   for (const auto &c : cases) {
      const bool normalizes = c.wrapper == CodeSet_Utf8FormC || c.wrapper == CodeSet_Utf8FormD;
      const auto convert = [&](char **output, size_t *length) {
         return c.wrapper(c.input.c_str(), c.input.size(), output, length);
      };
      EXPECT_EQ(Allocated(c.zeros, convert), normalizes && !TESSEL_HAVE_ICU ? failed : c.expected)
          << &c - cases;
   }
   char *output = nullptr;
   EXPECT_FALSE(CodeSet_CurrentToUtf8("", SIZE_MAX, &output, nullptr));
   EXPECT_TRUE(CodeSet_Validate("é", 2, "UTF-8") && CodeSet_Validate("", 0, "no such"));
   EXPECT_FALSE(CodeSet_Validate("\xC3", 1, "UTF-8") || CodeSet_Validate("a", 1, "windows-1252"));
   EXPECT_TRUE(CodeSet_IsEncodingSupported("windows-1252") && !CodeSet_IsEncodingSupported("EUC-JP"));
   EXPECT_PANIC((void)CodeSet_Validate("", size_t{1} << 31, "UTF-8"), "VERIFY lib/misc/codeset:[0-9]+");
}

TEST(CodeSetInit, LooksForTheDataFile)
{
   const ScratchFolder folder;
   static std::string sComplete;
   sComplete = folder.Path("complete");
   const std::string empty = folder.Path();
   const std::string taken = folder.Path("taken");
   std::filesystem::create_directories(sComplete);
   std::filesystem::create_directories(taken + "/icudt44l.dat");
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
   EXPECT_TRUE(CodeSet_Init(sComplete.c_str()) && CodeSet_Init(taken.c_str()));
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
   /* The first caller's directory decides, whoever that is: all pass the same here, and later calls change nothing. */
   OnThreads(4, [](size_t) { Unicode_Init(0, nullptr, nullptr, sComplete.c_str()); });
   Unicode_Init();
   Unicode_InitDefault();
   EXPECT_EQ(CodeSetEngine_Get() != nullptr, TESSEL_HAVE_ICU != 0);
   CodeSet_DontUseIcu();
   Unicode_Init(sComplete.c_str());
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
}

#if TESSEL_HAVE_ICU

/* The data file is there in name only: this ICU falls back on the data it was built with. */
class CodeSetIcu : public testing::Test {
 protected:
   CodeSetIcu()
   {
      WriteFile(folder_.Path("icudt44l.dat"), "");
      CodeSet_Init(folder_.Path().c_str());
   }

   ~CodeSetIcu() override
   {
      CodeSet_DontUseIcu();
   }

   ScratchFolder folder_;
};

TEST_F(CodeSetIcu, ConvertsAsTheModeSays)
{
   ExpectConversions({{"UTF-8", "€uro", "windows-1252", "\x80uro", "\x80uro", "\x80uro"},
                      {"UTF-8", "a€z", "US-ASCII", failed, "a\x1Az", "az"},
                      /* U+200B, which nobody sees. */
                      {"UTF-8", "a\xE2\x80\x8Bz", "windows-1252", failed, "a\x1Az", "az"},
                      {"UTF-8", "a\xFFz", "UTF-16LE", failed, "a\0\xFD\xFFz\0"s, "a\0z\0"s},
                      {"UTF-16LE", "\x00\xD8"s, "UTF-8", failed, "\xEF\xBF\xBD", ""},
                      {"no such", "a", "UTF-8", failed, failed, failed},
                      {"UTF-8", "a", "no such", failed, failed, failed}});
   EXPECT_EQ(Convert("no such", "", "UTF-8", 7), "");
   EXPECT_PANIC((void)Convert("UTF-8", "a", "UTF-16LE", 3), "NOT_IMPLEMENTED lib/misc/codeset:[0-9]+");
   EXPECT_TRUE(CodeSet_Validate("\x80", 1, "windows-1252") && CodeSet_Validate("", 0, "no such"));
   EXPECT_FALSE(CodeSet_Validate("\xC3", 1, "UTF-8") || CodeSet_Validate("\xFF\xFE", 2, "UTF-16"));
   EXPECT_PANIC((void)CodeSet_Validate("a", 1, "no such"), "VERIFY lib/misc/codeset:[0-9]+");
   EXPECT_TRUE(CodeSet_IsEncodingSupported("EUC-JP") && !CodeSet_IsEncodingSupported("no such"));
}

/* Four times the room that is made at first, over several fillings of the pivot, in pieces that end inside characters,
   on threads of their own. What a buffer held gives way. */
TEST_F(CodeSetIcu, ResumesWhereTheOutputOverflowed)
{
   OnThreads(4, [](size_t thread) {
      for (const size_t count : {1 + thread, 31 + thread, 1000 + thread, 20000 * thread}) {
         std::string utf8;
         std::string utf32;
         for (size_t i = 0; i < count; i++) {
            utf8 += i % 3 == 0 ? "\xF0\x9F\x98\x80" : "x";
            utf32 += i % 3 == 0 ? "\x00\xF6\x01\x00"s : "x\0\0\0"s;
         }
         EXPECT_EQ(Convert("UTF-8", utf8, "UTF-32LE"), utf32);
         EXPECT_EQ(Convert("UTF-32LE", utf32, "UTF-8"), utf8);
      }
   });
   OwnedDynBuf buffer;
   ASSERT_TRUE(DynBuf_Append(&buffer, "something longer", 16));
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "ab", 2, "US-ASCII", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size), "ab");
}

TEST_F(CodeSetIcu, ServesTheFixedPairsAndTheUnicodeLayer)
{
   char *output = nullptr;
   size_t length = 0;
   EXPECT_FALSE(CodeSet_Utf8ToUtf16le("\xED\xA0\x80", 3, &output, nullptr) || output != nullptr);
   ASSERT_TRUE(CodeSet_Utf16beToCurrent("\xD8\x3D\xDE\0", 4, &output, &length));
   EXPECT_EQ(Take(output) + std::to_string(length), "\xF0\x9F\x98\x80"
                                                    "4");
   EXPECT_EQ(Take(Unicode_AllocWithLength("a\xFFz", 3, ENCODING_UTF8)), "a\xEF\xBF\xBDz");
   EXPECT_EQ(Take(UnicodeAllocInternal("a\xFFz", 3, ENCODING_UTF8, true)), "<null>");
   EXPECT_EQ(Take(Unicode_AllocWithLength("\x80", -1, ENCODING_WINDOWS_1252)), "€");
   EXPECT_EQ(Take(UnicodeAllocInternal("\xE9", 1, ENCODING_ISO_8859_1, true)), "é");
   EXPECT_TRUE(Unicode_CanGetBytesWithEncoding("€", ENCODING_WINDOWS_1252));
   EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("€", ENCODING_ISO_8859_1));
   /* Cut between bytes, and ended by one zero, even where units are wider. */
   char buffer[] = "########";
   EXPECT_FALSE(Unicode_CopyBytes(buffer, "abc", 5, &length, ENCODING_UTF32_LE));
   EXPECT_EQ(std::to_string(length) + std::string(buffer, 6), "4a\0\0\0\0#"s);
   EXPECT_FALSE(Unicode_CopyBytes(buffer, "€", 5, &length, ENCODING_ISO_8859_1));
   EXPECT_TRUE(length == 0 && buffer[0] == '\0');
   for (const EncodingRow &row : UNICODE_ENCODINGS) {
      const char *name = Unicode_EncodingEnumToName(row.encoding);
      EXPECT_TRUE(!row.usable || Convert(name, Convert("UTF-8", "Sample 1.", name), "UTF-8") == "Sample 1.")
          << name;
   }
}

#endif

TEST(UnicodeAlloc, MakesAStringOfABuffer)
{
   const struct {
      std::string bytes;
      EncodingId encoding;
      std::string strict, lax; /* "<null>": ends the process. */
   } cases[] = {{"a\xC3\xA9z", ENCODING_UTF8, "aéz", "aéz"},
                {"a\xC3", ENCODING_UTF8, "<null>", "<null>"},
                {"az", ENCODING_US_ASCII, "az", "az"},
                {"a\xE9", ENCODING_US_ASCII, "<null>", "a\xEF\xBF\xBD"},
                {"\xE9\0"s, ENCODING_UTF16_LE, "é", "é"},
                {"\0\xDC"s, ENCODING_UTF16_LE, "<null>", "<null>"},
                {"\xE9", ENCODING_ISO_8859_1, "é", "é"},
                {"a", ENCODING_WINDOWS_1252, "<null>", "<null>"},
                {"", ENCODING_DEFAULT, "", ""}};
   for (const auto &[bytes, encoding, strict, lax] : cases) {
      const auto length = static_cast<ssize_t>(bytes.size());
      EXPECT_EQ(Take(UnicodeAllocInternal(bytes.data(), length, encoding, true)), strict);
      EXPECT_EQ(Take(UnicodeAllocInternal(bytes.data(), length, encoding, false)), lax);
      EXPECT_EQ(Unicode_IsBufferValid(bytes.data(), length, encoding), strict != "<null>");
   }
   EXPECT_TRUE(Unicode_IsBufferValid(nullptr, -1, ENCODING_UTF8) &&
               Unicode_IsBufferValid("a\0\xFF", -1, ENCODING_US_ASCII) &&
               !Unicode_IsBufferValid("a\0\xFF", 3, ENCODING_UTF8));
   EXPECT_EQ(Take(Unicode_AllocWithLength(u"a\u20AC", -1, ENCODING_UTF16_LE)), "a€");
   EXPECT_EQ(Unicode_AllocWithLength(nullptr, 3, ENCODING_UTF8), nullptr);
   EXPECT_PANIC(
       (void)Unicode_AllocWithLength("a\xFF", -1, ENCODING_UTF8),
       "Unicode_AllocWithLength: Couldn't convert invalid buffer \\[a\\\\xFF\\] from UTF-8 to Unicode\\.\n");
   EXPECT_EQ(Take(UnicodeEscapeBuffer("A\n\x1F ~\\\x7F\x80\xFF", 9, ENCODING_UTF8)),
             "A\\x0A\\x1F ~\\x5C\\x7F\\x80\\xFF");
   EXPECT_EQ(Take(UnicodeEscapeBuffer(u"A", -1, ENCODING_UTF16_LE)), "A\\x00");
}

TEST(UnicodeAlloc, UnescapesLiterals)
{
   const std::pair<const char *, const char *> cases[] = {{"plain", "plain"},
                                                          {"\\u20aC\\u0041g", "€Ag"},
                                                          {"\\U0010FFFF!", "\xF4\x8F\xBF\xBF!"},
                                                          {"a\\u0000b", "a"},
                                                          {"\\uD83D\\uDE00", "\xF0\x9F\x98\x80"},
                                                          {"\\U00010000", "\xF0\x90\x80\x80"},
                                                          {"a\\n\\\\\\\"", "an\\\""},
                                                          {"end\\", "end"},
                                                          {"", ""}};
   for (const auto &[text, expected] : cases) {
      EXPECT_EQ(Take(Unicode_AllocFromEscapedLiteral(text, true)), expected) << text;
      EXPECT_EQ(Take(Unicode_AllocFromEscapedLiteral(text, false)), text);
   }
   const std::pair<const char *, std::vector<const char *>> ends[] = {
       {"VERIFY lib/unicode/", {"a\xC3", "\\\xC3", "\\u12\xC3\xA9", "\\U00110000", "\\UFFFFFFFF"}},
       {"NOT_IMPLEMENTED lib/unicode/", {"\\u12", "\\u12G4", "\\U0001F60", "\\u00/0", "\\u00:0"}},
       {"Unicode_AllocWithLength: Couldn't", {"\\uD83D"}}};
   for (const auto &[panic, texts] : ends) {
      for (const char *text : texts) {
         EXPECT_PANIC((void)Unicode_AllocFromEscapedLiteral(text, true), +std::string(panic));
      }
   }
}

TEST(UnicodeGetBytes, EncodesWithATerminatorBehind)
{
   const struct {
      const char *string;
      EncodingId encoding;
      ssize_t length;
      size_t zeros;
      std::string expected;
   } cases[] = {{"aé", ENCODING_UTF8, -1, 1, "aé"},       {"aé", ENCODING_DEFAULT, 2, 1, "a\xC3"},
                {"abc", ENCODING_US_ASCII, 2, 1, "ab"},   {"aé", ENCODING_UTF16_LE, -1, 4, "a\0\xE9\0"s},
                {"", ENCODING_UTF16_LE, -1, 4, ""},       {"aé", ENCODING_US_ASCII, -1, 1, failed},
                {"a", ENCODING_ISO_8859_1, -1, 1, failed}};
   for (const auto &c : cases) {
      EXPECT_EQ(Allocated(c.zeros,
                          [&c](char **output, size_t *length) {
                             *output = static_cast<char *>(
                                 Unicode_GetAllocBytesWithLength(c.string, c.encoding, c.length, length));
                             return *output != nullptr;
                          }),
                c.expected);
   }
   EXPECT_EQ(Unicode_GetAllocBytes(nullptr, ENCODING_UTF8), nullptr);
   EXPECT_PANIC((void)Unicode_GetAllocBytes("a\xFF", ENCODING_UTF16_LE), "NOT_IMPLEMENTED lib/unicode/");
   EXPECT_TRUE(Unicode_CanGetBytesWithEncoding("a", 7) && Unicode_CanGetBytesWithEncoding(nullptr, 171));
   EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("é", ENCODING_US_ASCII));
   const char *const buffers[] = {"a", "\xE9", nullptr, "z"};
   for (const ssize_t count : {ssize_t{-1}, ssize_t{2}}) {
      char **strings = Unicode_AllocList(buffers, count, ENCODING_ISO_8859_1);
      EXPECT_EQ(Take(strings[0]) + Take(strings[1]), "aé");
      free(strings);
   }
   char **bytes = Unicode_GetAllocList(buffers, 4, ENCODING_UTF8);
   EXPECT_EQ(Take(bytes[0]) + Take(bytes[1]) + Take(bytes[2]) + Take(bytes[3]), "a\xE9<null>z");
   free(bytes);
   EXPECT_EQ(Unicode_GetAllocList(buffers, -1, ENCODING_US_ASCII), nullptr);
}

/* The destination is of exactly the size given; the bytes expected are without the terminator. */
TEST(UnicodeCopyBytes, CutsBetweenCharacters)
{
   const std::string emoji = "a\xF0\x9F\x98\x80z";
   const struct {
      std::string string;
      size_t size;
      EncodingId encoding;
      bool complete;
      std::string bytes;
   } cases[] = {{"aé", 3, ENCODING_UTF8, false, "a"},
                {"aé", 4, ENCODING_UTF8, true, "aé"},
                {emoji, 5, ENCODING_UTF8, false, "a"},
                {emoji, 6, ENCODING_UTF8, false, "a\xF0\x9F\x98\x80"},
                {"abc", 1, ENCODING_UTF8, false, ""},
                {"", 1, ENCODING_UTF8, true, ""},
                {"éz", 2, ENCODING_DEFAULT, false, ""},
                /* Not UTF-8: what stands before the continuation bytes goes with them. */
                {"a\x80\x80z", 4, ENCODING_UTF8, false, ""},
                {"a\xC3", 3, ENCODING_UTF8, true, "a\xC3"},
                {"\x80\x80z", 3, ENCODING_UTF8, false, ""},
                {"\xE2\x82\x80\x80\x80z", 6, ENCODING_UTF8, false, ""},
                {"abc", 3, ENCODING_US_ASCII, false, "ab"},
                {"abc", 4, ENCODING_US_ASCII, true, "abc"},
                {"é", 4, ENCODING_US_ASCII, false, ""},
                {"ab", 6, ENCODING_UTF16_LE, true, "a\0b\0"s},
                {"ab", 5, ENCODING_UTF16_LE, false, "a\0"s},
                {emoji, 6, ENCODING_UTF16_LE, false, "a\0"s},
                {emoji, 8, ENCODING_UTF16_LE, false, "a\0\x3D\xD8\x00\xDE"s},
                {"a", 4, ENCODING_ISO_8859_1, false, ""}};
   for (const auto &[string, size, encoding, complete, bytes] : cases) {
      const auto destination = Exact(std::string(size, '#'));
      size_t written = 99;
      EXPECT_EQ(Unicode_CopyBytes(destination.get(), string.c_str(), size, &written, encoding), complete);
      const size_t zeros = encoding == ENCODING_UTF16_LE ? 2 : 1;
      EXPECT_EQ(written, bytes.size());
      EXPECT_EQ(std::string(destination.get(), bytes.size() + zeros), bytes + std::string(zeros, '\0'));
   }
   char untouched = '#';
   size_t written = 99;
   EXPECT_FALSE(Unicode_CopyBytes(&untouched, "", 0, &written, ENCODING_UTF8) ||
                Unicode_CopyBytes(&untouched, "", 1, nullptr, ENCODING_UTF16_LE));
   EXPECT_TRUE(written == 0 && untouched == '#');
   const char units[] = "a\0\0b\0\0\0\0\0\0\0";
   for (const auto &[encoding, length] :
        {std::pair{ENCODING_DEFAULT, 1U}, {1, 4U}, {2, 4U}, {3, 4U}, {4, 4U}, {5, 4U}, {6, 4U}}) {
      EXPECT_EQ(Unicode_LengthInBytes(units, encoding), length);
   }
   EXPECT_EQ(Unicode_LengthInBytes(units + 1, ENCODING_UTF32_LE), 4U) << "unaligned";
   const std::unique_ptr<char16_t, Freed> copy(Unicode_UTF16Strdup(u"a\U0001F600"));
   EXPECT_TRUE(std::u16string(copy.get()) == u"a\U0001F600" && Unicode_UTF16Strlen(copy.get()) == 3);
   EXPECT_EQ(Unicode_UTF16Strdup(nullptr), nullptr);
}

std::string ToUtf8(const std::u32string &string)
{
   std::string text;
   for (const char32_t c : string) {
      text += Utf8(c);
   }
   return text;
}

std::u32string Fold(std::u32string string)
{
   for (char32_t &c : string) {
      c = c < 0x10000 ? static_cast<char32_t>(CaseFolding_Unit(static_cast<char16_t>(c))) : c;
   }
   return string;
}

/* Against the plain model, over strings short and repetitive enough for everything to happen. */
TEST(UnicodeOperations, AreThoseOfTheStandardLibraryOnCodePoints)
{
   const std::u32string alphabet = U"abAB\u00E9\u00C9\uFFFD\U0001F600\U0001F601\U00010400";
   std::mt19937 random(1);
   const auto pick = [&random](int low, int high) {
      return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
   };
   for (int round = 0; round < 20000; round++) {
      std::u32string strings[2];
      std::u32string slices[2];
      std::string texts[2];
      int at[2];
      int n[2];
      for (size_t i = 0; i < 2; i++) {
         for (int length = pick(0, 6); length > 0; length--) {
            strings[i] += alphabet[static_cast<size_t>(pick(0, round % 2 == 0 ? 3 : 9))];
         }
         texts[i] = ToUtf8(strings[i]);
         at[i] = pick(0, 3) == 0 ? 0 : pick(-1, 7);
         n[i] = pick(-1, 4);
         slices[i] = strings[i].substr(std::min(static_cast<size_t>(at[i]), strings[i].size()),
                                       static_cast<size_t>(n[i]));
      }
      const size_t from = std::min(static_cast<size_t>(at[0]), strings[0].size());
      const auto expected = [&](size_t found) {
         return found == std::u32string::npos ? -1 : static_cast<ssize_t>(from + found);
      };
      const char *s = texts[0].c_str();
      const char *t = texts[1].c_str();
      const int order = slices[0].compare(slices[1]);
      const int folded = Fold(slices[0]).compare(Fold(slices[1]));
      ASSERT_EQ(Take(Unicode_Substr(s, at[0], n[0])), ToUtf8(slices[0]));
      ASSERT_EQ(Unicode_FindSubstrInRange(s, at[0], n[0], t, at[1], n[1]),
                expected(slices[0].find(slices[1])));
      ASSERT_EQ(Unicode_FindLastSubstrInRange(s, at[0], n[0], t, at[1], n[1]),
                expected(slices[1].empty() ? 0 : slices[0].rfind(slices[1])));
      ASSERT_EQ(Take(Unicode_ReplaceRange(s, at[0], n[0], t, at[1], n[1])),
                ToUtf8(std::u32string(strings[0]).replace(from, slices[0].size(), slices[1])));
      ASSERT_EQ(Unicode_CompareRange(s, at[0], n[0], t, at[1], n[1], false), (order > 0) - (order < 0));
      ASSERT_EQ(Unicode_CompareRange(s, at[0], n[0], t, at[1], n[1], true), (folded > 0) - (folded < 0));
   }
   EXPECT_EQ(Take(Unicode_Join("a", "", "é", "c", nullptr)) + Take(Unicode_Join("a", nullptr)), "aéca");
   EXPECT_TRUE(Unicode_Join(nullptr, "b", nullptr) == nullptr && Unicode_Substr(nullptr, 0, -1) == nullptr);
   EXPECT_EQ(Unicode_CompareRange(nullptr, 0, -1, "a", 0, -1, false), -1);
   EXPECT_EQ(Unicode_CompareRange("a", 0, -1, nullptr, 1, 2, false), -1);
}

TEST(UnicodeOperations, EndTheProcessOnInvalidUtf8)
{
   const char *bad = "a\xFF";
   EXPECT_PANIC((void)Unicode_Substr("\xF4\x90\x80\x80", 0, -1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC(Unicode_FindSubstrInRange("a", 0, -1, bad, 0, 1), "Unicode_FindSubstrInRange: invalid UTF8 ");
   EXPECT_PANIC(Unicode_FindLastSubstrInRange(bad, 0, -1, "a", 0, 1),
                "Unicode_FindLastSubstrInRange: invalid ");
   EXPECT_PANIC((void)Unicode_ReplaceRange(bad, 0, 0, "a", 0, 1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC((void)Unicode_ReplaceRange("a", 0, 0, bad, 0, 1), "Unicode_Substr: invalid UTF8 string @ ");
   EXPECT_PANIC(Unicode_CompareRange("a", 0, -1, bad, 1, 1, false), "Unicode_Substr: invalid UTF8 string @ ");
}

/* Tells whether any field of a table changed: FNV-1a, by whole numbers. */
void Digest(uint64_t *state, uint64_t value)
{
   *state = (*state ^ value) * 0x100000001B3;
}

/* The simple folding of Unicode 5.0, on thirteen pages. */
TEST(CaseFolding, IsThatOfItsTable)
{
   uint64_t digest = 0xCBF29CE484222325;
   for (uint32_t unit = 0; unit < 0x10000; unit++) {
      Digest(&digest, CaseFolding_Unit(static_cast<char16_t>(unit)));
   }
   EXPECT_EQ(digest, 17813766334926528797U);
   EXPECT_EQ(std::count(UNICODE_CASE_FOLDING_PAGES.begin(), UNICODE_CASE_FOLDING_PAGES.end(), nullptr), 243);
}

/* Lookups remember spellings without regard to case, so each starts from nothing. */
EncodingId FreshLookup(const char *name)
{
   UnicodeIANACacheFree();
   return UnicodeIANALookup(name);
}

/* Each preferred name finds its own row, but for that of an identifier with two rows of one name; each alias the first row
   that has it in these letters or, failing that, in any. */
TEST(EncodingTable, HasTheRowsProgramsRelyOn)
{
   uint64_t digest = 0xCBF29CE484222325;
   std::map<std::string, EncodingId> first;
   for (const EncodingRow &row : UNICODE_ENCODINGS) {
      for (const uint64_t field : {static_cast<uint64_t>(row.mib), uint64_t{row.windowsCodePage},
                                   static_cast<uint64_t>(row.encoding), uint64_t{row.usable},
                                   static_cast<uint64_t>(row.preferredIndex)}) {
         Digest(&digest, field);
      }
      const char *preferred = row.names.at(static_cast<size_t>(row.preferredIndex));
      const EncodingId expected = row.usable ? row.encoding : ENCODING_UNKNOWN;
      EXPECT_EQ(FreshLookup(preferred), row.encoding == 294 ? 29 : expected) << preferred;
      EXPECT_STREQ(Unicode_EncodingEnumToName(row.encoding),
                   row.windowsCodePage == 708 ? "ISO-8859-6" : preferred);
      for (auto name = row.names.begin(); *name != nullptr; name++) {
         std::for_each(*name, *name + strlen(*name) + 1,
                       [&](char c) { Digest(&digest, static_cast<uint64_t>(c)); });
         first.emplace(*name, expected);
         EXPECT_EQ(FreshLookup(*name), first[*name]) << *name;
      }
   }
   EXPECT_EQ(digest, 1383092669234010463U);
}

TEST(UnicodeIANALookup, FindsCodePagesExactNamesAndLooseOnes)
{
   const std::pair<EncodingId, std::vector<const char *>> cases[] = {
       {0, {"utf-8", "utf8", "UTF_8", "-u.t f:8-", "windows-65001", "Windows-65001"}},
       {8, {"latin-1"}},
       {22, {"windows-950", "windows-00950", "windows-4294968246"}},
       {35, {"Windows-1252", "WINDOWS-1252"}},
       {170, {"Windows-31J", "windows-31j"}},
       {ENCODING_UNKNOWN,
        {"WINDOWS-65001", "iso-8859-8-i", "windows-", "windows-12x", "windows-1/", "", "--", "utf",
         "utf88"}}};
   for (const auto &[encoding, names] : cases) {
      for (const char *name : names) {
         EXPECT_EQ(FreshLookup(name), encoding) << name;
      }
   }
   const CapturedLog log;
   for (const char *name : {"no-Such", "no-Such", "ibm-813", "ibm-813", "windows-4294967295"}) {
      EXPECT_EQ(UnicodeIANALookup(name), ENCODING_UNKNOWN) << "4294967295 marks a row without a code page";
   }
   const std::string line = "UnicodeIANALookup: Did not find an IANA match for encoding \"";
   EXPECT_EQ(log.Text(), line + "no-Such\"\n" + line + "no-Such\"\n" + line + "windows-4294967295\"\n")
       << "an unknown name every time, an unusable one never";
   /* The cache holds the first spelling's row for all spellings that differ in case only. */
   EXPECT_EQ(FreshLookup("iso-8859-8-i") + UnicodeIANALookup("ISO-8859-8-I"), 2 * ENCODING_UNKNOWN);
   EXPECT_EQ(FreshLookup("ISO-8859-8-I") + UnicodeIANALookup("iso-8859-8-i"), 2 * 107);
   for (int round = 0; round < 50; round++) {
      UnicodeIANACacheFree();
      OnThreads(4, [&names = cases[0].second](size_t thread) {
         for (size_t k = 0; k < 3 * names.size(); k++) {
            EXPECT_EQ(UnicodeIANALookup(names[(thread + k) % names.size()]), Unicode_GetCurrentEncoding());
         }
      });
   }
}

TEST(EncodingId, StandsForANameOrEndsTheProcess)
{
   EXPECT_STREQ(Unicode_EncodingEnumToName(ENCODING_DEFAULT), "UTF-8");
   EXPECT_EXIT((LogToStandardError(), Unicode_EncodingEnumToName(400)), testing::ExitedWithCode(1),
               "Unicode_EncodingEnumToName: Unknown encoding 400\\.\n"
               ".*Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:[0-9]+\n");
   EXPECT_EQ(Unicode_ResolveEncoding(ENCODING_UNKNOWN) + Unicode_ResolveEncoding(170), 168);
   for (const auto &[encoding, valid] : {std::pair{0, true}, {323, true}, {324, false}, {-1, false}}) {
      EXPECT_EQ(Unicode_IsEncodingValid(encoding), valid) << encoding;
   }
   EXPECT_EQ(Unicode_GetCurrentEncodingUncached(), ENCODING_UTF8);
}

} // namespace
