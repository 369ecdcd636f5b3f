#include "tools/dictEdit.h"

#include "base/owned.h"
#include "lib/dict/dictll.h"
#include "lib/file/fileIO.h"
#include "lib/file/fileLock.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"
#include "lib/string/str.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/file.h"
#include "lib/user/dictionary/write.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *MODULE = "tools/dictEdit";

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

struct DictEditEnd {
   void operator()(Dictionary *dictionary) const
   {
      Dictionary_Free(dictionary);
   }
};

using OwnedDictionary = std::unique_ptr<Dictionary, DictEditEnd>;

/* An open file, closed at the end of the scope. */
struct DictEditFile : FileIOHandle {
   DictEditFile() = default;
   DictEditFile(const DictEditFile &) = delete;
   DictEditFile &operator=(const DictEditFile &) = delete;

   ~DictEditFile()
   {
      FileIO_Close(this);
   }
};

/* Where a setting stands in the content of a file. */
struct DictEditPlace {
   std::string_view line; /* With its line feed, if it has one. */
   std::string_view token;
};

std::string_view DictEditView(DynBuf *buffer)
{
   return {buffer->data, buffer->size};
}

void DictEditAppend(DynBuf *buffer, std::string_view bytes)
{
   Secret_SafeAppend(buffer, bytes.data(), bytes.size(), MODULE, __LINE__);
}

bool DictEditFind(std::string_view content, std::string_view name, DictEditPlace *place)
{
   DictLLParts parts;

   content.remove_prefix(content.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0);
   while (!content.empty()) {
      const std::string_view text = content.substr(0, content.find('\n'));
      const std::string_view line = content.substr(0, text.size() + 1);
      if (DictLL_ParseLine(text, &parts) && parts.name.size() == name.size() &&
          strncasecmp(parts.name.data(), name.data(), name.size()) == 0) {
         *place = {.line = line, .token = parts.token};
         return true;
      }
      content.remove_prefix(line.size());
   }
   return false;
}

/* The content with the bytes of old, a part of it, replaced. */
void DictEditSplice(DynBuf *result, std::string_view content, std::string_view old, std::string_view put)
{
   const auto before = static_cast<size_t>(old.data() - content.data());
   DictEditAppend(result, content.substr(0, before));
   DictEditAppend(result, put);
   DictEditAppend(result, content.substr(before + old.size()));
}

void DictEditAddAtEnd(DynBuf *result, std::string_view content, std::string_view line)
{
   DictEditAppend(result, content);
   if (!content.empty() && content != BYTE_ORDER_MARK && !content.ends_with('\n')) {
      DictEditAppend(result, "\n");
   }
   DictEditAppend(result, line);
}

/* A line for the setting in the file's encoding; false, reported, if that cannot hold the value. */
bool DictEditMakeLine(EncodingId encoding, const DictEdit &edit, DynBuf *line, MsgList *messages)
{
   const SecretString encoded = DictionaryEncodeValue(edit.value, encoding);
   if (encoded == nullptr) {
      DictionaryReportBadOutput(edit.value, edit.name, encoding, messages);
      return false;
   }
   if (!DictLL_MarshalLine(line, edit.name, encoded.get())) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   return true;
}

bool DictEditRewrite(EncodingId encoding, const DictEdit &edit, std::string_view content, DynBuf *result,
                     MsgList *messages)
{
   SecretBuffer line;
   DictEditPlace place;
   DictLLParts parts;

   const bool found = DictEditFind(content, edit.name, &place);
   if (edit.value == nullptr) {
      DictEditSplice(result, content, place.line, "");
      return true;
   }
   if (!DictEditMakeLine(encoding, edit, line.get(), messages)) {
      return false;
   }
   const std::string_view text = DictEditView(line.get());
   if (!found) {
      DictEditAddAtEnd(result, content, text);
   } else if (DictLL_ParseLine(text.substr(0, text.size() - 1), &parts)) {
      DictEditSplice(result, content, place.token, parts.token);
   }
   return true;
}

/* The content as it should be in result; an outcome if there is nothing to write. */
std::optional<DictEditResult> DictEditChange(const DictEdit &edit, std::string_view content, DynBuf *result,
                                             MsgList *messages)
{
   const OwnedDictionary dictionary(Dictionary_Create());

   if (!Dictionary_LoadFromContent(dictionary.get(), content, edit.path, messages)) {
      return DictEditResult::FAILED;
   }
   if (!DictionaryCheckIntegrity(dictionary.get())) {
      DictionaryReportExport(messages);
      return DictEditResult::FAILED;
   }
   const SecretString old(Dictionary_GetText(dictionary.get(), edit.name));
   if (edit.value == nullptr && old == nullptr) {
      return DictEditResult::ABSENT;
   }
   if (edit.value != nullptr && old != nullptr && strcmp(old.get(), edit.value) == 0) {
      return DictEditResult::DONE;
   }
   if (!DictEditRewrite(Dictionary_GetEncoding(dictionary.get()), edit, content, result, messages)) {
      return DictEditResult::FAILED;
   }
   return std::nullopt;
}

DictEditResult DictEditReplace(FileIOHandle *file, const DictEdit &edit, std::string_view content,
                               MsgList *messages)
{
   SecretBuffer result;

   const std::optional<DictEditResult> outcome = DictEditChange(edit, content, result.get(), messages);
   if (outcome.has_value()) {
      return *outcome;
   }
   const bool replaced = DictionaryFile_Replace(file, DictEditView(result.get()), messages);
   return DictionaryFile_Close(file, messages) && replaced ? DictEditResult::DONE : DictEditResult::FAILED;
}

/* The file that a path leads to. */
struct DictEditTarget {
   Owned<char> path;       /* Free of links; as it was given if its folder is not to be found. */
   OwnedDescriptor folder; /* That the file is in, or is to be; -1: none that can be opened. */
};

/* The path of a file that is not there yet: null if its folder is not either, or it has no name. */
char *DictEditNewPath(const char *given)
{
   const char *const slash = strrchr(given, '/');
   const char *const name = slash != nullptr ? slash + 1 : given;
   const Owned<char> folder(slash != nullptr ? Util_SafeStrndup(given, static_cast<size_t>(name - given))
                                             : Util_SafeStrdup("."));
   const Owned<char> real(*name != '\0' ? Posix_RealPath(folder.get()) : nullptr);
   if (real == nullptr) {
      return nullptr;
   }
   return Str_SafeAsprintf(nullptr, "%s%s%s", real.get(), strcmp(real.get(), "/") == 0 ? "" : "/", name);
}

/* Once and before the lock is waited for, while others may exchange what the path leads through. */
DictEditTarget DictEditResolve(const char *given)
{
   DictEditTarget target;

   target.path.reset(Posix_RealPath(given));
   if (target.path == nullptr) {
      target.path.reset(DictEditNewPath(given));
   }
   if (target.path == nullptr) {
      target.path.reset(Util_SafeStrdup(given));
      return target;
   }
   /* Without the slash, behind which a link would be followed. */
   const std::string_view path(target.path.get());
   const size_t size = std::max<size_t>(path.rfind('/'), 1);
   const Owned<char> folder(Util_SafeStrndup(path.data(), size));
   target.folder.reset(
       Uninterrupted([&] { return open(folder.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
   return target;
}

const char *DictEditName(const char *path)
{
   const char *const slash = strrchr(path, '/');
   return slash != nullptr ? slash + 1 : path;
}

/* Opens a new file under the temporary name, in the folder where it is to stand. */
bool DictEditOpenNew(FileIOHandle *temporary, const DictEditTarget &target)
{
   static constexpr mode_t mode = 0754;

   temporary->path = Str_SafeAsprintf(nullptr, "%s~", target.path.get());
   temporary->folder = fcntl(target.folder.get(), F_DUPFD_CLOEXEC, 0);
   if (temporary->folder == -1) {
      return false;
   }
   const char *const name = DictEditName(temporary->path);
   if (unlinkat(temporary->folder, name, 0) == -1 && errno != ENOENT) {
      return false;
   }
   temporary->fd = Uninterrupted([&] {
      return openat(temporary->folder, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
   });
   return temporary->fd != -1;
}

/* The file comes to be with its content, so that nobody ever sees it empty. */
DictEditResult DictEditMake(const DictEdit &edit, const DictEditTarget &target, MsgList *messages)
{
   DictEditFile temporary;
   SecretBuffer content;
   SecretBuffer result;

   DictEditAppend(content.get(), ".encoding = \"UTF-8\"\n");
   const std::optional<DictEditResult> outcome =
       DictEditChange(edit, DictEditView(content.get()), result.get(), messages);
   if (outcome.has_value()) {
      return *outcome;
   }
   if (!DictEditOpenNew(&temporary, target)) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.open") "Cannot open configuration file \"%s\": %s.\n",
                     edit.path, strerror(errno));
      return DictEditResult::FAILED;
   }
   return DictionaryFile_StoreNew(&temporary, edit.path, DictEditView(result.get()), messages)
              ? DictEditResult::DONE
              : DictEditResult::FAILED;
}

DictEditResult DictEditLocked(const DictEdit &edit, const DictEditTarget &target, MsgList *messages)
{
   struct stat attributes;
   SecretBuffer content;
   DictEditFile file;

   /* Of a link that leads nowhere it is not known whose file it would make. */
   if (edit.value != nullptr && target.folder.get() != -1 &&
       fstatat(target.folder.get(), DictEditName(edit.path), &attributes, AT_SYMLINK_NOFOLLOW) == -1 &&
       errno == ENOENT) {
      return DictEditMake(edit, target, messages);
   }
   /* Whose lock is held is the file at this path, and not what a link there leads to. */
   if (!DictEdit_ReadFile(&file, edit.path, O_RDWR | O_NOFOLLOW, edit.maxBytes, content.get(), messages)) {
      return DictEditResult::FAILED;
   }
   return DictEditReplace(&file, edit, DictEditView(content.get()), messages);
}

void DictEditReportBusy(const DictEdit &edit, MsgList *messages)
{
   FileLockParty *parties = nullptr;
   const int count = FileLock_List(edit.path, &parties);
   const Owned<FileLockParty> owned(parties);

   for (int i = 0; i < count; i++) {
      if (parties[i].state == FILE_LOCK_HOLDS) {
         MsgList_Append(
             messages, MSGLIST_ID("dictionary.lock.held") "\"%s\" is locked by process %s of %s.\n",
             edit.path, parties[i].execution, parties[i].local ? "this machine" : parties[i].machine);
         return;
      }
   }
   MsgList_Append(messages, MSGLIST_ID("dictionary.lock.busy") "\"%s\" is locked by others.\n", edit.path);
}

} // namespace

bool DictEdit_ReadFile(FileIOHandle *file, const char *path, int flags, uint64_t maxBytes, DynBuf *content,
                       MsgList *messages)
{
   if (FileIO_OpenRegular(file, path, flags, 0, maxBytes) && DictionaryFile_Read(*file, maxBytes, content)) {
      return true;
   }
   if (errno == EISDIR) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.load.isDirectory") "\"%s\" is a directory.\n", path);
   } else if (errno == EINVAL) {
      MsgList_Append(messages, MSGLIST_ID("dictionary.load.notRegular") "\"%s\" is not a regular file.\n",
                     path);
   } else if (errno == EFBIG) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.load.tooLarge") "\"%s\" is larger than %llu bytes; --max-size "
                                                            "moves this limit.\n",
                     path, static_cast<unsigned long long>(maxBytes));
   } else {
      MsgList_Append(messages, MSGLIST_ID("dictionary.load.openFailed") "Cannot open file \"%s\": %s.\n",
                     path, strerror(errno));
   }
   return false;
}

DictEditResult DictEdit_Run(const DictEdit &edit, MsgList *messages)
{
   FileLockHooks hooks;
   int error;

   /* Every road to the file leads to one lock. */
   const DictEditTarget target = DictEditResolve(edit.path);
   DictEdit there = edit;
   there.path = target.path.get();
   hooks.message = MsgList_Append;
   hooks.list = messages;
   FileLockToken *const token = FileLock_Lock(there.path, true, there.maxWaitMs, hooks, &error);
   if (token == nullptr && error == 0) {
      DictEditReportBusy(there, messages);
      return DictEditResult::BUSY;
   }
   if (token == nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.lock.failed") "The lock of \"%s\" cannot be taken: %s.\n",
                     there.path, strerror(error));
      return DictEditResult::FAILED;
   }
   const DictEditResult result = DictEditLocked(there, target, messages);
   return FileLock_Unlock(token, hooks) == 0 ? result : DictEditResult::FAILED;
}
