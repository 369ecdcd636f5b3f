#ifndef TESSEL_LIB_STRING_STR_H
#define TESSEL_LIB_STRING_STR_H

#include "lib/public/program.h"

#include <cstdarg>
#include <cstddef>

int Str_Sprintf(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);
int Str_Snprintf(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);
int Str_Vsnprintf(char *buffer, size_t maxSize, const char *format, va_list args) FORMAT_ARGUMENTS(3, 0);
int Str_SprintfCLocale(char *buffer, size_t maxSize, const char *format, ...) FORMAT_ARGUMENTS(3, 4);

[[nodiscard]] char *Str_Asprintf(size_t *length, const char *format, ...) FORMAT_ARGUMENTS(2, 3);
[[nodiscard]] char *Str_Vasprintf(size_t *length, const char *format, va_list args) FORMAT_ARGUMENTS(2, 0);
[[nodiscard]] char *Str_SafeAsprintf(size_t *length, const char *format, ...) FORMAT_ARGUMENTS(2, 3);
[[nodiscard]] char *Str_SafeVasprintf(size_t *length, const char *format, va_list args)
    FORMAT_ARGUMENTS(2, 0);

char *Str_Strcpy(char *destination, const char *source, size_t maxSize);
char *Str_Strncpy(char *destination, size_t destinationSize, const char *source, size_t n);
size_t Str_Strlen(const char *string, size_t maxLength);
char *Str_Strnstr(const char *string, const char *substring, size_t n);
char *Str_Strcat(char *buffer, const char *source, size_t maxSize);
char *Str_Strncat(char *buffer, size_t bufferSize, const char *source, size_t n);
char *Str_ToLower(char *string);
char *Str_ToUpper(char *string);

#endif
