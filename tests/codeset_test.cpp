#include "lib/misc/codeset.h"

#include "lib/misc/codesetBuiltin.h"
#include "lib/misc/codesetInit.h"
#include "lib/misc/dynbuf.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "tests/support/testSupport.h"

#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <thread>
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
