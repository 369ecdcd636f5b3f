#include "lib/dict/dictll.h"

#include "lib/misc/escape.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/dict/dictll";

constexpr char ESCAPE = '|';
constexpr size_t USUAL_LINE = 256;

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

/* The classes of bytes, each a bit. */
enum DictLLClass : uint8_t { BLANK = 1, BARE = 2, NAME = 4 };

constexpr std::array<uint8_t, 256> DictLLMakeClasses()
{
   std::array<uint8_t, 256> classes{};
   classes.fill(BARE | NAME);
   classes['\0'] = classes['#'] = 0;
   classes['\t'] = classes[' '] = BLANK;
   classes['='] = BARE;
   return classes;
}

constexpr std::array<uint8_t, 256> CLASSES = DictLLMakeClasses();

constexpr EscapeTable DictLLMakeEscaped()
{
   EscapeTable table{};
   for (size_t byte = 0; byte < 0x20; byte++) {
      table[byte] = byte != '\t' ? 1 : 0;
   }
   table['"'] = table[ESCAPE] = table[0x7F] = 1;
   return table;
}

constexpr EscapeTable ESCAPED = DictLLMakeEscaped();

/* Takes the longest run of bytes of a class off the front of the text. */
std::string_view DictLLTake(std::string_view *text, DictLLClass wanted)
{
   size_t length = 0;
   while (length < text->size() && (CLASSES[static_cast<unsigned char>((*text)[length])] & wanted) != 0) {
      length++;
   }
   const std::string_view run = text->substr(0, length);
   text->remove_prefix(length);
   return run;
}

bool DictLLTakeValue(std::string_view *text, DictLLParts *parts)
{
   if (text->empty() || text->front() != '"') {
      parts->token = parts->value = DictLLTake(text, BARE);
      return true;
   }
   const size_t close = text->find('"', 1);
   if (close == std::string_view::npos || text->substr(0, close).find('\0') != std::string_view::npos) {
      return false;
   }
   parts->token = text->substr(0, close + 1);
   parts->value = text->substr(1, close - 1);
   text->remove_prefix(close + 1);
   return true;
}

void DictLLHandOut(std::string_view text, char **line, char **name, char **value)
{
   DictLLParts parts;

   *line = Util_SafeStrndup(text.data(), text.size());
   if (DictLL_ParseLine(text, &parts)) {
      *name = Util_SafeStrndup(parts.name.data(), parts.name.size());
      *value = DictLL_Unescape(parts.value);
   }
}

/* What one call of fgets gave. */
struct DictLLChunk {
   size_t size;
   bool ended; /* By a line feed, which is not counted. */
   bool full;  /* There is more. */
};

/* One chunk into room that is filled with line feeds before, since otherwise its size could not be told where the file
   has NUL bytes: the line feed of a line has a NUL behind it, as no other one has. */
DictLLChunk DictLLReadChunk(FILE *stream, char *room, size_t size)
{
   memset(room, '\n', size);
   const bool given = fgets(room, static_cast<int>(size), stream) != nullptr;
   const auto *feed = static_cast<const char *>(memchr(room, '\n', size));
   if (feed == nullptr) {
      return {.size = size - 1, .ended = false, .full = true};
   }
   const auto length = static_cast<size_t>(feed - room);
   if (given && length + 1 < size && feed[1] == '\0') {
      return {.size = length, .ended = true, .full = false};
   }
   /* Without a line feed the NUL comes before the first; after an error there may be none. */
   return {.size = given ? length - 1 : length, .ended = false, .full = false};
}

bool DictLLAppend(DynBuf *output, std::string_view bytes)
{
   return Secret_Append(output, bytes.data(), bytes.size());
}

bool DictLLAppendEscaped(DynBuf *output, std::string_view value)
{
   const auto mustEscape = [](char byte) { return ESCAPED[static_cast<unsigned char>(byte)] != 0; };
   if (std::none_of(value.begin(), value.end(), mustEscape)) {
      return DictLLAppend(output, value);
   }
   const SecretString text(Escape_BytesWithChar(ESCAPE, ESCAPED, value.data(), value.size(), nullptr));
   return text != nullptr && DictLLAppend(output, text.get());
}

bool DictLLAppendDefinition(DynBuf *output, const char *name, const char *value)
{
   return DictLLAppend(output, name) && DictLLAppend(output, " = \"") && DictLLAppendEscaped(output, value) &&
          DictLLAppend(output, "\"\n");
}

} // namespace

bool DictLL_ParseLine(std::string_view line, DictLLParts *parts)
{
   DictLLParts found;

   DictLLTake(&line, BLANK);
   found.name = DictLLTake(&line, NAME);
   DictLLTake(&line, BLANK);
   if (found.name.empty() || line.empty() || line.front() != '=') {
      return false;
   }
   line.remove_prefix(1);
   DictLLTake(&line, BLANK);
   if (!DictLLTakeValue(&line, &found)) {
      return false;
   }
   DictLLTake(&line, BLANK);
   if (!line.empty() && line.front() != '#') {
      return false;
   }
   *parts = found;
   return true;
}

bool DictLL_IsEscaped(std::string_view value)
{
   return value.find(ESCAPE) != std::string_view::npos;
}

char *DictLL_Unescape(std::string_view value)
{
   if (!DictLL_IsEscaped(value)) {
      return Util_SafeStrndup(value.data(), value.size());
   }
   char *const plain = Escape_Unescape(ESCAPE, value.data(), value.size(), nullptr);
   if (plain == nullptr) {
      Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
   }
   return plain;
}

const char *DictLL_UnmarshalLine(const char *buffer, size_t size, char **line, char **name, char **value)
{
   *line = *name = *value = nullptr;
   if (size == 0) {
      return nullptr;
   }
   const auto *feed = static_cast<const char *>(memchr(buffer, '\n', size));
   const char *end = feed != nullptr ? feed : buffer + size;
   DictLLHandOut({buffer, static_cast<size_t>(end - buffer)}, line, name, value);
   return feed != nullptr ? feed + 1 : end;
}

int DictLL_ReadText(FILE *stream, DynBuf *text)
{
   text->size = 0;
   while (true) {
      Secret_SafeReserve(text, USUAL_LINE, MODULE, __LINE__);
      /* Of what an earlier line left, which may be much, no more is filled than was read of this one. */
      const size_t room =
          std::min<size_t>({text->allocated - text->size, std::max<size_t>(USUAL_LINE, text->size), INT_MAX});
      const DictLLChunk chunk = DictLLReadChunk(stream, text->data + text->size, room);
      text->size += chunk.size;
      if (chunk.ended) {
         return 2;
      }
      if (ferror(stream) != 0 && errno != EINTR) {
         return 0;
      }
      if (!chunk.full && ferror(stream) == 0) {
         return text->size != 0 ? 2 : 1;
      }
      clearerr(stream);
   }
}

int DictLL_ReadLine(FILE *stream, char **line, char **name, char **value)
{
   SecretBuffer text;

   *line = *name = *value = nullptr;
   const int result = DictLL_ReadText(stream, text.get());
   if (result == 2) {
      DictLLHandOut({text.get()->data, text.get()->size}, line, name, value);
   }
   return result;
}

bool DictLL_MarshalLine(DynBuf *output, const char *name, const char *value)
{
   const uint64_t size = output->size;
   const bool complete = name != nullptr ? DictLLAppendDefinition(output, name, value)
                                         : DictLLAppend(output, value) && DictLLAppend(output, "\n");
   if (!complete) {
      output->size = size;
   }
   return complete;
}

bool DictLL_WriteLine(FILE *stream, const char *name, const char *value)
{
   SecretBuffer text;

   if (!DictLL_MarshalLine(text.get(), name, value)) {
      errno = ENOMEM;
      return false;
   }
   return fwrite(text.get()->data, 1, text.get()->size, stream) == text.get()->size;
}

bool DictLL_ReadUTF8BOM(FILE *stream)
{
   if (stream == stdin) {
      return false;
   }
   for (size_t i = 0; i < BYTE_ORDER_MARK.size(); i++) {
      const int byte = getc(stream);
      if (byte == static_cast<unsigned char>(BYTE_ORDER_MARK[i])) {
         continue;
      }
      /* One byte can be put back where there is no seeking: in a pipe, say. */
      if (i != 0 || byte == EOF || ungetc(byte, stream) == EOF) {
         rewind(stream);
      }
      return false;
   }
   return true;
}
