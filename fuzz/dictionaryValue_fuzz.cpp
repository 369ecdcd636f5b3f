#include "fuzz/support/dictionaryText.h"
#include "fuzz/support/fuzz.h"
#include "lib/user/dictionary/convert.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>

/* Settings that are set, read, removed and written in any order and as any type are at every step what a plain model of
   the rules says: text takes the type it is first read as, and keeps it; what is not of the type gives the
   fallback and a message; only a real difference marks the dictionary as changed. Written to a file and read
   back, each setting is the same text. */

namespace {

constexpr std::array<const char *, 4> NAMES = {"a", "B", "setting.long", "b2"};

/* Text until it has a type. */
struct Value {
   uint32_t type = DICTIONARY_UNTYPED;
   std::string text;
   uint64_t bits = 0;
};

struct Setting {
   Value value;
   bool persistent;
   bool modified;
   std::string original; /* What the file holds until it is modified. */
};

bool IsOneOf(const std::string &text, std::initializer_list<const char *> words)
{
   return std::any_of(words.begin(), words.end(),
                      [&text](const char *word) { return strcasecmp(word, text.c_str()) == 0; });
}

std::optional<int32_t> Word(const std::string &text, bool triState)
{
   if (IsOneOf(text, {"", "true", "t", "yes", "y", "on", "1"})) {
      return 1;
   }
   if (IsOneOf(text, {"false", "f", "no", "n", "off", "0"})) {
      return 0;
   }
   return triState && IsOneOf(text, {"default", "dontcare", "auto"}) ? std::optional(-1) : std::nullopt;
}

/* The C library's reading, which is whole or none. */
std::optional<uint64_t> Number(const std::string &text, uint32_t type)
{
   char *end = nullptr;
   errno = 0;
   uint64_t bits = 0;
   if (type == DICTIONARY_INT64) {
      bits = strtoull(text.c_str(), &end, 0);
   } else if (type == DICTIONARY_INT32) {
      long value = strtol(text.c_str(), &end, 0);
      if (errno == ERANGE) {
         errno = 0;
         value = static_cast<long>(strtoul(text.c_str(), &end, 0));
      }
      bits = static_cast<uint64_t>(int64_t{static_cast<int32_t>(value)});
   } else {
      const double value = strtod(text.c_str(), &end);
      bits = std::bit_cast<uint64_t>(value);
      /* What is below the normal numbers is there all the same. */
      errno = errno == ERANGE && value != 0 && std::isfinite(value) ? 0 : errno;
      if (errno == 0 && *end == '\0') {
         return bits;
      }
      return std::nullopt;
   }
   return errno == 0 && end != text.c_str() && *end == '\0' ? std::optional(bits) : std::nullopt;
}

std::optional<uint64_t> Parsed(const std::string &text, uint32_t type)
{
   if (type != DICTIONARY_BOOL && type != DICTIONARY_TRISTATE) {
      return Number(text, type);
   }
   const std::optional<int32_t> word = Word(text, type == DICTIONARY_TRISTATE);
   return word ? std::optional(static_cast<uint64_t>(int64_t{*word})) : std::nullopt;
}

std::string FileText(const Value &value)
{
   std::array<char, 64> text{};
   switch (value.type) {
   case DICTIONARY_BOOL:
      return value.bits != 0 ? "TRUE" : "FALSE";
   case DICTIONARY_TRISTATE:
      return static_cast<int32_t>(value.bits) == 1    ? "TRUE"
             : static_cast<int32_t>(value.bits) == -1 ? "DEFAULT"
                                                      : "FALSE";
   case DICTIONARY_INT32:
      return std::to_string(static_cast<int32_t>(value.bits));
   case DICTIONARY_INT64:
      return std::to_string(static_cast<int64_t>(value.bits));
   case DICTIONARY_DOUBLE:
      snprintf(text.data(), text.size(), "%.9g", std::bit_cast<double>(value.bits));
      return text.data();
   default:
      return value.text;
   }
}

/* Single texts against both readings of the module's own. */
void CheckConversion(const std::string &text, uint32_t type)
{
   uint64_t bits = 0;
   MsgList *messages = MsgList_Create();
   const bool valid = DictionaryConvertText(text.c_str(), type, 77, "name", messages, &bits);
   const std::optional<uint64_t> expected = Parsed(text, type);
   REQUIRE(valid == expected.has_value() && MsgList_Count(messages) == (valid ? 0 : 1));
   MsgList_Free(messages);
   const auto value = std::bit_cast<double>(bits);
   const bool bothNan = type == DICTIONARY_DOUBLE && std::isnan(value);
   REQUIRE(bothNan || bits == expected.value_or(77));
   if (valid && !bothNan) {
      REQUIRE_SAME(Take(DictionaryFormatBits(type, bits)), FileText({type, "", bits}));
   }
}

class Session {
 public:
   explicit Session(FuzzedDataProvider *input)
       : input_(*input), messages_(MsgList_Create()), dictionary_(Dictionary_Create())
   {
      Dictionary_SetMessageList(dictionary_.get(), messages_);
      LoadFile();
   }

   ~Session()
   {
      dictionary_.reset();
      MsgList_Free(messages_);
   }

   Session(const Session &) = delete;
   Session &operator=(const Session &) = delete;

   void Run()
   {
      for (int i = 0; i < 24 && input_.remaining_bytes() > 0; i++) {
         name_ = input_.PickValueInArray(NAMES);
         switch (input_.ConsumeIntegralInRange(0, 7)) {
         case 0:
            SetFromString();
            break;
         case 5:
            SetText();
            break;
         case 6:
            GetText();
            break;
         case 1:
         case 2:
            Set();
            break;
         case 3:
         case 4:
            Get();
            break;
         default:
            Unset();
            break;
         }
         Check();
      }
      CheckFile();
   }

 private:
   std::string TakeText()
   {
      static constexpr std::array<const char *, 12> texts = {
          "TRUE", "off", "0x10", "010", "-1", "1e3", "auto", "12ab", "", "1e999", "99999999999", "nan"};
      if (input_.ConsumeBool()) {
         return input_.PickValueInArray(texts);
      }
      const std::string text = AsString(input_.ConsumeRandomLengthString(24));
      return DecodeUtf8(text) ? text : "text";
   }

   uint32_t TakeType()
   {
      return input_.ConsumeIntegralInRange(DICTIONARY_BOOL, DICTIONARY_INT64);
   }

   /* As the setters for the type take it. */
   uint64_t TakeBits(uint32_t type)
   {
      switch (type) {
      case DICTIONARY_BOOL:
         return input_.ConsumeIntegralInRange<uint64_t>(0, 1);
      case DICTIONARY_TRISTATE:
         return static_cast<uint64_t>(input_.ConsumeIntegralInRange<int64_t>(-1, 1));
      case DICTIONARY_INT32:
         return static_cast<uint64_t>(int64_t{input_.ConsumeIntegral<int32_t>()});
      case DICTIONARY_DOUBLE:
         return std::bit_cast<uint64_t>(input_.ConsumeFloatingPointInRange(-1e9, 1e9));
      default:
         return input_.ConsumeIntegral<uint64_t>();
      }
   }

   /* Some settings to begin with, which come from a file. */
   void LoadFile()
   {
      const OwnedDictionary source(Dictionary_Create());
      for (const char *name : NAMES) {
         if (input_.ConsumeBool()) {
            const std::string text = TakeText();
            Dictionary_SetString(source.get(), text.c_str(), 0, name);
            model_[name] = {{DICTIONARY_UNTYPED, text, 0}, true, false, text};
         }
      }
      REQUIRE(Dictionary_Unmarshal(dictionary_.get(), Written(source.get()).c_str(), false, ENCODING_UTF8,
                                   messages_));
   }

   static std::string Written(Dictionary *dictionary)
   {
      char *text = nullptr;
      size_t size = 0;
      REQUIRE(Dictionary_WriteToBuffer(dictionary, false, &text, &size));
      return Take(text);
   }

   void SetFromString()
   {
      const std::string text = TakeText();
      const bool keep = input_.ConsumeBool();
      if (model_.contains(name_)) {
         return; /* What it does to a value that is there is what SetText does. */
      }
      Dictionary_SetFromString(dictionary_.get(), (std::string(name_) + "=" + text).c_str(), keep, messages_);
      model_[name_] = {{DICTIONARY_UNTYPED, text, 0}, true, true, ""};
      changed_ = true;
   }

   void Unset()
   {
      Dictionary_Unset(dictionary_.get(), name_);
      const auto found = model_.find(name_);
      if (found != model_.end()) {
         changed_ = changed_ || found->second.persistent;
         model_.erase(found);
      }
   }

   void Set()
   {
      const uint32_t type = TakeType();
      const uint64_t bits = TakeBits(type);
      Dictionary *const to = dictionary_.get();
      const auto found = model_.find(name_);
      /* Another type is not taken over by a typed value. */
      const bool fresh = found == model_.end();
      if (!fresh && found->second.value.type != DICTIONARY_UNTYPED && found->second.value.type != type) {
         return;
      }
      switch (type) {
      case DICTIONARY_BOOL:
         Dictionary_SetBool(to, bits != 0, 0, name_);
         break;
      case DICTIONARY_TRISTATE:
         Dictionary_SetTriState(to, static_cast<int32_t>(bits), 0, name_);
         break;
      case DICTIONARY_INT32:
         Dictionary_SetInt32(to, static_cast<int32_t>(bits), 0, name_);
         break;
      case DICTIONARY_DOUBLE:
         Dictionary_SetDouble(to, std::bit_cast<double>(bits), 0, name_);
         break;
      default:
         Dictionary_SetInt64(to, static_cast<int64_t>(bits), 0, name_);
         break;
      }
      bool differs = true;
      if (!fresh) {
         const Setting &old = found->second;
         const std::optional<uint64_t> held = old.value.type == DICTIONARY_UNTYPED
                                                  ? Parsed(old.value.text, type)
                                                  : std::optional(old.value.bits);
         differs = held != bits || !old.persistent || old.modified;
      }
      model_[name_] = {{type, "", bits}, true, differs, fresh ? "" : found->second.original};
      changed_ = changed_ || differs;
      REQUIRE(GetBits(type, 0) == bits);
   }

   /* Text for a value of another type is read as that type, or changes nothing. */
   void SetText()
   {
      const std::string text = TakeText();
      const size_t told = MsgList_Count(messages_);
      const auto found = model_.find(name_);
      Dictionary_SetString(dictionary_.get(), text.c_str(), 0, name_);
      if (found == model_.end()) {
         model_[name_] = {{DICTIONARY_STRING, text, 0}, true, true, ""};
         changed_ = true;
         return;
      }
      Setting &setting = found->second;
      bool differs = setting.modified || !setting.persistent;
      bool convertible = true;
      if (setting.value.type <= DICTIONARY_STRING) {
         differs = differs || setting.value.text != text;
         setting.value = {DICTIONARY_STRING, text, 0};
      } else {
         const std::optional<uint64_t> parsed = Parsed(text, setting.value.type);
         convertible = parsed.has_value();
         differs = differs || parsed.value_or(setting.value.bits) != setting.value.bits;
         setting.value.bits = parsed.value_or(setting.value.bits);
      }
      setting.modified = differs;
      setting.persistent = true;
      changed_ = changed_ || differs;
      REQUIRE(MsgList_Count(messages_) - told == (convertible ? 0 : 1));
   }

   void GetText()
   {
      const std::optional<std::string> fallback =
          input_.ConsumeBool() ? std::optional(TakeText()) : std::nullopt;
      const auto found = model_.find(name_);
      char *const text =
          Dictionary_GetString(dictionary_.get(), fallback ? fallback->c_str() : nullptr, "%s", name_);
      std::optional<std::string> expected = fallback;
      if (found == model_.end()) {
         if (fallback) {
            model_[name_] = {{DICTIONARY_STRING, *fallback, 0}, false, false, ""};
         }
      } else if (found->second.value.type <= DICTIONARY_STRING) {
         expected = found->second.value.text;
         found->second.value.type = DICTIONARY_STRING;
      }
      REQUIRE((text != nullptr) == expected.has_value());
      if (text != nullptr) {
         REQUIRE_SAME(Take(text), *expected);
      }
   }

   uint64_t GetBits(uint32_t type, uint64_t fallback)
   {
      Dictionary *const from = dictionary_.get();
      switch (type) {
      case DICTIONARY_BOOL:
         return Dictionary_GetBool(from, fallback != 0, "%s", name_) ? 1 : 0;
      case DICTIONARY_TRISTATE:
         return static_cast<uint64_t>(
             int64_t{Dictionary_GetTriState(from, static_cast<int32_t>(fallback), "%s", name_)});
      case DICTIONARY_INT32:
         return static_cast<uint64_t>(
             int64_t{Dictionary_GetInt32(from, static_cast<int32_t>(fallback), "%s", name_)});
      case DICTIONARY_DOUBLE:
         return std::bit_cast<uint64_t>(
             Dictionary_GetDouble(from, std::bit_cast<double>(fallback), "%s", name_));
      default:
         return static_cast<uint64_t>(Dictionary_GetInt64(from, static_cast<int64_t>(fallback), "%s", name_));
      }
   }

   void Get()
   {
      const uint32_t type = TakeType();
      const uint64_t fallback = TakeBits(type);
      const size_t told = MsgList_Count(messages_);
      const auto found = model_.find(name_);
      if (found != model_.end() && found->second.value.type != DICTIONARY_UNTYPED &&
          found->second.value.type != type) {
         return; /* As which type a typed value is read makes no difference to it. */
      }
      const uint64_t bits = GetBits(type, fallback);
      uint64_t expected = fallback;
      bool convertible = true;
      if (found == model_.end()) {
         const bool none = type == DICTIONARY_DOUBLE ? std::bit_cast<double>(fallback) == 0.0 : fallback == 0;
         const bool minusOne = (type == DICTIONARY_INT32 || type == DICTIONARY_TRISTATE) &&
                               fallback == static_cast<uint64_t>(-1);
         if (!none && !minusOne) {
            model_[name_] = {{type, "", fallback}, false, false, ""};
         }
      } else if (found->second.value.type == DICTIONARY_UNTYPED) {
         const std::optional<uint64_t> parsed = Parsed(found->second.value.text, type);
         convertible = parsed.has_value();
         expected = parsed.value_or(fallback);
         found->second.value = {type, "", expected};
      } else {
         expected = found->second.value.bits;
      }
      const bool bothNan = type == DICTIONARY_DOUBLE && std::isnan(std::bit_cast<double>(expected));
      REQUIRE(bits == expected || (bothNan && std::isnan(std::bit_cast<double>(bits))));
      REQUIRE(MsgList_Count(messages_) - told == (convertible ? 0 : 1));
   }

   void Check()
   {
      REQUIRE(Dictionary_IsChanged(dictionary_.get()) == changed_);
      for (const char *name : NAMES) {
         const auto found = model_.find(name);
         REQUIRE(Dictionary_IsDefined(dictionary_.get(), name) == (found != model_.end()));
         if (found != model_.end()) {
            REQUIRE_SAME(Take(Dictionary_GetText(dictionary_.get(), name)), FileText(found->second.value));
         }
      }
   }

   void CheckFile()
   {
      Settings expected = AllSettings(dictionary_.get());
      size_t persistent = 0;
      for (const auto &[name, setting] : model_) {
         persistent += setting.persistent ? 1 : 0;
      }
      REQUIRE(expected.size() == persistent);
      for (auto &[name, text] : expected) {
         const Setting &setting = model_.at(name);
         text = setting.modified ? FileText(setting.value) : setting.original;
      }
      const OwnedDictionary again(Dictionary_Create());
      REQUIRE(Dictionary_Unmarshal(again.get(), Written(dictionary_.get()).c_str(), false, ENCODING_UTF8,
                                   nullptr));
      RequireSame(AllSettings(again.get()), expected);
   }

   FuzzedDataProvider &input_;
   MsgList *messages_;
   OwnedDictionary dictionary_;
   const char *name_ = nullptr;
   std::map<std::string, Setting> model_;
   bool changed_ = false;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   FuzzedDataProvider input(data, size);
   if (input.ConsumeIntegralInRange(0, 3) == 0) {
      const uint32_t type = input.ConsumeIntegralInRange(DICTIONARY_BOOL, DICTIONARY_INT64);
      CheckConversion(RestAsString(&input), type);
   } else {
      Session(&input).Run();
   }
   return 0;
}
