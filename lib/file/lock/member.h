#ifndef TESSEL_LIB_FILE_LOCK_MEMBER_H
#define TESSEL_LIB_FILE_LOCK_MEMBER_H

#include "lib/file/fileLock.h"
#include "lib/file/lock/identity.h"

#include <cstddef>
#include <cstdint>

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
   const char *name; /* Of the file. */
   uint32_t number;  /* From that. */

   /* Once read. */
   FileLockState state{}; /* FILE_LOCK_GONE, _UNREADABLE or _WAITS; see FileLockMember_Judge. */
   char line[FILE_LOCK_RECORD_SIZE + 1]{}; /* The record's line, cut at its blanks. */
   const char *fields[FILE_LOCK_FIELDS_KEPT]{};
   size_t fieldCount = 0; /* Of all; the first ones are kept. */

   /* Where that says who the owner is. */
   const char *machine = nullptr;
   const char *execution = nullptr;
   const char *checksum = nullptr;
   uint32_t ticket = 0;
   bool exclusive = false;
   uint64_t microseconds = 0; /* 0 if the field is no number. */

   FileLockMember(const char *itsName, uint32_t itsNumber) : name(itsName), number(itsNumber)
   {
   }

   FileLockMember(const FileLockMember &) = delete;
   FileLockMember &operator=(const FileLockMember &) = delete;
};

/* "machine execution ticket X|S microseconds lc=checksum", and NULs. */
void FileLockMember_Compose(char record[FILE_LOCK_RECORD_SIZE], const FileLockIdentity &owner,
                            uint32_t ticket, bool exclusive, uint64_t microseconds, const char *checksum);

/* Reads the member file of the lock directory that *member names, without following links or waiting for a pipe. Gives 0,
   or an error that says nothing of the file, but that this process cannot read it, or not now: EAGAIN,
   somebody has it to himself for a while. That the file itself is at fault is reported if wanted. */
[[nodiscard]] int FileLockMember_Read(const FileLockPlace &place, bool report, FileLockMember *member);

/* Whether a ticket is worth what it says: makes FILE_LOCK_WAITS one of FILE_LOCK_STALE and FILE_LOCK_MOVED if not. */
void FileLockMember_Judge(const FileLockPlace &place, FileLockMember *member);

/* As FileLockMember_Read; a file that is at fault is also said to be removed, which is left to the caller. */
[[nodiscard]] int FileLockMemberValues(const FileLockPlace &place, FileLockMember *member);

#endif
