#ifndef TESSEL_LIB_USER_DICTIONARY_STATE_H
#define TESSEL_LIB_USER_DICTIONARY_STATE_H

#include "lib/misc/memory/secretArena.h"
#include "lib/unicode/unicodeSimpleTypes.h"
#include "lib/user/dictionary_core.h"

#include <string_view>

/* What a dictionary is made of, for the sources of this module alone: dictionary_core.cpp keeps it, the others read
   it from files and write it to them. */

/* A member of a ring with a head; the head is a bare link. */
struct DictionaryLink {
   DictionaryLink *previous;
   DictionaryLink *next;
};

struct DictionaryEntry;

/* A line of the file, in file order. */
struct DictionaryLine : DictionaryLink {
   char *text;             /* As read, without its line feed. */
   DictionaryEntry *entry; /* What the line defines, or null. */
   int number;             /* From 1; 0 if the line was not read. */
   bool inArena;           /* The line itself is in the dictionary's arena. */
   bool ownsText;          /* The text is a block of its own, not in the arena. */
};

/* One of the two holds the value: text for the types DICTIONARY_UNTYPED and DICTIONARY_STRING, never null there,
   bits for all others. Integers are widened with their sign, doubles as they are in memory. */
struct DictionaryValue {
   char *text;
   uint64_t bits;
};

struct DictionaryEntry : DictionaryLink {
   char *name; /* Also the key in the table. */
   DictionaryValue value;
   uint32_t type;
   bool modified; /* Since the last read or write. */
   bool written;  /* Of use to the writer only while it works. */
   bool notPersistent;
   bool isProtected;
   bool inArena;         /* The entry itself and its name are in the dictionary's arena. */
   bool ownsText;        /* The value's text is a block of its own, not in the arena. */
   DictionaryLine *line; /* The line that defines it, or null. */
   char *lineText;       /* Without a line: what it was last written as, or null. Owned. */
};

struct HashTable;

struct Dictionary {
   DictionaryLink entries; /* In order of insertion. */
   DictionaryLink lines;
   HashTable *table; /* Of DictionaryEntry, by name. */
   size_t entryCount;
   SecretArena arena;    /* For what is read from files, nearly all of which stays to the end. */
   size_t fileSize;      /* Of what was read or written last: how large a text to expect. */
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

constexpr bool DictionaryIsText(uint32_t type)
{
   return type == DICTIONARY_UNTYPED || type == DICTIONARY_STRING;
}

/* Iterates over a ring as over its members: for (DictionaryLine *line : DictionaryRing<DictionaryLine>(head)). The
   current member may be removed by the body. */
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

/* Adds an untyped entry of the default protection, without a value yet and not modified, in the arena. Null if there is
   one of that name. */
DictionaryEntry *DictionaryAddEntry(Dictionary *dictionary, std::string_view name);

/* Takes an entry that was just added out again, as if it had never been. */
void DictionaryDropEntry(Dictionary *dictionary, DictionaryEntry *entry);

/* Adds a line at the end, whose text lies in the arena. */
DictionaryLine *DictionaryAddReadLine(Dictionary *dictionary, char *text);

/* Puts a line before another one, with a text of its own, which is taken over. */
void DictionaryInsertLine(DictionaryLink *before, char *text);

/* Gives an entry or a line another text of its own, which is taken over, or for null none; the old one is zeroed. */
void DictionaryReplaceText(DictionaryEntry *entry, char *text);
void DictionaryReplaceText(DictionaryLine *line, char *text);

/* The value of an entry as a file holds it, in UTF-8 and unescaped: a new string. An unknown type ends the process. */
char *DictionaryFormatValue(const DictionaryEntry *entry);

#endif
