#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLETYPES_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLETYPES_H

#include <cstdint>

using EncodingId = int32_t;

constexpr EncodingId ENCODING_UNKNOWN = -2;
constexpr EncodingId ENCODING_DEFAULT = -1;
constexpr EncodingId ENCODING_UTF8 = 0;
constexpr EncodingId ENCODING_UTF16_LE = 1;
constexpr EncodingId ENCODING_UTF16_BE = 2;
constexpr EncodingId ENCODING_UTF16 = 3;
constexpr EncodingId ENCODING_UTF32_LE = 4;
constexpr EncodingId ENCODING_UTF32_BE = 5;
constexpr EncodingId ENCODING_UTF32 = 6;
constexpr EncodingId ENCODING_US_ASCII = 7;
constexpr EncodingId ENCODING_ISO_8859_1 = 8;
constexpr EncodingId ENCODING_WINDOWS_1252 = 35;

EncodingId UnicodeIANALookup(const char *name);
const char *Unicode_EncodingEnumToName(EncodingId encoding);
EncodingId Unicode_ResolveEncoding(EncodingId encoding);
EncodingId Unicode_GetCurrentEncoding();
EncodingId Unicode_GetCurrentEncodingUncached();
bool Unicode_IsEncodingValid(EncodingId encoding);
void UnicodeIANACacheFree();

#endif
