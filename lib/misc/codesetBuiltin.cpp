#include "lib/misc/codesetBuiltin.h"

#include "lib/misc/codeset.h"
#include "lib/misc/codesetUtf8.h"
#include "lib/misc/dynbuf.h"
#include "lib/public/owned.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

/* Units of UTF-16LE are read and written as native ones. */
static_assert(std::endian::native == std::endian::little);

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

/* Writes to the end of a buffer without keeping its size up to date; Commit sets it. Until then the buffer's content, as
   its owner sees it, has not changed. */
class Writer {
 public:
   explicit Writer(DynBuf *buffer) : buffer_(buffer)
   {
      Place(buffer->size);
   }

   /* Room for one code point. Asking for no more than that before each one keeps the growth to the buffer's own
      rule. */
   [[nodiscard]] bool MakeRoom()
   {
      return Room() >= MAX_CODE_POINT_BYTES || Grow();
   }

   [[nodiscard]] size_t Room() const
   {
      return static_cast<size_t>(end_ - next);
   }

   void Commit()
   {
      buffer_->size = Used();
   }

   char *next;

 private:
   [[nodiscard]] size_t Used() const
   {
      return buffer_->data == nullptr ? 0 : static_cast<size_t>(next - buffer_->data);
   }

   void Place(size_t used)
   {
      next = buffer_->data + used;
      end_ = buffer_->data + buffer_->allocated;
   }

   bool Grow()
   {
      const size_t used = Used();
      if (used > SIZE_MAX - MAX_CODE_POINT_BYTES || !DynBuf_Enlarge(buffer_, used + MAX_CODE_POINT_BYTES)) {
         return false;
      }
      Place(used);
      return true;
   }

   DynBuf *buffer_;
   char *end_;
};

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

/* Widens leading runs of ASCII, as far as there is room, and returns how much of the input that took. */
size_t WidenAscii(const unsigned char *next, const unsigned char *end, Writer *writer)
{
   const unsigned char *const start = next;
   while (static_cast<size_t>(end - next) >= RUN && writer->Room() >= RUN * sizeof(uint16_t)) {
      uint64_t words[RUN / sizeof(uint64_t)];
      memcpy(words, next, sizeof words);
      if (((words[0] | words[1]) & 0x8080808080808080) != 0) {
         break;
      }
      uint16_t units[RUN];
      std::copy_n(next, RUN, units);
      memcpy(writer->next, units, sizeof units);
      writer->next += sizeof units;
      next += RUN;
   }
   return static_cast<size_t>(next - start);
}

/* The way back: units below 0x80. */
size_t NarrowAscii(const unsigned char *next, const unsigned char *end, Writer *writer)
{
   const unsigned char *const start = next;
   while (static_cast<size_t>(end - next) >= RUN * sizeof(uint16_t) && writer->Room() >= RUN) {
      uint64_t words[RUN * sizeof(uint16_t) / sizeof(uint64_t)];
      memcpy(words, next, sizeof words);
      if (((words[0] | words[1] | words[2] | words[3]) & 0xFF80FF80FF80FF80) != 0) {
         break;
      }
      char bytes[RUN];
      for (size_t i = 0; i < RUN; i++) {
         bytes[i] = static_cast<char>(next[2 * i]);
      }
      memcpy(writer->next, bytes, sizeof bytes);
      writer->next += sizeof bytes;
      next += sizeof words;
   }
   return static_cast<size_t>(next - start);
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
   if (!CodeSetIsSurrogate(unit)) {
      return 2;
   }
   if (!CodeSetIsHighSurrogate(unit) || end - next < 4) {
      return 0;
   }
   const uint32_t low = LoadUnit(next + 2);
   *codePoint = CodeSetJoinSurrogates(unit, low);
   return CodeSetIsLowSurrogate(low) ? 4 : 0;
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
   return static_cast<size_t>(std::max(CodeSetDecodeUtf8(next, end, &codePoint), 1));
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
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   Writer writer(output);
   while (next < end) {
      next += WidenAscii(next, end, &writer);
      if (next == end) {
         break;
      }
      uint32_t codePoint;
      const int n = CodeSetDecodeUtf8(next, end, &codePoint);
      if (n == 0 || CodeSetIsSurrogate(codePoint) || codePoint > UNICODE_LAST_CODE_POINT ||
          !writer.MakeRoom()) {
         return false;
      }
      writer.next = EncodeUtf16(codePoint, writer.next);
      next += n;
   }
   writer.Commit();
   return true;
}

bool CodeSetBuiltin_Utf16leToUtf8(const void *input, size_t length, DynBuf *output)
{
   if (length % 2 != 0) {
      return false;
   }
   const auto *next = static_cast<const unsigned char *>(input);
   const unsigned char *const end = next + length;
   Writer writer(output);
   while (next < end) {
      next += NarrowAscii(next, end, &writer);
      if (next == end) {
         break;
      }
      uint32_t codePoint;
      const size_t n = DecodeUtf16(next, end, &codePoint);
      if (n == 0 || !writer.MakeRoom()) {
         return false;
      }
      writer.next = CodeSetEncodeUtf8(codePoint, writer.next);
      next += n;
   }
   writer.Commit();
   return true;
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
   const auto *bytes = static_cast<const unsigned char *>(input);
   Writer writer(output);
   for (size_t i = 0; i < length; i++) {
      if (!writer.MakeRoom()) {
         return false;
      }
      writer.next = CodeSetEncodeUtf8(bytes[i], writer.next);
   }
   writer.Commit();
   return true;
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
