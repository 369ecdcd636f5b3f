#ifndef TESSEL_FUZZ_SUPPORT_INPUT_H
#define TESSEL_FUZZ_SUPPORT_INPUT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>

/* Takes an input apart: integers from its end, text from its start, so that the engine can change the one without moving
   the other. What is asked for beyond the end is 0, or empty. The inputs in fuzz/corpus are written in this
   form. */
class FuzzedDataProvider {
 public:
   FuzzedDataProvider(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size)
   {
   }

   [[nodiscard]] size_t remaining_bytes() const
   {
      return rest_.size();
   }

   /* As many bytes as the range takes, the last one first. */
   template <typename T> T ConsumeIntegralInRange(T min, T max)
   {
      const uint64_t range = static_cast<uint64_t>(max) - static_cast<uint64_t>(min);
      uint64_t value = 0;
      for (unsigned bits = 0; bits < 8 * sizeof(T) && range >> bits != 0 && !rest_.empty(); bits += 8) {
         value = value << 8 | static_cast<unsigned char>(rest_.back());
         rest_.remove_suffix(1);
      }
      value = range == UINT64_MAX ? value : value % (range + 1);
      return static_cast<T>(static_cast<uint64_t>(min) + value);
   }

   template <typename T> T ConsumeIntegral()
   {
      return ConsumeIntegralInRange(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
   }

   bool ConsumeBool()
   {
      return ConsumeIntegralInRange<uint8_t>(0, 1) == 1;
   }

   template <typename T, size_t COUNT> const T &PickValueInArray(const T (&values)[COUNT])
   {
      return values[ConsumeIntegralInRange<size_t>(0, COUNT - 1)];
   }

   template <typename Values> const auto &PickValueInArray(const Values &values)
   {
      return values[ConsumeIntegralInRange<size_t>(0, std::size(values) - 1)];
   }

   template <typename T> T PickValueInArray(std::initializer_list<T> values)
   {
      return values.begin()[ConsumeIntegralInRange<size_t>(0, values.size() - 1)];
   }

   /* Up to so many bytes; before that a backslash with any byte but another one behind it ends them. */
   std::string ConsumeRandomLengthString(size_t most)
   {
      std::string text;
      while (text.size() < most && !rest_.empty()) {
         char next = Take();
         if (next == '\\' && !rest_.empty() && (next = Take()) != '\\') {
            break;
         }
         text += next;
      }
      return text;
   }

   std::string ConsumeRemainingBytesAsString()
   {
      const std::string text(rest_);
      rest_ = {};
      return text;
   }

 private:
   char Take()
   {
      const char first = rest_.front();
      rest_.remove_prefix(1);
      return first;
   }

   std::string_view rest_;
};

#endif
