#include "lib/unicode/data/encodingNames.h"

const std::array<EncodingRow, ENCODING_ROWS> UNICODE_ENCODINGS = {{
#include "lib/unicode/data/encodingNames.inc"
}};
