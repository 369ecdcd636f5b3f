#ifndef TESSEL_LIB_STRING_FORMAT_ARGUMENTS_H
#define TESSEL_LIB_STRING_FORMAT_ARGUMENTS_H

#include "lib/string/format/directive.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

/* Private to the formatting engine: the arguments of a call. They are taken one after the other from the list until
   the format first names one by number; then all of them are fetched into slots, and taken from there. */

union FormatValue {
   int64_t integer; /* an int too */
   void *pointer;
   double real; /* a long double too, narrowed: the source of digits knows doubles only */
};

class FormatArguments {
 public:
   /* The format must outlive this. The list is copied. */
   FormatArguments(const char *format, va_list list) : format_(format)
   {
      va_copy(list_, list);
      va_copy(original_, list);
   }

   ~FormatArguments()
   {
      if (slots_ != frame_) {
         free(slots_);
      }
      va_end(original_);
      va_end(list_);
   }

   FormatArguments(const FormatArguments &) = delete;
   FormatArguments &operator=(const FormatArguments &) = delete;

   /* Reads the whole directive (fresh) whose text is at position, with the values of its '*', and returns the place
      behind it. The first number named makes the whole format be scanned; memory that runs out for that ends
      the process. */
   const char *Scan(const char *position, FormatDirective *directive);

   /* The next argument, if the type is one. */
   FormatValue Take(FormatType type)
   {
      if (type == FormatType::NONE) {
         return {.integer = 0};
      }
      next_++;
      return slots_ == nullptr ? Fetch(&list_, type) : slots_[next_ - 1];
   }

 private:
   static constexpr size_t FRAME_SLOTS = 8;

   static FormatValue Fetch(va_list *list, FormatType type)
   {
      switch (type) {
      case FormatType::INT:
         return {.integer = va_arg(*list, int)};
      case FormatType::POINTER:
         return {.pointer = va_arg(*list, void *)};
      case FormatType::WIDE:
         return {.integer = va_arg(*list, int64_t)};
      case FormatType::REAL:
         return {.real = va_arg(*list, double)};
      case FormatType::LONG_REAL:
         return {.real = static_cast<double>(va_arg(*list, long double))};
      case FormatType::NONE:
         break;
      }
      return {.integer = 0};
   }

   void FetchAll();

   const char *format_;
   va_list list_;
   va_list original_;
   size_t next_ = 1;
   FormatValue *slots_ = nullptr; /* by number, from 1; null as long as no number was named */
   FormatValue frame_[FRAME_SLOTS];
};

#endif
