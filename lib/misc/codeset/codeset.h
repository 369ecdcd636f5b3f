#ifndef TESSEL_LIB_MISC_CODESET_CODESET_H
#define TESSEL_LIB_MISC_CODESET_CODESET_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct DynBuf;

/* Conversion between character encodings.

   Two engines: ICU, once CodeSet_Init has found its data file, and until then (and in the daemon always) a
   built-in one for UTF-8, UTF-16LE, UTF-16BE, US-ASCII and ISO-8859-1. Unless a routine says otherwise:

   - failure is false; nothing is logged, no result is handed back, and an out-pointer is untouched;
   - a null input counts as an empty one, and an empty input converts to an empty result;
   - an allocated result is a malloc block that the caller frees; four zero bytes follow the converted ones,
   so that it is terminated in any encoding; the length reported (if asked for) is in bytes, without those
   four;
   - input is read to its length and never beyond, and need not be aligned;
   - conversions share no state and may run concurrently once initialisation is over; none of them blocks. */

/* What a conversion does with input it cannot convert. */
constexpr uint32_t CODESET_REFUSE = 0;
constexpr uint32_t CODESET_SUBSTITUTE = 1;
constexpr uint32_t CODESET_SKIP = 2;

/* Initialises the text layer, once for the process: the first caller runs CodeSet_Init with the data directory
   (null: the program's resolver says where it is), later ones find that done. Concurrent callers wait for the
   first, in naps of a quarter of a second. The forms without a directory pass null; the arguments and the
   environment are not looked at. */
void Unicode_Init(const char *dataDirectory);
void Unicode_Init();
void Unicode_InitDefault();
void Unicode_Init(int argc, char **argv, char **environment, const char *dataDirectory);

/* Looks for ICU's data file "icudt44l.dat" in dataDirectory or, for null, in the folder that the program's resolver
   gives for "icuDir"; turns the ICU engine on if it is there and off if not. Always true. Not to be called
   while conversions run. */
bool CodeSet_Init(const char *dataDirectory);

/* Turns the ICU engine off. Not to be called while conversions run. */
void CodeSet_DontUseIcu();

/* The name of the encoding of file names, arguments and environment: always "UTF-8", a constant. */
const char *CodeSet_GetCurrentCodeSet();

/* Converts between two encodings given by name. ICU writes from the start of output, whatever it held, and sets its
   size; the built-in engine appends: so pass an empty buffer. No terminator is added. After a failure on ICU
   output may hold converted bytes. A mode above CODESET_SKIP ends the process on ICU; the built-in engine
   substitutes if bit 0 is set and skips if not.

   The built-in engine converts UTF-8 to UTF-16LE only, and UTF-16LE, UTF-16BE, US-ASCII and ISO-8859-1 to
   UTF-8 only. Equal encodings are copied, and validated first if they are UTF-8, UTF-16LE, UTF-16BE or
   US-ASCII. Two names that are both unknown (or not usable) count as equal; each lookup of an unknown one is
   logged. */
[[nodiscard]] bool CodeSet_ConvertToBuffer(const char *sourceName, const void *input, size_t length,
                                           const char *targetName, uint32_t mode, DynBuf *output);

/* The same into an allocated result. */
[[nodiscard]] bool CodeSet_Convert(const char *sourceName, const void *input, size_t length,
                                   const char *targetName, uint32_t mode, char **output, size_t *outLength);

/* The pairs in daily use, refusing what cannot be converted. Lengths are in bytes. The first fills a buffer as
   CodeSet_ConvertToBuffer does, the others allocate. */
[[nodiscard]] bool CodeSet_Utf16leToUtf8Buffer(const char *input, size_t length, DynBuf *output);
[[nodiscard]] bool CodeSet_Utf16leToUtf8(const char *input, size_t length, char **output, size_t *outLength);
[[nodiscard]] bool CodeSet_Utf8ToUtf16le(const char *input, size_t length, char **output, size_t *outLength);
[[nodiscard]] bool CodeSet_CurrentToUtf16le(const char *input, size_t length, char **output,
                                            size_t *outLength);
[[nodiscard]] bool CodeSet_Utf16leToCurrent(const char *input, size_t length, char **output,
                                            size_t *outLength);
[[nodiscard]] bool CodeSet_Utf16beToCurrent(const char *input, size_t length, char **output,
                                            size_t *outLength);

/* Copies, as the current encoding is UTF-8; nothing is validated, and the copy ends in one zero byte, not four. A
   length of SIZE_MAX fails. */
[[nodiscard]] bool CodeSet_CurrentToUtf8(const char *input, size_t length, char **output, size_t *outLength);
[[nodiscard]] bool CodeSet_Utf8ToCurrent(const char *input, size_t length, char **output, size_t *outLength);

/* Normalisation form C (composed) and form D (decomposed) by the platform, on either engine. The input is read as a
   zero-terminated string whatever the length says: it must be terminated, and an embedded zero ends it. Fails
   on invalid UTF-8, and where the platform cannot normalise. */
[[nodiscard]] bool CodeSet_Utf8FormC(const char *input, size_t length, char **output, size_t *outLength);
[[nodiscard]] bool CodeSet_Utf8FormD(const char *input, size_t length, char **output, size_t *outLength);

/* Whether the bytes are valid in the named encoding; empty is valid. On ICU an encoding that cannot be opened ends the
   process, and input that decodes to nothing (a lone byte-order mark) counts as invalid. A length of 2^31 or
   more ends the process. */
[[nodiscard]] bool CodeSet_Validate(const char *buffer, size_t length, const char *encodingName);

/* Whether the engine in use knows the name. It is not said that it can convert: the built-in one knows all names of
   usable encodings, and converts few of them. */
[[nodiscard]] bool CodeSet_IsEncodingSupported(const char *name);

/* Valid UTF-8 as The Unicode Standard, chapter 3, table 3-7 has it: no surrogates, no overlong forms, nothing above
   U+10FFFF. Empty is valid. The first form takes a zero-terminated string; in the second a zero byte is a
   character like any other; the third refuses it. */
[[nodiscard]] bool CodeSet_IsValidUtf8(const char *string);
[[nodiscard]] bool CodeSet_IsValidUtf8Buffer(const void *buffer, size_t length);
[[nodiscard]] bool CodeSet_IsValidUtf8NoNul(const void *buffer, size_t length);

/* The length in bytes (1 to 4) of the sequence at string, which must end at or before end; 0 if there is no well-formed
   one. Its value goes to *codePoint, if asked for. Looser than the validation: surrogates pass, and so do the
   values U+110000 to U+13FFFF, so callers that must refuse them look for themselves. */
[[nodiscard]] int CodeSet_GetUtf8(const char *string, const char *end, uint32_t *codePoint);

/* By the same rules, in a zero-terminated string: the number of code points, or -1 for an invalid sequence; and the
   byte offset of the code point with the given index, or -1 for an invalid sequence before it or a string
   that ends before it (an index equal to the number of code points gives the offset of the end). */
[[nodiscard]] ssize_t CodeSet_LengthInCodePoints(const char *string);
[[nodiscard]] ssize_t CodeSet_CodePointOffsetToByteOffset(const char *string, ssize_t codePointOffset);

/* Zero-terminated UTF-8 to a zero-terminated array of code points in native byte order, and back. Null gives null and
   true; otherwise the caller frees *output. On failure *output is null. The way in takes what CodeSet_GetUtf8
   takes; the way back refuses values above 0x10FFFF, encodes surrogates like any value, and ends the result
   in one zero byte. Running out of memory ends the process. */
[[nodiscard]] bool CodeSet_Utf8ToUtf32(const char *string, uint32_t **output);
[[nodiscard]] bool CodeSet_Utf32ToUtf8(const uint32_t *string, char **output);

#endif
