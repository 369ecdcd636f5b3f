#ifndef TESSEL_LIB_STRING_FORMAT_DIRECTIVE_H
#define TESSEL_LIB_STRING_FORMAT_DIRECTIVE_H

#include <algorithm>
#include <climits>
#include <cstdint>

/* Private to the formatting engine: one directive of a format, from its '%' to its conversion character, and the
   scanner that reads it. */

enum FormatFlag : unsigned {
   ALT = 1U << 0,      /* '#' */
   LADJUST = 1U << 1,  /* '-', or a negative '*' width */
   LONGINT = 1U << 2,  /* 'l' */
   LLONGINT = 1U << 3, /* "ll", 'q', 'L', "I64": 64 bits, long double */
   SHORTINT = 1U << 4, /* 'h' */
   CHARINT = 1U << 5,  /* "hh" */
   ZEROPAD = 1U << 6,  /* '0' */
   GROUPING = 1U << 7, /* '\'' */
   SIZET = 1U << 8,    /* 'z', 'Z', 'I' */
   PTRDIFFT = 1U << 9, /* 't' */
   INTMAXT = 1U << 10, /* 'j' */
};

constexpr unsigned WIDE_INTEGER_FLAGS = LONGINT | LLONGINT | SIZET | PTRDIFFT | INTMAXT;

/* A number too large for an int is read as this one: as a width or a precision it makes the result overflow. */
constexpr int64_t FORMAT_NUMBER_LIMIT = static_cast<int64_t>(INT_MAX) + 1;

struct Directive {
   unsigned flags = 0;
   char sign = '\0';   /* '+' or ' ' as asked for; a conversion sets '-', or takes it away */
   char prefix = '\0'; /* 'x' or 'X': set by a conversion that wants "0x" or "0X" */
   char conversion = '\0';
   int64_t width = 0;
   int64_t precision = -1; /* -1: none given */
};

/* The scanning routines below take the place of what they read and return the place behind it. */

inline const char *DirectiveScanNumber(const char *position, int64_t *number)
{
   int64_t value = 0;

   for (; *position >= '0' && *position <= '9'; ++position) {
      value = std::min(value * 10 + (*position - '0'), FORMAT_NUMBER_LIMIT);
   }
   *number = value;
   return position;
}

/* The value of a '*', which stands before position: that of the numbered argument if "n$" follows, else that of the
   next one. Digits without '$' are left where they are. */
template <typename Source> const char *DirectiveScanStar(const char *position, Source *source, int64_t *value)
{
   int64_t index = 0;
   const char *const after = DirectiveScanNumber(position, &index);

   if (*after != '$') {
      *value = source->TakeInt();
      return position;
   }
   *value = source->TakeIntAt(index);
   return after + 1;
}

template <typename Source>
const char *DirectiveScanWidthStar(const char *position, Directive *directive, Source *source)
{
   position = DirectiveScanStar(position, source, &directive->width);
   if (directive->width < 0) {
      directive->flags |= LADJUST;
      directive->width = -directive->width;
   }
   return position;
}

template <typename Source>
const char *DirectiveScanPrecision(const char *position, Directive *directive, Source *source)
{
   if (*position != '*') {
      return DirectiveScanNumber(position, &directive->precision);
   }
   position = DirectiveScanStar(position + 1, source, &directive->precision);
   if (directive->precision < 0) {
      directive->precision = -1;
   }
   return position;
}

template <typename Source>
const char *DirectiveScanWidthOrIndex(const char *position, Directive *directive, Source *source)
{
   int64_t number = 0;

   position = DirectiveScanNumber(position, &number);
   if (*position == '$') {
      source->Select(number);
      return position + 1;
   }
   directive->width = number;
   return position;
}

/* "I" alone is the size of size_t; "I32" an int; "I64" 64 bits. */
inline const char *DirectiveScanSizeI(const char *position, Directive *directive)
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
inline void DirectiveSetOrDouble(Directive *directive, unsigned once, unsigned twice)
{
   if ((directive->flags & once) != 0) {
      directive->flags = (directive->flags & ~once) | twice;
   } else {
      directive->flags |= once;
   }
}

/* A conversion character that sets no flag; not all of them. */
inline bool DirectiveIsPlainConversion(char c)
{
   switch (c) {
   case 'c':
   case 'd':
   case 'e':
   case 'f':
   case 'g':
   case 'i':
   case 'n':
   case 'o':
   case 'p':
   case 's':
   case 'u':
   case 'x':
      return true;
   default:
      return false;
   }
}

template <typename Source>
const char *DirectiveScanAll(const char *position, Directive *directive, Source *source)
{
   for (;;) {
      const char c = *position++;
      switch (c) {
      case ' ':
         if (directive->sign == '\0') {
            directive->sign = ' ';
         }
         break;
      case '+':
         directive->sign = '+';
         break;
      case '#':
         directive->flags |= ALT;
         break;
      case '-':
         directive->flags |= LADJUST;
         break;
      case '0':
         directive->flags |= ZEROPAD;
         break;
      case '\'':
         directive->flags |= GROUPING;
         break;
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9':
         position = DirectiveScanWidthOrIndex(position - 1, directive, source);
         break;
      case '*':
         position = DirectiveScanWidthStar(position, directive, source);
         break;
      case '.':
         position = DirectiveScanPrecision(position, directive, source);
         break;
      case 'h':
         DirectiveSetOrDouble(directive, SHORTINT, CHARINT);
         break;
      case 'l':
         DirectiveSetOrDouble(directive, LONGINT, LLONGINT);
         break;
      case 'q':
      case 'L':
         directive->flags |= LLONGINT;
         break;
      case 'j':
         directive->flags |= INTMAXT;
         break;
      case 't':
         directive->flags |= PTRDIFFT;
         break;
      case 'z':
      case 'Z':
         directive->flags |= SIZET;
         break;
      case 'I':
         position = DirectiveScanSizeI(position, directive);
         break;
      case 'C':
      case 'D':
      case 'O':
      case 'S':
      case 'U':
         directive->flags |= LONGINT;
         [[fallthrough]];
      default:
         directive->conversion = c;
         return c == '\0' ? position - 1 : position;
      }
   }
}

/* Nearly all directives have a zero flag and a width in front of the conversion, if anything. */
template <typename Source>
[[gnu::noinline]] const char *DirectiveScanWidthFirst(const char *position, Directive *directive,
                                                      Source *source)
{
   int64_t width = 0;
   const char *const after = DirectiveScanNumber(position, &width);

   if (!DirectiveIsPlainConversion(*after)) {
      return DirectiveScanAll(position, directive, source);
   }
   directive->flags = *position == '0' ? static_cast<unsigned>(ZEROPAD) : 0;
   directive->width = width;
   directive->conversion = *after;
   return after + 1;
}

/* Reads the directive whose text follows a '%' into *directive (fresh), and returns the place after its conversion
   character. Flags, width, precision and size prefixes come in any order; the first character that is none of
   them is the conversion. A format that ends first gives the conversion '\0' and the place of its NUL.

   Source gives the values of '*': TakeInt() the next argument, TakeIntAt(index) a numbered one; Select(index)
   makes a numbered argument the next. */
template <typename Source>
const char *Directive_Scan(const char *position, Directive *directive, Source *source)
{
   if (!DirectiveIsPlainConversion(*position)) {
      return DirectiveScanWidthFirst(position, directive, source);
   }
   directive->conversion = *position;
   return position + 1;
}

#endif
