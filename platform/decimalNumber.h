#ifndef TESSEL_PLATFORM_DECIMALNUMBER_H
#define TESSEL_PLATFORM_DECIMALNUMBER_H

/* strtod as in the C locale: with a decimal point and no other locale's signs, whatever the locale of the process or of
   the calling thread, which stays as it is. *end and errno as strtod leaves them. Safe to call from several
   threads. */
[[nodiscard]] double DecimalNumber_Parse(const char *text, char **end);

#endif
