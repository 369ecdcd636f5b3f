#ifndef TESSEL_PLATFORM_DARWIN_COREFOUNDATION_H
#define TESSEL_PLATFORM_DARWIN_COREFOUNDATION_H

/* What this project calls of CoreFoundation, declared as its documentation has it, for builds without Apple's SDK. */

#include <cstdint>

using CFIndex = long;
using Boolean = unsigned char;
using CFStringEncoding = uint32_t;
using CFStringNormalizationForm = CFIndex;
using CFTypeRef = const void *;
using CFAllocatorRef = const struct CFAllocator *;
using CFStringRef = const struct CFString *;
using CFMutableStringRef = struct CFString *;

constexpr CFStringEncoding kCFStringEncodingUTF8 = 0x08000100;
constexpr CFStringNormalizationForm kCFStringNormalizationFormD = 0;
constexpr CFStringNormalizationForm kCFStringNormalizationFormC = 2;

extern "C" {
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *string,
                                      CFStringEncoding encoding);
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maxLength, CFStringRef string);
void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex bufferSize, CFStringEncoding encoding);
void CFRelease(CFTypeRef object);
}

#endif
