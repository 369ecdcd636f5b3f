#include "lib/misc/codeset.h"

#include "lib/misc/codesetBuiltin.h"
#include "lib/misc/codesetEngine.h"
#include "lib/misc/codesetInit.h"
#include "lib/misc/dynbuf.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "tests/support/testSupport.h"

#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <vector>

using namespace std::string_literals;

namespace {

/* A copy of text in a block of exactly its size, so that a read beyond its end is seen by the sanitizer. */
class Exact {
 public:
   explicit Exact(const std::string &text)
       : data_(static_cast<char *>(malloc(text.empty() ? 1 : text.size())))
   {
      memcpy(data_.get(), text.data(), text.size());
   }

   [[nodiscard]] const char *Data() const
   {
      return data_.get();
   }

 private:
   std::unique_ptr<char, Freed> data_;
};

/* What a routine allocated, with its length and the zeros behind it checked; "<failed>" for a failure. */
std::string Allocated(size_t terminator, const std::function<bool(char **output, size_t *length)> &convert)
{
   char *output = nullptr;
   size_t length = 99;
   if (!convert(&output, &length)) {
      EXPECT_EQ(output, nullptr);
      EXPECT_EQ(length, 99U);
      return "<failed>";
   }
   const std::unique_ptr<char, Freed> owned(output);
   EXPECT_EQ(std::string(output + length, terminator), std::string(terminator, '\0'));
   return {output, length};
}

std::string Convert(const char *source, const std::string &input, const char *target,
                    uint32_t mode = CODESET_REFUSE)
{
   const Exact exact(input);
   return Allocated(4, [&](char **output, size_t *length) {
      return CodeSet_Convert(source, exact.Data(), input.size(), target, mode, output, length);
   });
}

const std::string failed = "<failed>";

struct ConversionCase {
   const char *source;
   std::string input;
   const char *target;
   uint32_t mode;
   std::string expected;
};

void ExpectConversions(const std::vector<ConversionCase> &cases)
{
   for (const ConversionCase &c : cases) {
      EXPECT_EQ(Convert(c.source, c.input, c.target, c.mode), c.expected)
          << c.source << " to " << c.target << " in mode " << c.mode << ": "
          << testing::PrintToString(c.input);
   }
}

} // namespace

TEST(CodeSetBuiltin, ConvertsToAndFromUtf8)
{
   ExpectConversions({
       {"UTF-8", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "UTF-16LE", 0,
        "a\0\xE9\0\xAC\x20\x3D\xD8\x00\xDE"s},
       {"UTF-16LE", "a\0\xE9\0\xAC\x20\x3D\xD8\x00\xDE"s, "UTF-8", 0,
        "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
       {"UTF-16BE", "\0a\0\xE9\x20\xAC\xD8\x3D\xDE\x00"s, "UTF-8", 0,
        "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
       {"US-ASCII", "plain", "UTF-8", 0, "plain"},
       {"ISO-8859-1", "\xE9\x7F\x80\xFF", "UTF-8", 0, "\xC3\xA9\x7F\xC2\x80\xC3\xBF"},
       {"UTF-8", "", "UTF-16LE", 0, ""},
       {"ISO-8859-2", "", "KOI8-R", 0, ""},
   });
}

TEST(CodeSetBuiltin, HasNoOtherConversions)
{
   for (const char *target : {"US-ASCII", "ISO-8859-1", "UTF-16BE", "UTF-16", "windows-1252"}) {
      EXPECT_EQ(Convert("UTF-8", "a", target, CODESET_SUBSTITUTE), failed) << target;
   }
   for (const char *source : {"UTF-32LE", "windows-1252", "UTF-16", "no such"}) {
      EXPECT_EQ(Convert(source, "abcd", "UTF-8", CODESET_SUBSTITUTE), failed) << source;
   }
   EXPECT_EQ(Convert("UTF-16LE", "ab", "UTF-16BE"), failed);
   EXPECT_EQ(Convert("US-ASCII", "ab", "ISO-8859-1"), failed);
}

TEST(CodeSetBuiltin, RefusesWhatIsIllFormed)
{
   ExpectConversions({
       {"UTF-16LE", "abc", "UTF-8", CODESET_SKIP, failed},
       {"UTF-16LE", "a", "UTF-8", 0, failed},
       {"UTF-16LE", "\x00\xD8"s, "UTF-8", 1, failed},
       {"UTF-16LE", "\x00\xD8z\0"s, "UTF-8", 1, failed},
       {"UTF-16LE", "\x00\xDC\x00\xD8"s, "UTF-8", 1, failed},
       {"UTF-16LE", "\x00\xD8\x00\xD8"s, "UTF-8", 1, failed},
       {"UTF-16BE", "\xD8\x00"s, "UTF-8", 1, failed},
       {"UTF-16BE", "abc", "UTF-8", 0, failed},
       {"UTF-8", "\xED\xA0\x80", "UTF-16LE", 1, failed},
       {"UTF-8", "\xF4\x90\x80\x80", "UTF-16LE", 1, failed},
       {"UTF-8", "0123456789abcdef\xE2\x82", "UTF-16LE", 1, failed},
   });
}

TEST(CodeSetBuiltin, TreatsBytesOutsideAsciiAsTheModeSays)
{
   const std::string input = "a\xE9\xE9z\x80";
   ExpectConversions({
       {"US-ASCII", input, "UTF-8", 0, failed},
       {"US-ASCII", input, "UTF-8", 1, "a\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD"},
       {"US-ASCII", input, "UTF-8", 2, "az"},
       {"US-ASCII", input, "UTF-8", 3, "a\xEF\xBF\xBD\xEF\xBF\xBDz\xEF\xBF\xBD"},
       {"US-ASCII", input, "UTF-8", 4, "az"},
   });
}

TEST(CodeSetBuiltin, ValidatesACopyInTheSameEncodingInEveryMode)
{
   for (const uint32_t mode : {0U, 1U, 2U}) {
      ExpectConversions({
          {"UTF-8", "\xE2\x82\xAC\0x"s, "utf8", mode, "\xE2\x82\xAC\0x"s},
          {"UTF-8", "a\xFF", "UTF-8", mode, failed},
          {"ASCII", "az", "US-ASCII", mode, "az"},
          {"ASCII", "a\x80", "US-ASCII", mode, failed},
          {"UTF-16LE", "a\0"s, "UTF-16LE", mode, "a\0"s},
          {"UTF-16LE", "\0\xDC"s, "UTF-16LE", mode, failed},
          {"UTF-16BE", "\0a"s, "UTF-16BE", mode, "\0a"s},
          {"UTF-16BE", "\xDC\0"s, "UTF-16BE", mode, failed},
          {"UTF-16BE", "\0a\0"s, "UTF-16BE", mode, failed},
          {"UTF-16", "abc", "UTF-16", mode, "abc"},
          {"UTF-32LE", "abc", "UTF-32LE", mode, "abc"},
          {"ISO-8859-1", "\xFF", "ISO-8859-1", mode, "\xFF"},
          {"GB18030", "\xFF", "EUC-JP", mode, "\xFF"},
      });
   }
}

TEST(CodeSetBuiltin, CopiesBetweenTwoUnknownEncodingsAndLogsBoth)
{
   const CapturedLog log;
   EXPECT_EQ(Convert("no-such-1", "\xFF\xFE", "no-such-2"), "\xFF\xFE");
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
      bool converted;
      std::string expected;
   } cases[] = {
       {"plain", 0, true, "plain"},
       {"a\xF0\x9F\x98\x80z", 0, false, ""},
       {"a\xF0\x9F\x98\x80z\xC3\xA9", 1, true, "a\x1Az\x1A"},
       {"a\xF0\x9F\x98z\xE2\x82", 1, true, "a\x1A\x1A\x1Az\x1A\x1A"},
       {"a\xF0\x9F\x98\x80z", 2, true, "az"},
   };
   for (const auto &c : cases) {
      const Exact exact(c.input);
      DynBuf buffer;
      DynBuf_Init(&buffer);
      EXPECT_EQ(CodeSetBuiltin_Convert(ENCODING_UTF8, exact.Data(), c.input.size(), ENCODING_US_ASCII,
                                       ENCODING_ISO_8859_1, c.mode, &buffer),
                c.converted);
      EXPECT_EQ(std::string(buffer.data != nullptr ? buffer.data : "", buffer.size), c.expected);
      DynBuf_Destroy(&buffer);
   }
}

/* Text that meets every growth of the output, in wide steps and single ones. */
TEST(CodeSetBuiltin, ConvertsLongMixedText)
{
   const std::string ascii(1000, 'x');
   std::string utf8;
   std::string utf16;
   for (int i = 0; i < 600; i++) {
      const auto n = static_cast<size_t>(i);
      utf8 += ascii.substr(0, n) + (i % 2 != 0 ? "\xE2\x82\xAC" : "\xF0\x9F\x98\x80");
      for (size_t k = 0; k < n; k++) {
         utf16 += "x\0"s;
      }
      utf16 += i % 2 != 0 ? "\xAC\x20"s : "\x3D\xD8\x00\xDE"s;
   }
   EXPECT_EQ(Convert("UTF-8", utf8, "UTF-16LE"), utf16);
   EXPECT_EQ(Convert("UTF-16LE", utf16, "UTF-8"), utf8);
}

TEST(CodeSetWrappers, ConvertTheirPairWithFourZerosBehind)
{
   using Wrapper = bool (*)(const char *, size_t, char **, size_t *);
   const struct {
      Wrapper wrapper;
      std::string input;
      std::string expected;
      size_t terminator;
   } cases[] = {
       {CodeSet_Utf16leToUtf8, "\xE9\0"s, "\xC3\xA9", 4},
       {CodeSet_Utf8ToUtf16le, "\xC3\xA9", "\xE9\0"s, 4},
       {CodeSet_CurrentToUtf16le, "\xC3\xA9", "\xE9\0"s, 4},
       {CodeSet_Utf16leToCurrent, "\xE9\0"s, "\xC3\xA9", 4},
       {CodeSet_Utf16beToCurrent, "\0\xE9"s, "\xC3\xA9", 4},
       {CodeSet_CurrentToUtf8, "a\0\xFF"s, "a\0\xFF"s, 1},
       {CodeSet_Utf8ToCurrent, "a\0\xFF"s, "a\0\xFF"s, 1},
       {CodeSet_Utf16leToUtf8, "abc", failed, 4},
       {CodeSet_Utf8ToUtf16le, "\xC3", failed, 4},
       {CodeSet_Utf16beToCurrent, "\xDC\0"s, failed, 4},
       {CodeSet_Utf16leToUtf8, "", "", 4},
       {CodeSet_Utf8ToCurrent, "", "", 1},
   };
   for (const auto &c : cases) {
      const Exact exact(c.input);
      EXPECT_EQ(Allocated(c.terminator,
                          [&](char **output, size_t *length) {
                             return c.wrapper(exact.Data(), c.input.size(), output, length);
                          }),
                c.expected)
          << testing::PrintToString(c.input);
   }
   char *output = nullptr;
   EXPECT_FALSE(CodeSet_CurrentToUtf8("", SIZE_MAX, &output, nullptr));
   EXPECT_STREQ(CodeSet_GetCurrentCodeSet(), "UTF-8");
}

TEST(CodeSetUtf8, ValidatesBySequenceRules)
{
   const struct {
      std::string text;
      bool valid;
   } cases[] = {
       {"", true},
       {"plain", true},
       {"\xEF\xBB\xBF", true},
       {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true},
       {"\xC0\x80", false},
       {"\xC1\xBF", false},
       {"\xE0\x9F\xBF", false},
       {"\xED\xA0\x80", false},
       {"\xF0\x8F\xBF\xBF", false},
       {"\xF4\x90\x80\x80", false},
       {"\xF5\x80\x80\x80", false},
       {"\x80", false},
       {"\xE2\x82", false},
       {"\xE2\x28\xA1", false},
   };
   /* In front of, behind and between ASCII of all lengths around the wide steps. */
   for (const auto &c : cases) {
      for (const size_t before : {0U, 1U, 15U, 16U, 17U, 63U, 64U, 65U, 80U, 200U}) {
         for (const size_t after : {0U, 1U, 15U, 16U, 64U, 100U}) {
            const std::string text = std::string(before, 'a') + c.text + std::string(after, 'z');
            const Exact exact(text);
            EXPECT_EQ(CodeSet_IsValidUtf8Buffer(exact.Data(), text.size()), c.valid)
                << testing::PrintToString(text);
            EXPECT_EQ(CodeSet_IsValidUtf8NoNul(exact.Data(), text.size()), c.valid);
            EXPECT_EQ(CodeSet_IsValidUtf8(text.c_str()), c.valid);
         }
      }
   }
   /* ASCII passed over in wide steps does not hide that it stands inside a sequence. */
   for (size_t before = 0; before < 64; before++) {
      const std::string text = std::string(before, 'a') + "\xE2\x82" + std::string(128, 'a') + "\xAC";
      EXPECT_FALSE(CodeSet_IsValidUtf8Buffer(text.data(), text.size())) << before;
   }
   EXPECT_TRUE(CodeSet_IsValidUtf8Buffer("a\0b", 3));
   EXPECT_FALSE(CodeSet_IsValidUtf8NoNul("a\0b", 3));
   EXPECT_FALSE(CodeSet_IsValidUtf8NoNul("\xE2\0", 2));
   EXPECT_TRUE(CodeSet_IsValidUtf8("a\0\xFF"));
}

TEST(CodeSetUtf8, CountsAndFindsCodePoints)
{
   const char *text = "a\xC3\xA9\xF0\x9F\x98\x80z";
   EXPECT_EQ(CodeSet_LengthInCodePoints(text), 4);
   EXPECT_EQ(CodeSet_LengthInCodePoints("a\xE2\x82"), -1);
   EXPECT_EQ(CodeSet_GetUtf8(text + 1, text + 3, nullptr), 2);
   EXPECT_EQ(CodeSet_GetUtf8(text, text, nullptr), 0);
   const ssize_t offsets[] = {0, 1, 3, 7, 8, -1};
   for (ssize_t i = 0; i < 6; i++) {
      EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset(text, i), offsets[i]) << i;
   }
   EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset("a\xFFz", 1), 1);
   EXPECT_EQ(CodeSet_CodePointOffsetToByteOffset("a\xFFz", 2), -1);
}

TEST(CodeSetUtf8, ConvertsToCodePointsAndBack)
{
   uint32_t *units = nullptr;
   char *text = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32("a\xED\xA0\x80\xF0\x9F\x98\x80", &units));
   EXPECT_EQ(std::vector<uint32_t>(units, units + 4), (std::vector<uint32_t>{'a', 0xD800, 0x1F600, 0}));
   ASSERT_TRUE(CodeSet_Utf32ToUtf8(units, &text));
   EXPECT_EQ(Take(text), "a\xED\xA0\x80\xF0\x9F\x98\x80");
   free(units);

   EXPECT_FALSE(CodeSet_Utf8ToUtf32("a\xC3", &units));
   EXPECT_EQ(units, nullptr);
   const uint32_t beyond[] = {'a', 0x110000, 0};
   EXPECT_FALSE(CodeSet_Utf32ToUtf8(beyond, &text));
   EXPECT_EQ(text, nullptr);
   EXPECT_TRUE(CodeSet_Utf8ToUtf32(nullptr, &units) && CodeSet_Utf32ToUtf8(nullptr, &text));
   EXPECT_TRUE(units == nullptr && text == nullptr);
}

TEST(CodeSetValidate, ConvertsToFindOut)
{
   EXPECT_TRUE(CodeSet_Validate("\xC3\xA9", 2, "UTF-8"));
   EXPECT_FALSE(CodeSet_Validate("\xC3", 1, "UTF-8"));
   EXPECT_TRUE(CodeSet_Validate("", 0, "no such"));
   EXPECT_TRUE(CodeSet_Validate("\xFF", 1, "ISO-8859-1"));
   EXPECT_FALSE(CodeSet_Validate("a", 1, "windows-1252"));
   EXPECT_TRUE(CodeSet_IsEncodingSupported("windows-1252"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("EUC-JP"));
   EXPECT_PANIC((void)CodeSet_Validate("", size_t{1} << 31, "UTF-8"), "VERIFY lib/misc/codeset:[0-9]+");
}

TEST(CodeSetInit, LooksForTheDataFile)
{
   const ScratchFolder folder;
   const std::string empty = folder.Path("empty");
   const std::string taken = folder.Path("taken");
   const std::string complete = folder.Path("complete");
   for (const std::string &path : {empty, taken, complete, taken + "/icudt44l.dat"}) {
      mkdir(path.c_str(), 0700);
   }
   WriteFile(complete + "/icudt44l.dat", "");
   static std::string lookedUp;
   lookedUp = complete;
   const auto lookup = [](const char *key) {
      return std::string(key) == "icuDir" ? strdup(lookedUp.c_str()) : nullptr;
   };
   const auto nothing = [](const char * /*key*/) -> char * { return nullptr; };
   const struct {
      const char *directory;
      LocationLookup lookup;
      bool found;
   } cases[] = {
       {complete.c_str(), nullptr, true}, {empty.c_str(), lookup, false}, {taken.c_str(), nullptr, false},
       {nullptr, lookup, true},           {nullptr, nothing, false},      {nullptr, nullptr, false},
   };
   for (const auto &c : cases) {
      CodeSetInit_FindIcu(c.directory, c.lookup);
      EXPECT_EQ(CodeSetEngine_Get() != nullptr, c.found && TESSEL_HAVE_ICU)
          << (c.directory != nullptr ? c.directory : "null");
   }
   EXPECT_TRUE(CodeSet_Init(complete.c_str()));
   CodeSet_DontUseIcu();
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
   EXPECT_TRUE(CodeSet_Init(empty.c_str()));
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
}

/* The first caller's directory decides, whoever that is: all pass the same here, and later calls change nothing. */
TEST(UnicodeInit, RunsOnceUnderConcurrentCallers)
{
   const ScratchFolder folder;
   WriteFile(folder.Path("icudt44l.dat"), "");
   std::vector<std::thread> callers;
   callers.reserve(4);
   for (int i = 0; i < 4; i++) {
      callers.emplace_back([&folder] { Unicode_Init(0, nullptr, nullptr, folder.Path().c_str()); });
   }
   for (std::thread &caller : callers) {
      caller.join();
   }
   EXPECT_EQ(CodeSetEngine_Get() != nullptr, TESSEL_HAVE_ICU != 0);
   Unicode_Init();
   Unicode_InitDefault();
   Unicode_Init("/nowhere");
   EXPECT_EQ(CodeSetEngine_Get() != nullptr, TESSEL_HAVE_ICU != 0);
   CodeSet_DontUseIcu();
   Unicode_Init(folder.Path().c_str());
   EXPECT_EQ(CodeSetEngine_Get(), nullptr);
}

TEST(CodeSetNormalization, ComposesAndDecomposes)
{
   const auto normalize = [](bool compose, const char *text, size_t length) {
      return Allocated(4, [&](char **output, size_t *outLength) {
         return compose ? CodeSet_Utf8FormC(text, length, output, outLength)
                        : CodeSet_Utf8FormD(text, length, output, outLength);
      });
   };
   if (!TESSEL_HAVE_ICU) {
      EXPECT_EQ(normalize(true, "a", 1), failed);
      return;
   }
   EXPECT_EQ(normalize(true, "A\xCC\x8A", 3), "\xC3\x85");
   EXPECT_EQ(normalize(false, "\xE2\x84\xAB", 3), "A\xCC\x8A");
   EXPECT_EQ(normalize(false, "\xED\x95\x9C", 3), "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB");
   EXPECT_EQ(normalize(true, "a\0A\xCC\x8A"s.c_str(), 5), "a");
   EXPECT_EQ(normalize(true, "", 0), "");
   EXPECT_EQ(normalize(true, "a\xFF", 2), failed);
   EXPECT_EQ(normalize(false, "\xED\xA0\x80", 3), failed);
}
