#ifndef TESSEL_LIB_UNICODE_DATA_ENCODING_NAMES_H
#define TESSEL_LIB_UNICODE_DATA_ENCODING_NAMES_H

#include "lib/unicode/unicodeSimpleTypes.h"

#include <array>
#include <cstddef>
#include <cstdint>

constexpr size_t ENCODING_ROWS = 325;
constexpr size_t ENCODING_NAME_SLOTS = 21;
constexpr uint32_t NO_CODE_PAGE = 0xFFFFFFFF;

/* One encoding and its names; encodingNames.inc holds the rows. */
struct EncodingRow {
   int32_t mib; /* the IANA MIBenum, or -1 */
   uint32_t windowsCodePage;
   EncodingId encoding;
   bool usable;
   int32_t preferredIndex;                              /* into names */
   std::array<const char *, ENCODING_NAME_SLOTS> names; /* ends with a null pointer */
};

/* In the order in which lookups search: where a name stands in two rows, the first has it. */
extern const std::array<EncodingRow, ENCODING_ROWS> UNICODE_ENCODINGS;

#endif
