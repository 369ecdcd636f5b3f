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

struct Word {
   const char *word;
   int32_t value;
};

constexpr std::array BOOL_WORDS = {
    Word{"", 1},   Word{"true", 1}, Word{"t", 1},     Word{"yes", 1}, Word{"y", 1},
    Word{"on", 1}, Word{"1", 1},    Word{"false", 0}, Word{"f", 0},   Word{"no", 0},
    Word{"n", 0},  Word{"off", 0},  Word{"0", 0},
};

constexpr std::array DEFAULT_WORDS = {
    Word{"default", DICTIONARY_TRISTATE_DEFAULT},
    Word{"dontcare", DICTIONARY_TRISTATE_DEFAULT},
    Word{"auto", DICTIONARY_TRISTATE_DEFAULT},
};

enum class Outcome : uint8_t { VALID, INVALID, OUT_OF_RANGE };

template <size_t N>
bool DictionaryFindWord(const std::array<Word, N> &words, const char *text, int32_t *value)
{
   for (const Word &word : words) {
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

Outcome DictionaryParseInt32(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   long value = strtol(text, &end, 0);
   if (errno == ERANGE) {
      errno = 0;
      value = static_cast<long>(strtoul(text, &end, 0));
   }
   if (errno == ERANGE) {
      return Outcome::OUT_OF_RANGE;
   }
   /* What does not fit in 32 bits loses its upper ones, as it always has. */
   *bits = static_cast<uint64_t>(int64_t{static_cast<int32_t>(value)});
   return DictionaryIsWhole(text, end) ? Outcome::VALID : Outcome::INVALID;
}

Outcome DictionaryParseInt64(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   *bits = strtoull(text, &end, 0);
   if (errno == ERANGE) {
      return Outcome::OUT_OF_RANGE;
   }
   return DictionaryIsWhole(text, end) ? Outcome::VALID : Outcome::INVALID;
}

/* Files are written with a decimal point, whatever the process's locale has. */
Outcome DictionaryParseDouble(const char *text, uint64_t *bits)
{
   char *end;

   errno = 0;
   const double value = DecimalNumber_Parse(text, &end);
   /* Systems differ on whether a number below the normal ones, which is there all the same, is out of range. */
   const bool tooLarge = value == HUGE_VAL || value == -HUGE_VAL;
   if (errno == ERANGE && (tooLarge || value == 0)) {
      return Outcome::OUT_OF_RANGE;
   }
   *bits = std::bit_cast<uint64_t>(value);
   return *end == '\0' ? Outcome::VALID : Outcome::INVALID;
}

Outcome DictionaryParse(const char *text, uint32_t type, uint64_t *bits)
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
   return invalid ? Outcome::INVALID : Outcome::VALID;
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
   case Outcome::VALID:
      return true;
   case Outcome::INVALID:
      DictionaryReportInvalid(messages, text, name, type, fallback);
      break;
   case Outcome::OUT_OF_RANGE:
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
