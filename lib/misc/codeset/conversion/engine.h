#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_ENGINE_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_ENGINE_H

#include <cstddef>
#include <cstdint>

struct DynBuf;

/* A conversion engine beside the built-in one: how CodeSet_ConvertToBuffer, CodeSet_Validate and
   CodeSet_IsEncodingSupported work on it, for input that is not empty. */
struct CodeSetEngine {
   bool (*convert)(const char *sourceName, const void *input, size_t length, const char *targetName,
                   uint32_t mode, DynBuf *output);
   bool (*validate)(const char *buffer, size_t length, const char *encodingName);
   bool (*isEncodingSupported)(const char *name);
};

/* The engine in use, or null: the built-in one. Conversions only know this record, never ICU itself, so that a program
   that does not initialise it is linked without it. */
[[nodiscard]] const CodeSetEngine *CodeSetEngine_Get();
void CodeSetEngine_Set(const CodeSetEngine *engine);

#endif
