#include "platform/normalization.h"

#include "base/owned.h"

#include <CoreFoundation/CoreFoundation.h>
#include <type_traits>

namespace {

struct NormalizationRelease {
   void operator()(const void *object) const
   {
      CFRelease(object);
   }
};

CFStringNormalizationForm NormalizationFormConstant(NormalizationForm form)
{
   return form == NormalizationForm::Composed ? kCFStringNormalizationFormC : kCFStringNormalizationFormD;
}

char *NormalizationFetchUtf8(CFStringRef string)
{
   const CFIndex size =
       CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
   Owned<char> text(size > 0 ? static_cast<char *>(malloc(static_cast<size_t>(size))) : nullptr);
   const bool fetched =
       text != nullptr && CFStringGetCString(string, text.get(), size, kCFStringEncodingUTF8);
   return fetched ? text.release() : nullptr;
}

} // namespace

char *Normalization_Normalize(const char *string, NormalizationForm form)
{
   const std::unique_ptr<std::remove_pointer_t<CFStringRef>, NormalizationRelease> original(
       CFStringCreateWithCString(nullptr, string, kCFStringEncodingUTF8));
   if (original == nullptr) {
      return nullptr;
   }
   const std::unique_ptr<std::remove_pointer_t<CFMutableStringRef>, NormalizationRelease> copy(
       CFStringCreateMutableCopy(nullptr, 0, original.get()));
   if (copy == nullptr) {
      return nullptr;
   }
   CFStringNormalize(copy.get(), NormalizationFormConstant(form));
   return NormalizationFetchUtf8(copy.get());
}
