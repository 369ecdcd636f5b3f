#include "lib/unicode/data/encodingNames.h"

const std::array<EncodingRow, ENCODING_ROWS> encodingRows = {{
#include "lib/unicode/data/encodingNames.inc"
}};
