#include "lib/misc/codeset/conversion/utf8Wide.h"

bool CodeSetHasWideSteps()
{
   return false;
}

bool CodeSetIsValidUtf8Wide(const unsigned char * /*text*/, size_t /*length*/)
{
   return false;
}
