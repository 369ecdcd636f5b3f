#ifndef TESSEL_LIB_FILE_LOCK_IDENTITY_H
#define TESSEL_LIB_FILE_LOCK_IDENTITY_H

#include <cstddef>
#include <string_view>

/* Who takes part in a lock: a process on a machine, in texts without blanks, slashes and controls. */

constexpr size_t FILE_LOCK_MACHINE_SIZE = 65;
constexpr size_t FILE_LOCK_EXECUTION_SIZE = 33;
constexpr size_t FILE_LOCK_CHECKSUM_SIZE = 11;

struct FileLockIdentity {
   char machine[FILE_LOCK_MACHINE_SIZE];
   char
       execution[FILE_LOCK_EXECUTION_SIZE]; /* "PID-STARTTIME", or "PID" where the start time is not known. */
};

/* This process. False with errno set if the machine has no identifier. */
[[nodiscard]] bool FileLockIdentity_Get(FileLockIdentity *identity);

/* Whether the process of an execution identifier of this machine may still be running. What cannot be told is taken for
   running. Keeps errno. */
[[nodiscard]] bool FileLockValidExecutionID(const char *execution);

/* The decimal djb2 hash (h = h * 33 + signed byte from 5381, modulo 2^32; D. J. Bernstein) of a path. It tells whether a
   lock directory is still where it was when an entry was made. */
void FileLockIdentity_Checksum(std::string_view path, char checksum[FILE_LOCK_CHECKSUM_SIZE]);

#endif
