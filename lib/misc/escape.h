#ifndef TESSEL_LIB_MISC_ESCAPE_H
#define TESSEL_LIB_MISC_ESCAPE_H

#include <array>
#include <cstddef>
#include <cstdint>

/* Bytes turned into printable or quotable text, and back. A char * result is a new string, never changed input,
   that the caller frees; it ends with a NUL, and *outLength, unless outLength is null, is its length in bytes
   without that NUL. Null: memory is exhausted and *outLength is untouched. Inputs given with a length may
   hold any bytes, NUL too. */

/* Entry b is not zero if the byte b is to be escaped. */
using EscapeTable = std::array<int32_t, 256>;

/* Each byte marked in the table becomes escapeText and two upper-case hexadecimal digits. */
[[nodiscard]] char *Escape_Bytes(const char *escapeText, const EscapeTable &table, const void *input,
                                 size_t length, size_t *outLength);

/* The same with one character for an escape text. */
[[nodiscard]] char *Escape_BytesWithChar(char escapeChar, const EscapeTable &table, const void *input,
                                         size_t length, size_t *outLength);

/* Each escapeChar with two hexadecimal digits of either case becomes the byte they denote. What is not complete
   stays as it is, with the byte that shows this: an escapeChar there begins nothing, so that "%4%41" is kept
   whole. */
[[nodiscard]] char *Escape_Unescape(char escapeChar, const void *input, size_t length, size_t *outLength);

/* The same into a buffer, which may be the input. False: the result with its NUL does not fit in bufferSize bytes,
   or memory is exhausted; the buffer is untouched. */
[[nodiscard]] bool Escape_UnescapeToBuffer(char escapeChar, const void *input, size_t length, char *buffer,
                                           size_t bufferSize);

/* Without each carriage return that has a line feed right behind it. */
[[nodiscard]] char *Escape_StripCarriageReturns(const void *input, size_t length, size_t *outLength);

/* One word for a POSIX shell, in single quotes. */
[[nodiscard]] char *Escape_ShellQuote(const void *input, size_t length, size_t *outLength);

/* With a backslash before each of $ * . [ \ ] ^, the metacharacters of a POSIX basic regular expression. */
[[nodiscard]] char *Escape_RegexMetachars(const void *input, size_t length, size_t *outLength);

/* The first place in the string, as a pointer into it, where character stands and no escapeChar escapes it; null
   if there is none. An escapeChar escapes the byte behind it, and is never found itself. */
const char *Escape_FindUnescaped(char escapeChar, const char *string, char character);

/* Without the escape characters that escape something; a last one that has nothing to escape goes too. */
[[nodiscard]] char *Escape_StripEscapeChar(char escapeChar, const char *string);

/* Changes the string itself, which never gets longer: two backslashes become one, a backslash and n a line feed, a
   backslash and three octal digits the byte they denote, modulo 256. That byte may be NUL, which then ends
   the string. Any other backslash stays. */
void Escape_UnescapeOctalInPlace(char *string);

/* With a backslash before each comma and each backslash; null for null. */
[[nodiscard]] char *Escape_CommaAndBackslash(const char *string);

#endif
