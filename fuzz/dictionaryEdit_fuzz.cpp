#include "fuzz/support/dictionaryText.h"
#include "fuzz/support/fuzz.h"
#include "lib/public/owned.h"
#include "lib/user/dictionaryEdit.h"
#include "lib/user/msgList.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* One setting of a file is set or removed: the file then means what it meant, with that one difference, and every line
   but one is the same, byte for byte. A file that would not load is left as it was, and so is one that needs
   no change. */

namespace {

/* A folder in memory, where writing a file through to the disk costs nothing. It is removed with the process. */
class Folder {
 public:
   Folder()
   {
      static std::array<char, 32> name = {"/dev/shm/tessel-fuzz-XXXXXX"};
      REQUIRE(mkdtemp(name.data()) != nullptr);
      path_ = std::string(name.data()) + "/file";
   }

   ~Folder()
   {
      unlink(path_.c_str());
      rmdir(path_.substr(0, path_.rfind('/')).c_str());
   }

   Folder(const Folder &) = delete;
   Folder &operator=(const Folder &) = delete;

   [[nodiscard]] const std::string &Path() const
   {
      return path_;
   }

   void Write(const std::string &content) const
   {
      const OwnedDescriptor file(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
      REQUIRE(write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()));
   }

   [[nodiscard]] std::string Read() const
   {
      const OwnedDescriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
      struct stat status;
      REQUIRE(fstat(file.get(), &status) == 0 && (status.st_mode & 0777) == 0640);
      std::string content(static_cast<size_t>(status.st_size), '\0');
      REQUIRE(read(file.get(), content.data(), content.size()) == status.st_size);
      return content;
   }

 private:
   std::string path_;
};

/* Nothing if the file does not load. */
std::optional<Settings> Load(const std::string &path)
{
   const OwnedDictionary dictionary(Dictionary_Create());
   if (!Dictionary_Load(dictionary.get(), path.c_str())) {
      return std::nullopt;
   }
   return AllSettings(dictionary.get());
}

std::vector<std::string> SplitLines(const std::string &content)
{
   std::vector<std::string> lines(1);
   for (const char c : content) {
      lines.back() += c;
      if (c == '\n') {
         lines.emplace_back();
      }
   }
   if (lines.back().empty()) {
      lines.pop_back();
   } else {
      lines.back() += '\n'; /* What is put behind it ends it. */
   }
   return lines;
}

/* How many lines of the longer text are not in the other, in order. */
size_t LinesThatDiffer(const std::vector<std::string> &before, const std::vector<std::string> &after)
{
   const auto start = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
   const auto end = std::mismatch(before.rbegin(), std::make_reverse_iterator(start.first), after.rbegin(),
                                  std::make_reverse_iterator(start.second));
   return static_cast<size_t>(std::max(end.first.base() - start.first, end.second.base() - start.second));
}

bool Mentions(const Settings &settings, const std::string &name)
{
   return std::any_of(settings.begin(), settings.end(),
                      [&name](const auto &setting) { return SameName(setting.first, name); });
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
   static const Folder folder;
   static constexpr std::array<const char *, 3> names = {"a", "new.setting", "b"};
   FuzzedDataProvider input(data, size);
   const bool remove = input.ConsumeBool();
   const auto picked = input.ConsumeIntegralInRange<size_t>(0, 7);
   std::string value = AsString(input.ConsumeRandomLengthString(32));
   value = DecodeUtf8(value) ? value : "not UTF-8";
   const std::string before = input.ConsumeRemainingBytesAsString();
   folder.Write(before);
   const std::optional<Settings> settings = Load(folder.Path());
   std::string name = names[picked % names.size()];
   if (settings && !settings->empty() && picked >= names.size()) {
      name = (*settings)[picked % settings->size()].first;
   }
   if (!Dictionary_IsSettingName(name.c_str())) {
      return 0;
   }

   MsgList *const messages = MsgList_Create();
   const DictionaryEditResult result =
       Dictionary_EditFile(folder.Path().c_str(), name.c_str(), remove ? nullptr : value.c_str(), messages);
   REQUIRE((MsgList_Count(messages) != 0) == (result == DictionaryEditResult::FAILED));
   MsgList_Free(messages);
   const std::string after = folder.Read();
   const std::optional<Settings> found = Load(folder.Path());
   if (result != DictionaryEditResult::DONE) {
      REQUIRE_SAME(after, before);
      REQUIRE(!settings || result == DictionaryEditResult::FAILED || (remove && !Mentions(*settings, name)));
      return 0;
   }
   REQUIRE(settings && found);
   Settings expected = *settings;
   const auto place = std::find_if(expected.begin(), expected.end(),
                                   [&name](const auto &setting) { return SameName(setting.first, name); });
   if (remove) {
      REQUIRE(place != expected.end());
      expected.erase(place);
   } else if (place != expected.end()) {
      place->second = value;
   } else {
      expected.emplace_back(name, value);
   }
   REQUIRE(*found == expected);
   REQUIRE(LinesThatDiffer(SplitLines(before), SplitLines(after)) <= 1);
   return 0;
}
