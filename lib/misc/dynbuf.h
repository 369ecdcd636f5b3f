#ifndef TESSEL_LIB_MISC_DYNBUF_H
#define TESSEL_LIB_MISC_DYNBUF_H

#include <cstddef>
#include <cstdint>

struct DynBuf {
   char *data;
   uint64_t size;
   uint64_t allocated;
};

void DynBuf_Init(DynBuf *buffer);
void DynBuf_Destroy(DynBuf *buffer);
void DynBuf_Attach(DynBuf *buffer, size_t size, void *data);
[[nodiscard]] void *DynBuf_Detach(DynBuf *buffer);
[[nodiscard]] char *DynBuf_DetachString(DynBuf *buffer);
[[nodiscard]] bool DynBuf_Enlarge(DynBuf *buffer, size_t minSize);
void *DynBuf_SafeEnlarge(DynBuf *buffer, size_t minSize, const char *file, unsigned int line);
[[nodiscard]] bool DynBuf_Append(DynBuf *buffer, const void *bytes, size_t n);
void DynBuf_SafeAppend(DynBuf *buffer, const void *bytes, size_t n, const char *file, unsigned int line);
[[nodiscard]] bool DynBuf_Trim(DynBuf *buffer);
[[nodiscard]] bool DynBuf_Copy(const DynBuf *source, DynBuf *destination);

#endif
