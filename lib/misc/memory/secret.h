#ifndef TESSEL_LIB_MISC_MEMORY_SECRET_H
#define TESSEL_LIB_MISC_MEMORY_SECRET_H

#include "lib/misc/memory/dynbuf.h"

#include <cstddef>
#include <memory>

/* Memory that may hold secrets, and so is overwritten with zeros before it goes back to the allocator. All keep
   errno. */

/* Overwrites a block; unlike a memset before a free, never optimised away. block may be null if size is 0. */
void Secret_Zero(void *block, size_t size);

/* Zeroes a string up to its NUL and frees it; null is ignored. What a caller has cut off behind an earlier NUL is
   not reached. */
void Secret_FreeString(char *string);

/* Makes room for n bytes more than are in use; a block that is outgrown is zeroed. False, with the buffer unchanged, if
   memory is exhausted. */
[[nodiscard]] bool Secret_Reserve(DynBuf *buffer, size_t n);

/* DynBuf_Append for secrets: a block that is outgrown is zeroed. False, with the buffer unchanged, if memory is
   exhausted. */
[[nodiscard]] bool Secret_Append(DynBuf *buffer, const void *bytes, size_t n);

/* The same for what must not fail: exhausted memory ends the process with a message that names the caller's file and line,
   as DynBuf_SafeAppend does. */
void Secret_SafeReserve(DynBuf *buffer, size_t n, const char *file, unsigned int line);
void Secret_SafeAppend(DynBuf *buffer, const void *bytes, size_t n, const char *file, unsigned int line);

/* DynBuf_Destroy for secrets. */
void Secret_Destroy(DynBuf *buffer);

struct SecretFree {
   void operator()(char *string) const
   {
      Secret_FreeString(string);
   }
};

/* Owner of a malloc'ed string inside a routine. */
using SecretString = std::unique_ptr<char, SecretFree>;

/* Owner of a buffer inside a routine. */
class SecretBuffer {
 public:
   SecretBuffer()
   {
      DynBuf_Init(&buffer_);
   }

   ~SecretBuffer()
   {
      Secret_Destroy(&buffer_);
   }

   SecretBuffer(const SecretBuffer &) = delete;
   SecretBuffer &operator=(const SecretBuffer &) = delete;

   [[nodiscard]] DynBuf *get()
   {
      return &buffer_;
   }

 private:
   DynBuf buffer_;
};

#endif
