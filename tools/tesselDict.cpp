#include "lib/dict/dictll.h"
#include "lib/misc/memory/secret.h"
#include "lib/public/program.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/edit.h"
#include "lib/user/msgList.h"
#include "tools/dictExplain.h"
#include "tools/toolExit.h"
#include "tools/toolOptions.h"
#include "tools/toolReport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr char HELP[] =
    "usage: tessel-dict get FILE NAME\n"
    "       tessel-dict set FILE NAME VALUE\n"
    "       tessel-dict unset FILE NAME\n"
    "       tessel-dict list FILE\n"
    "       tessel-dict check FILE\n"
    "       tessel-dict dump FILE\n"
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
    "  -h, --help  print this\n"
    "  --version   print the version\n"
    "\n"
    "Exit status: 0; 1: no such setting; 64: wrong use; 65: the file has errors; 66: it cannot be read; 74: "
    "it, or\n"
    "standard output, cannot be written.\n";

/* What a command works on. */
struct DictTask {
   const char *file; /* The first argument, whatever it is. */
   const char *name;
   const char *value;
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
                                             "msg.dictionary.open", "msg.dictionary.nameTooLong",
                                             "msg.dictionary.close"};
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

/* 0, or an exit status with everything reported. */
int DictLoad(const DictTask &task)
{
   if (Dictionary_Load(task.dictionary, task.file)) {
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

int DictEdit(const DictTask &task)
{
   if (strcmp(task.file, "-") == 0) {
      Warning("standard input cannot be edited\n");
      return TOOL_EXIT_USAGE;
   }
   switch (Dictionary_EditFile(task.file, task.name, task.value, task.messages)) {
   case DictionaryEditResult::DONE:
      /* A file may have been rewritten in place of being replaced. */
      DictReportMessages(task.messages);
      return TOOL_EXIT_OK;
   case DictionaryEditResult::ABSENT:
      return TOOL_EXIT_ABSENT;
   default:
      DictReportMessages(task.messages);
      return DictStatusFor(task.messages, TOOL_EXIT_DATA);
   }
}

int DictSet(const DictTask &task)
{
   if (!Dictionary_IsSettingName(task.name)) {
      Warning("%s: no setting can have this name\n", task.name);
      return TOOL_EXIT_USAGE;
   }
   return DictEdit(task);
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
   return DictExplain_Print(task.file) ? TOOL_EXIT_OK : TOOL_EXIT_ABSENT;
}

constexpr std::array COMMANDS = {
    DictCommand{"get", 2, DictGet},         DictCommand{"set", 3, DictSet},
    DictCommand{"unset", 2, DictEdit},      DictCommand{"list", 1, DictList},
    DictCommand{"check", 1, DictLoad},      DictCommand{"dump", 1, DictDump},
    DictCommand{"explain", 1, DictExplain},
};

/* The command that the words name, if they are as many as it takes; null, reported. */
const DictCommand *DictFindCommand(char *const *words)
{
   if (words == nullptr) {
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

int DictRun(const DictCommand &command, char *const *arguments)
{
   MsgList *const messages = MsgList_Create();
   const DictTask task = {.file = arguments[0],
                          .name = command.arguments > 1 ? arguments[1] : nullptr,
                          .value = command.arguments > 2 ? arguments[2] : nullptr,
                          .dictionary = Dictionary_Create(),
                          .messages = messages};
   Dictionary_SetMessageList(task.dictionary, messages);
   const int status = command.run(task);
   Dictionary_Free(task.dictionary);
   MsgList_Free(messages);
   return status;
}

} // namespace

int main(int argc, char **argv)
{
   static constexpr ToolUsage usage = {.program = "tessel-dict",
                                       .help = HELP,
                                       .version = "tessel-dict " TESSEL_VERSION "\n",
                                       .takesDaemon = false,
                                       .takesSocket = false};
   ToolOptions options;

   const std::optional<int> done = ToolOptions_Parse(argc, argv, usage, &options);
   if (done.has_value()) {
      return *done;
   }
   const DictCommand *const command = DictFindCommand(options.command);
   if (command == nullptr) {
      return TOOL_EXIT_USAGE;
   }
   /* What the library logs it also says in messages, which are for the user. */
   ToolReport_SetQuiet();
   const int status = DictRun(*command, options.command + 1);
   if (fflush(stdout) != 0 || ferror(stdout) != 0) {
      Warning("cannot write to standard output: %s\n", strerror(errno));
      return TOOL_EXIT_OUTPUT;
   }
   return status;
}
