#include "lib/misc/codeset.h"
#include "lib/misc/codesetBuiltin.h"
#include "lib/misc/dynbuf.h"
#include "lib/unicode/caseFolding.h"
#include "tests/support/testSupport.h"

#include <array>
#include <cstring>
#include <iconv.h>
#include <unicode/uchar.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

/* Every input there is, up to a length, against ICU and iconv. */

namespace {

struct Buffer : DynBuf {
   Buffer()
   {
      DynBuf_Init(this);
   }

   Buffer(const Buffer &) = delete;
   Buffer &operator=(const Buffer &) = delete;

   ~Buffer()
   {
      DynBuf_Destroy(this);
   }

   [[nodiscard]] std::string_view Content() const
   {
      return {data, size};
   }
};

struct Expected {
   bool valid = true;
   size_t count = 0;
   std::array<uint16_t, 8> units;
};

/* Strict UTF-8 by ICU. */
Expected ByIcu(const uint8_t *bytes, int32_t length)
{
   Expected expected;
   for (int32_t i = 0; i < length && expected.valid;) {
      UChar32 codePoint;
      U8_NEXT(bytes, i, length, codePoint);
      expected.valid = codePoint >= 0;
      if (expected.valid) {
         U16_APPEND_UNSAFE(expected.units, expected.count, codePoint);
      }
   }
   return expected;
}

bool IsContinuation(uint8_t byte)
{
   return (byte & 0xC0) == 0x80;
}

/* The two differences that the sequence decoder is meant to have from strict UTF-8. */

bool IsEncodedSurrogate(const uint8_t *bytes, int length)
{
   return length >= 3 && bytes[0] == 0xED && bytes[1] >= 0xA0 && IsContinuation(bytes[1]) &&
          IsContinuation(bytes[2]);
}

bool IsJustBeyondUnicode(const uint8_t *bytes, int length)
{
   return length >= 4 && bytes[0] == 0xF4 && bytes[1] >= 0x90 && IsContinuation(bytes[1]) &&
          IsContinuation(bytes[2]) && IsContinuation(bytes[3]);
}

bool DecoderAgrees(const uint8_t *bytes, int length)
{
   const auto *text = reinterpret_cast<const char *>(bytes);
   uint32_t codePoint = 0xFFFFFFFF;
   const int n = CodeSet_GetUtf8(text, text + length, &codePoint);
   if (IsEncodedSurrogate(bytes, length)) {
      return n == 3 && codePoint == ((bytes[1] & 0x3FU) << 6 | (bytes[2] & 0x3FU)) + 0xD000;
   }
   if (IsJustBeyondUnicode(bytes, length)) {
      return n == 4 && codePoint == (0x100000 | (bytes[1] & 0x3FU) << 12 | (bytes[2] & 0x3FU) << 6 |
                                     (bytes[3] & 0x3FU));
   }
   int32_t i = 0;
   UChar32 expected;
   U8_NEXT(bytes, i, length, expected);
   return expected < 0 ? n == 0 : n == i && codePoint == static_cast<uint32_t>(expected);
}

/* The automaton on the bytes alone, and in the middle of ASCII that it passes over in wide steps. */
bool AutomatonAgrees(const uint8_t *bytes, int length, bool valid)
{
   uint8_t padded[64];
   memset(padded, 'a', sizeof padded);
   memcpy(padded + 30, bytes, static_cast<size_t>(length));
   return CodeSet_IsValidUtf8Buffer(bytes, static_cast<size_t>(length)) == valid &&
          CodeSet_IsValidUtf8Buffer(padded, sizeof padded) == valid;
}

bool EncoderAgrees(const uint8_t *bytes, int length, const Expected &expected, Buffer *buffer)
{
   buffer->size = 0;
   const bool converted = CodeSetBuiltin_Utf8ToUtf16le(bytes, static_cast<size_t>(length), buffer);
   return converted == expected.valid &&
          (!converted ||
           buffer->Content() == std::string_view(reinterpret_cast<const char *>(expected.units.data()),
                                                 expected.count * sizeof(uint16_t)));
}

class ByteStrings : public testing::Test {
 protected:
   /* Whether all agree on the string; the first one they differ on ends the walk. */
   bool Check(const uint8_t *bytes, int length)
   {
      const Expected expected = ByIcu(bytes, length);
      const bool agree = DecoderAgrees(bytes, length) && AutomatonAgrees(bytes, length, expected.valid) &&
                         EncoderAgrees(bytes, length, expected, &buffer_);
      EXPECT_TRUE(agree) << testing::PrintToString(std::vector<int>(bytes, bytes + length));
      return agree;
   }

 private:
   Buffer buffer_;
};

std::string Iconv(const char *source, const std::string &text, const char *target)
{
   iconv_t converter = iconv_open(target, source);
   std::string output(text.size() * 4 + 16, '\0');
   char *in = const_cast<char *>(text.data());
   char *out = output.data();
   size_t inLeft = text.size();
   size_t outLeft = output.size();
   const size_t result = iconv(converter, &in, &inLeft, &out, &outLeft);
   iconv_close(converter);
   EXPECT_EQ(result, 0U) << source << " to " << target;
   output.resize(output.size() - outLeft);
   return output;
}

std::string Own(const char *source, const std::string &text, const char *target)
{
   Buffer buffer;
   EXPECT_TRUE(CodeSet_ConvertToBuffer(source, text.data(), text.size(), target, CODESET_REFUSE, &buffer))
       << source << " to " << target;
   return std::string(buffer.Content());
}

/* Every code point but the surrogates, in native UTF-32. */
std::u32string EveryCodePoint()
{
   std::u32string all;
   for (char32_t codePoint = 1; codePoint <= 0x10FFFF; codePoint++) {
      if (codePoint < 0xD800 || codePoint > 0xDFFF) {
         all += codePoint;
      }
   }
   return all;
}

} // namespace

TEST_F(ByteStrings, OfUpToThreeBytes)
{
   uint8_t bytes[3];
   for (uint32_t value = 0; value < 0x1000000; value++) {
      for (size_t i = 0; i < sizeof bytes; i++) {
         bytes[i] = static_cast<uint8_t>(value >> (16 - 8 * i));
      }
      ASSERT_TRUE(Check(bytes, 3));
      if (bytes[2] == 0) {
         ASSERT_TRUE(Check(bytes, 2));
      }
      if (bytes[1] == 0 && bytes[2] == 0) {
         ASSERT_TRUE(Check(bytes, 1));
      }
   }
}

TEST_F(ByteStrings, OfFourBytesWithALeadOfFour)
{
   uint8_t bytes[4];
   for (uint32_t lead = 0xF0; lead <= 0xF4; lead++) {
      for (uint32_t value = 0; value < 0x1000000; value += FOUR_BYTE_STEP) {
         const uint32_t rest = lead << 24 | value;
         for (size_t i = 0; i < sizeof bytes; i++) {
            bytes[i] = static_cast<uint8_t>(rest >> (24 - 8 * i));
         }
         ASSERT_TRUE(Check(bytes, 4));
      }
   }
}

TEST(CodePoints, ConvertAsIconvHasIt)
{
   const std::u32string all = EveryCodePoint();
   const std::string utf32(reinterpret_cast<const char *>(all.data()), all.size() * sizeof(char32_t));
   const std::string utf8 = Iconv("UTF-32LE", utf32, "UTF-8");
   const std::string utf16 = Iconv("UTF-32LE", utf32, "UTF-16LE");
   const std::string utf16be = Iconv("UTF-32LE", utf32, "UTF-16BE");
   EXPECT_TRUE(Own("UTF-8", utf8, "UTF-16LE") == utf16);
   EXPECT_TRUE(Own("UTF-16LE", utf16, "UTF-8") == utf8);
   EXPECT_TRUE(Own("UTF-16BE", utf16be, "UTF-8") == utf8);
   for (const auto &[name, text] : {std::pair{"UTF-8", utf8}, {"UTF-16LE", utf16}, {"UTF-16BE", utf16be}}) {
      EXPECT_TRUE(Own(name, text, name) == text) << name;
   }
   EXPECT_EQ(CodeSet_LengthInCodePoints(utf8.c_str()), static_cast<ssize_t>(all.size()));

   uint32_t *units = nullptr;
   char *back = nullptr;
   ASSERT_TRUE(CodeSet_Utf8ToUtf32(utf8.c_str(), &units));
   EXPECT_EQ(memcmp(units, all.c_str(), (all.size() + 1) * sizeof *units), 0);
   ASSERT_TRUE(CodeSet_Utf32ToUtf8(units, &back));
   EXPECT_TRUE(Take(back) == utf8);
   free(units);

   std::string latin1;
   for (int byte = 0; byte < 256; byte++) {
      latin1 += static_cast<char>(byte);
   }
   EXPECT_EQ(Own("ISO-8859-1", latin1, "UTF-8"), Iconv("ISO-8859-1", latin1, "UTF-8"));
   EXPECT_EQ(Own("US-ASCII", latin1.substr(0, 128), "UTF-8"), latin1.substr(0, 128));
}

/* Each alone, so that no neighbour hides it, and at every distance from the end of a wide step. */
TEST(CodePoints, ConvertAloneAndAmongOthers)
{
   const std::u32string all = EveryCodePoint();
   for (size_t i = 0; i < all.size(); i += i < 0x3000 ? 1 : 7) {
      const std::u16string expected = [&] {
         std::array<char16_t, 2> units;
         size_t count = 0;
         U16_APPEND_UNSAFE(units, count, all[i]);
         return std::u16string(i % 37, u'x') + std::u16string(units.data(), count) +
                std::u16string(i % 5, u'\u4E2D');
      }();
      const std::string utf16(reinterpret_cast<const char *>(expected.data()),
                              expected.size() * sizeof(char16_t));
      Buffer utf8;
      Buffer back;
      ASSERT_TRUE(CodeSetBuiltin_Utf16leToUtf8(utf16.data(), utf16.size(), &utf8));
      ASSERT_TRUE(CodeSetBuiltin_Utf8ToUtf16le(utf8.data, utf8.size, &back));
      ASSERT_EQ(back.Content(), utf16) << std::hex << static_cast<uint32_t>(all[i]);
   }
}

/* Every unit alone, every pair of which one is a surrogate with a unit of every kind. */
TEST(Utf16Units, AreRefusedUnlessTheyPair)
{
   Buffer buffer;
   constexpr std::array<uint16_t, 10> others = {0,      'a',    0x80,   0x7FF,  0x800,
                                                0xD7FF, 0xE000, 0xFFFF, 0x20AC, 0xFEFF};
   const auto check = [&buffer](std::initializer_list<uint16_t> units) {
      int32_t i = 0;
      bool valid = true;
      const auto length = static_cast<int32_t>(units.size());
      while (i < length) {
         UChar32 codePoint;
         U16_NEXT(units.begin(), i, length, codePoint);
         valid = valid && !U_IS_SURROGATE(codePoint);
      }
      buffer.size = 0;
      return CodeSetBuiltin_Utf16leToUtf8(units.begin(), units.size() * sizeof(uint16_t), &buffer) == valid;
   };
   for (uint32_t unit = 0; unit < 0x10000; unit++) {
      ASSERT_TRUE(check({static_cast<uint16_t>(unit)})) << unit;
   }
   for (uint32_t surrogate = 0xD800; surrogate < 0xE000; surrogate++) {
      const auto unit = static_cast<uint16_t>(surrogate);
      for (uint32_t second = 0xD800; second < 0xE000; second++) {
         ASSERT_TRUE(check({unit, static_cast<uint16_t>(second)})) << surrogate << ", " << second;
      }
      for (const uint16_t other : others) {
         ASSERT_TRUE(check({unit, other}) && check({other, unit})) << surrogate << ", " << other;
      }
   }
}

TEST(CaseFolding, IsThatOfUnicode50)
{
   for (uint32_t unit = 0; unit < 0x10000; unit++) {
      UVersionInfo age;
      u_charAge(static_cast<UChar32>(unit), age);
      const bool existed = age[0] > 0 && age[0] <= 5 && !(age[0] == 5 && age[1] > 0);
      const auto folded = static_cast<uint32_t>(u_foldCase(static_cast<UChar32>(unit), U_FOLD_CASE_DEFAULT));
      ASSERT_EQ(CaseFolding_Unit(static_cast<char16_t>(unit)), existed ? folded : unit) << std::hex << unit;
   }
}
