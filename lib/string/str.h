#ifndef TESSEL_LIB_STRING_STR_H
#define TESSEL_LIB_STRING_STR_H

#include "lib/public/program.h"

#include <cstdarg>
#include <cstddef>

/* Formatting and bounded copying of NUL-terminated UTF-8 strings. The formats are those of
   lib/string/bsd_vsnprintf.h. Running out of room in a buffer is a programming error, which ends the process
   through Panic, except where a routine says otherwise. Sizes are in bytes and include the NUL. errno is
   never changed. */

/* Formats into the buffer; a source must not overlap it. Returns the length, without the NUL. A text that does not
   fit is cut, at the end of a UTF-8 character. Then Sprintf and SprintfCLocale panic, and Snprintf and
   Vsnprintf return -1, as they do for an error of the engine; with maxSize 0 the buffer, which may be null,
   is not touched. SprintfCLocale goes by the C locale, the others by that of the process. */
int Str_Sprintf(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);
int Str_Snprintf(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);
int Str_Vsnprintf(char *buffer, size_t maxSize, const char *format, va_list args) FORMAT_ARGUMENTS(3, 0);
int Str_SprintfCLocale(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);

/* A new string, which the caller frees, and its length, if asked for. On an error of the engine, out of memory
   included, null and no length; the Safe forms panic instead. */
[[nodiscard]] char *Str_Asprintf(size_t *length, const char *format, ...) FORMAT_ARGUMENTS(2, 3);
[[nodiscard]] char *Str_Vasprintf(size_t *length, const char *format, va_list args) FORMAT_ARGUMENTS(2, 0);
[[nodiscard]] char *Str_SafeAsprintf(size_t *length, const char *format, ...) FORMAT_ARGUMENTS(2, 3);
[[nodiscard]] char *Str_SafeVasprintf(size_t *length, const char *format, va_list args)
    FORMAT_ARGUMENTS(2, 0);

/* Copies and appends give the destination back, and panic rather than cut. The n forms take at most n bytes of the
   source, and read no further. */
char *Str_Strcpy(char *destination, const char *source, size_t maxSize);
char *Str_Strncpy(char *destination, size_t destinationSize, const char *source, size_t n);
char *Str_Strcat(char *buffer, const char *source, size_t maxSize);
char *Str_Strncat(char *buffer, size_t bufferSize, const char *source, size_t n);

/* The length, or maxLength if no NUL comes before; no byte from there on is read. */
size_t Str_Strlen(const char *string, size_t maxLength);

/* The first place where substring lies within the first n bytes of string, and before its NUL; else null. The empty
   substring is at the start of any string. */
char *Str_Strnstr(const char *string, const char *substring, size_t n);

/* Change the case of ASCII letters in place, whatever the locale; give the string back. */
char *Str_ToLower(char *string);
char *Str_ToUpper(char *string);

#endif
