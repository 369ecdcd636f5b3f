#include "lib/string/format/arguments.h"

#include "base/owned.h"

#include <algorithm>
#include <cstring>

namespace {

/* An entry of the table. A number that the format never names is fetched as an int. */
enum class ArgumentType : uint8_t { INT, WIDE, POINTER, REAL, LONG_REAL };

/* The types of the numbered arguments, by number. */
class TypeTable {
 public:
   void Set(size_t number, ArgumentType type)
   {
      if (number >= size_) {
         Enlarge(std::max(2 * size_, number + 1));
      }
      types_[number] = type;
      last_ = std::max(last_, number);
   }

   [[nodiscard]] ArgumentType Get(size_t number) const
   {
      return types_[number];
   }

   [[nodiscard]] size_t Last() const
   {
      return last_;
   }

 private:
   static constexpr size_t FRAME_ENTRIES = 8;

   void Enlarge(size_t size)
   {
      auto *const types = static_cast<ArgumentType *>(realloc(heap_.get(), size));
      if (types == nullptr) {
         abort();
      }
      if (heap_ == nullptr) {
         memcpy(types, frame_, sizeof frame_);
      }
      static_cast<void>(heap_.release());
      heap_.reset(types);
      memset(types + size_, 0, size - size_);
      types_ = types;
      size_ = size;
   }

   ArgumentType frame_[FRAME_ENTRIES]{};
   Owned<ArgumentType> heap_;
   ArgumentType *types_ = frame_;
   size_t size_ = FRAME_ENTRIES;
   size_t last_ = 0;
};

/* Stands in for the arguments while a format is scanned for their types. */
class TypeRecorder {
 public:
   void Select(int64_t number)
   {
      next_ = static_cast<size_t>(number);
   }

   int TakeInt()
   {
      Record(ArgumentType::INT);
      return 0;
   }

   int TakeIntAt(int64_t number)
   {
      table_.Set(static_cast<size_t>(number), ArgumentType::INT);
      return 0;
   }

   void Record(ArgumentType type)
   {
      table_.Set(next_++, type);
   }

   [[nodiscard]] const TypeTable &Table() const
   {
      return table_;
   }

 private:
   TypeTable table_;
   size_t next_ = 1;
};

void RecordConversion(TypeRecorder *recorder, const Directive &directive)
{
   switch (directive.conversion) {
   case 'd':
   case 'i':
   case 'D':
   case 'u':
   case 'U':
   case 'o':
   case 'O':
   case 'x':
   case 'X':
      recorder->Record((directive.flags & WIDE_INTEGER_FLAGS) != 0 ? ArgumentType::WIDE : ArgumentType::INT);
      break;
   case 'c':
   case 'C':
      recorder->Record(ArgumentType::INT);
      break;
   case 'n':
   case 'p':
   case 's':
   case 'S':
      recorder->Record(ArgumentType::POINTER);
      break;
   case 'e':
   case 'E':
   case 'f':
   case 'F':
   case 'g':
   case 'G':
      recorder->Record((directive.flags & LLONGINT) != 0 ? ArgumentType::LONG_REAL : ArgumentType::REAL);
      break;
   default:
      break;
   }
}

void RecordFormat(TypeRecorder *recorder, const char *format)
{
   while ((format = strchr(format, '%')) != nullptr) {
      Directive directive;
      format = Directive_Scan(format + 1, &directive, recorder);
      RecordConversion(recorder, directive);
   }
}

} // namespace

void FormatArguments::FetchAll()
{
   TypeRecorder recorder;
   RecordFormat(&recorder, format_);

   const TypeTable &types = recorder.Table();
   const size_t count = types.Last() + 1;
   slots_ = count <= FRAME_SLOTS ? frame_ : static_cast<ArgumentSlot *>(malloc(count * sizeof *slots_));
   if (slots_ == nullptr) {
      abort();
   }
   slots_[0].integer = 0;
   for (size_t i = 1; i < count; i++) {
      switch (types.Get(i)) {
      case ArgumentType::INT:
         slots_[i].integer = va_arg(original_, int);
         break;
      case ArgumentType::WIDE:
         slots_[i].integer = va_arg(original_, int64_t);
         break;
      case ArgumentType::POINTER:
         slots_[i].pointer = va_arg(original_, void *);
         break;
      case ArgumentType::REAL:
         slots_[i].real = va_arg(original_, double);
         break;
      case ArgumentType::LONG_REAL:
         slots_[i].longReal = va_arg(original_, long double);
         break;
      }
   }
}

void FormatArguments::Select(int64_t index)
{
   if (slots_ == nullptr) {
      FetchAll();
   }
   next_ = static_cast<size_t>(index);
}

int FormatArguments::TakeIntAt(int64_t index)
{
   if (slots_ == nullptr) {
      FetchAll();
   }
   return static_cast<int>(slots_[index].integer);
}

double FormatArguments::TakeReal(unsigned flags)
{
   const ArgumentSlot *const slot = slots_ == nullptr ? nullptr : &slots_[next_];

   next_++;
   if ((flags & LLONGINT) != 0) {
      return static_cast<double>(slot == nullptr ? va_arg(list_, long double) : slot->longReal);
   }
   return slot == nullptr ? va_arg(list_, double) : slot->real;
}
