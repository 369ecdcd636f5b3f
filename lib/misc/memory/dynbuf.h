#ifndef TESSEL_LIB_MISC_MEMORY_DYNBUF_H
#define TESSEL_LIB_MISC_MEMORY_DYNBUF_H

#include <cstddef>
#include <cstdint>

/* A growable byte array, usually on its holder's stack. Between calls size <= allocated, and data is null exactly
   when nothing is allocated. The bytes are not NUL-terminated unless a routine says so. Sizes are in bytes. A
   buffer belongs to one thread at a time. A pointer into data holds until the next call that grows, trims,
   attaches, detaches or destroys. */
struct DynBuf {
   char *data;
   uint64_t size;
   uint64_t allocated;
};

/* Makes an empty buffer of any memory. Owns nothing yet, so that an unused buffer needs no DynBuf_Destroy. */
void DynBuf_Init(DynBuf *buffer);

/* Frees the block and leaves an empty buffer, ready for use. */
void DynBuf_Destroy(DynBuf *buffer);

/* Frees the current block and adopts data, a malloc'ed block of size bytes, all of them in use. */
void DynBuf_Attach(DynBuf *buffer, size_t size, void *data);

/* Gives the block to the caller, who frees it; null if there was none. The size field keeps its value, for the
   caller to read: the buffer may be used again only after DynBuf_Init. */
[[nodiscard]] void *DynBuf_Detach(DynBuf *buffer);

/* As DynBuf_Detach with a NUL put after the last byte, so never null; size does not count the NUL. Exhaustion
   ends the process. */
[[nodiscard]] char *DynBuf_DetachString(DynBuf *buffer);

/* Grows the capacity, even where minSize would already fit: to 128 from nothing, to the double below 256 KiB, by
   256 KiB beyond, or to minSize if that is more. False, with the buffer unchanged, if the capacity would
   overflow or memory is exhausted. */
[[nodiscard]] bool DynBuf_Enlarge(DynBuf *buffer, size_t minSize);

/* As DynBuf_Enlarge; returns the block, still owned by the buffer. Failure ends the process with a message that
   names the caller's file and line. */
void *DynBuf_SafeEnlarge(DynBuf *buffer, size_t minSize, const char *file, unsigned int line);

/* Appends n bytes, which must not lie in the buffer itself. For n 0 nothing happens and bytes may be null. False,
   with the buffer unchanged, if the size would overflow or memory is exhausted. */
[[nodiscard]] bool DynBuf_Append(DynBuf *buffer, const void *bytes, size_t n);

/* As DynBuf_Append; failure ends the process with a message that names the caller's file and line. */
void DynBuf_SafeAppend(DynBuf *buffer, const void *bytes, size_t n, const char *file, unsigned int line);

/* Gives back what is allocated beyond size; a buffer of size 0 is left without a block. False, with the buffer
   unchanged, if the smaller block cannot be had. */
[[nodiscard]] bool DynBuf_Trim(DynBuf *buffer);

/* Makes destination a buffer with the same bytes and the same capacity. What destination held is overwritten, not
   freed. False if memory is exhausted: destination is then empty. */
[[nodiscard]] bool DynBuf_Copy(const DynBuf *source, DynBuf *destination);

/* Owner of a buffer inside a routine. */
struct OwnedDynBuf : DynBuf {
   OwnedDynBuf()
   {
      DynBuf_Init(this);
   }

   OwnedDynBuf(const OwnedDynBuf &) = delete;
   OwnedDynBuf &operator=(const OwnedDynBuf &) = delete;

   ~OwnedDynBuf()
   {
      DynBuf_Destroy(this);
   }
};

#endif
