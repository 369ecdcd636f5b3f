#ifndef TESSEL_LIB_FILE_LOCK_MEMBER_H
#define TESSEL_LIB_FILE_LOCK_MEMBER_H

#include "lib/file/lock/identity.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/* The names in a lock directory and the record in a member file. */

struct FileLockPlace;

enum FileLockEntry : char {
   FILE_LOCK_ENTRY = 'D',   /* A directory: its owner holds the number, for a moment. */
   FILE_LOCK_WRITING = 'E', /* A member file being written: its owner chooses a ticket. */
   FILE_LOCK_MEMBER = 'M',  /* A ticket. */
};

constexpr char FILE_LOCK_SUFFIX[] = ".lck";

struct FileLockName {
   char text[16];
};

/* The number has at most five digits. */
[[nodiscard]] FileLockName FileLockMember_Name(FileLockEntry entry, uint32_t number);

/* Whether name is one of these: a letter, five digits, and at its end the suffix. */
[[nodiscard]] bool FileLockMember_ParseName(const char *name, FileLockEntry *entry, uint32_t *number);

constexpr size_t FILE_LOCK_RECORD_SIZE = 512;

constexpr size_t FILE_LOCK_FIELDS_KEPT = 16;

struct FileLockMember {
   char line[FILE_LOCK_RECORD_SIZE + 1]; /* The record's line, cut at its blanks. */
   const char *fields[FILE_LOCK_FIELDS_KEPT];
   size_t fieldCount; /* Of all; the first ones are kept. */

   /* Once read without fault. */
   const char *machine;
   const char *execution;
   const char *checksum;
   uint32_t ticket;
   bool exclusive;
   uint64_t microseconds;

   FileLockMember() = default;
   FileLockMember(const FileLockMember &) = delete;
   FileLockMember &operator=(const FileLockMember &) = delete;
};

/* "machine execution ticket X|S microseconds lc=checksum", and NULs. */
void FileLockMember_Compose(char record[FILE_LOCK_RECORD_SIZE], const FileLockIdentity &owner,
                            uint32_t ticket, bool exclusive, uint64_t microseconds, const char *checksum);

/* How far the reading of a member file came. */
enum FileLockReadStep {
   FILE_LOCK_READ_DONE,
   FILE_LOCK_READ_VANISHED, /* There is no such file any more. */
   FILE_LOCK_READ_REFUSED,  /* This process lacks descriptors or memory, which says nothing about the file. */
   FILE_LOCK_READ_OPEN,     /* From here on the file is at fault. */
   FILE_LOCK_READ_SIZE,
   FILE_LOCK_READ_WRONG_SIZE,
   FILE_LOCK_READ_READ,
   FILE_LOCK_READ_LENGTH,
   FILE_LOCK_READ_FIELDS,
};

struct FileLockReading {
   FileLockReadStep step;
   int error = 0;     /* What the system said, where it was a call that failed. */
   uint64_t size = 0; /* Of the file. */
   ssize_t length = 0;
};

/* Reads a member file of the lock directory into *member, without a word and without following links or waiting for a
   pipe. */
[[nodiscard]] FileLockReading FileLockMember_Read(const FileLockPlace &place, const char *name,
                                                  FileLockMember *member);

[[nodiscard]] bool FileLockMember_IsProblematic(const FileLockReading &reading);

/* The same; a file that is at fault is reported, and said to be removed, which is left to the caller. */
[[nodiscard]] FileLockReading FileLockMemberValues(const FileLockPlace &place, const char *name,
                                                   FileLockMember *member);

#endif
