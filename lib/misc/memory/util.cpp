#include "lib/misc/memory/util.h"

#include "lib/public/program.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t NO_BUG_NUMBER = -1;

/* Where a caller of an internal form stands; the plain forms have none. */
struct UtilCallPlace {
   int32_t bugNumber;
   const char *file;
   int line;
};

[[noreturn]] void UtilPanic(const UtilCallPlace *place)
{
   if (place == nullptr) {
      Panic("Unrecoverable memory allocation failure\n");
   }
   if (place->bugNumber == NO_BUG_NUMBER) {
      Panic("Unrecoverable memory allocation failure at %s:%d\n", place->file, place->line);
   }
   Panic("Unrecoverable memory allocation failure at %s:%d.  Bug number: %d\n", place->file, place->line,
         place->bugNumber);
}

void *UtilMalloc(size_t size, const UtilCallPlace *place)
{
   void *block = malloc(size);
   if (block == nullptr && size != 0) {
      UtilPanic(place);
   }
   return block;
}

void *UtilRealloc(void *block, size_t size, const UtilCallPlace *place)
{
   void *resized = realloc(block, size);
   if (resized == nullptr && size != 0) {
      UtilPanic(place);
   }
   return resized;
}

void *UtilCalloc(size_t count, size_t size, const UtilCallPlace *place)
{
   void *block = calloc(count, size);
   if (block == nullptr && count != 0 && size != 0) {
      UtilPanic(place);
   }
   return block;
}

char *UtilCopyString(const char *bytes, size_t length, const UtilCallPlace *place)
{
   /* The room for the NUL would wrap to no room at all. */
   if (length == SIZE_MAX) {
      UtilPanic(place);
   }
   char *copy = static_cast<char *>(UtilMalloc(length + 1, place));
   memcpy(copy, bytes, length);
   copy[length] = '\0';
   return copy;
}

char *UtilStrdup(const char *string, const UtilCallPlace *place)
{
   return string == nullptr ? nullptr : UtilCopyString(string, strlen(string), place);
}

char *UtilStrndup(const char *string, size_t n, const UtilCallPlace *place)
{
   return string == nullptr ? nullptr : UtilCopyString(string, strnlen(string, n), place);
}

} // namespace

void *Util_SafeMalloc(size_t size)
{
   return UtilMalloc(size, nullptr);
}

void *Util_SafeRealloc(void *block, size_t size)
{
   return UtilRealloc(block, size, nullptr);
}

void *Util_SafeCalloc(size_t count, size_t size)
{
   return UtilCalloc(count, size, nullptr);
}

char *Util_SafeStrdup(const char *string)
{
   return UtilStrdup(string, nullptr);
}

char *Util_SafeStrndup(const char *string, size_t n)
{
   return UtilStrndup(string, n, nullptr);
}

void Util_MemoryExhausted(const char *file, unsigned int line)
{
   Panic("Unrecoverable memory allocation failure at %s:%u\n", file, line);
}

void *UtilSafeMallocInternal(size_t size, int32_t bugNumber, const char *file, int line)
{
   const UtilCallPlace place = {bugNumber, file, line};
   return UtilMalloc(size, &place);
}

void *UtilSafeReallocInternal(void *block, size_t size, int32_t bugNumber, const char *file, int line)
{
   const UtilCallPlace place = {bugNumber, file, line};
   return UtilRealloc(block, size, &place);
}

void *UtilSafeCallocInternal(size_t count, size_t size, int32_t bugNumber, const char *file, int line)
{
   const UtilCallPlace place = {bugNumber, file, line};
   return UtilCalloc(count, size, &place);
}

char *UtilSafeStrdupInternal(const char *string, int32_t bugNumber, const char *file, int line)
{
   const UtilCallPlace place = {bugNumber, file, line};
   return UtilStrdup(string, &place);
}

char *UtilSafeStrndupInternal(const char *string, size_t n, int32_t bugNumber, const char *file, int line)
{
   const UtilCallPlace place = {bugNumber, file, line};
   return UtilStrndup(string, n, &place);
}
