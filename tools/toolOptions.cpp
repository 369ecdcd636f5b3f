#include "tools/toolOptions.h"

#include "lib/file/fileLock.h"
#include "lib/public/program.h"
#include "tools/toolExit.h"
#include "tools/toolReport.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <getopt.h>
#include <string_view>

namespace {

/* The limit of a registration, where 0 stands for none. */
bool ToolOptionsReadLimit(const char *text, int *milliseconds)
{
   uint32_t limit;

   if (!ToolOptions_ParseSeconds(text, &limit) || limit == 0 || limit > INT_MAX) {
      return false;
   }
   *milliseconds = static_cast<int>(limit);
   return true;
}

/* -1 as an option's letter ends the options. */
std::optional<int> ToolOptionsTake(int letter, const char *word, const ToolUsage &usage, ToolOptions *options)
{
   switch (letter) {
   case 'd':
      options->daemon = optarg;
      return std::nullopt;
   case 's':
      options->socket = optarg;
      return std::nullopt;
   case 'w':
      if (!ToolOptionsReadLimit(optarg, &options->waitMs)) {
         Warning("%s: not a number of seconds above 0\n", optarg);
         return TOOL_EXIT_USAGE;
      }
      return std::nullopt;
   case 'q':
      ToolReport_SetQuiet();
      return std::nullopt;
   case 'h':
      return ToolOptions_Print(usage.help);
   case 'V':
      return ToolOptions_Print(usage.version);
   default:
      return ToolOptions_Refuse(letter, word);
   }
}

} // namespace

std::optional<int> ToolOptions_Parse(int argc, char **argv, const ToolUsage &usage, ToolOptions *options)
{
   static const struct option all[] = {
       {"daemon", required_argument, nullptr, 'd'},
       {"socket", required_argument, nullptr, 's'},
       {"wait", required_argument, nullptr, 'w'},
       {"quiet", no_argument, nullptr, 'q'},
       {"help", no_argument, nullptr, 'h'},
       {"version", no_argument, nullptr, 'V'},
       {nullptr, 0, nullptr, 0},
   };
   const struct option *known = usage.takesDaemon ? all : all + (usage.takesSocket ? 1 : 4);
   int letter;

   ToolReport_SetProgram(usage.program);
   /* "+": the words of the command are not ours to read; ":": the reports are. */
   while ((letter = getopt_long(argc, argv, usage.takesSocket ? "+:w:qh" : "+:h", known, nullptr)) != -1) {
      const std::optional<int> status = ToolOptionsTake(letter, argv[optind - 1], usage, options);
      if (status.has_value()) {
         return status;
      }
   }
   options->command = optind < argc ? argv + optind : nullptr;
   return std::nullopt;
}

int ToolOptions_Print(const char *text)
{
   if (!ToolReport_Print(text)) {
      Warning("cannot write to standard output: %s\n", strerror(errno));
      return TOOL_EXIT_SYSTEM;
   }
   return TOOL_EXIT_OK;
}

int ToolOptions_Refuse(int found, const char *word)
{
   Warning("%s: %s; --help lists the options\n", word,
           found == ':' ? "a value is missing" : "there is no such option");
   return TOOL_EXIT_USAGE;
}

bool ToolOptions_ParseSeconds(const char *text, uint32_t *ms)
{
   static constexpr uint32_t longest = FILE_LOCK_WAIT_FOREVER / 1000 - 1;
   const std::string_view whole(text);
   const size_t dot = whole.find('.');
   const std::string_view decimals = dot != std::string_view::npos ? whole.substr(dot + 1) : "";
   const char *const end = text + whole.substr(0, dot).size();
   uint32_t seconds = 0;
   uint32_t rest = 0;

   const std::from_chars_result result = std::from_chars(text, end, seconds);
   if (result.ec != std::errc() || result.ptr != end || seconds > longest || decimals.size() > 3) {
      return false;
   }
   for (size_t i = 0; i < 3; i++) {
      const char digit = i < decimals.size() ? decimals[i] : '0';
      if (digit < '0' || digit > '9') {
         return false;
      }
      rest = rest * 10 + static_cast<uint32_t>(digit - '0');
   }
   *ms = seconds * 1000 + rest;
   return true;
}
