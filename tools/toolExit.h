#ifndef TESSEL_TOOLS_TOOLEXIT_H
#define TESSEL_TOOLS_TOOLEXIT_H

/* Exit statuses of the tools' own; a command's status is passed on as it is. The numbers are those that shells and
   mail programs have used for these cases for long. */
enum ToolExit {
   TOOL_EXIT_OK = 0,
   TOOL_EXIT_ABSENT = 1,       /* There is no such setting. */
   TOOL_EXIT_USAGE = 64,       /* The command line is wrong. */
   TOOL_EXIT_DATA = 65,        /* The file is not what it should be. */
   TOOL_EXIT_INPUT = 66,       /* The file cannot be read. */
   TOOL_EXIT_UNAVAILABLE = 69, /* There is no daemon: none started, none reached, or it went away. */
   TOOL_EXIT_SYSTEM = 71,      /* The system refused a socket, a pipe or a process. */
   TOOL_EXIT_OUTPUT = 74,      /* A file or standard output cannot be written. */
   TOOL_EXIT_REFUSED = 75,     /* The daemon refused the registration. */
   TOOL_EXIT_BUSY = 75,        /* The lock is held, and the wait for it over. */
   TOOL_EXIT_TIMED_OUT = 124,  /* The daemon did not answer within --wait. */
   TOOL_EXIT_NOT_EXECUTABLE = 126,
   TOOL_EXIT_NOT_FOUND = 127,
   TOOL_EXIT_SIGNAL = 128, /* Plus the number of the signal. */
};

#endif
