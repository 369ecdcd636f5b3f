#ifndef TESSEL_LIB_STRING_FORMAT_FIELD_H
#define TESSEL_LIB_STRING_FORMAT_FIELD_H

#include "lib/string/format/directive.h"
#include "lib/string/format/sink.h"

#include <algorithm>
#include <string_view>

/* Private to the formatting engine: one field of the output.

   In order: blanks, the sign, the hexadecimal prefix, zeros up to the width, zeros up to minDigits, the body,
   blanks. putBody(sink) puts exactly bodyLength bytes. False if the sink refuses the field: then none of it
   is put. */
template <typename PutBody>
[[nodiscard]] bool FormatField_Put(FormatSink *sink, const FormatDirective &directive, int64_t bodyLength,
                                   int64_t minDigits, PutBody putBody)
{
   const int64_t real = std::max(minDigits, bodyLength) + (directive.sign != '\0' ? 1 : 0) +
                        (directive.prefix != '\0' ? 2 : 0);
   const int64_t padding = directive.width - real;

   if (!FormatSink_Announce(sink, static_cast<uint64_t>(std::max(directive.width, real)))) {
      return false;
   }
   int64_t zeros = minDigits - bodyLength;
   if (padding > 0 && (directive.flags & LADJUST) == 0) {
      if ((directive.flags & ZEROPAD) == 0) {
         FormatSink_Fill(sink, ' ', padding);
      } else {
         zeros = std::max<int64_t>(zeros, 0) + padding;
      }
   }
   if (directive.sign != '\0') {
      FormatSink_PutByte(sink, directive.sign);
   }
   if (directive.prefix != '\0') {
      FormatSink_PutByte(sink, '0');
      FormatSink_PutByte(sink, directive.prefix);
   }
   FormatSink_Fill(sink, '0', zeros);
   putBody(sink);
   if ((directive.flags & LADJUST) != 0) {
      FormatSink_Fill(sink, ' ', padding);
   }
   return true;
}

[[nodiscard]] inline bool FormatField_PutText(FormatSink *sink, const FormatDirective &directive,
                                              std::string_view text, int64_t minDigits = 0)
{
   if (directive.width == 0 && minDigits <= 0 && directive.sign == '\0' && directive.prefix == '\0') {
      return FormatSink_Write(sink, text);
   }
   return FormatField_Put(sink, directive, static_cast<int64_t>(text.size()), minDigits,
                          [text](FormatSink *to) { FormatSink_Put(to, text.data(), text.size()); });
}

#endif
