#ifndef TESSEL_TOOLS_DICTEXPLAIN_H
#define TESSEL_TOOLS_DICTEXPLAIN_H

#include <cstdint>

/* Prints to stdout which layer of the preferences decides the name, and what each of them says. False: none defines
   it, which is printed too. A file of more than maxBytes, or no regular one, counts as one that cannot be
   read. */
[[nodiscard]] bool DictExplain_Print(const char *name, uint64_t maxBytes);

#endif
