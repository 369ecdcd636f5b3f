#ifndef TESSEL_LIB_PUBLIC_PROGRAM_H
#define TESSEL_LIB_PUBLIC_PROGRAM_H

/* What the foundation library expects of the program that links it. The library declares these routines and
   calls them; the program defines them (this one in daemon/serviceLog.cpp and location/location.cpp).

   The reporting ones keep errno: the library reports a failed call, and its caller still reads from errno why
   it failed. A definition that calls anything puts errno back before it returns. */

/* Lets the compiler check format against the arguments that follow it. */
#define FORMAT_ARGUMENTS(formatIndex, firstIndex) __attribute__((format(printf, formatIndex, firstIndex)))

/* Writes one message to the program's log. The text carries its own line end. By convention the first argument
   is the name of the routine that reports. */
void Log(const char *format, ...) FORMAT_ARGUMENTS(1, 2);

/* As Log, for what should not have happened but is survived. */
void Warning(const char *format, ...) FORMAT_ARGUMENTS(1, 2);

/* As Log, then ends the process with exit status 1 through exit(), so that exit handlers run. */
[[noreturn]] void Panic(const char *format, ...) FORMAT_ARGUMENTS(1, 2);

/* Turns a location key such as "icuDir" into a full path: a new string that the caller frees, or null. */
using LocationLookup = char *(*)(const char *key);

/* The program's resolver of location keys; null in a program that has none. */
LocationLookup Location_GetLookup();

#endif
