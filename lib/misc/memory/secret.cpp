#include "lib/misc/memory/secret.h"

#include "base/owned.h"
#include "lib/misc/memory/util.h"

#include <cstring>
#include <utility>

void Secret_Zero(void *block, size_t size)
{
   if (size == 0) {
      return;
   }
   memset(block, 0, size);
   /* The block and all memory count as read here, so that no zero can be left out as a dead store. */
   __asm__ __volatile__("" : : "r"(block) : "memory");
}

void Secret_FreeString(char *string)
{
   const Owned<char> owned(string);
   if (string != nullptr) {
      Secret_Zero(string, strlen(string));
   }
}

bool Secret_Reserve(DynBuf *buffer, size_t n)
{
   DynBuf larger;

   if (n <= buffer->allocated - buffer->size) {
      return true;
   }
   DynBuf_Init(&larger);
   if (buffer->size + n < n || !DynBuf_Enlarge(&larger, buffer->allocated + buffer->size + n)) {
      return false;
   }
   if (buffer->size != 0) {
      memcpy(larger.data, buffer->data, buffer->size);
   }
   larger.size = buffer->size;
   std::swap(*buffer, larger);
   Secret_Destroy(&larger);
   return true;
}

bool Secret_Append(DynBuf *buffer, const void *bytes, size_t n)
{
   return Secret_Reserve(buffer, n) && DynBuf_Append(buffer, bytes, n);
}

void Secret_SafeReserve(DynBuf *buffer, size_t n, const char *file, unsigned int line)
{
   if (!Secret_Reserve(buffer, n)) {
      Util_MemoryExhausted(file, line);
   }
}

void Secret_SafeAppend(DynBuf *buffer, const void *bytes, size_t n, const char *file, unsigned int line)
{
   Secret_SafeReserve(buffer, n, file, line);
   DynBuf_SafeAppend(buffer, bytes, n, file, line);
}

void Secret_Destroy(DynBuf *buffer)
{
   const Owned<char> block(buffer->data);
   Secret_Zero(buffer->data, buffer->allocated);
   DynBuf_Init(buffer);
}
