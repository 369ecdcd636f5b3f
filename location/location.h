#ifndef TESSEL_LOCATION_LOCATION_H
#define TESSEL_LOCATION_LOCATION_H

#include "lib/public/program.h"

void Location_Init(const char *processTag);
const char *Location_GetRelative(const char *key);
[[nodiscard]] char *Location_Get(const char *key);
const char *Location_GetLastUsedFile();

#endif
