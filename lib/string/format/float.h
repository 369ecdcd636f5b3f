#ifndef TESSEL_LIB_STRING_FORMAT_FLOAT_H
#define TESSEL_LIB_STRING_FORMAT_FLOAT_H

#include "lib/string/format/directive.h"
#include "lib/string/format/locale.h"
#include "lib/string/format/sink.h"

/* Private to the formatting engine: the conversions e, f, g and their capital forms. The directive is the routine's
   to change. False also if memory runs out for the digits. */
[[nodiscard]] bool FormatFloat_Put(FormatSink *sink, FormatDirective *directive, double value,
                                   FormatLocale *locale);

#endif
