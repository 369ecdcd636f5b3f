#include "location/locationTables.h"

namespace {

constexpr LocationProcessTag PROCESS_TAGS[] = {
    {"tessel-daemon", 4},
    {"tessel-dict", 3},
    {nullptr, 0},
};

constexpr LocationKey KEYS[] = {
    {"rootDir", ""},
    {"idFile", "/Contents/Library/kestra-id"},
    {"serviceScriptFile", "/Contents/Library/services/services.sh"},
    {"icuDir", "/Contents/Library/icu"},
    {"prefDir", "/Contents/Library"},
    {"msgDir", "/Contents/Library/messages"},
    {"resourcesDir", "/Contents/Resources"},
    {nullptr, nullptr},
};

} // namespace

const LocationConfig LOCATION_PRODUCT_CONFIG = {
    .processTags = PROCESS_TAGS,
    .rootVariable = "KESTRA_LOCATION_ROOT_FULLPATH",
    .lastUsedFile = "/Library/Preferences/Kestra Tessel/lastLocationUsed",
    .keys = KEYS,
};
