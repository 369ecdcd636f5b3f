#ifndef TESSEL_LIB_MISC_MEMORY_UTIL_H
#define TESSEL_LIB_MISC_MEMORY_UTIL_H

#include <cstddef>
#include <cstdint>

/* The allocators of the C library with one difference: what they cannot give ends the process, so that no caller
   has to check. Every block is the caller's, to be released with free(). A request for 0 bytes is the C
   library's to answer, with a block or with null. */

[[nodiscard]] void *Util_SafeMalloc(size_t size);
[[nodiscard]] void *Util_SafeRealloc(void *block, size_t size);
[[nodiscard]] void *Util_SafeCalloc(size_t count, size_t size);

/* A copy of string; null for null. */
[[nodiscard]] char *Util_SafeStrdup(const char *string);

/* A copy of at most the first n bytes of string, which ends earlier at a NUL, with a NUL added; null for null. */
[[nodiscard]] char *Util_SafeStrndup(const char *string, size_t n);

/* The same for callers that want their own place in the message. bugNumber -1: none. */
[[nodiscard]] void *UtilSafeMallocInternal(size_t size, int32_t bugNumber, const char *file, int line);
[[nodiscard]] void *UtilSafeReallocInternal(void *block, size_t size, int32_t bugNumber, const char *file,
                                            int line);
[[nodiscard]] void *UtilSafeCallocInternal(size_t count, size_t size, int32_t bugNumber, const char *file,
                                           int line);
[[nodiscard]] char *UtilSafeStrdupInternal(const char *string, int32_t bugNumber, const char *file, int line);
[[nodiscard]] char *UtilSafeStrndupInternal(const char *string, size_t n, int32_t bugNumber, const char *file,
                                            int line);

/* For other allocations that must not fail: ends the process with the message of the DynBuf_Safe routines, which names the
   caller's file and line. */
[[noreturn]] void Util_MemoryExhausted(const char *file, unsigned int line);

#endif
