#ifndef TESSEL_LIB_USER_MSGLIST_H
#define TESSEL_LIB_USER_MSGLIST_H

#include "lib/public/program.h"

#include <cstddef>
#include <cstdint>

/* Messages meant for the user, gathered by routines that fail and shown, translated or logged by whoever called
   them. A list belongs to one thread at a time. */
struct MsgList;

/* What every message begins with: MSGLIST_ID("dictionary.open") "Cannot open %s.\n" */
#define MSGLIST_ID(identifier) "@&!*@*@(msg." identifier ")"

enum class MsgArgumentKind : uint8_t { STRING, INTEGER, DOUBLE };

struct MsgArgument {
   MsgArgumentKind kind;
   const char *string; /* Null where the argument was null, and for the other kinds. */
   int64_t integer;
   double number;
};

/* A message as its reader sees it. All of it is the list's and lives until the list changes. */
struct MsgListMessage {
   const char *format;     /* As appended: the identifier in its wrapping, then the default text. */
   const char *identifier; /* Such as "msg.dictionary.open"; empty if the format has none. */
   const char *text;       /* The default text with the arguments in place. */
   const MsgArgument *arguments;
   size_t argumentCount;
};

/* A new list without messages, and its end; null is ignored. What messages held is zeroed, as it may be a secret. */
[[nodiscard]] MsgList *MsgList_Create();
void MsgList_Free(MsgList *list);

/* Appends a message; list may be null, and the message is then dropped. Conversions are those of strings, of
   integers and of floating-point numbers, without "*" and without numbered arguments. Keeps errno. */
void MsgList_Append(MsgList *list, const char *format, ...) FORMAT_ARGUMENTS(2, 3);

/* The number of messages, 0 for a null list. Also the mark for MsgList_Rollback. */
[[nodiscard]] size_t MsgList_Count(const MsgList *list);

/* Drops the messages that were appended since MsgList_Count gave mark. list may be null. */
void MsgList_Rollback(MsgList *list, size_t mark);

/* The message with an index below the count, in the order of appending. */
[[nodiscard]] const MsgListMessage *MsgList_Get(const MsgList *list, size_t index);

/* All texts in order as one new string, which the caller frees; empty for a null list. */
[[nodiscard]] char *MsgList_ToString(const MsgList *list);

#endif
