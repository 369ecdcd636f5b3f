/* Apart from the other conversions: a program that does not normalise is linked without what the system needs for
   it. */

#include "lib/misc/codeset/codeset.h"
#include "lib/misc/codeset/conversion/result.h"
#include "lib/misc/memory/dynbuf.h"
#include "platform/normalization.h"

#include <cstring>

namespace {

bool CodeSetNormalize(const char *input, NormalizationForm form, char **output, size_t *outLength)
{
   OwnedDynBuf buffer;
   if (input != nullptr) {
      char *normalized = Normalization_Normalize(input, form);
      if (normalized == nullptr) {
         return false;
      }
      DynBuf_Attach(&buffer, strlen(normalized), normalized);
   }
   return CodeSetResult_Finish(true, &buffer, output, outLength);
}

} // namespace

bool CodeSet_Utf8FormC(const char *input, size_t /*length*/, char **output, size_t *outLength)
{
   return CodeSetNormalize(input, NormalizationForm::Composed, output, outLength);
}

bool CodeSet_Utf8FormD(const char *input, size_t /*length*/, char **output, size_t *outLength)
{
   return CodeSetNormalize(input, NormalizationForm::Decomposed, output, outLength);
}
