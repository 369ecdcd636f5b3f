#include "lib/misc/escape.h"

#include "base/owned.h"
#include "base/unicode.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/public/program.h"

#include <cstring>
#include <string_view>

namespace {

/* The places that the messages about impossible scanner states name. */
constexpr const char *MODULE = "lib/misc/escape";
constexpr int UNESCAPE_LINE = 253;
constexpr int STRIP_CARRIAGE_RETURNS_LINE = 392;

constexpr std::string_view HEX_DIGITS = "0123456789ABCDEF";

/* Gathers the result of one routine. A failed append is remembered, so that only Finish has to be checked; what was
   gathered is freed unless Finish hands it out. */
class EscapeOutput {
 public:
   /* Makes room for twice as much: left to itself, the buffer grows by steps, too slowly for long texts. */
   void Append(std::string_view bytes)
   {
      const uint64_t wanted = buffer_.size + bytes.size();
      complete_ = complete_ &&
                  (wanted <= buffer_.allocated || DynBuf_Enlarge(&buffer_, buffer_.allocated + wanted)) &&
                  DynBuf_Append(&buffer_, bytes.data(), bytes.size());
   }

   void AppendByte(char byte)
   {
      Append(std::string_view(&byte, 1));
   }

   /* The result for the caller of the routine, or null if anything failed. */
   [[nodiscard]] char *Finish(size_t *outLength)
   {
      AppendByte('\0');
      if (!complete_ || !DynBuf_Trim(&buffer_)) {
         return nullptr;
      }
      if (outLength != nullptr) {
         *outLength = buffer_.size - 1;
      }
      return static_cast<char *>(DynBuf_Detach(&buffer_));
   }

 private:
   OwnedDynBuf buffer_;
   bool complete_ = true;
};

[[noreturn]] void EscapeImpossibleState(int line)
{
   Panic("NOT_IMPLEMENTED %s:%d\n", MODULE, line);
}

std::string_view EscapeInput(const void *input, size_t length)
{
   return {static_cast<const char *>(input), length};
}

std::string_view EscapeRun(std::string_view input, size_t start, size_t end)
{
   return input.substr(start, end - start);
}

/* Copies the input with a text put in before each of the marked bytes. */
void EscapeInsertBefore(EscapeOutput *output, std::string_view input, std::string_view marked,
                        std::string_view inserted)
{
   size_t start = 0;
   for (size_t i = input.find_first_of(marked); i != std::string_view::npos;
        i = input.find_first_of(marked, i + 1)) {
      output->Append(EscapeRun(input, start, i));
      output->Append(inserted);
      start = i;
   }
   output->Append(input.substr(start));
}

char *EscapeBytes(std::string_view escapeText, const EscapeTable &table, std::string_view text,
                  size_t *outLength)
{
   EscapeOutput output;
   size_t start = 0;

   for (size_t i = 0; i < text.size(); i++) {
      const auto byte = static_cast<unsigned char>(text[i]);
      if (table[byte] != 0) {
         output.Append(EscapeRun(text, start, i));
         output.Append(escapeText);
         output.AppendByte(HEX_DIGITS[byte >> 4]);
         output.AppendByte(HEX_DIGITS[byte & 0xF]);
         start = i + 1;
      }
   }
   output.Append(text.substr(start));
   return output.Finish(outLength);
}

bool EscapeIsOctal(char digit)
{
   return digit >= '0' && digit <= '7';
}

/* Reads what stands behind a backslash. Returns how many bytes that takes, 0 if the backslash means itself. */
size_t EscapeReadOctalForm(const char *text, char *byte)
{
   if (*text == '\\' || *text == 'n') {
      *byte = *text == 'n' ? '\n' : '\\';
      return 1;
   }
   if (EscapeIsOctal(text[0]) && EscapeIsOctal(text[1]) && EscapeIsOctal(text[2])) {
      *byte = static_cast<char>((text[0] - '0') * 64 + (text[1] - '0') * 8 + (text[2] - '0'));
      return 3;
   }
   return 0;
}

enum class EscapeUnescapeState : uint8_t { NORMAL, AFTER_ESCAPE, AFTER_DIGIT };
enum class EscapeReturnState : uint8_t { NORMAL, AFTER_CR };

} // namespace

char *Escape_Bytes(const char *escapeText, const EscapeTable &table, const void *input, size_t length,
                   size_t *outLength)
{
   return EscapeBytes(escapeText, table, EscapeInput(input, length), outLength);
}

char *Escape_BytesWithChar(char escapeChar, const EscapeTable &table, const void *input, size_t length,
                           size_t *outLength)
{
   return EscapeBytes({&escapeChar, 1}, table, EscapeInput(input, length), outLength);
}

char *Escape_Unescape(char escapeChar, const void *input, size_t length, size_t *outLength)
{
   const std::string_view text = EscapeInput(input, length);
   EscapeOutput output;
   EscapeUnescapeState state = EscapeUnescapeState::NORMAL;
   size_t start = 0;

   for (size_t i = 0; i < length; i++) {
      const int digit = Ascii_HexValue(text[i]);
      switch (state) {
      case EscapeUnescapeState::NORMAL:
         if (text[i] == escapeChar) {
            state = EscapeUnescapeState::AFTER_ESCAPE;
         }
         break;
      case EscapeUnescapeState::AFTER_ESCAPE:
         state = digit != -1 ? EscapeUnescapeState::AFTER_DIGIT : EscapeUnescapeState::NORMAL;
         break;
      case EscapeUnescapeState::AFTER_DIGIT:
         if (digit != -1) {
            output.Append(EscapeRun(text, start, i - 2));
            output.AppendByte(static_cast<char>(Ascii_HexValue(text[i - 1]) * 16 + digit));
            start = i + 1;
         }
         state = EscapeUnescapeState::NORMAL;
         break;
      default:
         EscapeImpossibleState(UNESCAPE_LINE);
      }
   }
   output.Append(text.substr(start));
   return output.Finish(outLength);
}

bool Escape_UnescapeToBuffer(char escapeChar, const void *input, size_t length, char *buffer,
                             size_t bufferSize)
{
   size_t resultLength = 0;
   const Owned<char> result(Escape_Unescape(escapeChar, input, length, &resultLength));
   if (result == nullptr || resultLength >= bufferSize) {
      return false;
   }
   memcpy(buffer, result.get(), resultLength + 1);
   return true;
}

char *Escape_StripCarriageReturns(const void *input, size_t length, size_t *outLength)
{
   const std::string_view text = EscapeInput(input, length);
   EscapeOutput output;
   EscapeReturnState state = EscapeReturnState::NORMAL;
   size_t start = 0;

   for (size_t i = 0; i < length; i++) {
      switch (state) {
      case EscapeReturnState::NORMAL:
         break;
      case EscapeReturnState::AFTER_CR:
         if (text[i] == '\n') {
            output.Append(EscapeRun(text, start, i - 1));
            start = i;
         }
         break;
      default:
         EscapeImpossibleState(STRIP_CARRIAGE_RETURNS_LINE);
      }
      state = text[i] == '\r' ? EscapeReturnState::AFTER_CR : EscapeReturnState::NORMAL;
   }
   output.Append(text.substr(start));
   return output.Finish(outLength);
}

char *Escape_ShellQuote(const void *input, size_t length, size_t *outLength)
{
   EscapeOutput output;
   output.AppendByte('\'');
   EscapeInsertBefore(&output, EscapeInput(input, length), "'", "'\"'\"");
   output.AppendByte('\'');
   return output.Finish(outLength);
}

char *Escape_RegexMetachars(const void *input, size_t length, size_t *outLength)
{
   EscapeOutput output;
   EscapeInsertBefore(&output, EscapeInput(input, length), "$*.[\\]^", "\\");
   return output.Finish(outLength);
}

const char *Escape_FindUnescaped(char escapeChar, const char *string, char character)
{
   for (const char *at = string; *at != '\0'; at++) {
      if (*at == escapeChar) {
         at++;
         if (*at == '\0') {
            return nullptr;
         }
      } else if (*at == character) {
         return at;
      }
   }
   return nullptr;
}

char *Escape_StripEscapeChar(char escapeChar, const char *string)
{
   const std::string_view text = string;
   EscapeOutput output;
   size_t start = 0;

   /* The byte behind an escape is literal, so the search goes on after it. */
   for (size_t i = text.find(escapeChar); i != std::string_view::npos; i = text.find(escapeChar, i + 2)) {
      output.Append(EscapeRun(text, start, i));
      start = i + 1;
   }
   output.Append(text.substr(start));
   return output.Finish(nullptr);
}

void Escape_UnescapeOctalInPlace(char *string)
{
   char *write = string;
   for (const char *read = string; *read != '\0'; read++) {
      char byte = *read;
      if (byte == '\\') {
         read += EscapeReadOctalForm(read + 1, &byte);
      }
      *write++ = byte;
   }
   *write = '\0';
}

char *Escape_CommaAndBackslash(const char *string)
{
   if (string == nullptr) {
      return nullptr;
   }
   EscapeOutput output;
   EscapeInsertBefore(&output, string, ",\\", "\\");
   return output.Finish(nullptr);
}
