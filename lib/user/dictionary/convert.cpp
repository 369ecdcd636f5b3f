#include "lib/user/dictionary/convert.h"

#include "lib/misc/memory/util.h"
#include "lib/string/str.h"
#include "lib/user/dictionary_core.h"
#include "lib/user/msgList.h"
#include "platform/decimalNumber.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *MODULE = "lib/user/dictionary_core";

struct DictionaryWord {
   const char *word;
   int32_t value;
};

constexpr std::array BOOL_WORDS = {
    DictionaryWord{"", 1},  DictionaryWord{"true", 1}, DictionaryWord{"t", 1}, DictionaryWord{"yes", 1},
    DictionaryWord{"y", 1}, DictionaryWord{"on", 1},   DictionaryWord{"1", 1}, DictionaryWord{"false", 0},
    DictionaryWord{"f", 0}, DictionaryWord{"no", 0},   DictionaryWord{"n", 0}, DictionaryWord{"off", 0},
    DictionaryWord{"0", 0},
};

constexpr std::array DEFAULT_WORDS = {
    DictionaryWord{"default", DICTIONARY_TRISTATE_DEFAULT},
    DictionaryWord{"dontcare", DICTIONARY_TRISTATE_DEFAULT},
    DictionaryWord{"auto", DICTIONARY_TRISTATE_DEFAULT},
};

enum class DictionaryOutcome : uint8_t { VALID, INVALID, OUT_OF_RANGE };

template <size_t N>
bool DictionaryFindWord(const std::array<DictionaryWord, N> &words, const char *text, int32_t *value)
{
   for (const DictionaryWord &word : words) {
      if (strcasecmp(word.word, text) == 0) {
         *value = word.value;
         return true;
      }
   }
   return false;
}

/* A text without digits ends where it starts. Some systems report EINVAL for it and some report nothing. */
bool DictionaryIsWhole(const char *text, const char *end)
{
   return end != text && *end == '\0';
}

DictionaryOutcome DictionaryParseInt32(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   long value = strtol(text, &end, 0);
   if (errno == ERANGE) {
      errno = 0;
      value = static_cast<long>(strtoul(text, &end, 0));
   }
   if (errno == ERANGE) {
      return DictionaryOutcome::OUT_OF_RANGE;
   }
   /* What does not fit in 32 bits loses its upper ones, as it always has. */
   *bits = static_cast<uint64_t>(int64_t{static_cast<int32_t>(value)});
   return DictionaryIsWhole(text, end) ? DictionaryOutcome::VALID : DictionaryOutcome::INVALID;
}

DictionaryOutcome DictionaryParseInt64(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   *bits = strtoull(text, &end, 0);
   if (errno == ERANGE) {
      return DictionaryOutcome::OUT_OF_RANGE;
   }
   return DictionaryIsWhole(text, end) ? DictionaryOutcome::VALID : DictionaryOutcome::INVALID;
}

/* Files are written with a decimal point, whatever the process's locale has. */
DictionaryOutcome DictionaryParseDouble(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   const double value = DecimalNumber_Parse(text, &end);
   /* Systems differ on whether a number below the normal ones, which is there all the same, is out of range. */
   const bool tooLarge = value == HUGE_VAL || value == -HUGE_VAL;
   if (errno == ERANGE && (tooLarge || value == 0)) {
      return DictionaryOutcome::OUT_OF_RANGE;
   }
   *bits = std::bit_cast<uint64_t>(value);
   return *end == '\0' ? DictionaryOutcome::VALID : DictionaryOutcome::INVALID;
}

DictionaryOutcome DictionaryParse(const char *text, uint32_t type, uint64_t *bits)
{
   bool invalid = false;

   switch (type) {
   case DICTIONARY_BOOL:
      *bits = Dictionary_ParseBool(text, &invalid) ? 1 : 0;
      break;
   case DICTIONARY_TRISTATE:
      *bits = static_cast<uint64_t>(int64_t{Dictionary_ParseTriState(text, &invalid)});
      break;
   case DICTIONARY_INT32:
      return DictionaryParseInt32(text, bits);
   case DICTIONARY_INT64:
      return DictionaryParseInt64(text, bits);
   case DICTIONARY_DOUBLE:
      return DictionaryParseDouble(text, bits);
   default:
      Panic("NOT_REACHED %s:%d\n", MODULE, __LINE__);
   }
   return invalid ? DictionaryOutcome::INVALID : DictionaryOutcome::VALID;
}

const char *DictionaryTriStateWord(uint64_t bits, const char *defaultWord)
{
   switch (static_cast<int32_t>(bits)) {
   case 1:
      return "TRUE";
   case DICTIONARY_TRISTATE_DEFAULT:
      return defaultWord;
   default:
      return "FALSE";
   }
}

void DictionaryReportInvalid(MsgList *messages, const char *text, const char *name, uint32_t type,
                             uint64_t used)
{
   switch (type) {
   case DICTIONARY_BOOL:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.notBoolean") "Value \"%s\" for variable \"%s\" is not a valid "
                                                         "boolean value. Using value \"%s\".\n",
                     text, name, used != 0 ? "TRUE" : "FALSE");
      break;
   case DICTIONARY_TRISTATE:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.notTristate") "Value \"%s\" for variable \"%s\" is not a valid "
                                                          "tristate value. Using value \"%s\".\n",
                     text, name, DictionaryTriStateWord(used, "default"));
      break;
   case DICTIONARY_INT32:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.notInteger") "Value \"%s\" for variable \"%s\" is not a valid "
                                                         "integer value. Using value \"%d\".\n",
                     text, name, static_cast<int32_t>(used));
      break;
   case DICTIONARY_INT64:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.notInteger64") "Value \"%s\" for variable \"%s\" is not a valid "
                                                           "integer value. Using value \"%lld\".\n",
                     text, name, static_cast<long long>(used));
      break;
   default:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.notFloat") "Value \"%s\" for variable \"%s\" is not a valid "
                                                       "floating point value. Using value \"%f\".\n",
                     text, name, std::bit_cast<double>(used));
      break;
   }
}

void DictionaryReportOutOfRange(MsgList *messages, const char *text, const char *name, uint32_t type,
                                uint64_t used)
{
   switch (type) {
   case DICTIONARY_INT32:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.integerOutOfRange") "Value \"%s\" for variable \"%s\" is out of "
                                                                "range. Using value \"%d\".\n",
                     text, name, static_cast<int32_t>(used));
      break;
   case DICTIONARY_INT64:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.integer64OutOfRange") "Value \"%s\" for variable \"%s\" is out "
                                                                  "of range. Using value \"%lld\".\n",
                     text, name, static_cast<long long>(used));
      break;
   default:
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.doubleOutOfRange") "Value \"%s\" for variable \"%s\" is out of "
                                                               "range. Using value \"%f\".\n",
                     text, name, std::bit_cast<double>(used));
      break;
   }
}

} // namespace

bool DictionaryConvertText(const char *text, uint32_t type, uint64_t fallback, const char *name,
                           MsgList *messages, uint64_t *bits)
{
   switch (DictionaryParse(text, type, bits)) {
   case DictionaryOutcome::VALID:
      return true;
   case DictionaryOutcome::INVALID:
      DictionaryReportInvalid(messages, text, name, type, fallback);
      break;
   case DictionaryOutcome::OUT_OF_RANGE:
      DictionaryReportOutOfRange(messages, text, name, type, fallback);
      break;
   }
   *bits = fallback;
   return false;
}

char *DictionaryFormatBits(uint32_t type, uint64_t bits)
{
   std::array<char, 64> number;

   switch (type) {
   case DICTIONARY_BOOL:
      return Util_SafeStrdup(bits != 0 ? "TRUE" : "FALSE");
   case DICTIONARY_TRISTATE:
      return Util_SafeStrdup(DictionaryTriStateWord(bits, "DEFAULT"));
   case DICTIONARY_INT32:
      return Str_SafeAsprintf(nullptr, "%d", static_cast<int32_t>(bits));
   case DICTIONARY_INT64:
      return Str_SafeAsprintf(nullptr, "%lld", static_cast<long long>(bits));
   case DICTIONARY_DOUBLE:
      Str_SprintfCLocale(number.data(), number.size(), "%.9g", std::bit_cast<double>(bits));
      return Util_SafeStrdup(number.data());
   default:
      return nullptr;
   }
}

bool Dictionary_ParseBool(const char *text, bool *invalid)
{
   int32_t value = 0;

   *invalid = text == nullptr || !DictionaryFindWord(BOOL_WORDS, text, &value);
   return value != 0;
}

int32_t Dictionary_ParseTriState(const char *text, bool *invalid)
{
   int32_t value = 0;

   *invalid = text == nullptr || (!DictionaryFindWord(BOOL_WORDS, text, &value) &&
                                  !DictionaryFindWord(DEFAULT_WORDS, text, &value));
   return value;
}
