#include "lib/misc/codeset/conversion/result.h"

#include "lib/misc/memory/dynbuf.h"

bool CodeSetResult_Finish(bool converted, DynBuf *buffer, char **output, size_t *outLength)
{
   constexpr char terminator[4] = {};
   if (!converted || !DynBuf_Append(buffer, terminator, sizeof terminator) || !DynBuf_Trim(buffer)) {
      return false;
   }
   if (outLength != nullptr) {
      *outLength = buffer->size - sizeof terminator;
   }
   *output = static_cast<char *>(DynBuf_Detach(buffer));
   return true;
}
