#ifndef TESSEL_PLATFORM_DARWIN_PUTIL_H
#define TESSEL_PLATFORM_DARWIN_PUTIL_H

#include <unicode/icuNames.h>

#define u_setDataDirectory TESSEL_ICU(u_setDataDirectory)

extern "C" void u_setDataDirectory(const char *directory);

#endif
