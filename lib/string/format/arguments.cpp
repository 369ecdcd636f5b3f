#include "lib/string/format/arguments.h"

#include "base/owned.h"

#include <algorithm>
#include <cstring>

namespace {

/* The types of the numbered arguments, by number. One that the format never names is fetched as an int. */
class FormatTypes {
 public:
   void Set(size_t number, FormatType type)
   {
      if (number >= size_) {
         Enlarge(std::max(2 * size_, number + 1));
      }
      types_[number] = type;
      count_ = std::max(count_, number + 1);
   }

   [[nodiscard]] FormatType Get(size_t number) const
   {
      return types_[number];
   }

   /* One more than the highest number. */
   [[nodiscard]] size_t Count() const
   {
      return count_;
   }

 private:
   static constexpr size_t FRAME_ENTRIES = 8;

   void Enlarge(size_t size)
   {
      auto *const types = static_cast<FormatType *>(realloc(heap_.get(), size));
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

   FormatType frame_[FRAME_ENTRIES]{};
   Owned<FormatType> heap_;
   FormatType *types_ = frame_;
   size_t size_ = FRAME_ENTRIES;
   size_t count_ = 1;
};

void FormatTypesRecord(FormatTypes *types, const char *format)
{
   size_t next = 1;

   while ((format = strchr(format, '%')) != nullptr) {
      FormatDirective directive;
      for (format++;
           format = FormatDirective_Scan(format, &directive), directive.kind >= FormatKind::NUMBER;) {
         if (directive.kind == FormatKind::NUMBER) {
            next = static_cast<size_t>(directive.number);
         } else {
            types->Set(directive.number == FORMAT_NEXT ? next++ : static_cast<size_t>(directive.number),
                       FormatType::INT);
         }
      }
      if (directive.type != FormatType::NONE) {
         types->Set(next++, directive.type);
      }
   }
}

} // namespace

void FormatArguments::FetchAll()
{
   FormatTypes types;
   FormatTypesRecord(&types, format_);

   const size_t count = types.Count();
   slots_ = count <= FRAME_SLOTS ? frame_ : static_cast<FormatValue *>(malloc(count * sizeof *slots_));
   if (slots_ == nullptr) {
      abort();
   }
   slots_[0].integer = 0;
   for (size_t i = 1; i < count; i++) {
      slots_[i] = Fetch(&original_, types.Get(i));
   }
}

const char *FormatArguments::Scan(const char *position, FormatDirective *directive)
{
   while (position = FormatDirective_Scan(position, directive), directive->kind >= FormatKind::NUMBER) {
      const int64_t number = directive->number;
      if (number != FORMAT_NEXT && slots_ == nullptr) {
         FetchAll();
      }
      if (directive->kind == FormatKind::NUMBER) {
         next_ = static_cast<size_t>(number);
      } else {
         const FormatValue value = number == FORMAT_NEXT ? Take(FormatType::INT) : slots_[number];
         FormatDirective_SetStar(directive, static_cast<int>(value.integer));
      }
   }
   return position;
}
