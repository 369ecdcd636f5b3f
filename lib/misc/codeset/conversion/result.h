#ifndef TESSEL_LIB_MISC_CODESET_CONVERSION_RESULT_H
#define TESSEL_LIB_MISC_CODESET_CONVERSION_RESULT_H

#include <cstddef>

struct DynBuf;

/* Turns a filled buffer into an allocated result: ended by four zero bytes, in *output for the caller to free, its
   length without them in *outLength if asked for. False if the conversion failed, or this does: nothing is
   stored, and the buffer keeps its block. Either way the buffer is to be destroyed only. */
[[nodiscard]] bool CodeSetResult_Finish(bool converted, DynBuf *buffer, char **output, size_t *outLength);

#endif
