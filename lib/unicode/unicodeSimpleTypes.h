#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLETYPES_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLETYPES_H

#include <cstdint>

/* Encodings by number and by name. The one header that looks both ways: the codeset layer below converts by the names of
   this table and is asked here for the name of the current encoding. So that it stays the only one, nothing
   but these declarations stands here, and the codeset layer includes it in one place (conversion/builtin.h).

   All routines may be called on any thread at any time unless they say otherwise. */

/* An encoding: 0 to 323, or one of the two special values below. */
using EncodingId = int32_t;

/* A name that matched nothing, or an encoding that is known but not usable. */
constexpr EncodingId ENCODING_UNKNOWN = -2;

/* The current encoding of the process, resolved on use. */
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

/* How many identifiers there are, the special ones not counted. */
constexpr EncodingId ENCODING_COUNT = 324;

/* The encoding that a name or alias stands for, or ENCODING_UNKNOWN. "windows-" (or "Windows-") and a number are a code
   page; otherwise a name is matched exactly and, if that fails, by its letters and digits without regard to
   case. A name that matches nothing is logged, every time. What a name resolved to is remembered, without
   regard to case, so that a spelling can be answered with what another spelling found. Safe to call
   concurrently. */
EncodingId UnicodeIANALookup(const char *name);

/* Forgets what lookups remembered. Not to be called while lookups run. */
void UnicodeIANACacheFree();

/* The preferred name of an encoding: a constant. An identifier that stands for no encoding ends the process. */
const char *Unicode_EncodingEnumToName(EncodingId encoding);

/* The encoding itself, or the current one for ENCODING_DEFAULT. */
EncodingId Unicode_ResolveEncoding(EncodingId encoding);

/* The current encoding; looked up once for the process, or anew every time. */
EncodingId Unicode_GetCurrentEncoding();
EncodingId Unicode_GetCurrentEncodingUncached();

/* Whether this is an encoding proper; the special values are not. */
bool Unicode_IsEncodingValid(EncodingId encoding);

#endif
