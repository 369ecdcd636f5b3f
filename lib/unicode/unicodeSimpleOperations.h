#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLEOPERATIONS_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLEOPERATIONS_H

#include <sys/types.h>

/* Operations on zero-terminated UTF-8 strings in which positions and lengths count code points. A negative length, or one
   beyond the end, means up to the end; a start that is negative or beyond the end counts as the end. Strings
   that are not valid UTF-8 end the process. Every string returned is new and the caller's to free. Any thread
   may call these at any time. */

/* Length code points from start on; null for a null string. */
[[nodiscard]] char *Unicode_Substr(const char *string, ssize_t start, ssize_t length);

/* The position in the whole string of the first (last) occurrence of a range of substring within a range of string, or -1.
   An empty range is found at the start of the range searched, by both. Code points are compared exactly. */
ssize_t Unicode_FindSubstrInRange(const char *string, ssize_t start, ssize_t length, const char *substring,
                                  ssize_t substringStart, ssize_t substringLength);
ssize_t Unicode_FindLastSubstrInRange(const char *string, ssize_t start, ssize_t length,
                                      const char *substring, ssize_t substringStart, ssize_t substringLength);

/* The destination with a range of it replaced by a range of the source. */
[[nodiscard]] char *Unicode_ReplaceRange(const char *destination, ssize_t start, ssize_t length,
                                         const char *source, ssize_t sourceStart, ssize_t sourceLength);

/* A new string: first with the further strings appended in order, up to the null argument that ends the list.
   Null if first is null. The caller frees it. Takes any bytes. */
[[nodiscard]] char *Unicode_Join(const char *first, ...) __attribute__((sentinel));

/* Whether the first range sorts before (-1), with (0) or after (1) the second, in the order of code points. With ignoreCase
   the simple case folding of Unicode 5.0 is compared, for characters below U+10000. A null string gives -1.
 */
int Unicode_CompareRange(const char *string1, ssize_t start1, ssize_t length1, const char *string2,
                         ssize_t start2, ssize_t length2, bool ignoreCase);

#endif
