#include "lib/user/msgList.h"

#include "base/owned.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/string/str.h"

#include <cstdarg>
#include <cstring>
#include <string_view>

namespace {

constexpr const char *MODULE = "lib/user/msgList";

constexpr std::string_view OPENING = "@&!*@*@(";

/* One conversion of a format: what its argument is, and how wide an integer was passed. */
struct MsgListConversion {
   char letter;
   int longs;
};

} // namespace

struct MsgList {
   MsgListMessage *messages;
   size_t count;
};

namespace {

/* The next conversion from *at on, which moves behind it; letter NUL: there is none. */
MsgListConversion MsgListNextConversion(const char **at)
{
   while (const char *percent = strchr(*at, '%')) {
      const char *letter = percent + 1 + strspn(percent + 1, "-+ #0123456789.'");
      const size_t longs = strspn(letter, "lhz");
      const int wide = letter[0] == 'l' || letter[0] == 'z' ? static_cast<int>(longs) : 0;
      letter += longs;
      *at = *letter != '\0' ? letter + 1 : letter;
      if (*letter != '%') {
         return {*letter, wide};
      }
   }
   return {'\0', 0};
}

size_t MsgListCountConversions(const char *text)
{
   size_t count = 0;
   while (MsgListNextConversion(&text).letter != '\0') {
      count++;
   }
   return count;
}

/* A list of arguments that moves on through calls: as a bare parameter it would be a copy on some systems. */
struct MsgListArguments {
   va_list list;
};

int64_t MsgListTakeInteger(MsgListConversion conversion, MsgListArguments *arguments)
{
   if (conversion.longs != 0) {
      return va_arg(arguments->list, long long);
   }
   if (conversion.letter == 'd' || conversion.letter == 'i') {
      return va_arg(arguments->list, int);
   }
   return va_arg(arguments->list, unsigned);
}

MsgArgument MsgListTakeArgument(MsgListConversion conversion, MsgListArguments *arguments)
{
   switch (conversion.letter) {
   case 's':
      return {MsgArgumentKind::STRING, Util_SafeStrdup(va_arg(arguments->list, const char *)), 0, 0};
   case 'd':
   case 'i':
   case 'u':
   case 'x':
   case 'X':
      return {MsgArgumentKind::INTEGER, nullptr, MsgListTakeInteger(conversion, arguments), 0};
   case 'e':
   case 'f':
   case 'g':
      return {MsgArgumentKind::DOUBLE, nullptr, 0, va_arg(arguments->list, double)};
   default:
      Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, __LINE__);
   }
}

/* Where the default text of a format begins, behind the identifier if it has one. */
const char *MsgListDefaultText(const char *format, std::string_view *identifier)
{
   const char *close = std::string_view(format).starts_with(OPENING) ? strchr(format, ')') : nullptr;
   if (close == nullptr) {
      *identifier = {};
      return format;
   }
   const char *start = format + OPENING.size();
   *identifier = {start, static_cast<size_t>(close - start)};
   return close + 1;
}

/* Every string in a message is the message's own, whatever its readers may do with it. */
void MsgListFreeString(const char *string)
{
   Secret_FreeString(const_cast<char *>(string));
}

void MsgListEndMessage(const MsgListMessage *message)
{
   const Owned<MsgArgument> arguments(const_cast<MsgArgument *>(message->arguments));
   for (size_t i = 0; i < message->argumentCount; i++) {
      MsgListFreeString(message->arguments[i].string);
   }
   MsgListFreeString(message->format);
   MsgListFreeString(message->identifier);
   MsgListFreeString(message->text);
}

/* The arguments of a text, as an array of count. */
MsgArgument *MsgListTakeArguments(const char *text, size_t count, MsgListArguments *arguments)
{
   auto *array = static_cast<MsgArgument *>(Util_SafeCalloc(count, sizeof(MsgArgument)));
   for (size_t i = 0; i < count; i++) {
      array[i] = MsgListTakeArgument(MsgListNextConversion(&text), arguments);
   }
   return array;
}

} // namespace

MsgList *MsgList_Create()
{
   return static_cast<MsgList *>(Util_SafeCalloc(1, sizeof(MsgList)));
}

void MsgList_Free(MsgList *list)
{
   if (list == nullptr) {
      return;
   }
   MsgList_Rollback(list, 0);
   const Owned<MsgListMessage> messages(list->messages);
   const Owned<MsgList> owned(list);
}

void MsgList_Append(MsgList *list, const char *format, ...)
{
   std::string_view identifier;
   MsgListArguments arguments;
   va_list forText;

   if (list == nullptr) {
      return;
   }
   const KeptErrno kept;
   const char *defaultText = MsgListDefaultText(format, &identifier);
   const size_t count = MsgListCountConversions(defaultText);
   list->messages = static_cast<MsgListMessage *>(
       Util_SafeRealloc(list->messages, (list->count + 1) * sizeof(MsgListMessage)));
   va_start(arguments.list, format);
   va_copy(forText, arguments.list);
   list->messages[list->count++] = {
       .format = Util_SafeStrdup(format),
       .identifier = Util_SafeStrndup(identifier.empty() ? "" : identifier.data(), identifier.size()),
       .text = Str_SafeVasprintf(nullptr, defaultText, forText),
       .arguments = MsgListTakeArguments(defaultText, count, &arguments),
       .argumentCount = count};
   va_end(forText);
   va_end(arguments.list);
}

size_t MsgList_Count(const MsgList *list)
{
   return list != nullptr ? list->count : 0;
}

void MsgList_Rollback(MsgList *list, size_t mark)
{
   while (MsgList_Count(list) > mark) {
      MsgListEndMessage(&list->messages[--list->count]);
   }
}

const MsgListMessage *MsgList_Get(const MsgList *list, size_t index)
{
   return &list->messages[index];
}

char *MsgList_ToString(const MsgList *list)
{
   SecretBuffer text;
   bool complete = true;

   for (size_t i = 0; i < MsgList_Count(list); i++) {
      const char *one = list->messages[i].text;
      complete = complete && Secret_Append(text.get(), one, strlen(one));
   }
   if (!complete || !Secret_Append(text.get(), "", 1)) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   return static_cast<char *>(DynBuf_Detach(text.get()));
}
