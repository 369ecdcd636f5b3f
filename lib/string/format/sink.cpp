#include "lib/string/format/sink.h"

#include <cstdlib>

namespace {

constexpr size_t FIRST_CAPACITY_STEP = 64;

size_t SinkFirstCapacity(size_t formatLength)
{
   if (formatLength == 0) {
      return 1;
   }
   const size_t capacity = formatLength + FIRST_CAPACITY_STEP;
   return capacity - capacity % FIRST_CAPACITY_STEP;
}

/* A multiple of the present capacity that holds the length and a NUL. */
size_t SinkCapacityFor(const FormatSink *sink, size_t length)
{
   if (length < sink->capacity) {
      return sink->capacity;
   }
   const size_t capacity = length + sink->capacity;
   return capacity - capacity % sink->capacity;
}

/* Moves what was stored to a block that holds length bytes and a NUL. */
bool SinkMove(FormatSink *sink, size_t length)
{
   const bool inFrame = sink->format != nullptr;
   const size_t stored = static_cast<size_t>(sink->cursor - sink->start);
   const size_t capacity = SinkCapacityFor(sink, length);
   char *const block = static_cast<char *>(inFrame ? malloc(capacity) : realloc(sink->start, capacity));

   if (block == nullptr) {
      return false;
   }
   if (inFrame) {
      memcpy(block, sink->start, stored);
   }
   sink->start = block;
   sink->cursor = block + stored;
   sink->limit = block + capacity - 1;
   sink->capacity = capacity;
   sink->format = nullptr;
   return true;
}

} // namespace

void Sink_CopyLong(char *to, const char *from, size_t n)
{
   memcpy(to, from, n);
}

void Sink_InitAllocating(FormatSink *sink, char *frame, const char *format)
{
   Sink_InitFixed(sink, frame, SINK_FRAME_SIZE);
   sink->format = format;
   sink->allocating = true;
}

bool Sink_Grow(FormatSink *sink, size_t n)
{
   if (sink->format != nullptr) {
      sink->capacity = SinkFirstCapacity(strlen(sink->format));
   }
   return SinkMove(sink, static_cast<size_t>(sink->cursor - sink->start) + n);
}

char *Sink_Detach(FormatSink *sink, const char *formatEnd)
{
   if (sink->format != nullptr) {
      sink->capacity = SinkFirstCapacity(static_cast<size_t>(formatEnd - sink->format));
      if (!SinkMove(sink, static_cast<size_t>(sink->cursor - sink->start))) {
         return nullptr;
      }
   }
   Sink_Terminate(sink);
   return sink->start;
}

void Sink_Discard(FormatSink *sink)
{
   if (sink->format == nullptr) {
      free(sink->start);
   }
}
