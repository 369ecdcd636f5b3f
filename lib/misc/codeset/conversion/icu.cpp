#include "lib/misc/codeset/conversion/icu.h"

#include "lib/misc/codeset/codeset.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/public/program.h"

#include <array>
#include <memory>
#include <unicode/putil.h>
#include <unicode/ucnv.h>

namespace {

constexpr const char *MODULE = "lib/misc/codeset";

/* Characters between the two encodings are held here, in UTF-16, on their way. */
constexpr size_t PIVOT_UNITS = 1024;

struct CodeSetIcuCloseConverter {
   void operator()(UConverter *converter) const
   {
      ucnv_close(converter);
   }
};

using CodeSetIcuConverter = std::unique_ptr<UConverter, CodeSetIcuCloseConverter>;

CodeSetIcuConverter CodeSetIcuOpen(const char *name)
{
   UErrorCode status = U_ZERO_ERROR;
   CodeSetIcuConverter converter(ucnv_open(name, &status));
   if (status > U_ZERO_ERROR) {
      converter.reset();
   }
   return converter;
}

/* Later ICUs than 4.4 leave characters that are usually invisible out, where the mode wants them refused or substituted like
   any other. Stopping leaves the status as it was found; the substitute is written for what counts as
   illegal. */

void CodeSetIcuRefuse(const void *context, UConverterFromUnicodeArgs *args, const UChar *codeUnits,
                      int32_t length, int32_t codePoint, UConverterCallbackReason reason, UErrorCode *status)
{
   const UErrorCode found = *status;
   UCNV_FROM_U_CALLBACK_STOP(context, args, codeUnits, length, codePoint, reason, status);
   *status = found;
}

void CodeSetIcuSubstitute(const void *context, UConverterFromUnicodeArgs *args, const UChar *codeUnits,
                          int32_t length, int32_t codePoint, UConverterCallbackReason reason,
                          UErrorCode *status)
{
   UCNV_FROM_U_CALLBACK_SUBSTITUTE(context, args, codeUnits, length, codePoint,
                                   reason == UCNV_UNASSIGNED ? UCNV_ILLEGAL : reason, status);
}

struct CodeSetIcuCallbacks {
   UConverterToUCallback toUnicode;
   UConverterFromUCallback fromUnicode;
};

/* In the order of the conversion modes. */
constexpr std::array<CodeSetIcuCallbacks, 3> CALLBACKS = {{
    {UCNV_TO_U_CALLBACK_STOP, CodeSetIcuRefuse},
    {UCNV_TO_U_CALLBACK_SUBSTITUTE, CodeSetIcuSubstitute},
    {UCNV_TO_U_CALLBACK_SKIP, UCNV_FROM_U_CALLBACK_SKIP},
}};

/* Without a context, so that substitution and skipping act on illegal, irregular and unassigned input alike. */
bool CodeSetIcuInstallToUnicode(UConverter *converter, UConverterToUCallback callback)
{
   UErrorCode status = U_ZERO_ERROR;
   ucnv_setToUCallBack(converter, callback, nullptr, nullptr, nullptr, &status);
   return status <= U_ZERO_ERROR;
}

bool CodeSetIcuInstallFromUnicode(UConverter *converter, UConverterFromUCallback callback)
{
   UErrorCode status = U_ZERO_ERROR;
   ucnv_setFromUCallBack(converter, callback, nullptr, nullptr, nullptr, &status);
   return status <= U_ZERO_ERROR;
}

/* Positions are kept over an overflow: the converters, the pivot and the source go on from where the output ended. */
bool CodeSetIcuRun(UConverter *source, UConverter *target, const char *input, size_t length, DynBuf *output)
{
   std::array<UChar, PIVOT_UNITS> pivot;
   UChar *pivotSource = pivot.data();
   UChar *pivotTarget = pivot.data();
   const char *const inputEnd = input + length;
   size_t written = 0;
   while (true) {
      char *next = output->data + written;
      UErrorCode status = U_ZERO_ERROR;
      ucnv_convertEx(target, source, &next, output->data + output->allocated, &input, inputEnd, pivot.data(),
                     &pivotSource, &pivotTarget, pivot.data() + pivot.size(), false, true, &status);
      written = static_cast<size_t>(next - output->data);
      if (status <= U_ZERO_ERROR) {
         output->size = written;
         return true;
      }
      if (status != U_BUFFER_OVERFLOW_ERROR || output->allocated > SIZE_MAX / 2 ||
          !DynBuf_Enlarge(output, output->allocated * 2)) {
         return false;
      }
   }
}

bool CodeSetIcuConvert(const char *sourceName, const void *input, size_t length, const char *targetName,
                       uint32_t mode, DynBuf *output)
{
   constexpr size_t slack = 4;
   const CodeSetIcuConverter source = CodeSetIcuOpen(sourceName);
   const CodeSetIcuConverter target = CodeSetIcuOpen(targetName);
   if (source == nullptr || target == nullptr) {
      return false;
   }
   if (mode >= CALLBACKS.size()) {
      Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
   }
   if (!CodeSetIcuInstallToUnicode(source.get(), CALLBACKS[mode].toUnicode) ||
       !CodeSetIcuInstallFromUnicode(target.get(), CALLBACKS[mode].fromUnicode)) {
      return false;
   }
   if (length > SIZE_MAX - slack || !DynBuf_Enlarge(output, length + slack)) {
      return false;
   }
   return CodeSetIcuRun(source.get(), target.get(), static_cast<const char *>(input), length, output);
}

bool CodeSetIcuValidate(const char *buffer, size_t length, const char *encodingName)
{
   const CodeSetIcuConverter converter = CodeSetIcuOpen(encodingName);
   if (converter == nullptr) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   if (!CodeSetIcuInstallToUnicode(converter.get(), UCNV_TO_U_CALLBACK_STOP)) {
      Panic("VERIFY %s:%d\n", MODULE, __LINE__);
   }
   UErrorCode status = U_ZERO_ERROR;
   ucnv_toUChars(converter.get(), nullptr, 0, buffer, static_cast<int32_t>(length), &status);

   /* A complete count without a destination ends in an overflow; anything else stopped before. */
   return status == U_BUFFER_OVERFLOW_ERROR;
}

bool CodeSetIcuIsEncodingSupported(const char *name)
{
   return CodeSetIcuOpen(name) != nullptr;
}

constexpr CodeSetEngine ICU_ENGINE = {.convert = CodeSetIcuConvert,
                                      .validate = CodeSetIcuValidate,
                                      .isEncodingSupported = CodeSetIcuIsEncodingSupported};

} // namespace

const CodeSetEngine *CodeSetIcu_Open(const char *dataFile)
{
   u_setDataDirectory(dataFile);
   return &ICU_ENGINE;
}
