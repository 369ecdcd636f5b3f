#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/init.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/unicode/data/encodingNames.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

using namespace std::string_literals;

namespace {

/* The data file is there in name only: this ICU falls back on the data it was built with. */
class CodeSetIcu : public testing::Test {
 protected:
   CodeSetIcu()
   {
      WriteFile(folder_.Path("icudt44l.dat"), "");
      CodeSet_Init(folder_.Path().c_str());
      EXPECT_NE(CodeSetEngine_Get(), nullptr);
   }

   ~CodeSetIcu() override
   {
      CodeSet_DontUseIcu();
   }

   ScratchFolder folder_;
};

const std::string failed = "<failed>";

std::string Convert(const char *source, const std::string &input, const char *target,
                    uint32_t mode = CODESET_REFUSE)
{
   char *output = nullptr;
   size_t length = 0;
   if (!CodeSet_Convert(source, input.data(), input.size(), target, mode, &output, &length)) {
      return failed;
   }
   const std::unique_ptr<char, Freed> owned(output);
   EXPECT_EQ(std::string(output + length, 4), "\0\0\0\0"s);
   return {output, length};
}

TEST_F(CodeSetIcu, ConvertsAsTheModeSays)
{
   const struct {
      const char *source;
      std::string input;
      const char *target;
      std::string refusing, substituting, skipping;
   } cases[] = {{"UTF-8", "\xE2\x82\xACuro", "windows-1252", "\x80uro", "\x80uro", "\x80uro"},
                {"windows-1252", "\x80uro", "UTF-8", "\xE2\x82\xACuro", "\xE2\x82\xACuro", "\xE2\x82\xACuro"},
                {"UTF-8", "a\xE2\x82\xACz", "US-ASCII", failed, "a\x1Az", "az"},
                /* U+200B, which nobody sees. */
                {"UTF-8", "a\xE2\x80\x8Bz", "windows-1252", failed, "a\x1Az", "az"},
                {"UTF-8", "a\xFFz", "UTF-16LE", failed, "a\0\xFD\xFFz\0"s, "a\0z\0"s},
                {"UTF-16LE", "\x00\xD8"s, "UTF-8", failed, "\xEF\xBF\xBD", ""},
                {"no such", "a", "UTF-8", failed, failed, failed},
                {"UTF-8", "a", "no such", failed, failed, failed}};
   for (const auto &c : cases) {
      EXPECT_EQ(Convert(c.source, c.input, c.target, 0), c.refusing) << c.source << " to " << c.target;
      EXPECT_EQ(Convert(c.source, c.input, c.target, 1), c.substituting) << c.source << " to " << c.target;
      EXPECT_EQ(Convert(c.source, c.input, c.target, 2), c.skipping) << c.source << " to " << c.target;
   }
   EXPECT_EQ(Convert("no such", "", "UTF-8", 7), "");
   EXPECT_PANIC((void)Convert("UTF-8", "a", "UTF-16LE", 3), "NOT_IMPLEMENTED lib/misc/codeset:[0-9]+");
   OnThreads(4, [](size_t) {
      for (int i = 0; i < 100; i++) {
         EXPECT_EQ(Convert("windows-1252", "\x80", "UTF-8"), "\xE2\x82\xAC");
      }
   });
}

/* Four times the room that is made at first, over several fillings of the pivot, in pieces that end inside characters.
   What the buffer held gives way. */
TEST_F(CodeSetIcu, ResumesWhereTheOutputOverflowed)
{
   for (const int count : {1, 31, 32, 33, 1000, 5000, 70000}) {
      std::string utf8;
      std::string utf32;
      for (int i = 0; i < count; i++) {
         utf8 += i % 3 == 0 ? "\xF0\x9F\x98\x80" : "x";
         utf32 += i % 3 == 0 ? "\x00\xF6\x01\x00"s : "x\0\0\0"s;
      }
      EXPECT_EQ(Convert("UTF-8", utf8, "UTF-32LE"), utf32);
      EXPECT_EQ(Convert("UTF-32LE", utf32, "UTF-8"), utf8);
   }
   DynBuf buffer;
   DynBuf_Init(&buffer);
   ASSERT_TRUE(DynBuf_Append(&buffer, "something longer", 16));
   ASSERT_TRUE(CodeSet_ConvertToBuffer("UTF-8", "ab", 2, "US-ASCII", 0, &buffer));
   EXPECT_EQ(std::string(buffer.data, buffer.size), "ab");
   DynBuf_Destroy(&buffer);
}

TEST_F(CodeSetIcu, ValidatesByACountWithoutDestination)
{
   EXPECT_TRUE(CodeSet_Validate("\xC3\xA9", 2, "UTF-8") && CodeSet_Validate("\x80", 1, "windows-1252"));
   EXPECT_FALSE(CodeSet_Validate("\xC3", 1, "UTF-8") || CodeSet_Validate("\xFF\xFE", 2, "UTF-16"));
   EXPECT_TRUE(CodeSet_Validate("", 0, "no such"));
   EXPECT_PANIC((void)CodeSet_Validate("a", 1, "no such"), "VERIFY lib/misc/codeset:[0-9]+");
   EXPECT_TRUE(CodeSet_IsEncodingSupported("EUC-JP"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("no such"));
}

TEST_F(CodeSetIcu, ServesTheFixedPairsAndTheUnicodeLayer)
{
   char *output = nullptr;
   size_t length = 0;
   EXPECT_FALSE(CodeSet_Utf8ToUtf16le("\xED\xA0\x80", 3, &output, nullptr));
   EXPECT_FALSE(CodeSet_Utf16leToUtf8("abc", 3, &output, nullptr));
   EXPECT_EQ(output, nullptr);
   ASSERT_TRUE(CodeSet_Utf16beToCurrent("\xD8\x3D\xDE\0", 4, &output, &length));
   EXPECT_EQ(Take(output) + std::to_string(length), "\xF0\x9F\x98\x80"
                                                    "4");
   ASSERT_TRUE(CodeSet_Utf16leToCurrent(nullptr, 5, &output, &length));
   EXPECT_EQ(std::string(output, 4), "\0\0\0\0"s);
   free(output);

   EXPECT_EQ(Take(Unicode_AllocWithLength("a\xFFz", 3, ENCODING_UTF8)), "a\xEF\xBF\xBDz");
   EXPECT_EQ(UnicodeAllocInternal("a\xFFz", 3, ENCODING_UTF8, true), nullptr);
   EXPECT_EQ(Take(Unicode_AllocWithLength("\x80", -1, ENCODING_WINDOWS_1252)), "\xE2\x82\xAC");
   EXPECT_EQ(Take(UnicodeAllocInternal("\xE9", 1, ENCODING_ISO_8859_1, true)), "\xC3\xA9");
   EXPECT_TRUE(Unicode_CanGetBytesWithEncoding("\xE2\x82\xAC", ENCODING_WINDOWS_1252));
   EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("\xE2\x82\xAC", ENCODING_ISO_8859_1));
   EXPECT_TRUE(Unicode_IsBufferValid(u"a", -1, ENCODING_UTF16_LE));

   /* Cut between bytes, and ended by one zero, even where units are wider. */
   char buffer[] = "########";
   EXPECT_FALSE(Unicode_CopyBytes(buffer, "abc", 5, &length, ENCODING_UTF32_LE));
   EXPECT_EQ(length, 4U);
   EXPECT_EQ(std::string(buffer, 6), "a\0\0\0\0#"s);
   EXPECT_FALSE(Unicode_CopyBytes(buffer, "\xE2\x82\xAC", 5, &length, ENCODING_ISO_8859_1));
   EXPECT_TRUE(length == 0 && buffer[0] == '\0');
}

/* Every usable encoding carries ASCII and a letter of its script to itself and back. Which letter is found by trying, but
   those that carry ASCII alone are known. */
TEST_F(CodeSetIcu, CarriesASampleThroughEveryUsableEncoding)
{
   const std::set<std::string> asciiOnly = {"ASCII", "ISO_646.irv:1983"};
   size_t usable = 0;
   for (const EncodingRow &row : UNICODE_ENCODINGS) {
      if (!row.usable) {
         continue;
      }
      usable++;
      const char *name = Unicode_EncodingEnumToName(row.encoding);
      const auto carries = [name](const std::string &sample) {
         const std::string encoded = Convert("UTF-8", sample, name);
         return encoded != failed && Convert(name, encoded, "UTF-8") == sample;
      };
      bool other = false;
      for (const char *letter : {"é", "ą", "Ж", "α", "א", "ع", "ก", "अ", "অ", "ਅ", "અ", "ଅ", "அ", "అ", "ಅ",
                                 "അ", "あ", "中", "한"}) {
         other = other || carries("a" + std::string(letter) + "z");
      }
      EXPECT_TRUE(carries("Sample 123.")) << name;
      EXPECT_EQ(other, !asciiOnly.contains(name)) << name;
   }
   EXPECT_EQ(usable, 77U);
}

} // namespace
