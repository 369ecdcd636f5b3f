#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_INIT_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_INIT_H

#include "lib/public/program.h"

/* The work of CodeSet_Init, with the program's resolver of location keys as an argument; it may be null. */
void CodeSetInit_FindIcu(const char *dataDirectory, LocationLookup lookup);

#endif
