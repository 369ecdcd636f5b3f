#ifndef TESSEL_LIB_MISC_MEMORY_SECRET_ARENA_H
#define TESSEL_LIB_MISC_MEMORY_SECRET_ARENA_H

#include <array>
#include <cstddef>

/* Memory for many small pieces, most of which go all at once, and zeroed then: far cheaper than a block of the
   allocator for each. A piece that is given back before is zeroed at once and serves the next of about its
   size, so that an arena never takes more memory than the pieces that were out at one time needed, by a
   constant factor. A zeroed arena is an empty one. Exhausted memory ends the process. */
struct SecretArenaBlock;

struct SecretArena {
   SecretArenaBlock *blocks;
   char *next; /* Between these two the latest block is free. */
   char *end;
   std::array<void *, 128> given; /* By size, each the first in a chain. */
};

/* size bytes of any content, aligned for any pointer or number; valid until given back or the arena is cleared. */
[[nodiscard]] void *SecretArena_Take(SecretArena *arena, size_t size);

/* Gives back a piece that was taken with the same size. */
void SecretArena_Give(SecretArena *arena, void *piece, size_t size);

/* Zeroes and frees all that was taken. */
void SecretArena_Clear(SecretArena *arena);

#endif
