#include "lib/string/format/sink.h"

#include <cstdlib>

namespace {

constexpr size_t FIRST_CAPACITY_STEP = 64;

size_t FormatSinkFirstCapacity(size_t formatLength)
{
   if (formatLength == 0) {
      return 1;
   }
   const size_t capacity = formatLength + FIRST_CAPACITY_STEP;
   return capacity - capacity % FIRST_CAPACITY_STEP;
}

/* A multiple of the present capacity that holds the length and a NUL. */
size_t FormatSinkCapacityFor(const FormatSink *sink, size_t length)
{
   if (length < sink->capacity) {
      return sink->capacity;
   }
   const size_t capacity = length + sink->capacity;
   return capacity - capacity % sink->capacity;
}

/* Moves what was stored to a block that holds length bytes and a NUL. */
bool FormatSinkMove(FormatSink *sink, size_t length)
{
   const bool inFrame = sink->format != nullptr;
   const size_t stored = static_cast<size_t>(sink->cursor - sink->start);
   const size_t capacity = FormatSinkCapacityFor(sink, length);
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

void FormatSink_CopyLong(char *to, const char *from, size_t n)
{
   memcpy(to, from, n);
}

void FormatSink_InitAllocating(FormatSink *sink, char *frame, const char *format)
{
   FormatSink_InitFixed(sink, frame, FORMAT_SINK_FRAME_SIZE);
   sink->format = format;
   sink->allocating = true;
}

bool FormatSink_Grow(FormatSink *sink, size_t n)
{
   if (sink->format != nullptr) {
      sink->capacity = FormatSinkFirstCapacity(strlen(sink->format));
   }
   return FormatSinkMove(sink, static_cast<size_t>(sink->cursor - sink->start) + n);
}

char *FormatSink_Detach(FormatSink *sink, const char *formatEnd)
{
   if (sink->format != nullptr) {
      sink->capacity = FormatSinkFirstCapacity(static_cast<size_t>(formatEnd - sink->format));
      if (!FormatSinkMove(sink, static_cast<size_t>(sink->cursor - sink->start))) {
         return nullptr;
      }
   }
   FormatSink_Terminate(sink);
   return sink->start;
}

void FormatSink_Discard(FormatSink *sink)
{
   if (sink->format == nullptr) {
      free(sink->start);
   }
}
