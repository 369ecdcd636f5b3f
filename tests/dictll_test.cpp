#include "lib/dict/dictll.h"
#include "lib/misc/memory/dynbuf.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

using Stream = std::unique_ptr<FILE, int (*)(FILE *)>;
using Line = std::vector<std::string>; /* The line, the name, the value. */

const std::string none = "<null>";

/* The lines that next gives until it has no more. */
template <typename Next> std::vector<Line> AllLines(Next next)
{
   std::vector<Line> lines;
   char *line = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   while (next(&line, &name, &value)) {
      lines.push_back({Take(line), Take(name), Take(value)});
   }
   EXPECT_TRUE(line == nullptr && name == nullptr && value == nullptr);
   return lines;
}

std::vector<Line> Unmarshal(std::string_view text)
{
   const char *const end = text.data() + text.size();
   const char *next = text.data();
   return AllLines([&](char **line, char **name, char **value) {
      next = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), line, name, value);
      return next != nullptr;
   });
}

/* What ends the reading goes to *end. */
std::vector<Line> ReadLines(const Stream &stream, int *end)
{
   return AllLines([&](char **line, char **name, char **value) {
      *end = DictLL_ReadLine(stream.get(), line, name, value);
      return *end == 2;
   });
}

Stream OpenText(std::string *text)
{
   return {fmemopen(text->empty() ? nullptr : text->data(), text->empty() ? 1 : text->size(),
                    text->empty() ? "w+" : "r"),
           fclose};
}

std::string Marshalled(const char *name, const std::string &value)
{
   DynBuf buffer;
   DynBuf_Init(&buffer);
   EXPECT_TRUE(DictLL_MarshalLine(&buffer, name, value.c_str()));
   const std::string text(buffer.data, buffer.size);
   DynBuf_Destroy(&buffer);
   return text;
}

TEST(DictLLUnmarshalLine, FollowsTheGrammar)
{
   std::vector<Line> cases = {{"a = \"b\"", "a", "b"},
                              {"a=1", "a", "1"},
                              {"a = b # note", "a", "b"},
                              {"a = b#note", "a", "b"},
                              {" \tMixed.Case:0\t= \t\"x y\" \t", "Mixed.Case:0", "x y"},
                              {"a = \"b # c\"", "a", "b # c"},
                              {"a = \"b\"#", "a", "b"},
                              {"a =", "a", ""},
                              {"a = # nothing", "a", ""},
                              {"a = \"\"", "a", ""},
                              {"a = x=y", "a", "x=y"},
                              {"a = x\"y", "a", "x\"y"},
                              {"a ==", "a", "="},
                              {"\"a\" = 1", "\"a\"", "1"},
                              {"a = b\r", "a", "b\r"},
                              {"a = |22|7c|7C|0A", "a", "\"||\n"},
                              {"a = |2|22|", "a", "|2|22|"},
                              {"a = \"|22\"", "a", "\""},
                              {"\xC3\xA9 = \xFF", "\xC3\xA9", "\xFF"}};
   for (const char *line : {"", "# a = b", "a", "= b", "a#b = c", "a b = c", "a = b c", "a = \"x",
                            "a = \"x\" y", "a = \"x\"y", "a = \"x\"\r"}) {
      cases.push_back({line, none, none});
   }
   for (const Line &c : cases) {
      EXPECT_EQ(c[0].empty() ? std::vector<Line>{} : std::vector<Line>{c}, Unmarshal(c[0]));
      EXPECT_EQ((std::vector<Line>{c, {"z=1", "z", "1"}}), Unmarshal(c[0] + "\nz=1"));
   }
   /* A NUL is no byte of a name or of a bare value, and is not the end of the line either. */
   using namespace std::literals;
   EXPECT_EQ((std::vector<Line>{{"a = b", none, none}}), Unmarshal("a = b\0c"sv));
   EXPECT_EQ((std::vector<Line>{{"a", none, none}}), Unmarshal("a\0= b"sv));
}

TEST(DictLLReadLine, ReadsWhatUnmarshalLineReads)
{
   int end = 0;
   std::string text = "\n\na = b # c\n#\nlong = \"" + std::string(1 << 20, 'v') + "\"\n";
   for (const size_t length : {511U, 512U, 513U}) {
      text += std::string(length, '1') + "\n";
   }
   for (const char *tail : {"last = 1", "\n"}) {
      text += tail;
      EXPECT_EQ(Unmarshal(text), ReadLines(OpenText(&text), &end));
      EXPECT_EQ(1, end);
   }
   EXPECT_TRUE(ReadLines(Stream(fopen("/", "re"), fclose), &end).empty());
   EXPECT_EQ(0, end) << "a read error is no end";
   EXPECT_EQ(EISDIR, errno);
}

TEST(DictLLMarshalLine, EscapesWhatWouldNotReadBack)
{
   EXPECT_EQ("a = \"\"\n", Marshalled("a", ""));
   EXPECT_EQ("a = \"x|22y|7C|0A|7F|01\t\xC3\xA9 #=\"\n", Marshalled("a", "x\"y|\n\x7F\x01\t\xC3\xA9 #="));
   std::string every;
   for (int byte = 1; byte < 256; byte++) {
      every += static_cast<char>(byte);
   }
   EXPECT_EQ(every, Unmarshal(Marshalled("name", every)).at(0)[2]);
}

TEST(DictLLWriteLine, ReportsWhatTheStreamReports)
{
   const ScratchFolder folder;
   {
      const Stream stream(fopen(folder.Path("f").c_str(), "we"), fclose);
      EXPECT_TRUE(DictLL_WriteLine(stream.get(), "a", "1|"));
      EXPECT_TRUE(DictLL_WriteLine(stream.get(), nullptr, "# kept \"as\" | it is"));
   }
   EXPECT_EQ("a = \"1|7C\"\n# kept \"as\" | it is\n", ReadFile(folder.Path("f")));
   const Stream full(fopen("/dev/full", "we"), fclose);
   if (full == nullptr) {
      GTEST_SKIP() << "this system has no device that is always full";
   }
   setvbuf(full.get(), nullptr, _IONBF, 0);
   EXPECT_FALSE(DictLL_WriteLine(full.get(), "a", "1"));
   EXPECT_EQ(ENOSPC, errno);
}

TEST(DictLLReadUTF8BOM, ConsumesTheMarkAndNothingElse)
{
   const std::string mark = "\xEF\xBB\xBF";
   for (const std::string rest : {"", "a=1", "\xEF", "\xEF\xBB", "\xEF\xBB#", "\xEF\xBB\xBF"}) {
      for (std::string text : {mark + rest, rest}) {
         const bool marked = text.starts_with(mark);
         const Stream stream = OpenText(&text);
         EXPECT_EQ(marked, DictLL_ReadUTF8BOM(stream.get())) << text;
         EXPECT_EQ(marked ? 3 : 0, ftell(stream.get())) << text;
      }
   }
   int ends[2];
   ASSERT_EQ(0, pipe(ends));
   ASSERT_EQ(4, write(ends[1], "a=1\n", 4));
   close(ends[1]);
   const Stream stream(fdopen(ends[0], "r"), fclose);
   int end = 0;
   EXPECT_FALSE(DictLL_ReadUTF8BOM(stream.get()));
   EXPECT_EQ((std::vector<Line>{{"a=1", "a", "1"}}), ReadLines(stream, &end)) << "nothing of a pipe is lost";
}

} // namespace
