#ifndef TESSEL_LIB_STRING_FORMATFLOAT_H
#define TESSEL_LIB_STRING_FORMATFLOAT_H

#include "lib/string/formatDirective.h"
#include "lib/string/formatLocale.h"
#include "lib/string/formatSink.h"

/* Private to the formatting engine: the conversions e, f, g and their capital forms. The directive is the routine's
   to change. False also if memory runs out for the digits. */
[[nodiscard]] bool Float_Put(FormatSink *sink, Directive *directive, double value, FormatLocale *locale);

#endif
