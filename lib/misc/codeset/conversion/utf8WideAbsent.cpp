#include "lib/misc/codeset/conversion/utf8.h"

/* Built in the place of utf8Wide.cpp for processors without such registers, where nobody calls it. */
bool CodeSetIsValidUtf8Wide(const unsigned char *text, size_t length)
{
   return CodeSetIsValidUtf8Portable(text, length);
}
