#ifndef TESSEL_LIB_MISC_CODESETICU_H
#define TESSEL_LIB_MISC_CODESETICU_H

#include <cstddef>
#include <cstdint>

struct DynBuf;

/* The ICU conversion engine. In a build without ICU its place is taken by codesetIcuAbsent.cpp, where SetDataFile
   fails, so that the engine is never turned on. */

/* Tells ICU where its data file is. False: there is no ICU to tell. */
[[nodiscard]] bool CodeSetIcu_SetDataFile(const char *path);

/* As CodeSet_ConvertToBuffer, CodeSet_Validate and CodeSet_IsEncodingSupported on ICU. */
[[nodiscard]] bool CodeSetIcu_Convert(const char *sourceName, const void *input, size_t length,
                                      const char *targetName, uint32_t mode, DynBuf *output);
[[nodiscard]] bool CodeSetIcu_Validate(const char *buffer, size_t length, const char *encodingName);
[[nodiscard]] bool CodeSetIcu_IsEncodingSupported(const char *name);

#endif
