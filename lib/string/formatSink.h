#ifndef TESSEL_LIB_STRING_FORMATSINK_H
#define TESSEL_LIB_STRING_FORMATSINK_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

/* Private to the formatting engine: where its output goes, and the count of it. */

struct FormatSink {
   char *start;
   char *cursor;  /* the next byte */
   char *limit;   /* where the NUL goes at the latest: no byte is stored from here on */
   int64_t count; /* bytes put out so far, stored or not: never above INT_MAX */
   bool
       allocating; /* start is ours, and grows; otherwise it is the caller's, and what does not fit is dropped */
   bool terminated; /* there is a byte for the NUL */
};

void Sink_InitFixed(FormatSink *sink, char *buffer, size_t size);

/* False if memory runs out, with nothing to free. */
[[nodiscard]] bool Sink_InitAllocating(FormatSink *sink, size_t formatLength);

/* Writes the NUL behind what was stored, if there is room for any byte at all. */
void Sink_Terminate(FormatSink *sink);

/* Makes room for n more bytes in an allocating sink. False if memory runs out: what was stored stays. */
[[nodiscard]] bool Sink_Grow(FormatSink *sink, size_t n);

/* Announces that the next n bytes are about to be put, and counts them. False if the count would not fit an int
   or the room cannot be had: then nothing may be put. */
[[nodiscard]] inline bool Sink_Announce(FormatSink *sink, uint64_t n)
{
   if (n > static_cast<uint64_t>(INT_MAX - sink->count)) {
      return false;
   }
   if (sink->allocating && n > static_cast<size_t>(sink->limit - sink->cursor) && !Sink_Grow(sink, n)) {
      return false;
   }
   sink->count += static_cast<int64_t>(n);
   return true;
}

/* The put routines drop what the room does not hold; only announced bytes may be put. */
inline void Sink_Put(FormatSink *sink, const char *bytes, size_t n)
{
   const size_t room = static_cast<size_t>(sink->limit - sink->cursor);

   if (n > room) {
      n = room;
   }
   if (n != 0) {
      memcpy(sink->cursor, bytes, n);
      sink->cursor += n;
   }
}

inline void Sink_PutByte(FormatSink *sink, char byte)
{
   if (sink->cursor < sink->limit) {
      *sink->cursor++ = byte;
   }
}

/* n bytes of one value; none if n is not above 0. */
inline void Sink_Fill(FormatSink *sink, char byte, int64_t n)
{
   const int64_t room = sink->limit - sink->cursor;

   if (n > room) {
      n = room;
   }
   for (; n > 0; n--) {
      *sink->cursor++ = byte;
   }
}

#endif
