#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLEBASE_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLEBASE_H

#include "lib/unicode/unicodeSimpleTypes.h"

#include <cstddef>
#include <sys/types.h>

[[nodiscard]] char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);
[[nodiscard]] char *UnicodeAllocInternal(const void *buffer, ssize_t lengthInBytes, EncodingId encoding,
                                         bool strict);
[[nodiscard]] char *UnicodeEscapeBuffer(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);
[[nodiscard]] void *Unicode_GetAllocBytes(const char *string, EncodingId encoding);
[[nodiscard]] void *Unicode_GetAllocBytesWithLength(const char *string, EncodingId encoding,
                                                    ssize_t lengthInBytes, size_t *outLength);
[[nodiscard]] bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, EncodingId encoding);
size_t Unicode_LengthInBytes(const void *buffer, EncodingId encoding);

#endif
