#ifndef TESSEL_LIB_MISC_CODESETICU_H
#define TESSEL_LIB_MISC_CODESETICU_H

#include "lib/misc/codesetEngine.h"

/* Tells ICU where its data file is, and gives the engine that runs on ICU. Null: there is no ICU in this build, where
   codesetIcuAbsent.cpp stands in. */
[[nodiscard]] const CodeSetEngine *CodeSetIcu_Open(const char *dataFile);

#endif
