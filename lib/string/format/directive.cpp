#include "lib/string/format/directive.h"

#include <array>
#include <string_view>

namespace {

struct FormatCharacter {
   FormatKind kind = FormatKind::LITERAL;
   FormatType type = FormatType::NONE; /* of the argument, without size prefixes */
   uint16_t flags = 0;
};

/* What each character is, what it takes, and which flags it sets. */
constexpr auto CHARACTERS = [] {
   constexpr struct {
      std::string_view characters;
      FormatCharacter meaning;
   } rows[] = {{"#", {FormatKind::FLAG, FormatType::NONE, ALT}},
               {"-", {FormatKind::FLAG, FormatType::NONE, LADJUST}},
               {"0", {FormatKind::FLAG, FormatType::NONE, ZEROPAD}},
               {"'", {FormatKind::FLAG, FormatType::NONE, GROUPING}},
               {"Lq", {FormatKind::FLAG, FormatType::NONE, LLONGINT}},
               {"Zz", {FormatKind::FLAG, FormatType::NONE, SIZET}},
               {"j", {FormatKind::FLAG, FormatType::NONE, INTMAXT}},
               {"t", {FormatKind::FLAG, FormatType::NONE, PTRDIFFT}},
               {" ", {FormatKind::BLANK}},
               {"+", {FormatKind::PLUS}},
               {"h", {FormatKind::SIZE_H}},
               {"l", {FormatKind::SIZE_L}},
               {"I", {FormatKind::SIZE_I}},
               {"123456789", {FormatKind::NUMBER}},
               {"*", {FormatKind::STAR}},
               {".", {FormatKind::POINT}},
               {"di", {FormatKind::DECIMAL, FormatType::INT, SIGNED}},
               {"D", {FormatKind::DECIMAL, FormatType::INT, SIGNED | LONGINT}},
               {"u", {FormatKind::DECIMAL, FormatType::INT}},
               {"U", {FormatKind::DECIMAL, FormatType::INT, LONGINT}},
               {"o", {FormatKind::OCTAL, FormatType::INT}},
               {"O", {FormatKind::OCTAL, FormatType::INT, LONGINT}},
               {"Xx", {FormatKind::HEXADECIMAL, FormatType::INT}},
               {"p", {FormatKind::POINTER, FormatType::POINTER}},
               {"c", {FormatKind::CHARACTER, FormatType::INT}},
               {"C", {FormatKind::CHARACTER, FormatType::INT, LONGINT}},
               {"s", {FormatKind::STRING, FormatType::POINTER}},
               {"S", {FormatKind::STRING, FormatType::POINTER, LONGINT}},
               {"Ee", {FormatKind::EXPONENTIAL, FormatType::REAL, SIGNED}},
               {"Ff", {FormatKind::FIXED, FormatType::REAL, SIGNED}},
               {"Gg", {FormatKind::GENERAL, FormatType::REAL, SIGNED}},
               {"n", {FormatKind::COUNT, FormatType::POINTER}}};
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

/* By the size prefixes; those of text stay what they are. */
FormatType FormatDirectiveWide(FormatType type, FormatKind kind, unsigned flags)
{
   if (type == FormatType::REAL && (flags & LLONGINT) != 0) {
      return FormatType::LONG_REAL;
   }
   return type == FormatType::INT && kind != FormatKind::CHARACTER ? FormatType::WIDE : type;
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
         directive->conversion = character;
         directive->type = meaning.type;
         if ((directive->flags & WIDE_INTEGER_FLAGS) != 0) {
            directive->type = FormatDirectiveWide(meaning.type, meaning.kind, directive->flags);
         }
         if ((directive->flags & SIGNED) == 0) {
            directive->sign = '\0';
         }
         return meaning.kind == FormatKind::END ? position - 1 : position;
      }
   }
}
