#include "tools/toolReport.h"

#include "base/owned.h"
#include "lib/public/program.h"
#include "lib/string/str.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/uio.h>

namespace {

const char *sProgram = "tessel";
bool sQuiet = false;
bool sLogToOutput = false;

struct iovec ToolReportPart(const char *text, size_t length)
{
   return {.iov_base = const_cast<char *>(text), .iov_len = length};
}

void ToolReportWrite(const char *format, va_list args) FORMAT_ARGUMENTS(1, 0);

void ToolReportWrite(const char *format, va_list args)
{
   static constexpr char separator[] = ": ";
   const int savedErrno = errno;
   size_t length = 0;

   const Owned<char> text(Str_Vasprintf(&length, format, args));
   if (text != nullptr) {
      const struct iovec parts[] = {ToolReportPart(sProgram, strlen(sProgram)),
                                    ToolReportPart(separator, sizeof separator - 1),
                                    ToolReportPart(text.get(), length)};
      [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, 3);
   }
   errno = savedErrno;
}

} // namespace

void ToolReport_SetProgram(const char *name)
{
   sProgram = name;
}

void ToolReport_SetQuiet()
{
   sQuiet = true;
}

void ToolReport_SetLogToOutput()
{
   sLogToOutput = true;
}

bool ToolReport_Print(const char *text)
{
   const size_t length = strlen(text);
   return write(STDOUT_FILENO, text, length) == static_cast<ssize_t>(length);
}

void Log(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   if (sLogToOutput) {
      const Owned<char> text(Str_SafeVasprintf(nullptr, format, args));
      fputs(text.get(), stdout);
   } else if (!sQuiet) {
      ToolReportWrite(format, args);
   }
   va_end(args);
}

void Warning(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   ToolReportWrite(format, args);
   va_end(args);
}

void Panic(const char *format, ...)
{
   va_list args;

   va_start(args, format);
   ToolReportWrite(format, args);
   va_end(args);
   exit(EXIT_FAILURE);
}
