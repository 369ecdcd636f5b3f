#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_BUILTIN_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_BUILTIN_H

/* Upward, the one time: its head says why. */
#include "lib/unicode/unicodeSimpleTypes.h"

#include <cstddef>
#include <cstdint>

struct DynBuf;

/* The built-in conversion engine. Every routine appends to output and returns whether all of the input was converted;
   after a failure output has the size it had. No state: any thread may call these at any time. */

[[nodiscard]] bool CodeSetBuiltin_Utf8ToUtf16le(const void *input, size_t length, DynBuf *output);
[[nodiscard]] bool CodeSetBuiltin_Utf16leToUtf8(const void *input, size_t length, DynBuf *output);
[[nodiscard]] bool CodeSetBuiltin_Utf16beToUtf8(const void *input, size_t length, DynBuf *output);

/* The conversion between two identifiers, where current is the one that counts as the current encoding. It is UTF-8 on
   every system there is a platform side for; UTF-8 to US-ASCII is open only where it is another. */
[[nodiscard]] bool CodeSetBuiltin_Convert(EncodingId source, const void *input, size_t length,
                                          EncodingId target, EncodingId current, uint32_t mode,
                                          DynBuf *output);

#endif
