#include "lib/misc/codeset/codeset.h"

#include "lib/misc/codeset/conversion/builtin.h"
#include "lib/misc/codeset/conversion/engine.h"
#include "lib/misc/codeset/conversion/result.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/public/program.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/misc/codeset";

constexpr const char *UTF8 = "UTF-8";
constexpr const char *UTF16LE = "UTF-16LE";
constexpr const char *UTF16BE = "UTF-16BE";

using CodeSetBuiltinConversion = bool (*)(const void *input, size_t length, DynBuf *output);

/* One of the fixed pairs: by name on ICU, by its own routine without. */
bool CodeSetConvertPair(const char *sourceName, const char *input, size_t length, const char *targetName,
                        CodeSetBuiltinConversion builtin, DynBuf *output)
{
   if (input == nullptr || length == 0) {
      return true;
   }
   const CodeSetEngine *engine = CodeSetEngine_Get();
   return engine != nullptr ? engine->convert(sourceName, input, length, targetName, CODESET_REFUSE, output)
                            : builtin(input, length, output);
}

bool CodeSetAllocPair(const char *sourceName, const char *input, size_t length, const char *targetName,
                      CodeSetBuiltinConversion builtin, char **output, size_t *outLength)
{
   OwnedDynBuf buffer;
   const bool converted = CodeSetConvertPair(sourceName, input, length, targetName, builtin, &buffer);
   return CodeSetResult_Finish(converted, &buffer, output, outLength);
}

bool CodeSetCopyTerminated(const char *input, size_t length, char **output, size_t *outLength)
{
   if (input == nullptr) {
      length = 0;
   }
   if (length == SIZE_MAX) {
      return false;
   }
   auto *copy = static_cast<char *>(malloc(length + 1));
   if (copy == nullptr) {
      return false;
   }
   if (length != 0) {
      memcpy(copy, input, length);
   }
   copy[length] = '\0';
   *output = copy;
   if (outLength != nullptr) {
      *outLength = length;
   }
   return true;
}

} // namespace

const char *CodeSet_GetCurrentCodeSet()
{
   return UTF8;
}

bool CodeSet_ConvertToBuffer(const char *sourceName, const void *input, size_t length, const char *targetName,
                             uint32_t mode, DynBuf *output)
{
   if (const CodeSetEngine *engine = CodeSetEngine_Get(); engine != nullptr) {
      return input == nullptr || length == 0 ||
             engine->convert(sourceName, input, length, targetName, mode, output);
   }
   const EncodingId source = UnicodeIANALookup(sourceName);
   const EncodingId target = UnicodeIANALookup(targetName);
   return CodeSetBuiltin_Convert(source, input, length, target, Unicode_GetCurrentEncoding(), mode, output);
}

bool CodeSet_Convert(const char *sourceName, const void *input, size_t length, const char *targetName,
                     uint32_t mode, char **output, size_t *outLength)
{
   OwnedDynBuf buffer;
   const bool converted = CodeSet_ConvertToBuffer(sourceName, input, length, targetName, mode, &buffer);
   return CodeSetResult_Finish(converted, &buffer, output, outLength);
}

bool CodeSet_Utf16leToUtf8Buffer(const char *input, size_t length, DynBuf *output)
{
   return CodeSetConvertPair(UTF16LE, input, length, UTF8, CodeSetBuiltin_Utf16leToUtf8, output);
}

bool CodeSet_Utf16leToUtf8(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetAllocPair(UTF16LE, input, length, UTF8, CodeSetBuiltin_Utf16leToUtf8, output, outLength);
}

bool CodeSet_Utf8ToUtf16le(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetAllocPair(UTF8, input, length, UTF16LE, CodeSetBuiltin_Utf8ToUtf16le, output, outLength);
}

bool CodeSet_CurrentToUtf16le(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetAllocPair(CodeSet_GetCurrentCodeSet(), input, length, UTF16LE, CodeSetBuiltin_Utf8ToUtf16le,
                           output, outLength);
}

bool CodeSet_Utf16leToCurrent(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetAllocPair(UTF16LE, input, length, CodeSet_GetCurrentCodeSet(), CodeSetBuiltin_Utf16leToUtf8,
                           output, outLength);
}

bool CodeSet_Utf16beToCurrent(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetAllocPair(UTF16BE, input, length, CodeSet_GetCurrentCodeSet(), CodeSetBuiltin_Utf16beToUtf8,
                           output, outLength);
}

bool CodeSet_CurrentToUtf8(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetCopyTerminated(input, length, output, outLength);
}

bool CodeSet_Utf8ToCurrent(const char *input, size_t length, char **output, size_t *outLength)
{
   return CodeSetCopyTerminated(input, length, output, outLength);
}

bool CodeSet_Validate(const char *buffer, size_t length, const char *encodingName)
{
   if (length > INT32_MAX) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   if (length == 0) {
      return true;
   }
   if (const CodeSetEngine *engine = CodeSetEngine_Get(); engine != nullptr) {
      return engine->validate(buffer, length, encodingName);
   }
   OwnedDynBuf scratch;
   return CodeSet_ConvertToBuffer(encodingName, buffer, length, UTF8, CODESET_REFUSE, &scratch);
}

bool CodeSet_IsEncodingSupported(const char *name)
{
   const CodeSetEngine *engine = CodeSetEngine_Get();
   return engine != nullptr ? engine->isEncodingSupported(name) : UnicodeIANALookup(name) != ENCODING_UNKNOWN;
}
