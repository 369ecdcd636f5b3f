#include "lib/misc/memory/secretArena.h"

#include "base/owned.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"

#include <algorithm>
#include <cstring>

struct SecretArenaBlock {
   SecretArenaBlock *next;
   void *memory;
   size_t size;
};

namespace {

constexpr size_t ALIGNMENT = alignof(void *);
constexpr size_t SMALLEST_BLOCK = 4096;
constexpr size_t LARGEST_BLOCK = size_t{64} * 1024;

/* A new block with room for size bytes, whatever is left of the last one. */
void SecretArenaGrow(SecretArena *arena, size_t size)
{
   const size_t last = arena->blocks != nullptr ? arena->blocks->size : 0;
   const size_t usual = std::clamp(last * 2, SMALLEST_BLOCK, LARGEST_BLOCK);
   const size_t blockSize = std::max(size, usual);
   auto *memory = static_cast<char *>(Util_SafeMalloc(blockSize));
   SecretArena_Adopt(arena, memory, blockSize);
   arena->next = memory;
   arena->end = memory + blockSize;
}

void SecretArenaReserve(SecretArena *arena, size_t size)
{
   if (size > static_cast<size_t>(arena->end - arena->next)) {
      SecretArenaGrow(arena, size);
   }
}

} // namespace

void *SecretArena_Take(SecretArena *arena, size_t size)
{
   const size_t rounded = (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
   SecretArenaReserve(arena, rounded);
   void *const piece = memset(arena->next, 0, rounded);
   arena->next += rounded;
   return piece;
}

char *SecretArena_CopyString(SecretArena *arena, const char *string, size_t length)
{
   SecretArenaReserve(arena, length + 1);
   arena->end -= length + 1;
   if (length != 0) {
      memcpy(arena->end, string, length);
   }
   arena->end[length] = '\0';
   return arena->end;
}

void SecretArena_Adopt(SecretArena *arena, void *memory, size_t size)
{
   auto *block = static_cast<SecretArenaBlock *>(Util_SafeMalloc(sizeof(SecretArenaBlock)));
   *block = {.next = arena->blocks, .memory = memory, .size = size};
   arena->blocks = block;
}

void SecretArena_Clear(SecretArena *arena)
{
   while (arena->blocks != nullptr) {
      const Owned<SecretArenaBlock> block(arena->blocks);
      const Owned<void> memory(block->memory);
      arena->blocks = block->next;
      Secret_Zero(block->memory, block->size);
   }
   *arena = {};
}
