#include "lib/unicode/unicodeSimpleBase.h"

#include "base/owned.h"
#include "base/unicode.h"

#include <algorithm>
#include <cstring>

namespace {

/* Copies what fits before a terminator of the given width, which must itself fit. */
size_t UnicodeCopyTruncated(char *destination, const char *bytes, size_t length, size_t room)
{
   const size_t copied = std::min(length, room);
   if (copied != 0) {
      memcpy(destination, bytes, copied);
   }
   return copied;
}

/* The length without what a cut broke at the end. ASCII goes, too, where bytes that continue nothing stand behind it. */
size_t UnicodeWholeLength(const char *bytes, size_t length)
{
   size_t lead = length;
   while (lead > 0 && Utf8_IsContinuation(static_cast<unsigned char>(bytes[lead - 1]))) {
      lead--;
   }
   const bool stray = lead > 0 && lead < length && Ascii_PrefixLength(&bytes[lead - 1], 1) == 1;
   return stray ? lead - 1 : Utf8_WholeLength(bytes, length);
}

/* The ways of Unicode_CopyBytes. The destination has room for one byte at least; the string's length in bytes, as the
   destination has it, goes to *written. */

bool UnicodeCopyAsIs(char *destination, const char *string, size_t size, size_t *written, bool isUtf8)
{
   const size_t length = strlen(string);
   size_t copied = UnicodeCopyTruncated(destination, string, length, size - 1);
   if (isUtf8 && copied < length) {
      copied = UnicodeWholeLength(destination, copied);
   }
   destination[copied] = '\0';
   *written = copied;
   return copied == length;
}

bool UnicodeCopyUtf16le(char *destination, const char *string, size_t size, size_t *written)
{
   constexpr char16_t terminator = 0;
   size_t length = 0;
   const Owned<char> bytes(
       static_cast<char *>(Unicode_GetAllocBytesWithLength(string, ENCODING_UTF16_LE, -1, &length)));
   if (size < sizeof terminator) {
      return false;
   }
   size_t copied =
       UnicodeCopyTruncated(destination, bytes.get(), length, (size - sizeof terminator) & ~size_t{1});
   if (copied != 0) {
      char16_t last;
      memcpy(&last, destination + copied - sizeof last, sizeof last);
      copied -= Utf16_IsHighSurrogate(last) ? sizeof last : 0;
   }
   memcpy(destination + copied, &terminator, sizeof terminator);
   *written = copied;
   return copied == length;
}

bool UnicodeCopyConverted(char *destination, const char *string, size_t size, size_t *written,
                          EncodingId encoding)
{
   size_t length = 0;
   const Owned<char> bytes(
       static_cast<char *>(Unicode_GetAllocBytesWithLength(string, encoding, -1, &length)));
   if (bytes == nullptr) {
      destination[0] = '\0';
      return false;
   }
   *written = UnicodeCopyTruncated(destination, bytes.get(), length, size - 1);
   destination[*written] = '\0';
   return *written == length;
}

bool UnicodeCopyResolved(char *destination, const char *string, size_t size, size_t *written,
                         EncodingId encoding)
{
   switch (encoding) {
   case ENCODING_UTF16_LE:
      return UnicodeCopyUtf16le(destination, string, size, written);
   case ENCODING_US_ASCII:
      if (!Unicode_IsBufferValid(string, -1, ENCODING_US_ASCII)) {
         destination[0] = '\0';
         return false;
      }
      return UnicodeCopyAsIs(destination, string, size, written, false);
   case ENCODING_UTF8:
      return UnicodeCopyAsIs(destination, string, size, written, true);
   default:
      return UnicodeCopyConverted(destination, string, size, written, encoding);
   }
}

} // namespace

bool Unicode_CopyBytes(void *destination, const char *string, size_t destinationBytes, size_t *bytesWritten,
                       EncodingId encoding)
{
   size_t written = 0;
   const bool complete = destinationBytes != 0 &&
                         UnicodeCopyResolved(static_cast<char *>(destination), string, destinationBytes,
                                             &written, Unicode_ResolveEncoding(encoding));
   if (bytesWritten != nullptr) {
      *bytesWritten = written;
   }
   return complete;
}
