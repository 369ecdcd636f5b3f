#include "lib/misc/codeset/codeset.h"
#include "lib/misc/escape.h"
#include "lib/string/str.h"

#include <cstdio>
#include <cstdlib>

/* What the library expects of its program: where messages go, and where its files are. */

void Log(const char *, ...)
{
}

void Warning(const char *, ...)
{
}

void Panic(const char *, ...)
{
   exit(1);
}

LocationLookup Location_GetLookup()
{
   return nullptr;
}

int main()
{
   size_t length = 0;
   char *text = Str_SafeAsprintf(&length, "%s is %.2f", "it's", 2.0 / 3);
   char *quoted = Escape_ShellQuote(text, length, nullptr);
   const bool right = CodeSet_Init(nullptr) && puts(quoted) > 0;
   free(text);
   free(quoted);
   return right ? 0 : 1;
}
