#ifndef TESSEL_LIB_MISC_UTIL_H
#define TESSEL_LIB_MISC_UTIL_H

#include <cstddef>
#include <cstdint>

[[nodiscard]] void *Util_SafeMalloc(size_t size);
[[nodiscard]] void *Util_SafeRealloc(void *block, size_t size);
[[nodiscard]] void *Util_SafeCalloc(size_t count, size_t size);
[[nodiscard]] char *Util_SafeStrdup(const char *string);
[[nodiscard]] char *Util_SafeStrndup(const char *string, size_t n);

/* The internal forms, for callers that want their own place in the message. bugNumber -1: none. */
[[nodiscard]] void *UtilSafeMallocInternal(size_t size, int32_t bugNumber, const char *file, int line);
[[nodiscard]] void *UtilSafeReallocInternal(void *block, size_t size, int32_t bugNumber, const char *file,
                                            int line);
[[nodiscard]] void *UtilSafeCallocInternal(size_t count, size_t size, int32_t bugNumber, const char *file,
                                           int line);
[[nodiscard]] char *UtilSafeStrdupInternal(const char *string, int32_t bugNumber, const char *file, int line);
[[nodiscard]] char *UtilSafeStrndupInternal(const char *string, size_t n, int32_t bugNumber, const char *file,
                                            int line);

#endif
