#ifndef TESSEL_LIB_STRING_FORMAT_TEXT_H
#define TESSEL_LIB_STRING_FORMAT_TEXT_H

#include "base/owned.h"
#include "lib/string/format/directive.h"
#include "lib/string/format/sink.h"

#include <cstddef>
#include <cstdint>
#include <cwchar>

/* Private to the formatting engine: the text conversions. */

/* A null string is "(null)". With a precision, no byte at or beyond it is read, and no cut
   goes through a character. */
[[nodiscard]] bool FormatText_PutString(FormatSink *sink, const FormatDirective &directive,
                                        const char *string);

/* As above for a wide string, put as UTF-8 whatever the locale. False also if memory runs out. */
[[nodiscard]] bool FormatText_PutWideString(FormatSink *sink, const FormatDirective &directive,
                                            const wchar_t *string);

[[nodiscard]] bool FormatText_PutByte(FormatSink *sink, const FormatDirective &directive, char byte);

/* The multibyte form of the process's locale. False also if the character has none. */
[[nodiscard]] bool FormatText_PutWideCharacter(FormatSink *sink, const FormatDirective &directive,
                                               wint_t character);

/* The UTF-8 form of string, cut before the first character that would go beyond precision bytes if that is not
   negative, ended by four zero bytes. The caller frees it; null if memory runs out. Surrogates are put like
   other values, in three bytes; values that no UTF-8 text can hold become U+FFFD. */
[[nodiscard]] Owned<char> Fmt_WideToUtf8(const wchar_t *string, int64_t precision);

#endif
