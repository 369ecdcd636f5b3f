#include "lib/string/formatSink.h"

#include <cstdlib>

namespace {

constexpr size_t FIRST_CAPACITY_STEP = 64;

/* The last byte of the block is kept for the NUL. */
void SinkAdopt(FormatSink *sink, char *block, size_t stored, size_t capacity)
{
   sink->start = block;
   sink->cursor = block + stored;
   sink->limit = block + capacity - 1;
}

} // namespace

void Sink_InitFixed(FormatSink *sink, char *buffer, size_t size)
{
   sink->start = buffer;
   sink->cursor = buffer;
   sink->limit = size != 0 ? buffer + size - 1 : buffer;
   sink->count = 0;
   sink->allocating = false;
   sink->terminated = size != 0;
}

bool Sink_InitAllocating(FormatSink *sink, size_t formatLength)
{
   size_t capacity = 1;

   if (formatLength != 0) {
      capacity = formatLength + FIRST_CAPACITY_STEP;
      capacity -= capacity % FIRST_CAPACITY_STEP;
   }
   char *const block = static_cast<char *>(malloc(capacity));
   if (block == nullptr) {
      return false;
   }
   SinkAdopt(sink, block, 0, capacity);
   sink->count = 0;
   sink->allocating = true;
   sink->terminated = true;
   return true;
}

bool Sink_Grow(FormatSink *sink, size_t n)
{
   const size_t stored = static_cast<size_t>(sink->cursor - sink->start);
   const size_t current = static_cast<size_t>(sink->limit - sink->start) + 1;
   size_t capacity = stored + n + current;

   capacity -= capacity % current;
   char *const block = static_cast<char *>(realloc(sink->start, capacity));
   if (block == nullptr) {
      return false;
   }
   SinkAdopt(sink, block, stored, capacity);
   return true;
}

void Sink_Terminate(FormatSink *sink)
{
   if (sink->terminated) {
      *sink->cursor = '\0';
   }
}
