#ifndef TESSEL_LIB_MISC_MEMORY_SECRET_ARENA_H
#define TESSEL_LIB_MISC_MEMORY_SECRET_ARENA_H

#include <cstddef>

/* Memory for many small pieces that go all at once, and are zeroed then: far cheaper than a block of the allocator for
   each. A zeroed arena is an empty one. Exhausted memory ends the process. */
struct SecretArenaBlock;

struct SecretArena {
   SecretArenaBlock *blocks;
   /* Between these two the latest block is free: pieces are taken from below, strings from above. */
   char *next;
   char *end;
};

/* size bytes of zeros, aligned for any pointer or number; valid until the arena is cleared. */
[[nodiscard]] void *SecretArena_Take(SecretArena *arena, size_t size);

/* A copy of length bytes with a NUL behind it. */
[[nodiscard]] char *SecretArena_CopyString(SecretArena *arena, const char *string, size_t length);

/* Takes over a malloc'ed block of size bytes, which goes with all else. */
void SecretArena_Adopt(SecretArena *arena, void *memory, size_t size);

/* Zeroes and frees all that was taken and adopted. */
void SecretArena_Clear(SecretArena *arena);

#endif
