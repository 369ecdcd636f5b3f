#include "lib/unicode/encodingNames.h"

const std::array<EncodingRow, ENCODING_ROWS> encodingRows = {{
#include "lib/unicode/encodingNames.inc"
}};
