#ifndef TESSEL_LIB_MISC_ESCAPE_H
#define TESSEL_LIB_MISC_ESCAPE_H

#include <array>
#include <cstddef>
#include <cstdint>

/* Entry b is not zero if the byte b is to be escaped. */
using EscapeTable = std::array<int32_t, 256>;

[[nodiscard]] char *Escape_Bytes(const char *escapeText, const EscapeTable &table, const void *input,
                                 size_t length, size_t *outLength);
[[nodiscard]] char *Escape_BytesWithChar(char escapeChar, const EscapeTable &table, const void *input,
                                         size_t length, size_t *outLength);
[[nodiscard]] char *Escape_Unescape(char escapeChar, const void *input, size_t length, size_t *outLength);
[[nodiscard]] bool Escape_UnescapeToBuffer(char escapeChar, const void *input, size_t length, char *buffer,
                                           size_t bufferSize);
[[nodiscard]] char *Escape_StripCarriageReturns(const void *input, size_t length, size_t *outLength);
[[nodiscard]] char *Escape_ShellQuote(const void *input, size_t length, size_t *outLength);
[[nodiscard]] char *Escape_RegexMetachars(const void *input, size_t length, size_t *outLength);
const char *Escape_FindUnescaped(char escapeChar, const char *string, char character);
[[nodiscard]] char *Escape_StripEscapeChar(char escapeChar, const char *string);
void Escape_UnescapeOctalInPlace(char *string);
[[nodiscard]] char *Escape_CommaAndBackslash(const char *string);

#endif
