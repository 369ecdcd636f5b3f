#include "lib/misc/codesetIcu.h"

bool CodeSetIcu_SetDataFile(const char * /*path*/)
{
   return false;
}

bool CodeSetIcu_Convert(const char * /*sourceName*/, const void * /*input*/, size_t /*length*/,
                        const char * /*targetName*/, uint32_t /*mode*/, DynBuf * /*output*/)
{
   return false;
}

bool CodeSetIcu_Validate(const char * /*buffer*/, size_t /*length*/, const char * /*encodingName*/)
{
   return false;
}

bool CodeSetIcu_IsEncodingSupported(const char * /*name*/)
{
   return false;
}
