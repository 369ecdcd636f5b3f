#include "platform/normalization.h"

/* Built in the place of normalization.cpp where there is no ICU. */
char *Normalization_Normalize(const char * /*string*/, NormalizationForm /*form*/)
{
   return nullptr;
}
