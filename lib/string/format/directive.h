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
   SIGNED = 1U << 11,  /* a conversion whose output may have a sign */
};

constexpr unsigned WIDE_INTEGER_FLAGS = LONGINT | LLONGINT | SIZET | PTRDIFFT | INTMAXT;

/* What a character is to a directive. */
enum class FormatKind : uint8_t {
   /* Conversions: the end of the directive. */
   LITERAL, /* any character that is nothing else: printed as by 'c' */
   END,     /* of the format */
   DECIMAL,
   OCTAL,
   HEXADECIMAL,
   POINTER,
   CHARACTER,
   STRING,
   EXPONENTIAL,
   FIXED,
   GENERAL,
   COUNT,
   /* The scan stops here too where an argument is named, or asked for by a '*'. */
   NUMBER,
   STAR,
   POINT,
   /* These are read on the way. */
   FLAG,
   BLANK,
   PLUS,
   SIZE_H,
   SIZE_L,
   SIZE_I,
};

/* What an argument is passed as. */
enum class FormatType : uint8_t { INT, WIDE, POINTER, REAL, LONG_REAL, NONE };

/* A number too large for an int is read as this one: as a width or a precision it makes the result overflow. */
constexpr int64_t FORMAT_NUMBER_LIMIT = static_cast<int64_t>(INT_MAX) + 1;

/* In place of an argument's number: the next one. */
constexpr int64_t FORMAT_NEXT = -1;

struct FormatDirective {
   unsigned flags = 0;
   char sign = '\0';   /* '+' or ' ' as asked for, if the conversion has one; a conversion sets '-' */
   char prefix = '\0'; /* 'x' or 'X': set by a conversion that wants "0x" or "0X" */
   char conversion = '\0';
   FormatKind kind = FormatKind::LITERAL; /* what the scan stopped at */
   FormatType type = FormatType::NONE;    /* what the conversion takes */
   int64_t width = 0;
   int64_t precision = -1; /* -1: none given */
   int64_t number = 0;     /* with kind NUMBER, STAR or POINT: of the argument, or FORMAT_NEXT */
};

/* Reads on in a directive (fresh at first, with the text behind its '%') and returns the place behind what was read.
   Flags, width, precision and size prefixes come in any order; the first character that is none of them is
   the conversion, and the directive is whole. It stops before, and is to be called again, with the kinds

   NUMBER: at "n$": the next argument is the one of that number;
   STAR, POINT: at the '*' of a width or a precision: the int of that number, or the next one, belongs there.

   A format that ends first gives the kind END and the place of its NUL. */
const char *FormatDirective_Scan(const char *position, FormatDirective *directive);

/* Puts the value of the '*' in its place. */
inline void FormatDirective_SetStar(FormatDirective *directive, int64_t value)
{
   if (directive->kind == FormatKind::POINT) {
      directive->precision = std::max<int64_t>(value, -1);
      return;
   }
   directive->flags |= value < 0 ? static_cast<unsigned>(LADJUST) : 0;
   directive->width = std::max(value, -value);
}

#endif
