#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_RESULT_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_RESULT_H

#include <cstddef>

struct DynBuf;

/* Turns a filled buffer into an allocated result: ended by four zero bytes, in *output for the caller to free, its
   length without them in *outLength if asked for. False if the conversion failed, or this does: the buffer is
   freed and nothing is stored. */
[[nodiscard]] bool CodeSetResult_Finish(bool converted, DynBuf *buffer, char **output, size_t *outLength);

#endif
