#ifndef TESSEL_LIB_STRING_FORMAT_SINK_H
#define TESSEL_LIB_STRING_FORMAT_SINK_H

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/* Private to the formatting engine: where its output goes, and the count of it. */

struct FormatSink {
   char *start;
   char *cursor;       /* the next byte */
   char *limit;        /* where the NUL goes at the latest: no byte is stored from here on */
   uint64_t spare;     /* what is left of INT_MAX after the bytes put so far, stored or not */
   size_t capacity;    /* of start */
   const char *format; /* as long as start is the frame of an allocating sink, else null */
   bool allocating;    /* the room grows; otherwise what does not fit is dropped */
};

/* Room for the most usual texts, which are moved to a block of their own once their length is known: that is cheaper
   than to let a block grow. */
constexpr size_t FORMAT_SINK_FRAME_SIZE = 512;

/* A size beyond any possible output is as good as none, and no reason for limit to wrap around. */
inline void FormatSink_InitFixed(FormatSink *sink, char *buffer, size_t size)
{
   size = std::min(size, static_cast<size_t>(INT_MAX) + 1);
   *sink = {.start = buffer,
            .cursor = buffer,
            .limit = size != 0 ? buffer + size - 1 : buffer,
            .spare = INT_MAX,
            .capacity = size,
            .format = nullptr,
            .allocating = false};
}

/* The frame, of FORMAT_SINK_FRAME_SIZE bytes, and the format must outlive the sink. */
void FormatSink_InitAllocating(FormatSink *sink, char *frame, const char *format);

/* Writes the NUL behind what was stored, if there is room for any byte at all. */
inline void FormatSink_Terminate(FormatSink *sink)
{
   if (sink->capacity != 0) {
      *sink->cursor = '\0';
   }
}

/* Terminates an allocating sink and hands over its text, which the caller frees; null if memory runs out. The format
   was read up to its NUL at formatEnd. Once this or FormatSink_Discard was called, the sink is not to be
   used. */
[[nodiscard]] char *FormatSink_Detach(FormatSink *sink, const char *formatEnd);
void FormatSink_Discard(FormatSink *sink);

/* Makes room for n more bytes in an allocating sink. False if memory runs out: what was stored stays. */
[[nodiscard]] bool FormatSink_Grow(FormatSink *sink, size_t n);

/* The bytes put so far, stored or not. */
inline int FormatSink_Count(const FormatSink *sink)
{
   return static_cast<int>(INT_MAX - sink->spare);
}

/* Announces that the next n bytes are about to be put, and counts them. False if the count would not fit an int
   or the room cannot be had: then nothing may be put. */
[[nodiscard]] inline bool FormatSink_Announce(FormatSink *sink, uint64_t n)
{
   if (n > sink->spare) {
      return false;
   }
   if (sink->allocating && n > static_cast<size_t>(sink->limit - sink->cursor) && !FormatSink_Grow(sink, n)) {
      return false;
   }
   sink->spare -= n;
   return true;
}

/* memcpy, kept out of the compiler's sight: inlined for a text of known size, this branch, though dead, would earn a
   warning. */
void FormatSink_CopyLong(char *to, const char *from, size_t n);

/* The first and the last bytes of n, which may overlap. */
template <typename Word> void FormatSinkCopyEnds(char *to, const char *from, size_t n)
{
   Word first;
   Word last;

   memcpy(&first, from, sizeof first);
   memcpy(&last, from + n - sizeof last, sizeof last);
   memcpy(to, &first, sizeof first);
   memcpy(to + n - sizeof last, &last, sizeof last);
}

/* Most pieces are a few bytes: two moves that may overlap cost less than a call. n at least 1. */
inline void FormatSinkCopy(char *to, const char *from, size_t n)
{
   if (n < 4) {
      to[0] = from[0];
      to[n / 2] = from[n / 2];
      to[n - 1] = from[n - 1];
   } else if (n <= 8) {
      FormatSinkCopyEnds<uint32_t>(to, from, n);
   } else if (n <= 16) {
      FormatSinkCopyEnds<uint64_t>(to, from, n);
   } else if (n <= 32) {
      FormatSinkCopyEnds<std::array<char, 16>>(to, from, n);
   } else {
      FormatSink_CopyLong(to, from, n);
   }
}

/* The put routines drop what the room does not hold; only announced bytes may be put. */
inline void FormatSink_Put(FormatSink *sink, const char *bytes, size_t n)
{
   char *const cursor = sink->cursor;
   const size_t room = static_cast<size_t>(sink->limit - cursor);

   n = std::min(n, room);
   if (n != 0) {
      sink->cursor = cursor + n;
      FormatSinkCopy(cursor, bytes, n);
   }
}

inline void FormatSink_PutByte(FormatSink *sink, char byte)
{
   if (sink->cursor < sink->limit) {
      *sink->cursor++ = byte;
   }
}

/* n bytes of one value; none if n is not above 0. */
inline void FormatSink_Fill(FormatSink *sink, char byte, int64_t n)
{
   if (n <= 0) {
      return;
   }
   char *const cursor = sink->cursor;
   const size_t length = std::min(static_cast<size_t>(n), static_cast<size_t>(sink->limit - cursor));
   sink->cursor = cursor + length;
   if (length > 3) {
      memset(cursor, byte, length);
   } else if (length > 0) {
      cursor[0] = byte;
      cursor[length / 2] = byte;
      cursor[length - 1] = byte;
   }
}

/* Announces and puts. */
[[nodiscard]] inline bool FormatSink_Write(FormatSink *sink, std::string_view text)
{
   if (!FormatSink_Announce(sink, text.size())) {
      return false;
   }
   FormatSink_Put(sink, text.data(), text.size());
   return true;
}

#endif
