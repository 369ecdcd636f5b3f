#include "lib/misc/secretArena.h"

#include "lib/misc/secret.h"
#include "lib/misc/util.h"
#include "lib/public/owned.h"

#include <algorithm>
#include <cstring>

struct SecretArenaBlock {
   SecretArenaBlock *next;
   void *memory;
   size_t size;
};

namespace {

constexpr size_t ALIGNMENT = alignof(std::max_align_t);
constexpr size_t SMALLEST_BLOCK = 4096;
constexpr size_t LARGEST_BLOCK = size_t{1} << 20;

void SecretArenaGrow(SecretArena *arena, size_t size)
{
   const size_t last = arena->blocks != nullptr ? arena->blocks->size : SMALLEST_BLOCK / 2;
   const size_t usual = std::clamp(last * 2, SMALLEST_BLOCK, LARGEST_BLOCK);
   const size_t next = std::max(size, usual);
   auto *memory = static_cast<char *>(Util_SafeCalloc(1, next));
   SecretArena_Adopt(arena, memory, next);
   arena->next = memory;
   arena->left = next;
}

} // namespace

void *SecretArena_Take(SecretArena *arena, size_t size)
{
   const size_t rounded = (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
   if (rounded > arena->left) {
      SecretArenaGrow(arena, rounded);
   }
   void *const piece = arena->next;
   arena->next += rounded;
   arena->left -= rounded;
   return piece;
}

char *SecretArena_CopyString(SecretArena *arena, const char *string, size_t length)
{
   auto *copy = static_cast<char *>(SecretArena_Take(arena, length + 1));
   if (length != 0) {
      memcpy(copy, string, length);
   }
   return copy;
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
