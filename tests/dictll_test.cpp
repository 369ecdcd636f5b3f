#include "lib/dict/dictll.h"
#include "lib/misc/dynbuf.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

using Stream = std::unique_ptr<FILE, int (*)(FILE *)>;

struct Line {
   std::string line;
   std::string name;
   std::string value;

   bool operator==(const Line &) const = default;
};

void PrintTo(const Line &line, std::ostream *out)
{
   *out << '[' << line.line << "] name [" << line.name << "] value [" << line.value << ']';
}

constexpr const char *NONE = "<null>";

std::vector<Line> Unmarshal(std::string_view text)
{
   std::vector<Line> lines;
   char *line = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   const char *end = text.data() + text.size();
   const char *next = text.data();
   while ((next = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), &line, &name, &value)) !=
          nullptr) {
      lines.push_back({Take(line), Take(name), Take(value)});
   }
   EXPECT_TRUE(line == nullptr && name == nullptr && value == nullptr);
   return lines;
}

/* What ends the reading goes to *end. */
std::vector<Line> ReadLines(FILE *stream, int *end)
{
   std::vector<Line> lines;
   char *line = nullptr;
   char *name = nullptr;
   char *value = nullptr;
   while ((*end = DictLL_ReadLine(stream, &line, &name, &value)) == 2) {
      lines.push_back({Take(line), Take(name), Take(value)});
   }
   EXPECT_TRUE(line == nullptr && name == nullptr && value == nullptr);
   return lines;
}

std::string Marshalled(const char *name, const char *value)
{
   DynBuf buffer;
   DynBuf_Init(&buffer);
   EXPECT_TRUE(DictLL_MarshalLine(&buffer, name, value));
   const std::string text(buffer.data, buffer.size);
   DynBuf_Destroy(&buffer);
   return text;
}

TEST(DictLLUnmarshalLine, FollowsTheGrammar)
{
   struct Case {
      std::string_view line;
      const char *name;
      const char *value;
   };
   static constexpr Case cases[] = {
       {"a = \"b\"", "a", "b"},
       {"a=1", "a", "1"},
       {" \tMixed.Case:0\t= \t\"x y\" \t", "Mixed.Case:0", "x y"},
       {"a = b # note", "a", "b"},
       {"a = b#note", "a", "b"},
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
       {"\xC3\xA9 = \xFF", "\xC3\xA9", "\xFF"},
       {"", NONE, NONE},
       {"# a = b", NONE, NONE},
       {"a", NONE, NONE},
       {"= b", NONE, NONE},
       {"a#b = c", NONE, NONE},
       {"a b = c", NONE, NONE},
       {"a = b c", NONE, NONE},
       {"a = \"x", NONE, NONE},
       {"a = \"x\" y", NONE, NONE},
       {"a = \"x\"y", NONE, NONE},
       {"a = \"x\"\r", NONE, NONE},
   };
   for (const Case &c : cases) {
      const std::vector<Line> expected =
          c.line.empty() ? std::vector<Line>{} : std::vector<Line>{{std::string(c.line), c.name, c.value}};
      EXPECT_EQ(expected, Unmarshal(c.line));
      EXPECT_EQ((std::vector<Line>{{std::string(c.line), c.name, c.value}, {"z=1", "z", "1"}}),
                Unmarshal(std::string(c.line) + "\nz=1"));
   }
   /* A NUL is no byte of a name or of a bare value, and is not the end of the line either. */
   using namespace std::literals;
   EXPECT_EQ((std::vector<Line>{{"a = b", NONE, NONE}}), Unmarshal("a = b\0c"sv));
   EXPECT_EQ((std::vector<Line>{{"a", NONE, NONE}}), Unmarshal("a\0= b"sv));
}

TEST(DictLLReadLine, ReadsWhatUnmarshalLineReads)
{
   const std::string longValue(1 << 20, 'v');
   std::string text = "\n\na = b # c\n#\n" + std::string(511, '1') + "\n" + std::string(512, '2') + "\n" +
                      std::string(513, '3') + "\nlong = \"" + longValue + "\"\nlast = 1";
   for (const char *tail : {"", "\n"}) {
      text += tail;
      const Stream stream(fmemopen(text.data(), text.size(), "r"), fclose);
      int end = 0;
      EXPECT_EQ(Unmarshal(text), ReadLines(stream.get(), &end));
      EXPECT_EQ(1, end);
   }
}

TEST(DictLLReadLine, TellsAReadErrorFromTheEnd)
{
   const Stream directory(fopen("/", "re"), fclose);
   int end = 2;
   EXPECT_TRUE(ReadLines(directory.get(), &end).empty());
   EXPECT_EQ(0, end);
   EXPECT_EQ(EISDIR, errno);
}

TEST(DictLLMarshalLine, EscapesWhatWouldNotReadBack)
{
   EXPECT_EQ("a = \"\"\n", Marshalled("a", ""));
   EXPECT_EQ("a = \"x|22y|7C|0A|7F|01\t\xC3\xA9 #=\"\n", Marshalled("a", "x\"y|\n\x7F\x01\t\xC3\xA9 #="));
   EXPECT_EQ("# kept \"as\" | it is\n", Marshalled(nullptr, "# kept \"as\" | it is"));

   std::string every;
   for (int byte = 1; byte < 256; byte++) {
      every += static_cast<char>(byte);
   }
   const std::string line = Marshalled("name", every.c_str());
   EXPECT_EQ(every, Unmarshal(line).at(0).value);
}

TEST(DictLLWriteLine, ReportsWhatTheStreamReports)
{
   const ScratchFolder folder;
   {
      const Stream stream(fopen(folder.Path("f").c_str(), "we"), fclose);
      EXPECT_TRUE(DictLL_WriteLine(stream.get(), "a", "1|"));
      EXPECT_TRUE(DictLL_WriteLine(stream.get(), nullptr, "#"));
   }
   EXPECT_EQ("a = \"1|7C\"\n#\n", ReadFile(folder.Path("f")));

   const Stream full(fopen("/dev/full", "we"), fclose);
   setvbuf(full.get(), nullptr, _IONBF, 0);
   EXPECT_FALSE(DictLL_WriteLine(full.get(), "a", "1"));
   EXPECT_EQ(ENOSPC, errno);
}

TEST(DictLLReadUTF8BOM, ConsumesTheMarkAndNothingElse)
{
   for (const std::string rest : {"", "a=1", "\xEF", "\xEF\xBB",
                                  "\xEF\xBB"
                                  "a",
                                  "\xEF\xBB\xBF"}) {
      for (const std::string mark : {"\xEF\xBB\xBF", ""}) {
         std::string text = mark + rest;
         const bool marked = text.starts_with("\xEF\xBB\xBF");
         const Stream stream(fmemopen(text.empty() ? nullptr : text.data(), text.empty() ? 1 : text.size(),
                                      text.empty() ? "w+" : "r"),
                             fclose);
         EXPECT_EQ(marked, DictLL_ReadUTF8BOM(stream.get())) << text;
         EXPECT_EQ(marked ? 3 : 0, ftell(stream.get())) << text;
      }
   }
}

TEST(DictLLReadUTF8BOM, LosesNothingOfAPipeWithoutAMark)
{
   int ends[2];
   ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
   ASSERT_EQ(4, write(ends[1], "a=1\n", 4));
   close(ends[1]);
   const Stream stream(fdopen(ends[0], "r"), fclose);
   int end = 0;
   EXPECT_FALSE(DictLL_ReadUTF8BOM(stream.get()));
   EXPECT_EQ((std::vector<Line>{{"a=1", "a", "1"}}), ReadLines(stream.get(), &end));
}

} // namespace
