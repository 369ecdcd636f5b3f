#include "lib/user/dictionary/edit.h"

#include "lib/dict/dictll.h"
#include "lib/misc/memory/secret.h"
#include "lib/public/program.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/encoding.h"
#include "lib/user/dictionary/file.h"
#include "lib/user/dictionary/read.h"
#include "lib/user/dictionary/write.h"
#include "lib/user/msgList.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

struct DictionaryEnd {
   void operator()(Dictionary *dictionary) const
   {
      Dictionary_Free(dictionary);
   }
};

using OwnedDictionary = std::unique_ptr<Dictionary, DictionaryEnd>;

/* An open file, closed at the end of the scope. */
struct OpenFile {
   FileIOHandle handle = FILEIO_CLOSED;

   OpenFile() = default;
   OpenFile(const OpenFile &) = delete;
   OpenFile &operator=(const OpenFile &) = delete;

   ~OpenFile()
   {
      FileIO_Close(&handle);
   }
};

/* Where a setting stands in the content of a file. */
struct Place {
   std::string_view line; /* With its line feed, if it has one. */
   std::string_view token;
};

std::string_view DictionaryView(const DynBuf *buffer)
{
   return {buffer->data, buffer->size};
}

void DictionaryEditAppend(DynBuf *buffer, std::string_view bytes)
{
   if (!Secret_Append(buffer, bytes.data(), bytes.size())) {
      Panic("MEM_ALLOC %s:%d\n", "lib/user/dictionary", __LINE__);
   }
}

bool DictionaryReadAll(const FileIOHandle &file, DynBuf *content, MsgList *messages)
{
   std::array<char, 4096> block;
   ssize_t count;

   while ((count = pread(file.fd, block.data(), block.size(), static_cast<off_t>(content->size))) != 0) {
      if (count == -1 && errno == EINTR) {
         continue;
      }
      if (count == -1) {
         MsgList_Append(messages, MSGLIST_ID("dictionary.load.openFailed") "Cannot open file \"%s\": %s.\n",
                        file.path, strerror(errno));
         return false;
      }
      DictionaryEditAppend(content, {block.data(), static_cast<size_t>(count)});
   }
   Secret_Zero(block.data(), block.size());
   return true;
}

/* Takes the first line, with its line feed, off the text. */
std::string_view DictionaryTakeFirstLine(std::string_view *text)
{
   const size_t feed = text->find('\n');
   const std::string_view line = text->substr(0, feed == std::string_view::npos ? feed : feed + 1);
   text->remove_prefix(line.size());
   return line;
}

bool DictionaryFindPlace(std::string_view content, const char *name, Place *place)
{
   DictLLParts parts;

   if (content.starts_with(BYTE_ORDER_MARK)) {
      content.remove_prefix(BYTE_ORDER_MARK.size());
   }
   while (!content.empty()) {
      const std::string_view line = DictionaryTakeFirstLine(&content);
      const std::string_view text = line.ends_with('\n') ? line.substr(0, line.size() - 1) : line;
      if (DictLL_ParseLine(text, &parts) && parts.name.size() == strlen(name) &&
          strncasecmp(parts.name.data(), name, parts.name.size()) == 0) {
         *place = {.line = line, .token = parts.token};
         return true;
      }
   }
   return false;
}

/* The content with the bytes of old, a part of it, replaced. */
void DictionarySplice(DynBuf *result, std::string_view content, std::string_view old, std::string_view put)
{
   const auto before = static_cast<size_t>(old.data() - content.data());
   DictionaryEditAppend(result, content.substr(0, before));
   DictionaryEditAppend(result, put);
   DictionaryEditAppend(result, content.substr(before + old.size()));
}

void DictionaryAddAtEnd(DynBuf *result, std::string_view content, std::string_view line)
{
   DictionaryEditAppend(result, content);
   if (!content.empty() && content != BYTE_ORDER_MARK && !content.ends_with('\n')) {
      DictionaryEditAppend(result, "\n");
   }
   DictionaryEditAppend(result, line);
}

/* A line for the setting in the file's encoding; false, reported, if that cannot hold the value. */
bool DictionaryMakeLine(EncodingId encoding, const char *name, const char *value, DynBuf *line,
                        MsgList *messages)
{
   const SecretString encoded = DictionaryEncodeValue(value, encoding);
   if (encoded == nullptr) {
      MsgList_Append(messages,
                     MSGLIST_ID("dictionary.badEncodedOutput") "Value \"%s\" for variable \"%s\" is not "
                                                               "valid in the \"%s\" encoding.\n",
                     value, name, Unicode_EncodingEnumToName(encoding));
      return false;
   }
   if (!DictLL_MarshalLine(line, name, encoded.get())) {
      Panic("MEM_ALLOC %s:%d\n", "lib/user/dictionary", __LINE__);
   }
   return true;
}

bool DictionaryRewrite(const Dictionary *dictionary, const char *name, const char *value,
                       std::string_view content, DynBuf *result, MsgList *messages)
{
   SecretBuffer line;
   Place place;
   DictLLParts parts;

   const bool found = DictionaryFindPlace(content, name, &place);
   if (value == nullptr) {
      DictionarySplice(result, content, place.line, "");
      return true;
   }
   if (!DictionaryMakeLine(Dictionary_GetEncoding(dictionary), name, value, line.get(), messages)) {
      return false;
   }
   const std::string_view text = DictionaryView(line.get());
   if (!found) {
      DictionaryAddAtEnd(result, content, text);
   } else if (DictLL_ParseLine(text.substr(0, text.size() - 1), &parts)) {
      DictionarySplice(result, content, place.token, parts.token);
   }
   return true;
}

/* The file as it should be, if it should be otherwise. */
DictionaryEditResult DictionaryEditOpen(FileIOHandle *file, const char *name, const char *value,
                                        MsgList *messages)
{
   const OwnedDictionary dictionary(Dictionary_Create());
   SecretBuffer content;
   SecretBuffer result;

   if (!Dictionary_LoadFromFileHandle(dictionary.get(), file, messages) ||
       !DictionaryReadAll(*file, content.get(), messages)) {
      return DictionaryEditResult::FAILED;
   }
   if (!DictionaryCheckIntegrity(dictionary.get())) {
      DictionaryReportExport(messages);
      return DictionaryEditResult::FAILED;
   }
   const SecretString old(Dictionary_GetText(dictionary.get(), name));
   if (value == nullptr && old == nullptr) {
      return DictionaryEditResult::ABSENT;
   }
   if (value != nullptr && old != nullptr && strcmp(old.get(), value) == 0) {
      return DictionaryEditResult::DONE;
   }
   if (!DictionaryRewrite(dictionary.get(), name, value, DictionaryView(content.get()), result.get(),
                          messages) ||
       !DictionaryFile_Replace(file, DictionaryView(result.get()), messages)) {
      return DictionaryEditResult::FAILED;
   }
   return DictionaryFile_Close(file, messages) ? DictionaryEditResult::DONE : DictionaryEditResult::FAILED;
}

DictionaryEditResult DictionaryMakeFile(const char *path, const char *name, const char *value,
                                        MsgList *messages)
{
   const OwnedDictionary dictionary(Dictionary_Create());

   Dictionary_SetMessageList(dictionary.get(), messages);
   Dictionary_SetString(dictionary.get(), value, 0, name);
   return Dictionary_WriteFile(dictionary.get(), path) ? DictionaryEditResult::DONE
                                                       : DictionaryEditResult::FAILED;
}

} // namespace

bool Dictionary_IsSettingName(const char *name)
{
   SecretBuffer line;
   DictLLParts parts;

   DictionaryEditAppend(line.get(), name);
   DictionaryEditAppend(line.get(), "=");
   return name[0] != '.' && strchr(name, '\n') == nullptr && !DictionaryIsEncodingName(name) &&
          Unicode_IsBufferValid(name, static_cast<ssize_t>(strlen(name)), ENCODING_US_ASCII) &&
          DictLL_ParseLine(DictionaryView(line.get()), &parts) && parts.name == name && parts.value.empty();
}

DictionaryEditResult Dictionary_EditFile(const char *path, const char *name, const char *value,
                                         MsgList *messages)
{
   struct stat attributes;
   OpenFile file;

   if (value != nullptr && stat(path, &attributes) == -1 && errno == ENOENT) {
      return DictionaryMakeFile(path, name, value, messages);
   }
   if (!DictionaryFile_OpenOld(&file.handle, path, messages)) {
      return DictionaryEditResult::FAILED;
   }
   return DictionaryEditOpen(&file.handle, name, value, messages);
}
