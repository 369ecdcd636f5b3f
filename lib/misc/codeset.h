#ifndef TESSEL_LIB_MISC_CODESET_H
#define TESSEL_LIB_MISC_CODESET_H

#include <cstddef>
#include <cstdint>

struct DynBuf;

const char *CodeSet_GetCurrentCodeSet();

[[nodiscard]] bool CodeSet_IsValidUtf8(const char *string);
[[nodiscard]] bool CodeSet_IsValidUtf8Buffer(const void *buffer, size_t length);
[[nodiscard]] bool CodeSet_IsValidUtf8NoNul(const void *buffer, size_t length);
[[nodiscard]] int CodeSet_GetUtf8(const char *string, const char *end, uint32_t *codePoint);

[[nodiscard]] bool CodeSet_ConvertToBuffer(const char *sourceName, const void *input, size_t length,
                                           const char *targetName, uint32_t mode, DynBuf *output);
[[nodiscard]] bool CodeSet_Convert(const char *sourceName, const void *input, size_t length,
                                   const char *targetName, uint32_t mode, char **output, size_t *outLength);

#endif
