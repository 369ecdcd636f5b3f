#include "daemon/serviceLog.h"

#include "base/errno.h"
#include "lib/string/str.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int LOGGING_OFF = -1;
constexpr size_t LINE_BUFFER_SIZE = 1024;

int sLogDescriptor = STDOUT_FILENO;

/* Failed and short writes are ignored: a daemon has nowhere to complain about its own log. */
void LogWriteBytes(const char *bytes, size_t length)
{
   [[maybe_unused]] const ssize_t written = write(sLogDescriptor, bytes, length);
}

int LogFormatPrefix(char *buffer, size_t size)
{
   struct timeval now;
   struct tm local = {}; /* A time that cannot be told must not show what was on the stack. */

   gettimeofday(&now, nullptr);
   const time_t seconds = now.tv_sec;
   localtime_r(&seconds, &local);
   return Str_Sprintf(buffer, size, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<int>(now.tv_usec / 1000));
}

} // namespace

void ServiceImpl_LogOpen(const char *path)
{
   sLogDescriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

void LogWriteV(const char *tag, size_t tagLength, const char *format, va_list args)
{
   char buffer[LINE_BUFFER_SIZE];

   if (sLogDescriptor == LOGGING_OFF) {
      return;
   }
   const KeptErrno kept;
   LogWriteBytes(buffer, static_cast<size_t>(LogFormatPrefix(buffer, sizeof buffer)));
   LogWriteBytes(tag, tagLength);

   /* A text that does not fit gives -1: widened, the length makes the write fail, and the text is dropped whole
      rather than cut. */
   const int length = Str_Vsnprintf(buffer, sizeof buffer, format, args);
   LogWriteBytes(buffer, static_cast<size_t>(length));
}

void Log(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   LogWriteV("", 0, format, args);
   va_end(args);
}

void Warning(const char *format, ...)
{
   static constexpr char tag[] = "Warning: ";
   va_list args;

   va_start(args, format);
   LogWriteV(tag, sizeof tag - 1, format, args);
   va_end(args);
}

void Panic(const char *format, ...)
{
   static constexpr char tag[] = "Panic: ";
   va_list args;

   va_start(args, format);
   LogWriteV(tag, sizeof tag - 1, format, args);
   va_end(args);
   exit(EXIT_FAILURE);
}
