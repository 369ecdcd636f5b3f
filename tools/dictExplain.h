#ifndef TESSEL_TOOLS_DICTEXPLAIN_H
#define TESSEL_TOOLS_DICTEXPLAIN_H

/* Prints to stdout which layer of the preferences decides the name, and what each of them says. False: none defines
   it, which is printed too. */
[[nodiscard]] bool DictExplain_Print(const char *name);

#endif
