#ifndef TESSEL_LIB_USER_DICTIONARY_STATE_H
#define TESSEL_LIB_USER_DICTIONARY_STATE_H

#include "lib/misc/memory/secretArena.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "lib/user/dictionary_core.h"
#include "lib/user/msgList.h"

#include <string_view>

/* What a dictionary is made of, for the sources of this module alone. state.cpp keeps its entries and lines;
   ../dictionary_core.cpp has the typed values, convert.cpp what text they are; read.cpp, write.cpp and
   encoding.cpp have what ../dictionary.h says of texts, ../dictionary.cpp and file.cpp what it says of files.
 */

/* A member of a ring with a head; the head is a bare link. */
struct DictionaryLink {
   DictionaryLink *previous;
   DictionaryLink *next;
};

struct DictionaryEntry;

/* A line of the file, in file order, with its text behind it. Lines, entries and texts all lie in the arena. */
struct DictionaryLine : DictionaryLink {
   DictionaryEntry *entry; /* What the line defines, or null. */
   size_t length;          /* Of the text, which may hold NUL bytes. */
   int number;             /* From 1; 0 if the line was not read. */

   /* As read, without its line feed. */
   [[nodiscard]] std::string_view Text() const
   {
      return {reinterpret_cast<const char *>(this + 1), length};
   }
};

/* A setting, with its name behind it. The value is text for the types DICTIONARY_UNTYPED and DICTIONARY_STRING, never
   null there, and bits for all others: integers widened with their sign, doubles as they are in memory. */
struct DictionaryEntry : DictionaryLink {
   char *text; /* Null for the other types. */
   uint64_t bits;
   uint32_t type;
   bool modified; /* Since the last read or write. */
   bool written;  /* Of use to the writer only while it works. */
   bool notPersistent;
   bool isProtected;
   DictionaryLine *line; /* The line that defines it, or null. */

   /* Also the key in the table. */
   [[nodiscard]] const char *Name() const
   {
      return reinterpret_cast<const char *>(this + 1);
   }
};

struct HashTable;

struct Dictionary {
   DictionaryLink entries; /* In order of insertion. */
   DictionaryLink lines;
   HashTable *table; /* Of DictionaryEntry, by name. */
   uint32_t tableFlags;
   uint32_t bucketCount;
   size_t entryCount;
   SecretArena arena;
   const char *fileName; /* While a file is being read, else null. */
   int lineNumber;       /* Of the line being read, else 0. */
   EncodingId encoding;  /* ENCODING_UNKNOWN until it is settled; never ENCODING_DEFAULT. */
   bool changed;
   bool defaultProtected;
   bool integrityVerified;
   const void *protectionKey;
   DictionaryHooks hooks;
   MsgList *messages;
};

/* Appends a message about what is being read: text is preceded by as much of its place as is known, and the identifier
   followed by "NoFile" or "NoLine" where that is not all. */
#define DICTIONARY_REPORT(dictionary, messages, identifier, text, ...)                                       \
   do {                                                                                                      \
      const char *const reportedFile = (dictionary)->fileName;                                               \
      const int reportedLine = (dictionary)->lineNumber;                                                     \
      if (reportedFile == nullptr) {                                                                         \
         MsgList_Append(messages, MSGLIST_ID(identifier "NoFile") text __VA_OPT__(, ) __VA_ARGS__);          \
      } else if (reportedLine < 1) {                                                                         \
         MsgList_Append(messages, MSGLIST_ID(identifier "NoLine") "File \"%s\": " text,                      \
                        reportedFile __VA_OPT__(, ) __VA_ARGS__);                                            \
      } else {                                                                                               \
         MsgList_Append(messages, MSGLIST_ID(identifier) "File \"%s\" line %d: " text, reportedFile,         \
                        reportedLine __VA_OPT__(, ) __VA_ARGS__);                                            \
      }                                                                                                      \
   } while (false)

constexpr bool DictionaryIsText(uint32_t type)
{
   return type == DICTIONARY_UNTYPED || type == DICTIONARY_STRING;
}

/* Iterates over a ring as over its members: for (DictionaryLine *line : DictionaryRing<DictionaryLine>(head)). The
   current member may be removed or replaced by the body. */
template <typename Member> class DictionaryRing {
 public:
   explicit DictionaryRing(const DictionaryLink &head) : head_(&head)
   {
   }

   class Iterator {
    public:
      explicit Iterator(DictionaryLink *link) : link_(link), next_(link->next)
      {
      }

      Member *operator*() const
      {
         return static_cast<Member *>(link_);
      }

      Iterator &operator++()
      {
         link_ = next_;
         next_ = link_->next;
         return *this;
      }

      bool operator!=(const Iterator &other) const
      {
         return link_ != other.link_;
      }

    private:
      DictionaryLink *link_;
      DictionaryLink *next_;
   };

   [[nodiscard]] Iterator begin() const
   {
      return Iterator(head_->next);
   }

   [[nodiscard]] Iterator end() const
   {
      return Iterator(const_cast<DictionaryLink *>(head_));
   }

 private:
   const DictionaryLink *head_;
};

/* The entry of a name, or null. */
DictionaryEntry *DictionaryFind(const Dictionary *dictionary, const char *name);

/* Adds an untyped entry of the default protection, not modified, whose text is null until the caller gives it a value.
   Null if there is one of that name. */
DictionaryEntry *DictionaryAddEntry(Dictionary *dictionary, std::string_view name);

/* Removes an entry and its line. */
void DictionaryRemoveEntry(Dictionary *dictionary, DictionaryEntry *entry);

/* Adds a line before another one, or before the ring's head at the end. */
DictionaryLine *DictionaryAddLine(Dictionary *dictionary, DictionaryLink *before, std::string_view text);

/* Adds the line that is being read, which defines the entry, or null. */
void DictionaryAddReadLine(Dictionary *dictionary, std::string_view text, DictionaryEntry *entry);

/* Gives an entry that has a line another one in its place. */
void DictionaryReplaceLine(Dictionary *dictionary, DictionaryEntry *entry, std::string_view text);

/* Gives an entry a text, a copy of this one up to its first NUL byte, in place of the one it had; or none. */
void DictionarySetText(Dictionary *dictionary, DictionaryEntry *entry, std::string_view text);
void DictionaryDropText(Dictionary *dictionary, DictionaryEntry *entry);

/* The value of an entry as a file holds it, in UTF-8 and unescaped: a new string. An unknown type ends the process. */
char *DictionaryFormatValue(const DictionaryEntry *entry);

#endif
