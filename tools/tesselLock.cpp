#include "base/owned.h"
#include "lib/file/fileLock.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "tools/toolExit.h"
#include "tools/toolOptions.h"
#include "tools/toolProcess.h"
#include "tools/toolReport.h"
#include "tools/toolSession.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <optional>
#include <string_view>

namespace {

using namespace std::string_view_literals;

constexpr char HELP[] =
    "usage: tessel-lock [--shared] [--wait SECONDS] [-v] FILE -- COMMAND...\n"
    "       tessel-lock --show FILE\n"
    "\n"
    "Runs COMMAND while it holds the lock of FILE, which the processes of all machines that share the "
    "folder\n"
    "respect if they ask for it.\n"
    "\n"
    "  -s, --shared        share the lock with others who do\n"
    "  -w, --wait SECONDS  give up after so long; 0: at once (default: wait for ever)\n"
    "  -S, --show          say who holds the lock and who waits for it\n"
    "  -v, --verbose       say what happens\n"
    "  -h, --help          print this\n"
    "  --version           print the version\n"
    "\n"
    "The exit status is that of COMMAND; 64: wrong use; 71: the system refused; 75: the lock is held by\n"
    "others, and the wait over; 126, 127: COMMAND cannot be run; 128 + N: ended by signal N.\n";

struct LockOptions {
   bool shared = false;
   bool show = false;
   bool verbose = false;
   uint32_t waitMs = FILE_LOCK_WAIT_FOREVER;
};

std::optional<int> LockTakeOption(int letter, const char *word, LockOptions *options)
{
   switch (letter) {
   case 's':
      options->shared = true;
      return std::nullopt;
   case 'S':
      options->show = true;
      return std::nullopt;
   case 'v':
      options->verbose = true;
      return std::nullopt;
   case 'w':
      if (ToolOptions_ParseSeconds(optarg, &options->waitMs)) {
         return std::nullopt;
      }
      Warning("%s: not a number of seconds\n", optarg);
      return TOOL_EXIT_USAGE;
   case 'h':
      return ToolOptions_Print(HELP);
   case 'V':
      return ToolOptions_Print("tessel-lock " TESSEL_VERSION "\n");
   default:
      return ToolOptions_Refuse(letter, word);
   }
}

std::optional<int> LockParse(int argc, char **argv, LockOptions *options)
{
   static const struct option known[] = {
       {"shared", no_argument, nullptr, 's'},
       {"show", no_argument, nullptr, 'S'},
       {"wait", required_argument, nullptr, 'w'},
       {"verbose", no_argument, nullptr, 'v'},
       {"help", no_argument, nullptr, 'h'},
       {"version", no_argument, nullptr, 'V'},
       {nullptr, 0, nullptr, 0},
   };
   int letter;

   while ((letter = getopt_long(argc, argv, "+:sSw:vh", known, nullptr)) != -1) {
      const std::optional<int> status = LockTakeOption(letter, argv[optind - 1], options);
      if (status.has_value()) {
         return status;
      }
   }
   return std::nullopt;
}

/* The words without the identifier before them. */
void LockSay([[maybe_unused]] MsgList *list, const char *format, ...)
{
   va_list args;

   va_start(args, format);
   const Owned<char> text(Str_SafeVasprintf(nullptr, strchr(format, ')') + 1, args));
   va_end(args);
   Warning("%s\n", text.get());
}

const char *LockStateName(FileLockState state)
{
   switch (state) {
   case FILE_LOCK_HOLDS:
      return "holds";
   case FILE_LOCK_WAITS:
      return "waits";
   case FILE_LOCK_CHOOSES:
      return "comes";
   case FILE_LOCK_STALE:
      return "stale";
   case FILE_LOCK_MOVED:
      return "moved";
   default:
      return "unknown";
   }
}

Owned<char> LockTime(uint64_t microseconds)
{
   const auto seconds = static_cast<time_t>(microseconds / 1000000);
   struct tm parts;

   /* Who writes a later year than 9999 has not read his clock. */
   if (microseconds == 0 || gmtime_r(&seconds, &parts) == nullptr || parts.tm_year > 9999 - 1900) {
      return Owned<char>(Str_SafeAsprintf(nullptr, "-"));
   }
   return Owned<char>(Str_SafeAsprintf(nullptr, "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900,
                                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                                       parts.tm_sec));
}

/* The names are from files that anybody can have written. */
Owned<char> LockLine(const FileLockParty &party)
{
   const bool known = party.machine[0] != '\0';
   const Owned<char> machine(UnicodeEscapeBuffer(party.machine, -1, ENCODING_US_ASCII));
   const Owned<char> execution(UnicodeEscapeBuffer(party.execution, -1, ENCODING_US_ASCII));
   const Owned<char> name(UnicodeEscapeBuffer(party.name, -1, ENCODING_US_ASCII));
   const Owned<char> since = LockTime(party.microseconds);
   const char *const kind = !known ? "-" : party.exclusive ? "exclusive" : "shared";

   return Owned<char>(Str_SafeAsprintf(nullptr, "%-8s %-10s %-33s %-36s %-21s %s\n",
                                       LockStateName(party.state), kind, known ? execution.get() : "-",
                                       known ? (party.local ? "here" : machine.get()) : "-", since.get(),
                                       name.get()));
}

int LockShow(const char *path)
{
   FileLockParty *parties = nullptr;

   const int count = FileLock_List(path, &parties);
   if (count == -1) {
      Warning("cannot list the lock of %s: %s\n", path, strerror(errno));
      return TOOL_EXIT_SYSTEM;
   }
   const Owned<FileLockParty> owned(parties);
   for (int i = 0; i < count; i++) {
      const int status = ToolOptions_Print(LockLine(parties[i]).get());
      if (status != TOOL_EXIT_OK) {
         return status;
      }
   }
   return TOOL_EXIT_OK;
}

int LockRun(const LockOptions &options, const char *path, char *const *command)
{
   FileLockHooks hooks;
   int error;

   hooks.message = LockSay;
   hooks.giveUp = [](void *) { return ToolProcess_IsSignalled(); };
   FileLockToken *const token = FileLock_Lock(path, !options.shared, options.waitMs, hooks, &error);
   if (error == ECANCELED) {
      return TOOL_EXIT_SIGNAL + ToolProcess_Next({}).signal;
   }
   if (token == nullptr) {
      return error == 0 ? TOOL_EXIT_BUSY : TOOL_EXIT_SYSTEM;
   }
   const int status = ToolSession_Run(command, nullptr, nullptr);
   return FileLock_Unlock(token, hooks) == 0 || status != TOOL_EXIT_OK ? status : TOOL_EXIT_SYSTEM;
}

int LockRefuseUse(const char *what)
{
   Warning("%s; --help lists the options\n", what);
   return TOOL_EXIT_USAGE;
}

} // namespace

int main(int argc, char **argv)
{
   LockOptions options;

   ToolProcess_Begin();
   ToolReport_SetProgram("tessel-lock");
   const std::optional<int> done = LockParse(argc, argv, &options);
   if (done.has_value()) {
      return *done;
   }
   if (!options.verbose) {
      ToolReport_SetQuiet();
   }
   const char *const path = argv[optind];
   if (path == nullptr) {
      return LockRefuseUse("which file?");
   }
   char **command = argv + optind + 1;
   if (command[0] != nullptr && command[0] == "--"sv) {
      command++;
   }
   if (options.show) {
      return command[0] == nullptr ? LockShow(path) : LockRefuseUse("--show runs no command");
   }
   return command[0] != nullptr ? LockRun(options, path, command) : LockRefuseUse("no command to run");
}
