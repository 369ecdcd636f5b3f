#include "lib/misc/codesetIcu.h"

const CodeSetEngine *CodeSetIcu_Open(const char * /*dataFile*/)
{
   return nullptr;
}
