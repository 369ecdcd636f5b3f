#include "lib/dict/dictll.h"

#include "lib/misc/escape.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/public/program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char *MODULE = "lib/dict/dictll";

constexpr char ESCAPE = '|';
constexpr size_t CHUNK = 512;

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

/* The classes of bytes, each a bit. */
enum ByteClass : uint8_t { BLANK = 1, BARE = 2, NAME = 4 };

constexpr std::array<uint8_t, 256> MakeClasses()
{
   std::array<uint8_t, 256> classes{};
   classes.fill(BARE | NAME);
   classes['\0'] = classes['#'] = 0;
   classes['\t'] = classes[' '] = BLANK;
   classes['='] = BARE;
   return classes;
}

constexpr std::array<uint8_t, 256> classes = MakeClasses();

constexpr EscapeTable MakeEscaped()
{
   EscapeTable table{};
   for (size_t byte = 0; byte < 0x20; byte++) {
      table[byte] = byte != '\t' ? 1 : 0;
   }
   table['"'] = table[ESCAPE] = table[0x7F] = 1;
   return table;
}

constexpr EscapeTable escaped = MakeEscaped();

/* Takes the longest run of bytes of a class off the front of the text. */
std::string_view DictLLTake(std::string_view *text, ByteClass wanted)
{
   size_t length = 0;
   while (length < text->size() && (classes[static_cast<unsigned char>((*text)[length])] & wanted) != 0) {
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
   if (close == std::string_view::npos) {
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

/* The stream's next byte, or EOF: the stream is then at its end or in error. */
int DictLLReadByte(FILE *stream)
{
   while (true) {
      const int byte = getc_unlocked(stream);
      if (byte != EOF || ferror(stream) == 0 || errno != EINTR) {
         return byte;
      }
      clearerr(stream);
   }
}

/* Holds the bytes of one line: a short one takes no memory but the chunk. */
struct LineText {
   std::array<char, CHUNK> chunk;
   size_t used = 0;
   SecretBuffer rest;

   LineText() = default;
   LineText(const LineText &) = delete;
   LineText &operator=(const LineText &) = delete;

   ~LineText()
   {
      Secret_Zero(chunk.data(), chunk.size());
   }

   void Spill()
   {
      if (!Secret_Append(rest.get(), chunk.data(), used)) {
         Panic("MEM_ALLOC %s:%d\n", MODULE, __LINE__);
      }
      used = 0;
   }

   void Append(char byte)
   {
      if (used == chunk.size()) {
         Spill();
      }
      chunk[used++] = byte;
   }

   std::string_view Finish()
   {
      if (rest.get()->size == 0) {
         return {chunk.data(), used};
      }
      Spill();
      return {rest.get()->data, rest.get()->size};
   }
};

bool DictLLAppend(DynBuf *output, std::string_view bytes)
{
   return Secret_Append(output, bytes.data(), bytes.size());
}

bool DictLLAppendEscaped(DynBuf *output, std::string_view value)
{
   const auto mustEscape = [](char byte) { return escaped[static_cast<unsigned char>(byte)] != 0; };
   if (std::none_of(value.begin(), value.end(), mustEscape)) {
      return DictLLAppend(output, value);
   }
   const SecretString text(Escape_BytesWithChar(ESCAPE, escaped, value.data(), value.size(), nullptr));
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

int DictLL_ReadLine(FILE *stream, char **line, char **name, char **value)
{
   LineText text;
   int byte;
   bool any = false;

   *line = *name = *value = nullptr;
   flockfile(stream);
   while ((byte = DictLLReadByte(stream)) != EOF && byte != '\n') {
      text.Append(static_cast<char>(byte));
      any = true;
   }
   const bool failed = byte == EOF && ferror(stream) != 0;
   funlockfile(stream);
   if (failed) {
      return 0;
   }
   if (byte == EOF && !any) {
      return 1;
   }
   DictLLHandOut(text.Finish(), line, name, value);
   return 2;
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
