#include "lib/misc/codeset/conversion/builtin.h"

#include "base/owned.h"
#include "base/unicode.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/dynbuf.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

/* What one code point takes at most in UTF-8 and in UTF-16. */
constexpr size_t MAX_CODE_POINT_BYTES = 4;
/* How much ASCII is converted in one step. */
constexpr size_t RUN = 16;

/* Room for one code point behind the first used bytes. */
bool CodeSetMakeRoom(DynBuf *buffer, uint64_t used)
{
   if (used > SIZE_MAX - MAX_CODE_POINT_BYTES) {
      return false;
   }
   const size_t needed = used + MAX_CODE_POINT_BYTES;
   return needed <= buffer->allocated || DynBuf_Enlarge(buffer, needed);
}

uint16_t CodeSetLoadUnit(const unsigned char *bytes)
{
   uint16_t unit;
   memcpy(&unit, bytes, sizeof unit);
   return unit;
}

/* How many of the RUN units at next are ASCII before the first that is not. */
size_t CodeSetLeadingAsciiUnits(const unsigned char *next)
{
   constexpr size_t unitsPerWord = sizeof(uint64_t) / sizeof(uint16_t);
   for (size_t i = 0; i < RUN; i += unitsPerWord) {
      uint64_t word;
      memcpy(&word, next + i * sizeof(uint16_t), sizeof word);
      word &= 0xFF80FF80FF80FF80;
      if (word != 0) {
         return i + static_cast<size_t>(std::countr_zero(word)) / 16;
      }
   }
   return RUN;
}

void CodeSetWidenRun(const unsigned char *next, char *out)
{
   uint16_t units[RUN];
   std::copy_n(next, RUN, units);
   memcpy(out, units, sizeof units);
}

void CodeSetNarrowRun(const unsigned char *next, char *out)
{
   uint16_t units[RUN];
   memcpy(units, next, sizeof units);
   char bytes[RUN];
   std::transform(units, units + RUN, bytes, [](uint16_t unit) { return static_cast<char>(unit); });
   memcpy(out, bytes, sizeof bytes);
}

/* The code point at next and how many bytes it takes; 0 for an unpaired surrogate. */
size_t CodeSetDecodeUtf16(const unsigned char *next, const unsigned char *end, uint32_t *codePoint)
{
   const uint32_t unit = CodeSetLoadUnit(next);
   *codePoint = unit;
   if (!Utf16_IsSurrogate(unit)) {
      return 2;
   }
   if (!Utf16_IsHighSurrogate(unit) || end - next < 4) {
      return 0;
   }
   const uint32_t low = CodeSetLoadUnit(next + 2);
   *codePoint = Utf16_JoinSurrogates(unit, low);
   return Utf16_IsLowSurrogate(low) ? 4 : 0;
}

/* The loops of the conversions: from *input until stop is reached or passed, which the caller has chosen so that the output
   fits; a sequence that begins before stop may end after it. Return the end of the output, or null for
   ill-formed input. A run is converted whole and counted as far as it is ASCII; what follows writes over the
   rest. */
using CodeSetLoop = char *(*)(const unsigned char **input, const unsigned char *stop,
                              const unsigned char *end, char *out);

char *CodeSetEncodeUtf16(const unsigned char **input, const unsigned char *stop, const unsigned char *end,
                         char *out)
{
   const unsigned char *next = *input;
   while (next < stop) {
      if (stop - next >= ptrdiff_t{RUN}) {
         const size_t ascii = Ascii_PrefixLength(next, RUN);
         CodeSetWidenRun(next, out);
         next += ascii;
         out += ascii * sizeof(uint16_t);
         if (ascii == RUN) {
            continue;
         }
      }
      do {
         uint32_t codePoint;
         const int n = Utf8_Decode(next, end, &codePoint);
         if (n == 0 || Utf16_IsSurrogate(codePoint) || codePoint > UNICODE_LAST_CODE_POINT) {
            return nullptr;
         }
         next += n;
         out = Utf16_Encode(codePoint, out);
      } while (next < stop && *next >= 0x80);
   }
   *input = next;
   return out;
}

/* Most scripts lie where a unit takes three bytes of UTF-8. */
bool CodeSetTakesThreeBytes(uint32_t unit)
{
   return unit - 0x800 < 0xD800 - 0x800;
}

/* Two such units in lanes of 24 bits each, so that every step serves both. Eight bytes are stored, of which six count. */
void CodeSetStoreThreeByteUnits(uint64_t unit1, uint64_t unit2, char *out)
{
   const uint64_t units = unit1 | unit2 << 24;
   const uint64_t bytes = 0x8080E08080E0 | (units >> 12 & 0x00000F00000F) | (units << 2 & 0x003F00003F00) |
                          (units << 16 & 0x3F00003F0000);
   memcpy(out, &bytes, sizeof bytes);
}

char *CodeSetDecodeUtf16Runs(const unsigned char **input, const unsigned char *stop, const unsigned char *end,
                             char *out)
{
   const unsigned char *next = *input;
   while (next < stop) {
      if (stop - next >= static_cast<ptrdiff_t>(RUN * sizeof(uint16_t))) {
         const size_t ascii = CodeSetLeadingAsciiUnits(next);
         CodeSetNarrowRun(next, out);
         next += ascii * sizeof(uint16_t);
         out += ascii;
         if (ascii == RUN) {
            continue;
         }
      }
      do {
         /* With one more unit to come behind the two, the output has room for the whole of their store. */
         while (stop - next >= static_cast<ptrdiff_t>(3 * sizeof(uint16_t)) &&
                CodeSetTakesThreeBytes(CodeSetLoadUnit(next)) &&
                CodeSetTakesThreeBytes(CodeSetLoadUnit(next + 2))) {
            CodeSetStoreThreeByteUnits(CodeSetLoadUnit(next), CodeSetLoadUnit(next + 2), out);
            next += 2 * sizeof(uint16_t);
            out += 6;
         }
         uint32_t codePoint = CodeSetLoadUnit(next);
         if (Utf16_IsSurrogate(codePoint)) {
            if (CodeSetDecodeUtf16(next, end, &codePoint) == 0) {
               return nullptr;
            }
            next += sizeof(uint16_t);
         }
         next += sizeof(uint16_t);
         out = Utf8_Encode(codePoint, out);
      } while (next < stop && CodeSetLoadUnit(next) >= 0x80);
   }
   *input = next;
   return out;
}

char *CodeSetEncodeLatin1(const unsigned char **input, const unsigned char *stop,
                          const unsigned char * /*end*/, char *out)
{
   for (; *input < stop; ++*input) {
      out = Utf8_Encode(**input, out);
   }
   return out;
}

/* A loop, how many bytes its unit has, and how many that takes at most in the output. */
struct CodeSetConversion {
   CodeSetLoop loop;
   size_t unitBytes;
   size_t outputPerUnit;
};

constexpr CodeSetConversion UTF8_TO_UTF16LE = {CodeSetEncodeUtf16, 1, 2};
constexpr CodeSetConversion UTF16LE_TO_UTF8 = {CodeSetDecodeUtf16Runs, 2, 3};
constexpr CodeSetConversion LATIN1_TO_UTF8 = {CodeSetEncodeLatin1, 1, 2};

/* Room is made for one code point whenever there is none, so that the output grows by the buffer's own rule. A loop begins
   on what fits; the last code point has the room of four bytes, as its unit may be the first of two, and as
   it is stored whole. */
bool CodeSetRun(const CodeSetConversion &conversion, const void *input, size_t length, DynBuf *output)
{
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   uint64_t size = output->size;
   while (next < end) {
      if (!CodeSetMakeRoom(output, size)) {
         return false;
      }
      const size_t room = output->allocated - size - MAX_CODE_POINT_BYTES;
      const size_t fitting = (room / conversion.outputPerUnit + 1) * conversion.unitBytes;
      const unsigned char *const stop = next + std::min(fitting, static_cast<size_t>(end - next));
      const char *const out = conversion.loop(&next, stop, end, output->data + size);
      if (out == nullptr) {
         return false;
      }
      size = static_cast<uint64_t>(out - output->data);
   }
   output->size = size;
   return true;
}

bool CodeSetIsValidUtf16le(const void *input, size_t length)
{
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   size_t n = length % 2 == 0 ? 2 : 0;
   for (; n != 0 && next < end; next += n) {
      uint32_t codePoint;
      n = CodeSetDecodeUtf16(next, end, &codePoint);
   }
   return n != 0;
}

/* A copy with the two bytes of each pair swapped, and an odd last byte as it is; null if memory runs out. */
Owned<char> CodeSetSwappedCopy(const void *input, size_t length)
{
   Owned<char> copy(static_cast<char *>(malloc(length + 1)));
   if (copy != nullptr && length != 0) {
      memcpy(copy.get(), input, length);
      for (size_t i = 0; i + 1 < length; i += 2) {
         std::swap(copy.get()[i], copy.get()[i + 1]);
      }
   }
   return copy;
}

/* How much of the input one substitute stands for. */
using CodeSetSubstitutedLength = size_t (*)(const unsigned char *next, const unsigned char *end);

size_t CodeSetOneByte(const unsigned char * /*next*/, const unsigned char * /*end*/)
{
   return 1;
}

size_t CodeSetOneSequence(const unsigned char *next, const unsigned char *end)
{
   uint32_t codePoint;
   return static_cast<size_t>(std::max(Utf8_Decode(next, end, &codePoint), 1));
}

/* Runs of ASCII as they are; for what lies between them, what the mode says. */
bool CodeSetAppendAscii(const unsigned char *next, const unsigned char *end, uint32_t mode,
                        std::string_view substitute, CodeSetSubstitutedLength substitutedLength,
                        DynBuf *output)
{
   while (true) {
      const size_t run = Ascii_PrefixLength(next, static_cast<size_t>(end - next));
      if (!DynBuf_Append(output, next, run)) {
         return false;
      }
      next += run;
      if (next == end) {
         return true;
      }
      if (mode == CODESET_REFUSE) {
         return false;
      }
      if ((mode & CODESET_SUBSTITUTE) != 0 && !DynBuf_Append(output, substitute.data(), substitute.size())) {
         return false;
      }
      next += substitutedLength(next, end);
   }
}

bool CodeSetCopyAscii(const void *input, size_t length, uint32_t mode, std::string_view substitute,
                      CodeSetSubstitutedLength substitutedLength, DynBuf *output)
{
   const uint64_t sizeBefore = output->size;
   const auto *next = static_cast<const unsigned char *>(input);
   if (!CodeSetAppendAscii(next, next + length, mode, substitute, substitutedLength, output)) {
      output->size = sizeBefore;
      return false;
   }
   return true;
}

/* Valid in the encoding, or in one that has no check. */
bool CodeSetIsCopyable(EncodingId encoding, const void *input, size_t length)
{
   switch (encoding) {
   case ENCODING_UTF8:
      return CodeSet_IsValidUtf8Buffer(input, length);
   case ENCODING_UTF16_LE:
      return CodeSetIsValidUtf16le(input, length);
   case ENCODING_UTF16_BE: {
      const Owned<char> swapped = CodeSetSwappedCopy(input, length);
      return swapped != nullptr && CodeSetIsValidUtf16le(swapped.get(), length);
   }
   case ENCODING_US_ASCII:
      return Ascii_PrefixLength(input, length) == length;
   default:
      return true;
   }
}

/* An empty output takes over the block of the conversion, which carries a terminator beyond its size. */
bool CodeSetUtf8ToUtf16leAttached(const void *input, size_t length, DynBuf *output)
{
   constexpr char terminator[4] = {};
   OwnedDynBuf scratch;
   if (!CodeSetBuiltin_Utf8ToUtf16le(input, length, &scratch) ||
       !DynBuf_Append(&scratch, terminator, sizeof terminator) || !DynBuf_Trim(&scratch)) {
      return false;
   }
   const size_t size = scratch.size - sizeof terminator;
   if (output->size != 0) {
      return DynBuf_Append(output, scratch.data, size);
   }
   DynBuf_Attach(output, size, DynBuf_Detach(&scratch));
   return true;
}

} // namespace

bool CodeSetBuiltin_Utf8ToUtf16le(const void *input, size_t length, DynBuf *output)
{
   return CodeSetRun(UTF8_TO_UTF16LE, input, length, output);
}

bool CodeSetBuiltin_Utf16leToUtf8(const void *input, size_t length, DynBuf *output)
{
   return length % 2 == 0 && CodeSetRun(UTF16LE_TO_UTF8, input, length, output);
}

bool CodeSetBuiltin_Utf16beToUtf8(const void *input, size_t length, DynBuf *output)
{
   const Owned<char> swapped = CodeSetSwappedCopy(input, length);
   return swapped != nullptr && CodeSetBuiltin_Utf16leToUtf8(swapped.get(), length, output);
}

bool CodeSetBuiltin_Convert(EncodingId source, const void *input, size_t length, EncodingId target,
                            EncodingId current, uint32_t mode, DynBuf *output)
{
   if (input == nullptr || length == 0) {
      return true;
   }
   if (source == target) {
      return CodeSetIsCopyable(source, input, length) && DynBuf_Append(output, input, length);
   }
   if (source == ENCODING_UTF8 && current == ENCODING_UTF8) {
      return target == ENCODING_UTF16_LE && CodeSetUtf8ToUtf16leAttached(input, length, output);
   }
   if (source == ENCODING_UTF8 && target == ENCODING_UTF16_LE) {
      return CodeSetBuiltin_Utf8ToUtf16le(input, length, output);
   }
   if (source == ENCODING_UTF8 && target == ENCODING_US_ASCII) {
      return CodeSetCopyAscii(input, length, mode, "\x1A", CodeSetOneSequence, output);
   }
   if (target != ENCODING_UTF8) {
      return false;
   }
   switch (source) {
   case ENCODING_UTF16_LE:
      return CodeSetBuiltin_Utf16leToUtf8(input, length, output);
   case ENCODING_UTF16_BE:
      return CodeSetBuiltin_Utf16beToUtf8(input, length, output);
   case ENCODING_US_ASCII:
      return CodeSetCopyAscii(input, length, mode, "\xEF\xBF\xBD", CodeSetOneByte, output);
   case ENCODING_ISO_8859_1:
      return CodeSetRun(LATIN1_TO_UTF8, input, length, output);
   default:
      return false;
   }
}
