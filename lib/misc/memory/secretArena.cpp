#include "lib/misc/memory/secretArena.h"

#include "base/owned.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"

#include <algorithm>
#include <bit>
#include <utility>

struct SecretArenaBlock {
   SecretArenaBlock *next;
   size_t size; /* With this head. */
};

namespace {

constexpr size_t GRANULE = 16;
constexpr size_t SMALLEST_BLOCK = 4096;
constexpr size_t LARGEST_BLOCK = size_t{64} * 1024;

/* Up to here there is a chain for each number of granules, beyond for each power of two. */
constexpr size_t LARGEST_FINE = 64 * GRANULE;

static_assert(sizeof(SecretArenaBlock) == GRANULE);

size_t SecretArenaRound(size_t size)
{
   return size <= LARGEST_FINE ? (size + GRANULE - 1) / GRANULE * GRANULE : std::bit_ceil(size);
}

/* The chain of pieces of a rounded size. */
void **SecretArenaChain(SecretArena *arena, size_t rounded)
{
   const size_t fine = LARGEST_FINE / GRANULE;
   const auto power = static_cast<size_t>(std::countr_zero(rounded));
   return &arena->given[rounded <= LARGEST_FINE ? rounded / GRANULE : fine + power];
}

/* A new block with room for size bytes, whatever is left of the last one. */
void SecretArenaGrow(SecretArena *arena, size_t size)
{
   const size_t last = arena->blocks != nullptr ? arena->blocks->size : 0;
   const size_t usual = std::clamp(last * 2, SMALLEST_BLOCK, LARGEST_BLOCK);
   const size_t blockSize = std::max(size + sizeof(SecretArenaBlock), usual);
   auto *block = static_cast<SecretArenaBlock *>(Util_SafeMalloc(blockSize));
   *block = {.next = arena->blocks, .size = blockSize};
   arena->blocks = block;
   arena->next = reinterpret_cast<char *>(block + 1);
   arena->end = reinterpret_cast<char *>(block) + blockSize;
}

} // namespace

void *SecretArena_Take(SecretArena *arena, size_t size)
{
   const size_t rounded = SecretArenaRound(size);
   void **const chain = SecretArenaChain(arena, rounded);

   if (*chain != nullptr) {
      return std::exchange(*chain, *static_cast<void **>(*chain));
   }
   if (rounded > static_cast<size_t>(arena->end - arena->next)) {
      SecretArenaGrow(arena, rounded);
   }
   return std::exchange(arena->next, arena->next + rounded);
}

void SecretArena_Give(SecretArena *arena, void *piece, size_t size)
{
   Secret_Zero(piece, size);
   void **const chain = SecretArenaChain(arena, SecretArenaRound(size));
   *static_cast<void **>(piece) = std::exchange(*chain, piece);
}

void SecretArena_Clear(SecretArena *arena)
{
   while (arena->blocks != nullptr) {
      const Owned<SecretArenaBlock> block(arena->blocks);
      arena->blocks = block->next;
      Secret_Zero(block.get(), block->size);
   }
   *arena = {};
}
