#include "platform/normalization.h"

#include "base/owned.h"

#include <cstring>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

namespace {

using NormalizationUnits = Owned<UChar>;

NormalizationUnits NormalizationAllocUnits(int32_t count)
{
   return NormalizationUnits(static_cast<UChar *>(malloc((static_cast<size_t>(count) + 1) * sizeof(UChar))));
}

const UNormalizer2 *NormalizationInstance(NormalizationForm form, UErrorCode *status)
{
   return form == NormalizationForm::Composed ? unorm2_getNFCInstance(status) : unorm2_getNFDInstance(status);
}

/* UTF-8 never has fewer bytes than UTF-16 has units. */
NormalizationUnits NormalizationFromUtf8(const char *string, int32_t length, int32_t *count)
{
   UErrorCode status = U_ZERO_ERROR;
   NormalizationUnits units = NormalizationAllocUnits(length);
   if (units != nullptr) {
      u_strFromUTF8(units.get(), length + 1, count, string, length, &status);
   }
   return U_SUCCESS(status) ? std::move(units) : nullptr;
}

NormalizationUnits NormalizationOfUnits(const UChar *units, int32_t count, NormalizationForm form,
                                        int32_t *normalizedCount)
{
   UErrorCode status = U_ZERO_ERROR;
   const UNormalizer2 *normalizer = NormalizationInstance(form, &status);
   *normalizedCount = unorm2_normalize(normalizer, units, count, nullptr, 0, &status);
   if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
      return nullptr;
   }
   NormalizationUnits normalized = NormalizationAllocUnits(*normalizedCount);
   status = U_ZERO_ERROR;
   if (normalized != nullptr) {
      unorm2_normalize(normalizer, units, count, normalized.get(), *normalizedCount + 1, &status);
   }
   return U_SUCCESS(status) ? std::move(normalized) : nullptr;
}

char *NormalizationToUtf8(const UChar *units, int32_t count)
{
   constexpr size_t maxBytesPerUnit = 3;
   const size_t capacity = static_cast<size_t>(count) * maxBytesPerUnit + 1;
   Owned<char> string(static_cast<char *>(malloc(capacity)));
   UErrorCode status = U_ZERO_ERROR;
   if (string == nullptr || capacity > INT32_MAX) {
      return nullptr;
   }
   u_strToUTF8(string.get(), static_cast<int32_t>(capacity), nullptr, units, count, &status);
   return U_SUCCESS(status) ? string.release() : nullptr;
}

} // namespace

char *Normalization_Normalize(const char *string, NormalizationForm form)
{
   const size_t length = strlen(string);
   if (length >= INT32_MAX) {
      return nullptr;
   }
   int32_t count = 0;
   const NormalizationUnits units = NormalizationFromUtf8(string, static_cast<int32_t>(length), &count);
   if (units == nullptr) {
      return nullptr;
   }
   int32_t normalizedCount = 0;
   const NormalizationUnits normalized = NormalizationOfUnits(units.get(), count, form, &normalizedCount);
   return normalized == nullptr ? nullptr : NormalizationToUtf8(normalized.get(), normalizedCount);
}
