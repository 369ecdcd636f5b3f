#include "lib/dict/dictll.h"
#include "lib/file/fileIO.h"
#include "lib/misc/memory/secret.h"
#include "lib/public/program.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tools/dictEdit.h"
#include "tools/dictExplain.h"
#include "tools/toolExit.h"
#include "tools/toolOptions.h"
#include "tools/toolReport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <optional>
#include <string_view>

namespace {

constexpr char HELP[] =
    "usage: tessel-dict [OPTION...] get FILE NAME\n"
    "       tessel-dict [OPTION...] set FILE NAME VALUE\n"
    "       tessel-dict [OPTION...] unset FILE NAME\n"
    "       tessel-dict [OPTION...] list FILE\n"
    "       tessel-dict [OPTION...] check FILE\n"
    "       tessel-dict [OPTION...] dump FILE\n"
    "       tessel-dict explain NAME\n"
    "\n"
    "Reads and edits dictionary files: lines of the form NAME = \"VALUE\" and comments. FILE may be \"-\",\n"
    "standard input, where it is only read.\n"
    "\n"
    "  get      prints the value\n"
    "  set      gives a setting a value and leaves everything else in the file as it is\n"
    "  unset    removes a setting and leaves everything else in the file as it is\n"
    "  list     prints the settings, one a line, as the file spells them out\n"
    "  check    says what is wrong with the file, if anything is\n"
    "  dump     prints the settings as a log shows them, without values that are secrets\n"
    "  explain  says which layer of the preferences, and which file and line, decides a setting, and what\n"
    "           the other layers say\n"
    "\n"
    "  -m, --max-size BYTES  refuse larger files (default: 1073741824)\n"
    "  -w, --wait SECONDS    how long set and unset wait for the lock of the file; 0: not at all (default: "
    "60)\n"
    "  -h, --help            print this\n"
    "  --version             print the version\n"
    "\n"
    "Exit status: 0; 1: no such setting; 64: wrong use; 65: the file has errors; 66: it cannot be read; 74: "
    "it, or\n"
    "standard output, cannot be written, or its lock not be taken; 75: others hold the lock, and the wait "
    "is\n"
    "over.\n";

struct DictOptions {
   uint64_t maxBytes = uint64_t{1} << 30;
   uint32_t maxWaitMs = 60000;
};

/* What a command works on. */
struct DictTask {
   const char *file; /* The first argument, whatever it is. */
   const char *name;
   const char *value;
   DictOptions options;
   Dictionary *dictionary;
   MsgList *messages;
};

struct DictCommand {
   const char *name;
   size_t arguments;
   int (*run)(const DictTask &task);
};

void DictReportMessages(const MsgList *messages)
{
   for (size_t i = 0; i < MsgList_Count(messages); i++) {
      const std::string_view text(MsgList_Get(messages, i)->text);
      Warning("%s%s", text.data(), text.ends_with('\n') ? "" : "\n");
   }
}

/* The exit status for messages about a file that failed. */
int DictStatusFor(const MsgList *messages, int otherwise)
{
   static constexpr std::array unreadable = {"msg.dictionary.load.", "msg.dictionary.read.readError",
                                             "msg.dictionary.loadFile"};
   static constexpr std::array refused = {"msg.dictionary.writefile.export"};
   static constexpr std::array unwritable = {"msg.dictionary.writefile.", "msg.dictionary.permissions",
                                             "msg.dictionary.open",       "msg.dictionary.nameTooLong",
                                             "msg.dictionary.close",      "msg.dictionary.lock."};
   const auto any = [messages](const auto &prefixes) {
      for (size_t i = 0; i < MsgList_Count(messages); i++) {
         const std::string_view id(MsgList_Get(messages, i)->identifier);
         if (std::any_of(prefixes.begin(), prefixes.end(),
                         [id](std::string_view prefix) { return id.starts_with(prefix); })) {
            return true;
         }
      }
      return false;
   };
   if (any(unreadable)) {
      return TOOL_EXIT_INPUT;
   }
   return any(unwritable) && !any(refused) ? int{TOOL_EXIT_OUTPUT} : otherwise;
}

bool DictLoadFile(const DictTask &task)
{
   FileIOHandle file;
   SecretBuffer content;

   if (strcmp(task.file, "-") == 0) {
      return Dictionary_Load(task.dictionary, task.file);
   }
   const bool read =
       DictEdit_ReadFile(&file, task.file, O_RDONLY, task.options.maxBytes, content.get(), task.messages);
   FileIO_Close(&file);
   return read && Dictionary_LoadFromContent(task.dictionary, {content.get()->data, content.get()->size},
                                             task.file, task.messages);
}

/* 0, or an exit status with everything reported. */
int DictLoad(const DictTask &task)
{
   if (DictLoadFile(task)) {
      return TOOL_EXIT_OK;
   }
   DictReportMessages(task.messages);
   return DictStatusFor(task.messages, TOOL_EXIT_DATA);
}

int DictGet(const DictTask &task)
{
   const int status = DictLoad(task);
   if (status != TOOL_EXIT_OK) {
      return status;
   }
   const SecretString value(Dictionary_GetText(task.dictionary, task.name));
   if (value == nullptr) {
      return TOOL_EXIT_ABSENT;
   }
   puts(value.get());
   return TOOL_EXIT_OK;
}

int DictChange(const DictTask &task)
{
   if (strcmp(task.file, "-") == 0) {
      Warning("standard input cannot be edited\n");
      return TOOL_EXIT_USAGE;
   }
   const DictEdit edit = {.path = task.file,
                          .name = task.name,
                          .value = task.value,
                          .maxBytes = task.options.maxBytes,
                          .maxWaitMs = task.options.maxWaitMs};
   const DictEditResult result = DictEdit_Run(edit, task.messages);
   /* Also of what was done: a file may have been rewritten in place of being replaced. */
   DictReportMessages(task.messages);
   switch (result) {
   case DictEditResult::DONE:
      return TOOL_EXIT_OK;
   case DictEditResult::ABSENT:
      return TOOL_EXIT_ABSENT;
   case DictEditResult::BUSY:
      return TOOL_EXIT_BUSY;
   default:
      return DictStatusFor(task.messages, TOOL_EXIT_DATA);
   }
}

int DictSet(const DictTask &task)
{
   if (!Dictionary_IsSettingName(task.name)) {
      Warning("%s: no setting can have this name\n", task.name);
      return TOOL_EXIT_USAGE;
   }
   return DictChange(task);
}

bool DictListOne(const char *name, void *context)
{
   const SecretString value(Dictionary_GetText(static_cast<const Dictionary *>(context), name));
   return DictLL_WriteLine(stdout, name, value.get());
}

int DictList(const DictTask &task)
{
   const int status = DictLoad(task);
   if (status == TOOL_EXIT_OK) {
      Dictionary_ForEach(task.dictionary, DictListOne, task.dictionary);
   }
   return status;
}

int DictDump(const DictTask &task)
{
   const int status = DictLoad(task);
   if (status == TOOL_EXIT_OK) {
      ToolReport_SetLogToOutput();
      Dictionary_Dump(task.dictionary);
   }
   return status;
}

/* Its only argument is a name. */
int DictExplain(const DictTask &task)
{
   return DictExplain_Print(task.file, task.options.maxBytes) ? TOOL_EXIT_OK : TOOL_EXIT_ABSENT;
}

constexpr std::array COMMANDS = {
    DictCommand{"get", 2, DictGet},         DictCommand{"set", 3, DictSet},
    DictCommand{"unset", 2, DictChange},    DictCommand{"list", 1, DictList},
    DictCommand{"check", 1, DictLoad},      DictCommand{"dump", 1, DictDump},
    DictCommand{"explain", 1, DictExplain},
};

/* The command that the words name, if they are as many as it takes; null, reported. */
const DictCommand *DictFindCommand(char *const *words)
{
   if (words[0] == nullptr) {
      Warning("no command given; --help lists them\n");
      return nullptr;
   }
   const auto *found = std::find_if(COMMANDS.begin(), COMMANDS.end(), [words](const DictCommand &command) {
      return strcmp(command.name, words[0]) == 0;
   });
   if (found == COMMANDS.end()) {
      Warning("%s: there is no such command; --help lists them\n", words[0]);
      return nullptr;
   }
   size_t given = 0;
   while (words[given + 1] != nullptr) {
      given++;
   }
   if (given != found->arguments) {
      Warning("%s takes %zu arguments, not %zu; --help says which\n", found->name, found->arguments, given);
      return nullptr;
   }
   return found;
}

int DictRun(const DictCommand &command, char *const *arguments, const DictOptions &options)
{
   MsgList *const messages = MsgList_Create();
   const DictTask task = {.file = arguments[0],
                          .name = command.arguments > 1 ? arguments[1] : nullptr,
                          .value = command.arguments > 2 ? arguments[2] : nullptr,
                          .options = options,
                          .dictionary = Dictionary_Create(),
                          .messages = messages};
   Dictionary_SetMessageList(task.dictionary, messages);
   const int status = command.run(task);
   Dictionary_Free(task.dictionary);
   MsgList_Free(messages);
   return status;
}

bool DictParseSize(std::string_view text, uint64_t *bytes)
{
   const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), *bytes);
   return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

int DictRefuseNumber(const char *what)
{
   Warning("%s: not a number of %s\n", optarg, what);
   return TOOL_EXIT_USAGE;
}

std::optional<int> DictTakeOption(int letter, const char *word, DictOptions *options)
{
   switch (letter) {
   case 'm':
      return DictParseSize(optarg, &options->maxBytes) ? std::nullopt
                                                       : std::optional(DictRefuseNumber("bytes"));
   case 'w':
      return ToolOptions_ParseSeconds(optarg, &options->maxWaitMs)
                 ? std::nullopt
                 : std::optional(DictRefuseNumber("seconds"));
   case 'h':
      return ToolOptions_Print(HELP);
   case 'V':
      return ToolOptions_Print("tessel-dict " TESSEL_VERSION "\n");
   default:
      return ToolOptions_Refuse(letter, word);
   }
}

std::optional<int> DictParse(int argc, char **argv, DictOptions *options)
{
   static const struct option known[] = {
       {"max-size", required_argument, nullptr, 'm'},
       {"wait", required_argument, nullptr, 'w'},
       {"help", no_argument, nullptr, 'h'},
       {"version", no_argument, nullptr, 'V'},
       {nullptr, 0, nullptr, 0},
   };
   int letter;

   while ((letter = getopt_long(argc, argv, "+:m:w:h", known, nullptr)) != -1) {
      const std::optional<int> status = DictTakeOption(letter, argv[optind - 1], options);
      if (status.has_value()) {
         return status;
      }
   }
   return std::nullopt;
}

} // namespace

int main(int argc, char **argv)
{
   DictOptions options;

   ToolReport_SetProgram("tessel-dict");
   const std::optional<int> done = DictParse(argc, argv, &options);
   if (done.has_value()) {
      return *done;
   }
   const DictCommand *const command = DictFindCommand(argv + optind);
   if (command == nullptr) {
      return TOOL_EXIT_USAGE;
   }
   /* What the library logs it also says in messages, which are for the user. */
   ToolReport_SetQuiet();
   const int status = DictRun(*command, argv + optind + 1, options);
   if (fflush(stdout) != 0 || ferror(stdout) != 0) {
      Warning("cannot write to standard output: %s\n", strerror(errno));
      return TOOL_EXIT_OUTPUT;
   }
   return status;
}
