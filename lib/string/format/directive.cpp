#include "lib/string/format/directive.h"

#include <array>
#include <string_view>

namespace {

struct FormatCharacter {
   FormatKind kind = FormatKind::LITERAL;
   uint16_t flags = 0;
};

/* What each character is and which flags it sets. */
constexpr auto CHARACTERS = [] {
   constexpr struct {
      std::string_view characters;
      FormatCharacter meaning;
   } rows[] = {{"#", {FormatKind::FLAG, ALT}},
               {"-", {FormatKind::FLAG, LADJUST}},
               {"0", {FormatKind::FLAG, ZEROPAD}},
               {"'", {FormatKind::FLAG, GROUPING}},
               {"Lq", {FormatKind::FLAG, LLONGINT}},
               {"Zz", {FormatKind::FLAG, SIZET}},
               {"j", {FormatKind::FLAG, INTMAXT}},
               {"t", {FormatKind::FLAG, PTRDIFFT}},
               {" ", {FormatKind::BLANK}},
               {"+", {FormatKind::PLUS}},
               {"h", {FormatKind::SIZE_H}},
               {"l", {FormatKind::SIZE_L}},
               {"I", {FormatKind::SIZE_I}},
               {"123456789", {FormatKind::NUMBER}},
               {"*", {FormatKind::STAR}},
               {".", {FormatKind::POINT}},
               {"di", {FormatKind::DECIMAL, SIGNED}},
               {"D", {FormatKind::DECIMAL, SIGNED | LONGINT}},
               {"u", {FormatKind::DECIMAL}},
               {"U", {FormatKind::DECIMAL, LONGINT}},
               {"o", {FormatKind::OCTAL}},
               {"O", {FormatKind::OCTAL, LONGINT}},
               {"Xx", {FormatKind::HEXADECIMAL}},
               {"p", {FormatKind::POINTER}},
               {"c", {FormatKind::CHARACTER}},
               {"C", {FormatKind::CHARACTER, LONGINT}},
               {"s", {FormatKind::STRING}},
               {"S", {FormatKind::STRING, LONGINT}},
               {"Ee", {FormatKind::EXPONENTIAL, SIGNED}},
               {"Ff", {FormatKind::FIXED, SIGNED}},
               {"Gg", {FormatKind::GENERAL, SIGNED}},
               {"n", {FormatKind::COUNT}}};
   std::array<FormatCharacter, 256> table{};

   table[0].kind = FormatKind::END;
   for (const auto &row : rows) {
      for (const char character : row.characters) {
         table[static_cast<unsigned char>(character)] = row.meaning;
      }
   }
   return table;
}();

/* The scanning routines below take the place of what they read and return the place behind it. */

const char *FormatDirectiveScanNumber(const char *position, int64_t *number)
{
   int64_t value = 0;

   for (; *position >= '0' && *position <= '9'; ++position) {
      value = std::min(value * 10 + (*position - '0'), FORMAT_NUMBER_LIMIT);
   }
   *number = value;
   return position;
}

/* What follows a '*'. Digits without '$' are left where they are. */
const char *FormatDirectiveScanStar(const char *position, FormatDirective *directive)
{
   const char *const after = FormatDirectiveScanNumber(position, &directive->number);

   if (*after == '$') {
      return after + 1;
   }
   directive->number = FORMAT_NEXT;
   return position;
}

/* "I" alone is the size of size_t; "I32" an int; "I64" 64 bits. */
const char *FormatDirectiveScanSizeI(const char *position, FormatDirective *directive)
{
   if (position[0] == '3' && position[1] == '2') {
      return position + 2;
   }
   if (position[0] == '6' && position[1] == '4') {
      directive->flags |= LLONGINT;
      return position + 2;
   }
   directive->flags |= SIZET;
   return position;
}

/* The second of a pair ("hh", "ll") puts its flag in place of that of the first, also where it is set already. */
void FormatDirectiveSetOrDouble(FormatDirective *directive, unsigned once, unsigned twice)
{
   if ((directive->flags & once) != 0) {
      directive->flags = (directive->flags & ~once) | twice;
   } else {
      directive->flags |= once;
   }
}

FormatType FormatDirectiveType(FormatKind kind, unsigned flags)
{
   switch (kind) {
   case FormatKind::DECIMAL:
   case FormatKind::OCTAL:
   case FormatKind::HEXADECIMAL:
      return (flags & WIDE_INTEGER_FLAGS) != 0 ? FormatType::WIDE : FormatType::INT;
   case FormatKind::CHARACTER:
      return FormatType::INT;
   case FormatKind::POINTER:
   case FormatKind::STRING:
   case FormatKind::COUNT:
      return FormatType::POINTER;
   case FormatKind::EXPONENTIAL:
   case FormatKind::FIXED:
   case FormatKind::GENERAL:
      return (flags & LLONGINT) != 0 ? FormatType::LONG_REAL : FormatType::REAL;
   default:
      return FormatType::NONE;
   }
}

void FormatDirectiveEnd(FormatDirective *directive, char conversion)
{
   directive->conversion = conversion;
   directive->type = FormatDirectiveType(directive->kind, directive->flags);
   if ((directive->flags & SIGNED) == 0) {
      directive->sign = '\0';
   }
}

} // namespace

const char *FormatDirective_Scan(const char *position, FormatDirective *directive)
{
   for (;;) {
      const char character = *position++;
      const FormatCharacter meaning = CHARACTERS[static_cast<unsigned char>(character)];
      directive->kind = meaning.kind;
      directive->flags |= meaning.flags;
      switch (meaning.kind) {
      case FormatKind::FLAG:
         break;
      case FormatKind::BLANK:
         directive->sign = directive->sign == '\0' ? ' ' : directive->sign;
         break;
      case FormatKind::PLUS:
         directive->sign = '+';
         break;
      case FormatKind::SIZE_H:
         FormatDirectiveSetOrDouble(directive, SHORTINT, CHARINT);
         break;
      case FormatKind::SIZE_L:
         FormatDirectiveSetOrDouble(directive, LONGINT, LLONGINT);
         break;
      case FormatKind::SIZE_I:
         position = FormatDirectiveScanSizeI(position, directive);
         break;
      case FormatKind::NUMBER:
         position = FormatDirectiveScanNumber(position - 1, &directive->number);
         if (*position == '$') {
            return position + 1;
         }
         directive->width = directive->number;
         break;
      case FormatKind::STAR:
         return FormatDirectiveScanStar(position, directive);
      case FormatKind::POINT:
         if (*position == '*') {
            return FormatDirectiveScanStar(position + 1, directive);
         }
         position = FormatDirectiveScanNumber(position, &directive->precision);
         break;
      default:
         FormatDirectiveEnd(directive, character);
         return meaning.kind == FormatKind::END ? position - 1 : position;
      }
   }
}
