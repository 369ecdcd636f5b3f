#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLEBASE_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLEBASE_H

#include "lib/unicode/unicodeSimpleTypes.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/* Strings of the foundation library are valid, zero-terminated UTF-8; these routines make them from buffers in any
   encoding and turn them back. Every string, buffer and array returned is malloc'ed and the caller's to free.
   A length of -1 means up to the terminating zero unit; ENCODING_DEFAULT is the current encoding. Running out
   of memory ends the process, as does an encoding that is none. Nothing here keeps state: any thread may call
   it at any time. */

/* A string from a buffer, or null for a null one. What the encoding has no character for is substituted where the
   conversion engine can; a buffer that cannot be converted ends the process. */
[[nodiscard]] char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);

/* The same for callers that can take a failure, which is null. strict: nothing is substituted. */
[[nodiscard]] char *UnicodeAllocInternal(const void *buffer, ssize_t lengthInBytes, EncodingId encoding,
                                         bool strict);

/* The bytes of a buffer in printable form, for messages: controls, the backslash and all above 0x7E as "\xNN". Null if
   that cannot be had. */
[[nodiscard]] char *UnicodeEscapeBuffer(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);

/* An array of count strings from an array of buffers, each with its terminator; for a count of -1 a null pointer ends the
   array. No null pointer ends the result. */
[[nodiscard]] char **Unicode_AllocList(const char *const *buffers, ssize_t count, EncodingId encoding);

/* A copy of text or, if unescape, a string from ASCII text in which "\uXXXX" and "\UXXXXXXXX" stand for code points and a
   backslash before anything else for nothing. Text that breaks these rules ends the process. */
[[nodiscard]] char *Unicode_AllocFromEscapedLiteral(const char *text, bool unescape);

/* The string in another encoding, with a terminator after it that the length does not count; null if the encoding cannot
   hold it. lengthInBytes is that of the string, or -1. A string that is not valid UTF-8 ends the process
   where UTF-16LE is asked for, and passes unseen where UTF-8 is. */
[[nodiscard]] void *Unicode_GetAllocBytesWithLength(const char *string, EncodingId encoding,
                                                    ssize_t lengthInBytes, size_t *outLength);

/* The same for a whole string; null for a null one. */
[[nodiscard]] void *Unicode_GetAllocBytes(const char *string, EncodingId encoding);

/* Whether the encoding can hold the string; true for null. */
[[nodiscard]] bool Unicode_CanGetBytesWithEncoding(const char *string, EncodingId encoding);

/* Each string of an array in another encoding, and null where it held null; the result has count elements. Null if one
   cannot be converted: all or nothing. For a count of -1 a null pointer ends the array. */
[[nodiscard]] char **Unicode_GetAllocList(const char *const *strings, ssize_t count, EncodingId encoding);

/* Copies a string into a fixed buffer in the given encoding, terminated, and returns whether all of it fitted. What does
   not fit is cut: in UTF-8 and UTF-16LE between characters, elsewhere between bytes. The number of bytes
   without the terminator goes to *bytesWritten, if asked for. A string that the encoding cannot hold gives an
   empty one and false; a destination too small for the terminator is left alone. Encodings other than
   UTF-16LE get a terminator of one byte, even wide ones. */
bool Unicode_CopyBytes(void *destination, const char *string, size_t destinationBytes, size_t *bytesWritten,
                       EncodingId encoding);

/* Whether the buffer is valid in the encoding; a null buffer is. See CodeSet_Validate for encodings other than UTF-8 and
   US-ASCII. */
[[nodiscard]] bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);

/* The length of a terminated buffer, in bytes, without its terminator: one zero unit of the encoding's width. */
size_t Unicode_LengthInBytes(const void *buffer, EncodingId encoding);

/* The number of code points of a string, or -1 if it is not valid UTF-8. */
ssize_t Unicode_LengthInCodePoints(const char *string);

/* Length and copy of a string of 16-bit units that ends in a zero unit; the copy of null is null. */
size_t Unicode_UTF16Strlen(const char16_t *string);
[[nodiscard]] char16_t *Unicode_UTF16Strdup(const char16_t *string);

#endif
