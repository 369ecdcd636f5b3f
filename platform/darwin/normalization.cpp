#include "platform/normalization.h"

#include <CoreFoundation/CoreFoundation.h>
#include <cstdlib>
#include <memory>
#include <type_traits>

namespace {

struct Release {
   void operator()(const void *object) const
   {
      CFRelease(object);
   }
};

CFStringNormalizationForm FormConstant(NormalizationForm form)
{
   return form == NormalizationForm::Composed ? kCFStringNormalizationFormC : kCFStringNormalizationFormD;
}

char *FetchUtf8(CFStringRef string)
{
   const CFIndex size =
       CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
   auto *text = size > 0 ? static_cast<char *>(malloc(static_cast<size_t>(size))) : nullptr;
   if (text != nullptr && !CFStringGetCString(string, text, size, kCFStringEncodingUTF8)) {
      free(text);
      return nullptr;
   }
   return text;
}

} // namespace

char *Normalization_Normalize(const char *string, NormalizationForm form)
{
   const std::unique_ptr<std::remove_pointer_t<CFStringRef>, Release> original(
       CFStringCreateWithCString(nullptr, string, kCFStringEncodingUTF8));
   if (original == nullptr) {
      return nullptr;
   }
   const std::unique_ptr<std::remove_pointer_t<CFMutableStringRef>, Release> copy(
       CFStringCreateMutableCopy(nullptr, 0, original.get()));
   if (copy == nullptr) {
      return nullptr;
   }
   CFStringNormalize(copy.get(), FormConstant(form));
   return FetchUtf8(copy.get());
}
