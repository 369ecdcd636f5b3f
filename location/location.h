#ifndef TESSEL_LOCATION_LOCATION_H
#define TESSEL_LOCATION_LOCATION_H

#include "lib/public/program.h"

/* Where the product's files are. A key such as "serviceScriptFile" names a path relative to the product root, an
   application bundle; the root is found from the place of the running executable, if it is a known program of
   the product.

   Nothing here locks: Location_Init comes first thing in a program, before any lookup. Location_GetLookup of
   lib/public/program.h, defined here, gives Location_Get. */

/* Says which program of the product is running. A second call, or an unknown tag, is reported but takes effect:
   without a known tag the root comes from the environment or the last-used file. */
void Location_Init(const char *processTag);

/* The path of the key relative to the product root, from a constant table, or null for an unknown key. */
const char *Location_GetRelative(const char *key);

/* The full path of the key, whether it exists or not, as a new string that the caller frees. Null for an unknown
   key, in silence, or if there is no root, which is reported. A process whose effective user is not the real
   one never takes the root from the environment or the last-used file. */
[[nodiscard]] char *Location_Get(const char *key);

/* The path of the last-used file, a constant, or null if none is configured. */
const char *Location_GetLastUsedFile();

#endif
