#include "lib/misc/codeset/conversion/builtin.h"
#include "base/unicode.h"

#include "base/owned.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/utf8.h"
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

struct Scratch : DynBuf {
   Scratch()
   {
      DynBuf_Init(this);
   }

   Scratch(const Scratch &) = delete;
   Scratch &operator=(const Scratch &) = delete;

   ~Scratch()
   {
      DynBuf_Destroy(this);
   }
};

/* Room for one code point behind the first used bytes. */
bool MakeRoom(DynBuf *buffer, uint64_t used)
{
   if (used > SIZE_MAX - MAX_CODE_POINT_BYTES) {
      return false;
   }
   const size_t needed = used + MAX_CODE_POINT_BYTES;
   return needed <= buffer->allocated || DynBuf_Enlarge(buffer, needed);
}

uint16_t LoadUnit(const unsigned char *bytes)
{
   uint16_t unit;
   memcpy(&unit, bytes, sizeof unit);
   return unit;
}

char *StoreUnit(uint32_t unit, char *out)
{
   const auto narrow = static_cast<uint16_t>(unit);
   memcpy(out, &narrow, sizeof narrow);
   return out + sizeof narrow;
}

/* How many of the RUN bytes at next are ASCII before the first that is not. */
size_t LeadingAscii(const unsigned char *next)
{
   for (size_t i = 0; i < RUN; i += sizeof(uint64_t)) {
      uint64_t word;
      memcpy(&word, next + i, sizeof word);
      word &= 0x8080808080808080;
      if (word != 0) {
         return i + static_cast<size_t>(std::countr_zero(word)) / 8;
      }
   }
   return RUN;
}

/* The same of RUN units of UTF-16. */
size_t LeadingAsciiUnits(const unsigned char *next)
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

void WidenRun(const unsigned char *next, char *out)
{
   uint16_t units[RUN];
   std::copy_n(next, RUN, units);
   memcpy(out, units, sizeof units);
}

void NarrowRun(const unsigned char *next, char *out)
{
   uint16_t units[RUN];
   memcpy(units, next, sizeof units);
   char bytes[RUN];
   std::transform(units, units + RUN, bytes, [](uint16_t unit) { return static_cast<char>(unit); });
   memcpy(out, bytes, sizeof bytes);
}

char *EncodeUtf16(uint32_t codePoint, char *out)
{
   if (codePoint < 0x10000) {
      return StoreUnit(codePoint, out);
   }
   out = StoreUnit(((codePoint - 0x10000) >> 10) + 0xD800, out);
   return StoreUnit((codePoint & 0x3FF) | 0xDC00, out);
}

/* The code point at next and how many bytes it takes; 0 for an unpaired surrogate. */
size_t DecodeUtf16(const unsigned char *next, const unsigned char *end, uint32_t *codePoint)
{
   const uint32_t unit = LoadUnit(next);
   *codePoint = unit;
   if (!Utf16_IsSurrogate(unit)) {
      return 2;
   }
   if (!Utf16_IsHighSurrogate(unit) || end - next < 4) {
      return 0;
   }
   const uint32_t low = LoadUnit(next + 2);
   *codePoint = Utf16_JoinSurrogates(unit, low);
   return Utf16_IsLowSurrogate(low) ? 4 : 0;
}

/* The loops of the conversions: from *input until stop is reached or passed, which the caller has chosen so that the output
   fits; a sequence that begins before stop may end after it. False for ill-formed input. A run is converted
   whole and counted as far as it is ASCII; what follows writes over the rest. */
using ConvertRuns = bool (*)(const unsigned char **input, const unsigned char *stop, const unsigned char *end,
                             char **output);

bool EncodeRuns(const unsigned char **input, const unsigned char *stop, const unsigned char *end,
                char **output)
{
   const unsigned char *next = *input;
   char *out = *output;
   while (next < stop) {
      if (stop - next >= ptrdiff_t{RUN}) {
         const size_t ascii = LeadingAscii(next);
         WidenRun(next, out);
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
            return false;
         }
         next += n;
         out = EncodeUtf16(codePoint, out);
      } while (next < stop && *next >= 0x80);
   }
   *input = next;
   *output = out;
   return true;
}

/* Most scripts lie where a unit takes three bytes of UTF-8. */
bool IsThreeByteUnit(uint32_t unit)
{
   return unit - 0x800 < 0xD800 - 0x800;
}

/* Two such units in lanes of 24 bits each, so that every step serves both. Eight bytes are stored, of which six count. */
void StoreThreeByteUnits(uint64_t unit1, uint64_t unit2, char *out)
{
   const uint64_t units = unit1 | unit2 << 24;
   const uint64_t bytes = 0x8080E08080E0 | (units >> 12 & 0x00000F00000F) | (units << 2 & 0x003F00003F00) |
                          (units << 16 & 0x3F00003F0000);
   memcpy(out, &bytes, sizeof bytes);
}

bool DecodeRuns(const unsigned char **input, const unsigned char *stop, const unsigned char *end,
                char **output)
{
   constexpr ptrdiff_t runBytes = RUN * sizeof(uint16_t);
   /* With one more unit to come behind the two, the output has room for the whole of their store. */
   constexpr ptrdiff_t pairBytes = 3 * sizeof(uint16_t);
   const unsigned char *next = *input;
   char *out = *output;
   while (next < stop) {
      if (stop - next >= runBytes) {
         const size_t ascii = LeadingAsciiUnits(next);
         NarrowRun(next, out);
         next += ascii * sizeof(uint16_t);
         out += ascii;
         if (ascii == RUN) {
            continue;
         }
      }
      do {
         while (stop - next >= pairBytes && IsThreeByteUnit(LoadUnit(next)) &&
                IsThreeByteUnit(LoadUnit(next + 2))) {
            StoreThreeByteUnits(LoadUnit(next), LoadUnit(next + 2), out);
            next += 2 * sizeof(uint16_t);
            out += 6;
         }
         uint32_t codePoint = LoadUnit(next);
         if (Utf16_IsSurrogate(codePoint)) {
            if (DecodeUtf16(next, end, &codePoint) == 0) {
               return false;
            }
            next += sizeof(uint16_t);
         }
         next += sizeof(uint16_t);
         out = Utf8_Encode(codePoint, out);
      } while (next < stop && LoadUnit(next) >= 0x80);
   }
   *input = next;
   *output = out;
   return true;
}

bool EncodeLatin1(const unsigned char **input, const unsigned char *stop, const unsigned char * /*end*/,
                  char **output)
{
   const unsigned char *next = *input;
   char *out = *output;
   while (next < stop) {
      out = Utf8_Encode(*next++, out);
   }
   *input = next;
   *output = out;
   return true;
}

/* How much input a loop may begin to convert, for what each unit of unitBytes takes at most in the output; the last code
   point has the room of four bytes, as its unit may be the first of two, and as it is stored whole. */
template <size_t unitBytes, size_t outputPerUnit> size_t InputForRoom(size_t room)
{
   return ((room - MAX_CODE_POINT_BYTES) / outputPerUnit + 1) * unitBytes;
}

/* Room is made for one code point whenever there is none, so that the output grows by the buffer's own rule. */
template <ConvertRuns convertRuns, size_t unitBytes, size_t outputPerUnit>
bool ConvertAll(const void *input, size_t length, DynBuf *output)
{
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   uint64_t size = output->size;
   while (next < end) {
      if (!MakeRoom(output, size)) {
         return false;
      }
      const size_t fitting = InputForRoom<unitBytes, outputPerUnit>(output->allocated - size);
      const unsigned char *const stop = next + std::min(fitting, static_cast<size_t>(end - next));
      char *out = output->data + size;
      if (!convertRuns(&next, stop, end, &out)) {
         return false;
      }
      size = static_cast<uint64_t>(out - output->data);
   }
   output->size = size;
   return true;
}

bool IsValidUtf16le(const void *input, size_t length)
{
   if (length % 2 != 0) {
      return false;
   }
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   while (next < end) {
      uint32_t codePoint;
      const size_t n = DecodeUtf16(next, end, &codePoint);
      if (n == 0) {
         return false;
      }
      next += n;
   }
   return true;
}

/* A copy with the two bytes of each pair swapped, and an odd last byte as it is; null if memory runs out. */
Owned<char> SwappedCopy(const void *input, size_t length)
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

size_t AsciiRunLength(const unsigned char *next, const unsigned char *end)
{
   return static_cast<size_t>(std::find_if(next, end, [](unsigned char byte) { return byte >= 0x80; }) -
                              next);
}

/* How much of the input one substitute stands for. */
using SubstitutedLength = size_t (*)(const unsigned char *next, const unsigned char *end);

size_t OneByte(const unsigned char * /*next*/, const unsigned char * /*end*/)
{
   return 1;
}

size_t OneSequence(const unsigned char *next, const unsigned char *end)
{
   uint32_t codePoint;
   return static_cast<size_t>(std::max(Utf8_Decode(next, end, &codePoint), 1));
}

/* Runs of ASCII as they are; for what lies between them, what the mode says. */
bool AppendAscii(const unsigned char *next, const unsigned char *end, uint32_t mode,
                 std::string_view substitute, SubstitutedLength substitutedLength, DynBuf *output)
{
   while (true) {
      const size_t run = AsciiRunLength(next, end);
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

bool CopyAscii(const void *input, size_t length, uint32_t mode, std::string_view substitute,
               SubstitutedLength substitutedLength, DynBuf *output)
{
   const uint64_t sizeBefore = output->size;
   const auto *next = static_cast<const unsigned char *>(input);
   if (!AppendAscii(next, next + length, mode, substitute, substitutedLength, output)) {
      output->size = sizeBefore;
      return false;
   }
   return true;
}

/* Equal encodings: checked where there is a check, then copied. */
bool CopyValidated(EncodingId encoding, const void *input, size_t length, DynBuf *output)
{
   bool valid = true;
   if (encoding == ENCODING_UTF8) {
      valid = CodeSet_IsValidUtf8Buffer(input, length);
   } else if (encoding == ENCODING_UTF16_LE) {
      valid = IsValidUtf16le(input, length);
   } else if (encoding == ENCODING_UTF16_BE) {
      const Owned<char> swapped = SwappedCopy(input, length);
      valid = swapped != nullptr && IsValidUtf16le(swapped.get(), length);
   } else if (encoding == ENCODING_US_ASCII) {
      const auto *bytes = static_cast<const unsigned char *>(input);
      valid = AsciiRunLength(bytes, bytes + length) == length;
   }
   return valid && DynBuf_Append(output, input, length);
}

/* An empty output takes over the block of the conversion, which carries a terminator beyond its size. */
bool Utf8ToUtf16leAttached(const void *input, size_t length, DynBuf *output)
{
   constexpr char terminator[4] = {};
   Scratch scratch;
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
   return ConvertAll<EncodeRuns, 1, 2>(input, length, output);
}

bool CodeSetBuiltin_Utf16leToUtf8(const void *input, size_t length, DynBuf *output)
{
   return length % 2 == 0 && ConvertAll<DecodeRuns, 2, 3>(input, length, output);
}

bool CodeSetBuiltin_Utf16beToUtf8(const void *input, size_t length, DynBuf *output)
{
   const Owned<char> swapped = SwappedCopy(input, length);
   return swapped != nullptr && CodeSetBuiltin_Utf16leToUtf8(swapped.get(), length, output);
}

bool CodeSetBuiltin_AsciiToUtf8(const void *input, size_t length, uint32_t mode, DynBuf *output)
{
   return CopyAscii(input, length, mode, "\xEF\xBF\xBD", OneByte, output);
}

bool CodeSetBuiltin_Utf8ToAscii(const void *input, size_t length, uint32_t mode, DynBuf *output)
{
   return CopyAscii(input, length, mode, "\x1A", OneSequence, output);
}

bool CodeSetBuiltin_Latin1ToUtf8(const void *input, size_t length, DynBuf *output)
{
   return ConvertAll<EncodeLatin1, 1, 2>(input, length, output);
}

bool CodeSetBuiltin_Convert(EncodingId source, const void *input, size_t length, EncodingId target,
                            EncodingId current, uint32_t mode, DynBuf *output)
{
   if (input == nullptr || length == 0) {
      return true;
   }
   if (source == target) {
      return CopyValidated(source, input, length, output);
   }
   if (source == ENCODING_UTF8 && current == ENCODING_UTF8) {
      return target == ENCODING_UTF16_LE && Utf8ToUtf16leAttached(input, length, output);
   }
   if (source == ENCODING_UTF8) {
      return (target == ENCODING_US_ASCII && CodeSetBuiltin_Utf8ToAscii(input, length, mode, output)) ||
             (target == ENCODING_UTF16_LE && CodeSetBuiltin_Utf8ToUtf16le(input, length, output));
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
      return CodeSetBuiltin_AsciiToUtf8(input, length, mode, output);
   case ENCODING_ISO_8859_1:
      return CodeSetBuiltin_Latin1ToUtf8(input, length, output);
   default:
      return false;
   }
}
