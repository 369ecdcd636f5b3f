#include "lib/public/program.h"

/* The test programs have no product to find, and so no resolver. */
LocationLookup Location_GetLookup()
{
   return nullptr;
}
