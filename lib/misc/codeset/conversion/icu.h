#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_ICU_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_ICU_H

#include "lib/misc/codeset/conversion/engine.h"

/* Tells ICU where its data file is, and gives the engine that runs on ICU. Null: there is no ICU in this build, where
   icuAbsent.cpp stands in. */
[[nodiscard]] const CodeSetEngine *CodeSetIcu_Open(const char *dataFile);

#endif
