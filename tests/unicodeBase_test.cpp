#include "lib/unicode/unicodeSimpleBase.h"

#include "lib/misc/codeset/codeset.h"
#include "tests/support/testSupport.h"

#include <cstring>
#include <vector>

using namespace std::string_literals;

namespace {

const std::string none = "<null>";

TEST(UnicodeAlloc, MakesAStringOfABuffer)
{
   const struct {
      std::string bytes;
      EncodingId encoding;
      std::string strict, lax; /* "!": ends the process. */
   } cases[] = {{"a\xC3\xA9z", ENCODING_UTF8, "aéz", "aéz"},
                {"a\xC3", ENCODING_UTF8, none, "!"},
                {"az", ENCODING_US_ASCII, "az", "az"},
                {"a\xE9", ENCODING_US_ASCII, none, "a\xEF\xBF\xBD"},
                {"\xE9\0"s, ENCODING_UTF16_LE, "é", "é"},
                {"\0\xDC"s, ENCODING_UTF16_LE, none, "!"},
                {"\xE9", ENCODING_ISO_8859_1, "é", "é"},
                {"a", ENCODING_WINDOWS_1252, none, "!"},
                {"", ENCODING_DEFAULT, "", ""}};
   for (const auto &[bytes, encoding, strict, lax] : cases) {
      const auto length = static_cast<ssize_t>(bytes.size());
      EXPECT_EQ(Take(UnicodeAllocInternal(bytes.data(), length, encoding, true)), strict);
      EXPECT_EQ(Take(UnicodeAllocInternal(bytes.data(), length, encoding, false)), lax == "!" ? none : lax);
      if (lax != "!") {
         EXPECT_EQ(Take(Unicode_AllocWithLength(bytes.data(), length, encoding)), lax);
      }
   }
   EXPECT_EQ(Take(Unicode_AllocWithLength("a\xC3\xA9", -1, ENCODING_UTF8)), "aé");
   EXPECT_EQ(Take(Unicode_AllocWithLength(u"a\u20AC", -1, ENCODING_UTF16_LE)), "a€");
   EXPECT_EQ(Unicode_AllocWithLength(nullptr, 3, ENCODING_UTF8), nullptr);
   EXPECT_PANIC(
       (void)Unicode_AllocWithLength("a\xFF", -1, ENCODING_UTF8),
       "Unicode_AllocWithLength: Couldn't convert invalid buffer \\[a\\\\xFF\\] from UTF-8 to Unicode\\.\n");
   EXPECT_PANIC((void)Unicode_AllocWithLength("a", 1, 171), ".*\\[a\\] from macintosh to Unicode\\.\n");
   EXPECT_EQ(Take(UnicodeEscapeBuffer("A\n\x1F ~\\\x7F\x80\xC3\xFF", 10, ENCODING_UTF8)),
             "A\\x0A\\x1F ~\\x5C\\x7F\\x80\\xC3\\xFF");
   EXPECT_EQ(Take(UnicodeEscapeBuffer(u"A", -1, ENCODING_UTF16_LE)), "A\\x00");
}

TEST(UnicodeAlloc, ConvertsLists)
{
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

TEST(UnicodeAlloc, UnescapesLiterals)
{
   const std::pair<const char *, const char *> cases[] = {{"plain", "plain"},
                                                          {"\\u20aC\\u0041g", "€Ag"},
                                                          {"\\U0001F600", "\xF0\x9F\x98\x80"},
                                                          {"\\U0010FFFF!", "\xF4\x8F\xBF\xBF!"},
                                                          {"\\uD83D\\uDE00", "\xF0\x9F\x98\x80"},
                                                          {"a\\n\\\\\\\"", "an\\\""},
                                                          {"end\\", "end"},
                                                          {"a\\u0000b", "a"},
                                                          {"", ""}};
   for (const auto &[text, expected] : cases) {
      EXPECT_EQ(Take(Unicode_AllocFromEscapedLiteral(text, true)), expected) << text;
      EXPECT_EQ(Take(Unicode_AllocFromEscapedLiteral(text, false)), text);
   }
   const std::pair<const char *, std::vector<const char *>> ends[] = {
       {"VERIFY", {"a\xC3", "\\\xC3", "\\u12\xC3", "\\U00110000", "\\UFFFFFFFF"}},
       {"NOT_IMPLEMENTED", {"\\u12", "\\u12G4", "\\U0001F60", "\\u"}}};
   for (const auto &[panic, texts] : ends) {
      for (const char *text : texts) {
         EXPECT_PANIC((void)Unicode_AllocFromEscapedLiteral(text, true),
                      +std::string(panic) + " lib/unicode/unicodeSimpleBase:[0-9]+\n");
      }
   }
   EXPECT_PANIC((void)Unicode_AllocFromEscapedLiteral("\\uD83D", true),
                ".*Couldn't convert invalid buffer \\[=\\\\xD8\\]");
}

TEST(UnicodeGetBytes, EncodesWithATerminatorBehind)
{
   const struct {
      const char *string;
      EncodingId encoding;
      ssize_t length;
      size_t terminator;
      std::string expected;
   } cases[] = {{"aé", ENCODING_UTF8, -1, 1, "a\xC3\xA9"},
                {"aé", ENCODING_DEFAULT, 2, 1, "a\xC3"},
                {"abc", ENCODING_US_ASCII, 2, 1, "ab"},
                {"aé", ENCODING_UTF16_LE, -1, 4, "a\0\xE9\0"s},
                {"", ENCODING_UTF16_LE, -1, 4, ""}};
   for (const auto &c : cases) {
      size_t length = 99;
      const std::unique_ptr<void, Freed> bytes(
          Unicode_GetAllocBytesWithLength(c.string, c.encoding, c.length, &length));
      EXPECT_EQ(std::string(static_cast<char *>(bytes.get()), length + c.terminator),
                c.expected + std::string(c.terminator, '\0'));
   }
   EXPECT_EQ(Unicode_GetAllocBytes("aé", ENCODING_US_ASCII), nullptr);
   EXPECT_EQ(Unicode_GetAllocBytes("a", ENCODING_ISO_8859_1), nullptr);
   EXPECT_EQ(Unicode_GetAllocBytes(nullptr, ENCODING_UTF8), nullptr);
   EXPECT_PANIC((void)Unicode_GetAllocBytes("a\xFF", ENCODING_UTF16_LE),
                "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:[0-9]+\n");
   EXPECT_TRUE(Unicode_CanGetBytesWithEncoding("a", ENCODING_US_ASCII));
   EXPECT_TRUE(Unicode_CanGetBytesWithEncoding(nullptr, 171));
   EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("é", ENCODING_US_ASCII));
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
                {"aéz", 4, ENCODING_DEFAULT, false, "aé"},
                {emoji, 3, ENCODING_UTF8, false, "a"},
                {emoji, 5, ENCODING_UTF8, false, "a"},
                {emoji, 6, ENCODING_UTF8, false, "a\xF0\x9F\x98\x80"},
                {"abc", 3, ENCODING_UTF8, false, "ab"},
                {"abc", 1, ENCODING_UTF8, false, ""},
                {"", 1, ENCODING_UTF8, true, ""},
                /* Not UTF-8: what stands before the continuation bytes goes with them. */
                {"a\x80\x80z", 4, ENCODING_UTF8, false, ""},
                {"\x80\x80z", 3, ENCODING_UTF8, false, ""},
                {"\xE2\x82\x80\x80\x80z", 6, ENCODING_UTF8, false, ""},
                {"abc", 3, ENCODING_US_ASCII, false, "ab"},
                {"abc", 4, ENCODING_US_ASCII, true, "abc"},
                {"é", 4, ENCODING_US_ASCII, false, ""},
                {"ab", 6, ENCODING_UTF16_LE, true, "a\0b\0"s},
                {"ab", 5, ENCODING_UTF16_LE, false, "a\0"s},
                {"ab", 2, ENCODING_UTF16_LE, false, ""},
                {emoji, 6, ENCODING_UTF16_LE, false, "a\0"s},
                {"a", 4, ENCODING_ISO_8859_1, false, ""},
                {emoji, 8, ENCODING_UTF16_LE, false, "a\0\x3D\xD8\x00\xDE"s}};
   for (const auto &c : cases) {
      const std::unique_ptr<char, Freed> destination(static_cast<char *>(malloc(c.size)));
      memset(destination.get(), '#', c.size);
      size_t written = 99;
      EXPECT_EQ(Unicode_CopyBytes(destination.get(), c.string.c_str(), c.size, &written, c.encoding),
                c.complete)
          << testing::PrintToString(c.string) << " into " << c.size;
      const std::string terminator(c.encoding == ENCODING_UTF16_LE ? 2 : 1, '\0');
      EXPECT_EQ(written, c.bytes.size());
      EXPECT_EQ(std::string(destination.get(), c.bytes.size() + terminator.size()), c.bytes + terminator);
   }
   char untouched = '#';
   size_t written = 99;
   EXPECT_FALSE(Unicode_CopyBytes(&untouched, "", 0, &written, ENCODING_UTF8) ||
                Unicode_CopyBytes(&untouched, "", 1, nullptr, ENCODING_UTF16_LE));
   EXPECT_TRUE(written == 0 && untouched == '#');
   EXPECT_PANIC(Unicode_CopyBytes(&untouched, "\xFF", 1, nullptr, ENCODING_UTF16_LE), "NOT_IMPLEMENTED");
}

TEST(UnicodeMeasures, KnowTheWidthOfUnits)
{
   const char bytes[] = "a\0\0b\0\0\0\0\0\0\0";
   for (const auto &[encoding, length] :
        {std::pair{ENCODING_DEFAULT, 1U}, {1, 4U}, {2, 4U}, {3, 4U}, {4, 4U}, {5, 4U}, {6, 4U}}) {
      EXPECT_EQ(Unicode_LengthInBytes(bytes, encoding), length);
   }
   EXPECT_EQ(Unicode_LengthInBytes(bytes + 1, ENCODING_UTF32_LE), 4U) << "unaligned";
   EXPECT_EQ(Unicode_LengthInCodePoints("a\xF0\x9F\x98\x80"), 2);
   EXPECT_EQ(Unicode_LengthInCodePoints("\xFF"), -1);
   const std::unique_ptr<char16_t, Freed> copy(Unicode_UTF16Strdup(u"a\U0001F600"));
   EXPECT_EQ(std::u16string(copy.get()), u"a\U0001F600");
   EXPECT_EQ(Unicode_UTF16Strlen(copy.get()), 3U);
   EXPECT_EQ(Unicode_UTF16Strdup(nullptr), nullptr);
}

TEST(UnicodeIsBufferValid, AsksTheEncoding)
{
   const struct {
      const void *buffer;
      ssize_t length;
      EncodingId encoding;
      bool valid;
   } cases[] = {{nullptr, -1, ENCODING_UTF8, true},        {"a\xC3\xA9", -1, ENCODING_UTF8, true},
                {"a\xC3\xA9", 2, ENCODING_DEFAULT, false}, {"a\0\xFF", -1, ENCODING_UTF8, true},
                {"a\0\xFF", 3, ENCODING_UTF8, false},      {"az", -1, ENCODING_US_ASCII, true},
                {"a\0\xFF", 3, ENCODING_US_ASCII, false},  {u"a", -1, ENCODING_UTF16_LE, true},
                {u"\xDC00", 2, ENCODING_UTF16_LE, false},  {"\xFF", 1, ENCODING_ISO_8859_1, true},
                {"a", 1, ENCODING_WINDOWS_1252, false}};
   for (const auto &[buffer, length, encoding, valid] : cases) {
      EXPECT_EQ(Unicode_IsBufferValid(buffer, length, encoding), valid) << encoding << ", " << length;
   }
}

} // namespace
