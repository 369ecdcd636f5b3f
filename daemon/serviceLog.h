#ifndef TESSEL_DAEMON_SERVICELOG_H
#define TESSEL_DAEMON_SERVICELOG_H

#include "lib/public/program.h"

#include <cstdarg>
#include <cstddef>

/* The service log: one descriptor for the whole process, one line with a local timestamp for each message, no
   buffer and no lock. Log, Warning and Panic of lib/public/program.h are defined here. */

/* Sends all later messages to the file at path, which is created with mode 0644 or emptied. Until the first call
   they go to standard output. If the file cannot be opened nothing is reported, and logging is off for the
   rest of the process. An earlier log file is not closed. */
void ServiceImpl_LogOpen(const char *path);

/* Writes one message: timestamp, tag (tagLength bytes), formatted text, in three write calls whose failures are
   ignored. A text of 1024 bytes or more is lost: only the timestamp and the tag reach the log, without a line
   end. With logging off nothing is done, the arguments are not even looked at. Keeps errno. */
void LogWriteV(const char *tag, size_t tagLength, const char *format, va_list args) FORMAT_ARGUMENTS(3, 0);

#endif
