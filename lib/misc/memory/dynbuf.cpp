#include "lib/misc/memory/dynbuf.h"

#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint64_t INITIAL_CAPACITY = 128;
constexpr uint64_t MAXIMUM_STEP = 256 * uint64_t{1024};

/* The place that DynBuf_DetachString names in its message. */
constexpr const char *MODULE = "lib/public/dynbuf";
constexpr int DETACH_STRING_LINE = 145;

uint64_t DynBufGetNewSize(uint64_t capacity, uint64_t minSize)
{
   const uint64_t grown = capacity == 0 ? INITIAL_CAPACITY : capacity + std::min(capacity, MAXIMUM_STEP);
   return std::max(grown, minSize);
}

bool DynBufResize(DynBuf *buffer, uint64_t capacity)
{
   void *block = realloc(buffer->data, capacity);
   if (block == nullptr) {
      return false;
   }
   buffer->data = static_cast<char *>(block);
   buffer->allocated = capacity;
   return true;
}

} // namespace

void DynBuf_Init(DynBuf *buffer)
{
   *buffer = {};
}

void DynBuf_Destroy(DynBuf *buffer)
{
   free(buffer->data);
   DynBuf_Init(buffer);
}

void DynBuf_Attach(DynBuf *buffer, size_t size, void *data)
{
   free(buffer->data);
   *buffer = {.data = static_cast<char *>(data), .size = size, .allocated = size};
}

void *DynBuf_Detach(DynBuf *buffer)
{
   void *block = buffer->data;
   buffer->data = nullptr;
   buffer->allocated = 0;
   return block;
}

char *DynBuf_DetachString(DynBuf *buffer)
{
   if (buffer->size == buffer->allocated && !DynBuf_Enlarge(buffer, buffer->size + 1)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, DETACH_STRING_LINE);
   }
   buffer->data[buffer->size] = '\0';
   return static_cast<char *>(DynBuf_Detach(buffer));
}

bool DynBuf_Enlarge(DynBuf *buffer, size_t minSize)
{
   const uint64_t capacity = DynBufGetNewSize(buffer->allocated, minSize);

   /* The sum in the growth rule wraps at the end of the range. */
   if (capacity < buffer->allocated) {
      return false;
   }
   return DynBufResize(buffer, capacity);
}

void *DynBuf_SafeEnlarge(DynBuf *buffer, size_t minSize, const char *file, unsigned int line)
{
   if (!DynBuf_Enlarge(buffer, minSize)) {
      Util_MemoryExhausted(file, line);
   }
   return buffer->data;
}

bool DynBuf_Append(DynBuf *buffer, const void *bytes, size_t n)
{
   if (n == 0) {
      return true;
   }
   const uint64_t newSize = buffer->size + n;
   if (newSize < buffer->size) {
      return false;
   }
   if (newSize > buffer->allocated && !DynBuf_Enlarge(buffer, newSize)) {
      return false;
   }
   memcpy(buffer->data + buffer->size, bytes, n);
   buffer->size = newSize;
   return true;
}

void DynBuf_SafeAppend(DynBuf *buffer, const void *bytes, size_t n, const char *file, unsigned int line)
{
   if (!DynBuf_Append(buffer, bytes, n)) {
      Util_MemoryExhausted(file, line);
   }
}

bool DynBuf_Trim(DynBuf *buffer)
{
   /* A realloc to 0 bytes frees the block on some systems and keeps one on others: this frees it on all. */
   if (buffer->size == 0) {
      DynBuf_Destroy(buffer);
      return true;
   }
   return DynBufResize(buffer, buffer->size);
}

bool DynBuf_Copy(const DynBuf *source, DynBuf *destination)
{
   DynBuf_Init(destination);
   if (source->allocated == 0) {
      return true;
   }
   if (!DynBufResize(destination, source->allocated)) {
      return false;
   }
   memcpy(destination->data, source->data, source->size);
   destination->size = source->size;
   return true;
}
