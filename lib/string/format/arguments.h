#ifndef TESSEL_LIB_STRING_FORMAT_ARGUMENTS_H
#define TESSEL_LIB_STRING_FORMAT_ARGUMENTS_H

#include "lib/string/format/directive.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

/* Private to the formatting engine: the arguments of a call. They are taken one after the other from the list until
   the format first names one by number; then all of them are fetched into slots, and taken from there. */

union ArgumentSlot {
   int64_t integer;
   void *pointer;
   double real;
   long double longReal;
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
      if (slots_ != nullptr && slots_ != frame_) {
         free(slots_);
      }
      va_end(original_);
      va_end(list_);
   }

   FormatArguments(const FormatArguments &) = delete;
   FormatArguments &operator=(const FormatArguments &) = delete;

   /* The numbered argument becomes the next. The first number named, here or below, makes the whole format be
      scanned; memory that runs out for that ends the process. */
   void Select(int64_t index);

   /* The value of a numbered argument; the next one stays the next. */
   int TakeIntAt(int64_t index);

   int TakeInt()
   {
      next_++;
      return slots_ == nullptr ? va_arg(list_, int) : static_cast<int>(slots_[next_ - 1].integer);
   }

   /* An integer of the width that the size prefixes say. */
   int64_t TakeSigned(unsigned flags)
   {
      if ((flags & WIDE_INTEGER_FLAGS) != 0) {
         return TakeWide();
      }
      const int value = TakeInt();
      if ((flags & (SHORTINT | CHARINT)) == 0) {
         return value;
      }
      return (flags & SHORTINT) != 0 ? static_cast<int16_t>(value) : static_cast<int8_t>(value);
   }

   uint64_t TakeUnsigned(unsigned flags)
   {
      if ((flags & WIDE_INTEGER_FLAGS) != 0) {
         return static_cast<uint64_t>(TakeWide());
      }
      const auto value = static_cast<unsigned>(TakeInt());
      if ((flags & (SHORTINT | CHARINT)) == 0) {
         return value;
      }
      return (flags & SHORTINT) != 0 ? static_cast<uint16_t>(value) : static_cast<uint8_t>(value);
   }

   void *TakePointer()
   {
      next_++;
      return slots_ == nullptr ? va_arg(list_, void *) : slots_[next_ - 1].pointer;
   }

   /* A long double is narrowed: the source of digits knows doubles only. */
   double TakeReal(unsigned flags);

 private:
   static constexpr size_t FRAME_SLOTS = 8;

   void FetchAll();

   int64_t TakeWide()
   {
      next_++;
      return slots_ == nullptr ? va_arg(list_, int64_t) : slots_[next_ - 1].integer;
   }

   const char *format_;
   va_list list_;
   va_list original_;
   size_t next_ = 1;
   ArgumentSlot *slots_ = nullptr; /* by number, from 1; null as long as no number was named */
   ArgumentSlot frame_[FRAME_SLOTS];
};

#endif
