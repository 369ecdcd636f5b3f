#ifndef TESSEL_TOOLS_TOOLREPORT_H
#define TESSEL_TOOLS_TOOLREPORT_H

/* What the tools say. Log, Warning and Panic of lib/public/program.h are defined here: each message goes to standard
   error in one write, as "PROGRAM: text", so that the lines of several processes do not mix. Failed writes
   are ignored. A tool uses Log for what happens in order and Warning for what does not. */

/* The name before every message. Not copied. */
void ToolReport_SetProgram(const char *name);

/* From now on Log says nothing. */
void ToolReport_SetQuiet();

/* From now on Log writes its lines, as they are, to standard output through stdio. */
void ToolReport_SetLogToOutput();

/* Writes text to standard output as it is. False with errno set. */
[[nodiscard]] bool ToolReport_Print(const char *text);

#endif
