#ifndef TESSEL_PLATFORM_PROCESSFACTS_H
#define TESSEL_PLATFORM_PROCESSFACTS_H

#include <cstddef>
#include <cstdint>

/* Copies the path of the running executable, as the system reports it (it may hold links and relative components),
   with its NUL to buffer. False, with the content of buffer undefined, if that needs more than size bytes or
   the path is not known. */
[[nodiscard]] bool ProcessFacts_ExecutablePath(char *buffer, size_t size);

/* Reads an integer that the system publishes under a name into *value. False with errno set and *value
   untouched; ENOENT if the system knows no such value. */
[[nodiscard]] bool ProcessFacts_SystemValue(const char *name, int32_t *value);

#endif
