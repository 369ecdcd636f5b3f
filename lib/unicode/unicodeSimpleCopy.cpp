#include "base/unicode.h"
#include "lib/unicode/unicodeSimpleBase.h"

#include "base/owned.h"
#include "lib/misc/codeset/conversion/utf8.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

/* Copies what fits before a terminator of the given width, which must itself fit. */
size_t CopyTruncated(char *destination, const char *bytes, size_t length, size_t room)
{
   const size_t copied = std::min(length, room);
   if (copied != 0) {
      memcpy(destination, bytes, copied);
   }
   return copied;
}

/* The length without a UTF-8 sequence that a cut left incomplete at the end. */
size_t WithoutPartialSequence(const char *bytes, size_t length)
{
   const auto byteAt = [bytes](size_t i) { return static_cast<unsigned char>(bytes[i]); };
   size_t lead = length;
   while (lead > 0 && Utf8_IsContinuation(byteAt(lead - 1))) {
      lead--;
   }
   if (lead == 0) {
      return 0;
   }
   lead--;
   const size_t continuations = length - lead - 1;
   if (continuations == 0 && byteAt(lead) < 0x80) {
      return length;
   }
   const int announced = std::countl_one(byteAt(lead)) - 1;
   return announced > 0 && static_cast<size_t>(announced) == continuations ? length : lead;
}

/* The ways of Unicode_CopyBytes. The destination has room for one byte at least; the string's length in bytes, as the
   destination has it, goes to *written. */

bool CopyAsIs(char *destination, const char *string, size_t size, size_t *written, bool isUtf8)
{
   const size_t length = strlen(string);
   size_t copied = CopyTruncated(destination, string, length, size - 1);
   if (isUtf8 && copied < length) {
      copied = WithoutPartialSequence(destination, copied);
   }
   destination[copied] = '\0';
   *written = copied;
   return copied == length;
}

bool CopyUtf16le(char *destination, const char *string, size_t size, size_t *written)
{
   constexpr char16_t terminator = 0;
   size_t length = 0;
   const Owned<char> bytes(
       static_cast<char *>(Unicode_GetAllocBytesWithLength(string, ENCODING_UTF16_LE, -1, &length)));
   if (size < sizeof terminator) {
      return false;
   }
   size_t copied = CopyTruncated(destination, bytes.get(), length, (size - sizeof terminator) & ~size_t{1});
   if (copied != 0) {
      char16_t last;
      memcpy(&last, destination + copied - sizeof last, sizeof last);
      copied -= Utf16_IsHighSurrogate(last) ? sizeof last : 0;
   }
   memcpy(destination + copied, &terminator, sizeof terminator);
   *written = copied;
   return copied == length;
}

bool CopyConverted(char *destination, const char *string, size_t size, size_t *written, EncodingId encoding)
{
   size_t length = 0;
   const Owned<char> bytes(
       static_cast<char *>(Unicode_GetAllocBytesWithLength(string, encoding, -1, &length)));
   if (bytes == nullptr) {
      destination[0] = '\0';
      return false;
   }
   *written = CopyTruncated(destination, bytes.get(), length, size - 1);
   destination[*written] = '\0';
   return *written == length;
}

bool CopyBytes(char *destination, const char *string, size_t size, size_t *written, EncodingId encoding)
{
   switch (encoding) {
   case ENCODING_UTF16_LE:
      return CopyUtf16le(destination, string, size, written);
   case ENCODING_US_ASCII:
      if (!Unicode_IsBufferValid(string, -1, ENCODING_US_ASCII)) {
         destination[0] = '\0';
         return false;
      }
      return CopyAsIs(destination, string, size, written, false);
   case ENCODING_UTF8:
      return CopyAsIs(destination, string, size, written, true);
   default:
      return CopyConverted(destination, string, size, written, encoding);
   }
}

} // namespace

bool Unicode_CopyBytes(void *destination, const char *string, size_t destinationBytes, size_t *bytesWritten,
                       EncodingId encoding)
{
   size_t written = 0;
   const bool complete =
       destinationBytes != 0 && CopyBytes(static_cast<char *>(destination), string, destinationBytes,
                                          &written, Unicode_ResolveEncoding(encoding));
   if (bytesWritten != nullptr) {
      *bytesWritten = written;
   }
   return complete;
}
