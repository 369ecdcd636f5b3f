#ifndef TESSEL_TOOLS_TOOLOPTIONS_H
#define TESSEL_TOOLS_TOOLOPTIONS_H

#include <cstdint>
#include <optional>

struct ToolUsage {
   const char *program;
   const char *help;    /* The whole text that --help prints. */
   const char *version; /* The line that --version prints. */
   bool takesDaemon;    /* Whether --daemon is one of the options. */
   bool takesSocket;    /* Whether --socket, --wait and --quiet are. */
};

struct ToolOptions {
   const char *daemon = nullptr; /* Null where not given; both point into argv. */
   const char *socket = nullptr;
   int waitMs = 0;           /* 0: without limit. */
   char **command = nullptr; /* Argument vector of the command, null if there is none. */
};

/* Reads the command line up to "--" or the first word that is no option, names the program in reports and makes them
   quiet if asked to. An exit status if there is nothing left to do: help and version have been printed, or
   what is wrong reported. */
[[nodiscard]] std::optional<int> ToolOptions_Parse(int argc, char **argv, const ToolUsage &usage,
                                                   ToolOptions *options);

/* For tools with options of their own: prints a text that was asked for, or reports what is wrong with a word for which
   getopt_long(3) gave found. The exit status. */
[[nodiscard]] int ToolOptions_Print(const char *text);
[[nodiscard]] int ToolOptions_Refuse(int found, const char *word);

/* Seconds with up to three decimals, as milliseconds that FileLock_Lock takes for a limit. False: text is none. */
[[nodiscard]] bool ToolOptions_ParseSeconds(const char *text, uint32_t *ms);

#endif
