#include "lib/dict/dictll.h"
#include "lib/file/fileIO.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/user/dictionary.h"
#include "lib/user/dictionary/state.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

using namespace std::literals;

const std::string UTF8 = ".encoding = \"UTF-8\"\n";

/* A dictionary with a message list, and a folder for its files. */
class Dictionaries : public testing::Test {
 protected:
   Dictionaries()
   {
      Dictionary_SetMessageList(dictionary_, messages_);
   }

   ~Dictionaries() override
   {
      Dictionary_Free(dictionary_);
      MsgList_Free(messages_);
   }

   std::string Path(const std::string &name = "f")
   {
      return folder_.Path(name);
   }

   bool Load(const std::string &content)
   {
      WriteFile(Path(), content);
      return Dictionary_Load(dictionary_, Path().c_str());
   }

   bool Unmarshal(const std::string &content, bool append = false, EncodingId encoding = ENCODING_DEFAULT)
   {
      return Dictionary_Unmarshal(dictionary_, content.c_str(), append, encoding, messages_);
   }

   bool Write(const std::string &name = "f")
   {
      return Dictionary_WriteFile(dictionary_, Path(name).c_str());
   }

   std::string Written(bool protect = true)
   {
      char *text = nullptr;
      size_t size = 9;
      const bool written = Dictionary_WriteToBuffer(dictionary_, protect, &text, &size);
      const std::string result(written ? text : "<null>", written ? size - 1 : 6);
      EXPECT_EQ(written ? '\0' : 'x', written ? text[size - 1] : 'x');
      EXPECT_EQ(!written, Take(text) == "<null>" && size == 0);
      return result;
   }

   std::string Text(const char *name)
   {
      return Take(Dictionary_GetText(dictionary_, name));
   }

   std::string String(const char *name, const char *fallback = nullptr)
   {
      return Take(Dictionary_GetString(dictionary_, fallback, "%s", name));
   }

   /* Puts in an untyped value, as a file does. */
   void Put(const std::string &text)
   {
      Dictionary_SetFromString(dictionary_, text.c_str(), false, messages_);
   }

   /* The messages so far, as "identifier: text", which are then dropped. */
   std::string Messages()
   {
      std::string all;
      for (size_t i = 0; i < MsgList_Count(messages_); i++) {
         const MsgListMessage *message = MsgList_Get(messages_, i);
         all += std::string(message->identifier).substr(strlen("msg.dictionary.")) + ": " + message->text;
      }
      MsgList_Rollback(messages_, 0);
      return folder_.Shorten(all);
   }

   std::string Log()
   {
      return folder_.Shorten(log_.TakeText());
   }

   ScratchFolder folder_;
   CapturedLog log_;
   MsgList *messages_ = MsgList_Create();
   Dictionary *dictionary_ = Dictionary_Create();
};

using Line = std::vector<std::string>; /* The line, the name, the value. */

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

std::vector<Line> LinesOf(std::string_view text)
{
   const char *const end = text.data() + text.size();
   const char *next = text.data();
   return AllLines([&](char **line, char **name, char **value) {
      next = DictLL_UnmarshalLine(next, static_cast<size_t>(end - next), line, name, value);
      return next != nullptr;
   });
}

TEST_F(Dictionaries, HaveLinesOfTheGrammar)
{
   const std::string none = "<null>";
   std::vector<Line> cases = {{" \tMixed.Case:0\t= \t\"x y\" \t", "Mixed.Case:0", "x y"},
                              {"a=b#note", "a", "b"},
                              {"a = \"b # c\"#", "a", "b # c"},
                              {"a = # nothing", "a", ""},
                              {"a = \"\"", "a", ""},
                              {"a = x=y\"z", "a", "x=y\"z"},
                              {"\"a\" = 1\r", "\"a\"", "1\r"},
                              {"a = |22|7c|7C|0A|2|22|", "a", "\"||\n|2|22|"},
                              {"a = \"x|00y\"", "a", "x"},
                              {"\xC3\xA9 = \xFF", "\xC3\xA9", "\xFF"}};
   for (const char *line : {"", "# a = b", "a", "= b", "a#b = c", "a b = c", "a = b c", "a = \"x",
                            "a = \"x\" y", "a = \"x\"\r"}) {
      cases.push_back({line, none, none});
   }
   std::string text = "long = \"" + std::string(1 << 20, 'v') + "\"\n";
   for (const Line &c : cases) {
      EXPECT_EQ((std::vector<Line>{c, {"z=1", "z", "1"}}), LinesOf(c[0] + "\nz=1"));
      text += c[0] + "\n";
   }
   for (const size_t length : {126U, 127U, 128U, 255U, 256U, 257U}) {
      text += std::string(length, '1') + "\n";
   }
   /* A NUL is no byte of a name or a value, and is not the end of the line either. */
   for (const std::string_view line :
        {"a = b\0c"sv, "a\0= b"sv, "a = \"b\0\""sv, "\0\n\n"sv, "# \0\0"sv, ""sv}) {
      text += line;
      EXPECT_TRUE(line.empty() || LinesOf(line)[0][1] == none);
      WriteFile(Path(), text);
      const OwnedStream stream(fopen(Path().c_str(), "re"));
      int end = 2;
      EXPECT_EQ(LinesOf(text), AllLines([&](char **read, char **name, char **value) {
                   end = DictLL_ReadLine(stream.get(), read, name, value);
                   return end == 2;
                }));
      EXPECT_EQ(1, end);
      text += "\n";
   }
   const OwnedStream folder(fopen("/", "re"));
   char *unset = nullptr;
   EXPECT_EQ(0, DictLL_ReadLine(folder.get(), &unset, &unset, &unset)) << "a read error is no end";
   EXPECT_EQ(EISDIR, errno);
}

TEST_F(Dictionaries, EscapeWhatWouldNotReadBack)
{
   std::string every;
   for (int byte = 1; byte < 256; byte++) {
      every += static_cast<char>(byte);
   }
   OwnedDynBuf buffer;
   EXPECT_TRUE(DictLL_MarshalLine(&buffer, "a", "x\"y|\n\x7F\x01\t\xC3\xA9 #="));
   EXPECT_EQ("a = \"x|22y|7C|0A|7F|01\t\xC3\xA9 #=\"\n", std::string(buffer.data, buffer.size));
   OwnedStream stream(fopen(Path().c_str(), "we"));
   EXPECT_TRUE(DictLL_WriteLine(stream.get(), "name", every.c_str()));
   EXPECT_TRUE(DictLL_WriteLine(stream.get(), nullptr, "# \"as\" | it is"));
   stream.reset(fopen(Path().c_str(), "re"));
   const std::vector<Line> lines = LinesOf(ReadFile(Path()));
   EXPECT_TRUE(lines.size() == 2 && lines[0][2] == every && lines[1][0] == "# \"as\" | it is");
   EXPECT_FALSE(DictLL_WriteLine(stream.get(), "a", "1"));
   EXPECT_EQ(EBADF, errno);

   const std::string mark = "\xEF\xBB\xBF";
   for (const std::string rest : {"", "a=1", "\xEF", "\xEF\xBB", "\xEF\xBB#", "\xEF\xBB\xBF"}) {
      for (const std::string &text : {mark + rest, rest}) {
         WriteFile(Path(), text);
         stream.reset(fopen(Path().c_str(), "re"));
         EXPECT_EQ(text.starts_with(mark), DictLL_ReadUTF8BOM(stream.get())) << text;
         EXPECT_EQ(text.starts_with(mark) ? 3 : 0, ftell(stream.get())) << text;
      }
   }
}

/* An endless stream is left at the line that is wrong, of which there may be no end in sight. */
TEST_F(Dictionaries, AreReadNoFurtherThanTheFirstSyntaxError)
{
   int ends[2];
   ASSERT_EQ(0, pipe(ends));
   const OwnedDescriptor writer(ends[1]);
   ASSERT_EQ(8, write(writer.get(), "a=1\nb c\n", 8));
   OwnedDescriptor input(dup(STDIN_FILENO));
   dup2(ends[0], STDIN_FILENO);
   close(ends[0]);
   EXPECT_FALSE(Dictionary_Load(dictionary_, "-"));
   EXPECT_EQ("1", Text("a"));
   EXPECT_EQ("read.syntaxError: File \"<stdin>\" line 2: Syntax error.\n", Messages());
   dup2(input.get(), STDIN_FILENO);
}

TEST_F(Dictionaries, AreWrittenBackAsTheyWereRead)
{
   const std::pair<std::string, std::string> cases[] = {
       {"", UTF8},
       {"#!/x\n# y\n\n# z\0z\na = b # c\0d\n.encoding = utf8\n\tB=\"|41\""s,
        "#!/x\n# y\n" + UTF8 + "\n# z\0z\na = b # c\0d\n\tB=\"|41\"\n"s},
       {"\xEF\xBB\xBF# c\na=\xC3\xA9\n", "# c\n" + UTF8 + "a=\xC3\xA9\n"},
       {" # not a head\n.other = 1\na = \"x|00y\"\n", UTF8 + " # not a head\na = \"x|00y\"\n"},
       {"VMList.Encoding = \"us-ascii\"\na=1\n", ".encoding = \"ASCII\"\na=1\n"},
       /* Values before and after the line that names the encoding. */
       {"a=\xE9\n.encoding=ISO-8859-1\nb=\xE8\n", ".encoding = \"ISO-8859-1\"\na=\xE9\nb=\xE8\n"}};
   for (const auto &[read, written] : cases) {
      EXPECT_TRUE(Load(read)) << read;
      EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
      EXPECT_EQ(written, Written());
   }
   EXPECT_EQ("\xC3\xA9\xC3\xA8", Text("a") + Text("b"));
   EXPECT_EQ("DictionaryParseReadLine: \"@/f\" line 2: unrecognized metavariable \".other\"\n", Log());
   EXPECT_EQ("", Messages());

   /* The bytes of a mark where it is not meant, and a wide encoding, which cannot be that of lines of bytes. */
   WriteFile(Path(), "\xEF\xBB\xBF\na=\xE9\n");
   ASSERT_TRUE(DictionaryLoad(dictionary_, Path().c_str(), true, ENCODING_ISO_8859_1, messages_));
   EXPECT_EQ("\xC3\xA9", Text("a"));
   EXPECT_EQ("", Messages()) << "the failed guess leaves no message";
   EXPECT_FALSE(Load(".encoding=UTF-16LE\na=abc\n"));
}

TEST_F(Dictionaries, KeepSettingsInOrderAndMarshalChangesOnly)
{
   const char *header[] = {"# one", "# two", nullptr};
   ASSERT_TRUE(Load("# one\nb = 1 # one\n# c\na=2\nd=3\ngone=4\n"));
   Dictionary_SetString(dictionary_, "x|y\n\"", 0, "A");
   Dictionary_SetDouble(dictionary_, 1.0 / 3, 0, "new1");
   Dictionary_SetTriState(dictionary_, -1, 0, "new2");
   Dictionary_SetInt64(dictionary_, -5, 0, "new3");
   Dictionary_SetBool(dictionary_, false, 0, "new4");
   Dictionary_SetBool(dictionary_, true, DICTIONARY_NOT_PERSISTENT, "d");
   Dictionary_Unset(dictionary_, "gone");
   EXPECT_EQ(7, Dictionary_GetInt32(dictionary_, 7, "fleeting"));
   Dictionary_AddHeaderLines(dictionary_, header);
   Dictionary_AddHeaderLines(dictionary_, header);
   EXPECT_TRUE(Dictionary_AddInterpreterLine(dictionary_, "/bin/x"));
   EXPECT_FALSE(Dictionary_AddInterpreterLine(dictionary_, "/bin/y"));
   const std::string written = "#!/bin/x\n# one\n# two\n# one\n" + UTF8 +
                               "b = 1 # one\n# c\na = \"x|7Cy|0A|22\"\nnew1 = \"0.333333333\"\n"
                               "new2 = \"DEFAULT\"\nnew3 = \"-5\"\nnew4 = \"FALSE\"\n";
   EXPECT_EQ(written, Written());
   EXPECT_EQ(written, Written());
   ASSERT_TRUE(Write());
   EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
   Dictionary_SetString(dictionary_, "x|y\n\"", 0, "A");
   EXPECT_FALSE(Dictionary_IsChanged(dictionary_)) << "the file has it already";
   ASSERT_TRUE(Unmarshal(written));
   EXPECT_EQ("x|y\n\"", Text("a"));
   EXPECT_EQ(8, Dictionary_GetLineNumber(dictionary_, "a"));
}

TEST_F(Dictionaries, SayWhereReadingFails)
{
   const struct {
      std::string content;
      const char *messages;
      std::string log = "";
   } cases[] = {
       {"a=1\na = b c\nz=1\n", "read.syntaxError: File \"@/f\" line 2: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"a = b c\".\n"},
       {"junk\xFF\\\0"s, "read.syntaxError: File \"@/f\" line 1: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"junk\\xFF\\x5C\\x00\".\n"},
       {"\xC3\xA9=1\n", "nameNotASCII: File \"@/f\" line 1: Variable \"\\xC3\\xA9\" is not valid ASCII.\n"},
       {".encoding=no-such\n",
        "unknownEncoding: File \"@/f\" (line 1) specifies a character encoding (no-such) that is not "
        "supported.\n",
        "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such\"\n"},
       {".encoding=UTF-8\n.encoding=utf8\n.encoding=ASCII\n",
        "hasEncoding: File \"@/f\" (line 3) already has encoding \"UTF-8\".\n"},
       {"a=\xC3\xA9\n.encoding=ASCII\n",
        "badEncodedInput: File \"@/f\" line 2: Value \"\\xC3\\xA9\" for variable \"a\" is not valid in "
        "encoding \"ASCII\".\n"},
       {".encoding=UTF-8\na = |FF\n",
        "badEncodedInput: File \"@/f\" line 2: Value \"\\xFF\" for variable \"a\" is not valid in encoding "
        "\"UTF-8\".\n"},
       {"a=\xFF\n",
        "badEncodedInputNoLine: File \"@/f\": Value \"\\xFF\" for variable \"a\" is not valid in encoding "
        "\"UTF-8\".\nbadDefaultEncoding: An error occurred while decoding file \"@/f\" using the default "
        "character encoding.\n"},
       {"a=1\nA=2\n\nb=1\na=3\n",
        "alreadyDefined: File \"@/f\" line 2: Variable \"A\" is already defined.\n"
        "alreadyDefined: File \"@/f\" line 5: Variable \"a\" is already defined.\n"}};
   for (const auto &[content, messages, log] : cases) {
      EXPECT_FALSE(Load(content));
      EXPECT_EQ(messages, Messages());
      EXPECT_EQ(log, Log());
   }
   EXPECT_EQ("11", Text("a") + Text("b")) << "the first wins, and reading goes on";
   EXPECT_EQ(UTF8 + "a=1\nA=2\n\nb=1\na=3\n", Written());

   std::string content = "a=1\n";
   for (int i = 0; i < 100; i++) {
      content += "a=2\n";
   }
   EXPECT_FALSE(Load(content + "z=1\n"));
   EXPECT_EQ("1", Text("z"));
   EXPECT_EQ(100U, MsgList_Count(messages_));
   EXPECT_FALSE(Load(content + "a=2\nz=1\n"));
   EXPECT_EQ("<null>", Text("z"));
   EXPECT_EQ("DictionaryReadLines: \"@/f\" line 102: too many duplicate entries in dictionary, quitting.\n",
             Log());
}

TEST_F(Dictionaries, TakeABufferWithoutAFileName)
{
   EXPECT_TRUE(Unmarshal("a = \"x\"\r\nb = \"y\ry\"\r\n#\r\n"));
   EXPECT_EQ(UTF8 + "a = \"x\"\nb = \"y\ry\"\n#\n", Written());
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_UNKNOWN, messages_));
   EXPECT_TRUE(Dictionary_SetEncoding(dictionary_, ENCODING_DEFAULT, messages_));
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_US_ASCII, messages_));
   EXPECT_FALSE(Unmarshal("a=1\na=2\njunk\nz=1\n"));
   EXPECT_FALSE(Unmarshal("a=\xFF\n", false, ENCODING_UTF8));
   EXPECT_EQ("unknownEncodingNoFile: Character encoding \"unknown\" is not supported.\n"
             "hasEncodingNoFile: The dictionary already has encoding \"UTF-8\".\n"
             "alreadyDefinedNoFile: Variable \"a\" is already defined.\n"
             "read.syntaxErrorNoFile: Syntax error.\n"
             "badEncodedInputNoFile: Value \"\\xFF\" for variable \"a\" is not valid in encoding \"UTF-8\".\n"
             "badDefaultEncodingNoFile: Failed to decode the dictionary in the default character encoding.\n",
             Messages());
   EXPECT_TRUE(Unmarshal("b=1\n"));
   EXPECT_TRUE(Unmarshal("c=1\n", true, ENCODING_US_ASCII));
   EXPECT_EQ(UTF8 + "b=1\nc=1\n", Written());
}

TEST_F(Dictionaries, AreUpgradedForWhatTheirEncodingCannotHold)
{
   ASSERT_TRUE(Load(".encoding=ASCII\na=1\nn=0x10\n"));
   EXPECT_EQ(16, Dictionary_GetInt32(dictionary_, 0, "n"));
   Dictionary_SetString(dictionary_, "plain", 0, "b");
   EXPECT_EQ(".encoding = \"ASCII\"\na=1\nn=0x10\nb = \"plain\"\n", Written());
   Dictionary_SetString(dictionary_, "\xC3\xA9", 0, "b");
   EXPECT_EQ(UTF8 + "a = \"1\"\nn=0x10\nb = \"\xC3\xA9\"\n", Written());
   EXPECT_EQ(
       "badEncodedOutput: Value \"\xC3\xA9\" for variable \"b\" is not valid in the \"ASCII\" encoding.\n",
       Messages());
   EXPECT_EQ("Dictionary_WriteToBuffer: upgrading encoding from ASCII to UTF-8\n", Log());
}

TEST_F(Dictionaries, AreNotWrittenIfTheyWouldNotLoadAgain)
{
   for (const char *encoding : {"ASCII", "UTF-8"}) {
      const std::string content = ".encoding=" + std::string(encoding) + "\na=1\n";
      const auto refuses = [&](const char *name, const char *value) {
         EXPECT_TRUE(Load(content));
         Dictionary_SetString(dictionary_, value, 0, name);
         EXPECT_EQ("<null>", Written());
         EXPECT_FALSE(Write());
         EXPECT_EQ(content, ReadFile(Path()));
         return Messages();
      };
      EXPECT_TRUE(refuses("b", "\xFF").starts_with("badEncodedOutput: "));
      for (const char *name : {"", "two words", "a\nb", "x#", "x=", "\xC3\xA9", ".x", "Config.Encoding"}) {
         EXPECT_TRUE(refuses(name, "1").ends_with(
             "\".\nwritefile.export: An error occurred while exporting a dictionary to a buffer.\n"));
      }
   }
}

/* What a stand-in for an encryption layer saw: the section becomes one line, and the hash is the length of the text. */
struct Layer {
   std::string section;
   int cleared = 0;
   bool refuses = false;
};

TEST_F(Dictionaries, GoThroughTheHooksOfAnEncryptionLayer)
{
   Layer layer;
   const DictionaryHooks hooks = {
       .cleared = [](Dictionary *, void *context) { static_cast<Layer *>(context)->cleared++; },
       .protect =
           [](Dictionary *, const char *section, void *context) {
              auto *seen = static_cast<Layer *>(context);
              seen->section = section;
              return seen->refuses ? nullptr : strdup("encryption.data = \"closed\"\n");
           },
       .integrity = [](Dictionary *, const char *, size_t size,
                       void *) { return strdup(std::to_string(size).c_str()); },
       .context = &layer};
   Dictionary_SetHooks(dictionary_, &hooks);
   ASSERT_TRUE(Unmarshal("open=1\nencryption.unspecified.default=x\nencryption.keySafe=k\n"));
   EXPECT_EQ(1, layer.cleared);
   Dictionary_SetString(dictionary_, "hidden", DICTIONARY_PROTECTED, "secret");
   const std::string body = UTF8 + "open=1\nencryption.keySafe=k\nencryption.data = \"closed\"\n";
   const std::string file = body + "encryption.integrityHash = \"" + std::to_string(body.size()) + "\"\n";
   EXPECT_EQ(file, Written());
   EXPECT_EQ("encryption.unspecified.default=x\nsecret = \"hidden\"\n", layer.section);
   ASSERT_TRUE(Unmarshal(file));
   Dictionary_Unset(dictionary_, "encryption.data");
   EXPECT_EQ(file, Written()) << "with one hash";
   EXPECT_EQ("\n", layer.section);
   layer.refuses = true;
   EXPECT_EQ("<null>", Written());
   EXPECT_NE("<null>", Written(false));

   Dictionary_SetHooks(dictionary_, nullptr);
   ASSERT_TRUE(Unmarshal("encryption.integrityProtected=TRUE\na=1\n"));
   EXPECT_NE("<null>", Written()) << "not a file of the encryption layer";
   Dictionary_SetProtectionKey(dictionary_, this);
   EXPECT_EQ("<null>", Written());
   EXPECT_EQ("Dictionary_WriteToBuffer: Dictionary integrity is not valid.", Log());
   Dictionary_SetIntegrityVerified(dictionary_, true);
   EXPECT_NE("<null>", Written());
}

TEST_F(Dictionaries, ReportWhatCannotBeLoaded)
{
   ASSERT_TRUE(Load("a=1\n"));
   EXPECT_TRUE(Dictionary_Append(dictionary_, nullptr));
   EXPECT_EQ("1", Text("a"));
   EXPECT_FALSE(Dictionary_Append(dictionary_, Path().c_str())) << "all its names are there already";
   EXPECT_TRUE(Dictionary_Load(dictionary_, nullptr));
   EXPECT_EQ("<null>", Text("a"));
   MsgList_Rollback(messages_, 0);
   EXPECT_FALSE(Dictionary_LoadUTF8(dictionary_, Path("none").c_str()));
   EXPECT_FALSE(Dictionary_LoadUTF8(dictionary_, Path("").c_str()));
   EXPECT_EQ("load.openFailed: Cannot open file \"@/none\": No such file or directory.\n"
             "load.isDirectory: \"@\" is a directory.\n",
             Messages());
   EXPECT_EQ("DictionaryLoad: Cannot open file \"@/none\": No such file or directory.\n"
             "DictionaryLoad: \"@\" is a directory.\n",
             Log());
}

TEST_F(Dictionaries, LoadFromAHandleThatStaysUsable)
{
   FileIOHandle handle;
   WriteFile(Path(), "a=1\n");
   ASSERT_TRUE(FileIO_Open(&handle, Path().c_str(), O_RDWR, 0));
   lseek(handle.fd, 3, SEEK_SET);
   EXPECT_TRUE(Dictionary_LoadFromFileHandle(dictionary_, &handle, messages_));
   EXPECT_EQ("1", Text("a"));
   EXPECT_EQ(0, lseek(handle.fd, 0, SEEK_CUR));
   Dictionary_SetInt32(dictionary_, 2, 0, "a");
   EXPECT_TRUE(Dictionary_WriteToFileHandle(dictionary_, &handle, nullptr, messages_));
   EXPECT_EQ(UTF8 + "a = \"2\"\n", ReadFile(Path()));

   lseek(handle.fd, 3, SEEK_SET);
   fs::create_directory(Path("f-copy-0"));
   EXPECT_FALSE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ("Warning: DictionarySaveFileCopy: Unable to save a copy of @/f\n", Log());
   WriteFile(Path("f-copy-1"), "something older and longer than what is copied over it");
   EXPECT_TRUE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ(ReadFile(Path()), ReadFile(Path("f-copy-1")));
   EXPECT_EQ(3, lseek(handle.fd, 0, SEEK_CUR));
   EXPECT_TRUE(FileIO_Close(&handle));

   int ends[2];
   ASSERT_EQ(0, pipe(ends));
   const OwnedDescriptor reader(ends[0]);
   handle.fd = ends[1];
   handle.path = strdup("pipe");
   EXPECT_FALSE(Dictionary_LoadFromFileHandle(dictionary_, &handle, messages_));
   EXPECT_FALSE(Dictionary_WriteToFileHandle(dictionary_, &handle, nullptr, messages_));
   EXPECT_EQ("loadFile.seekFailed: Cannot seek file \"pipe\": Illegal seek.\n"
             "writefile.seek: An error occurred while seeking within configuration file \"pipe\":Illegal "
             "seek.\n",
             Messages());
   EXPECT_FALSE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ("Warning: DictionarySaveFileCopy: Unable to record the current position of file pipe\n", Log());
   EXPECT_TRUE(FileIO_Close(&handle));
}

TEST_F(Dictionaries, AreReplacedWithModeOwnerAndLinkOrElseRewritten)
{
   const auto attributes = [&](const char *name) {
      struct stat found = {};
      EXPECT_EQ(0, stat(Path(name).c_str(), &found));
      return found;
   };
   WriteFile(Path("real"), "a=1\nlong = \"a line that makes the old content longer than the new one\"\n");
   ASSERT_EQ(0, chmod(Path("real").c_str(), 0666));
   ASSERT_TRUE(geteuid() != 0 || chown(Path("real").c_str(), 1234, 4321) == 0);
   fs::create_symlink("real", Path());
   const struct stat before = attributes("f");
   ASSERT_TRUE(Dictionary_Load(dictionary_, Path().c_str()));
   Dictionary_SetInt32(dictionary_, 2, 0, "a");
   const mode_t mask = umask(022);
   EXPECT_TRUE(Write());
   EXPECT_TRUE(Write("new"));
   umask(mask);
   const struct stat after = attributes("f");
   EXPECT_EQ(std::tuple(before.st_mode, before.st_uid, before.st_gid),
             std::tuple(after.st_mode, after.st_uid, after.st_gid));
   EXPECT_NE(before.st_ino, after.st_ino);
   EXPECT_TRUE(fs::is_symlink(Path()));

   /* A folder has the temporary file's name. */
   fs::create_directory(Path("real~"));
   Dictionary_Unset(dictionary_, "long");
   EXPECT_TRUE(Write());
   EXPECT_EQ(after.st_ino, attributes("f").st_ino);
   EXPECT_EQ(UTF8 + "a = \"2\"\n", ReadFile(Path("real")));
   EXPECT_TRUE(Log().starts_with("FileIO_AtomicTempFile: Failed to unlink temporary file, errno: "));

   EXPECT_EQ(0754U, attributes("new").st_mode & 07777);
   chmod(Path("new").c_str(), 0640);
   EXPECT_TRUE(Dictionary_MakeExecutable(Path("new").c_str()));
   EXPECT_EQ(0750U, attributes("new").st_mode & 07777);
   EXPECT_FALSE(Dictionary_MakeExecutable(Path("none").c_str()));
   EXPECT_EQ("Dictionary_MakeExecutable: cannot stat configuration file @/none: No such file or directory\n",
             Log());
   EXPECT_FALSE(Write("none/f"));
   EXPECT_FALSE(Write(std::string(300, 'n')));
   EXPECT_EQ("open: Cannot open configuration file \"@/none/f\": No such file or directory.\n"
             "nameTooLong: File name too long",
             Messages());
}

/* Settings and comments of every spelling, more than the table has room for at first. */
TEST_F(Dictionaries, SurviveARoundTripOfTenThousandLines)
{
   for (const bool latin : {false, true}) {
      const std::string accent = latin ? "\xE9" : "\xC3\xA9";
      const std::string spellings[] = {" = \"a |22|7C|0A|zz\t#=" + accent + "\" # \"note\" =",
                                       "=x|41=|z\\'." + accent, " \t= \t", "  =\t\"\"", " = x# note"};
      std::string content = ".encoding = \"" + std::string(latin ? "ISO-8859-1" : "UTF-8") + "\"\n";
      for (size_t i = 0; i < 5000; i++) {
         content += (i % 3 == 0 ? "\tName:" : "name:") + std::to_string(i) + spellings[i % 5] + "\n # \t" +
                    accent + "\n";
      }
      ASSERT_TRUE(Load(content)) << Messages();
      for (const char *name : {"nAME:0", "name:511", "name:512", "name:4095", "name:4096", "name:4999"}) {
         EXPECT_TRUE(Dictionary_IsDefined(dictionary_, name)) << name;
      }
      ASSERT_TRUE(Write());
      ASSERT_TRUE(content == ReadFile(Path()));
      Dictionary_SetInt32(dictionary_, 42, 0, "NAME:2001");
      Dictionary_SetInt32(dictionary_, 43, 0, "name.2001");
      ASSERT_TRUE(Write());
      const size_t changed = content.find("\tName:2001");
      content.replace(changed, content.find('\n', changed) - changed, "Name:2001 = \"42\"");
      EXPECT_TRUE(content + "name.2001 = \"43\"\n" == ReadFile(Path()));
   }
}

/* Loaded into and unset from again and again, lines of all lengths, a dictionary takes no more than at first. */
TEST_F(Dictionaries, TakeNoMoreMemoryThanTheyNeed)
{
   const SecretArenaBlock *latest = nullptr;
   for (size_t round = 0; round < 600; round++) {
      const std::string value(round * 7 % 2100, 'x');
      EXPECT_TRUE(Unmarshal("a=" + value + "\nb=1\n", true));
      Dictionary_SetString(dictionary_, value.c_str(), 0, "b");
      Dictionary_UnsetPrefix(dictionary_, "");
      EXPECT_TRUE(round <= 300 || latest == dictionary_->arena.blocks) << round;
      latest = dictionary_->arena.blocks;
   }
}

TEST_F(Dictionaries, GatherMessagesWithIdentifierTextAndArguments)
{
   const char *volatile none = nullptr;
   errno = EXDEV;
   MsgList_Append(nullptr, MSGLIST_ID("x") "dropped");
   MsgList_Append(messages_, MSGLIST_ID("a.b") "%s: %5.1f%% of %d, %lld, %u%s\n", "one", 2.5, -3, LLONG_MIN,
                  UINT_MAX, none);
   MsgList_Append(messages_, "bare (text)");
   EXPECT_EQ(EXDEV, errno);
   const MsgListMessage *const first = MsgList_Get(messages_, 0);
   const MsgArgument *const given = first->arguments;
   EXPECT_STREQ("@&!*@*@(msg.a.b)%s: %5.1f%% of %d, %lld, %u%s\n", first->format);
   EXPECT_STREQ("msg.a.b", first->identifier);
   ASSERT_EQ(6U, first->argumentCount);
   EXPECT_TRUE(given[0].string == "one"s && given[1].number == 2.5 && given[2].integer == -3 &&
               given[3].integer == LLONG_MIN && given[4].integer == UINT_MAX && given[5].string == nullptr);
   EXPECT_STREQ("", MsgList_Get(messages_, 1)->identifier);
   EXPECT_EQ("one:   2.5% of -3, -9223372036854775808, 4294967295(null)\nbare (text)",
             Take(MsgList_ToString(messages_)));
   EXPECT_EQ("", Take(MsgList_ToString(nullptr)));
   MsgList_Rollback(messages_, 1);
   EXPECT_EQ(1U, MsgList_Count(messages_));
}

/* What text makes of each type, and the message if there is one: "n" that it is none, "r" that it is out of range. */
TEST_F(Dictionaries, ConvertTextOnceByItsType)
{
   const struct {
      const char *text, *wrong; /* A letter for each of the five types below. */
      long long int32 = -7, int64 = LLONG_MIN;
      double number = 0.5;
   } cases[] = {{"0x10", "nn   ", 16, 16, 16},
                {"010", "nn   ", 8, 8, 10},
                {"", "  nn ", -7, LLONG_MIN, 0},
                {"  ", "nnnnn"},
                {"auto", "n nnn"},
                {"12abc", "nnnnn"},
                {"1e-310", "nnnn ", -7, LLONG_MIN, 1e-310},
                {"inf", "nnnn ", -7, LLONG_MIN, HUGE_VAL},
                {"4294967297", "nn   ", 1, 4294967297, 4294967297},
                {"1e999", "nnnnr"},
                {"1e-999", "nnnnr"},
                {"18446744073709551615", "nn   ", -1, -1, 18446744073709551615.0},
                {"-99999999999999999999", "nnrr ", -7, LLONG_MIN, -1e20}};
   const struct {
      const char *invalid, *outOfRange, *kind, *used;
   } types[] = {{"notBoolean", "", "boolean", "TRUE"},
                {"notTristate", "", "tristate", "default"},
                {"notInteger", "integerOutOfRange", "integer", "-7"},
                {"notInteger64", "integer64OutOfRange", "integer", "-9223372036854775808"},
                {"notFloat", "doubleOutOfRange", "floating point", "0.500000"}};
   for (const auto &c : cases) {
      std::string messages;
      for (size_t i = 0; i < std::size(types); i++) {
         const std::string name(1, static_cast<char>('a' + i));
         const bool isInvalid = c.wrong[i] == 'n';
         Put(name + "=" + c.text);
         messages += c.wrong[i] == ' '
                         ? ""
                         : (isInvalid ? types[i].invalid : types[i].outOfRange) + ": Value \""s + c.text +
                               "\" for variable \"" + name + "\" is " +
                               (isInvalid ? "not a valid "s + types[i].kind + " value" : "out of range") +
                               ". Using value \"" + types[i].used + "\".\n";
      }
      Dictionary *const d = dictionary_;
      EXPECT_TRUE(Dictionary_GetBool(d, true, "a"));
      EXPECT_EQ(*c.text == '\0' ? 1 : -1, Dictionary_GetTriState(d, -1, "b"));
      EXPECT_EQ(c.int32, Dictionary_GetInt32(d, -7, "%s", "C")) << c.text;
      EXPECT_EQ(c.int64, Dictionary_GetInt64(d, LLONG_MIN, "d")) << c.text;
      EXPECT_EQ(c.number, Dictionary_GetDouble(d, 0.5, "e")) << c.text;
      EXPECT_EQ(c.number, Dictionary_GetDouble(d, 0, "e")) << "once and for all";
      EXPECT_EQ(messages, Messages());
      Dictionary_UnsetPrefix(d, "");
   }
}

TEST_F(Dictionaries, KeepATypeAndAFallback)
{
   Dictionary *const d = dictionary_;
   Unmarshal("b=yes\nt=text\n");
   EXPECT_TRUE(Dictionary_GetBool(d, false, "b"));
   EXPECT_EQ(1, Dictionary_GetInt32(d, 5, "b"));
   EXPECT_EQ("fallback", String("b", "fallback"));
   EXPECT_EQ("text", String("t", "fallback"));
   EXPECT_EQ(5, Dictionary_GetInt32(d, 5, "t"));
   EXPECT_EQ("TRUE", Text("b"));
   Dictionary_SetString(d, "12abc", 0, "b");
   EXPECT_EQ("notBoolean: Value \"12abc\" for variable \"b\" is not a valid boolean value. Using value "
             "\"TRUE\".\n",
             Messages());
   Dictionary_SetDouble(d, 0.1, 0, "b");
   EXPECT_EQ("0.1", Text("b")) << "a number of another type brings its type";
   EXPECT_EQ("", Messages());
   ASSERT_TRUE(Write());

   EXPECT_FALSE(Dictionary_GetBool(d, false, "n") || Dictionary_GetInt32(d, 0, "n") != 0);
   EXPECT_TRUE(Dictionary_GetInt32(d, -1, "n") == -1 && Dictionary_GetTriState(d, -1, "n") == -1);
   EXPECT_EQ(0, Dictionary_GetDouble(d, -0.0, "n"));
   EXPECT_EQ("<null>", String("n"));
   EXPECT_FALSE(Dictionary_IsDefined(d, "n"));
   EXPECT_EQ(-1, Dictionary_GetInt64(d, -1, "y1"));
   EXPECT_EQ(5, Dictionary_GetInt32(d, 5, "y2"));
   EXPECT_EQ("", String("y3", ""));
   EXPECT_TRUE(Dictionary_IsDefined(d, "y1") && Dictionary_IsDefined(d, "y3"));
   EXPECT_EQ(5, Dictionary_GetInt32(d, 6, "y2"));
   const std::string before = Written();
   Dictionary_SetInt32(d, 5, 0, "y2");
   EXPECT_FALSE(Dictionary_IsChanged(d)) << "it has the value already";
   EXPECT_EQ(before + "y2 = \"5\"\n", Written()) << "asked for by name, it is to be saved";
}

TEST_F(Dictionaries, KeepProtectedSettingsApartUnderAKey)
{
   Dictionary_SetString(dictionary_, "open", DICTIONARY_PLAIN, "plain");
   Dictionary_SetString(dictionary_, "hidden", DICTIONARY_PROTECTED, "secret");
   EXPECT_EQ("hidden", String("secret")) << "no key, no walls";
   Dictionary_SetProtectionKey(dictionary_, this);
   EXPECT_EQ("<null>", String("secret"));
   EXPECT_EQ("other", Take(Dictionary_GetStringPlain(dictionary_, "other", "secret")));
   EXPECT_EQ("hidden", Take(Dictionary_GetStringProtected(dictionary_, nullptr, "secret")));
   EXPECT_EQ("<null>", Take(Dictionary_GetStringProtected(dictionary_, nullptr, "plain")));
   Dictionary_SetDefaultProtection(dictionary_, true);
   EXPECT_EQ("hidden", String("secret"));
   Dictionary_Dump(dictionary_);
   EXPECT_EQ("DICT                     plain = \"open\"\nDICT                    secret = <not printed>\n",
             Log());
}

TEST_F(Dictionaries, AreChangedByRealDifferencesOnly)
{
   using Setters = std::vector<void (*)(Dictionary * dictionary)>;
   const Setters changes = {[](Dictionary *d) { Dictionary_SetString(d, "X", 0, "text"); },
                            [](Dictionary *d) { Dictionary_SetInt64(d, 17, 0, "hex"); },
                            [](Dictionary *d) { Dictionary_SetInt32(d, 0, 0, "text"); },
                            [](Dictionary *d) { Dictionary_SetString(d, "21", 0, "typed"); },
                            [](Dictionary *d) { Dictionary_SetString(d, "x", DICTIONARY_PROTECTED, "text"); },
                            [](Dictionary *d) { Dictionary_SetDouble(d, 0, 0, "new"); },
                            [](Dictionary *d) { Dictionary_Unset(d, "text"); }};
   const Setters same = {
       [](Dictionary *d) { Dictionary_SetString(d, "x", 0, "TEXT"); },
       [](Dictionary *d) { Dictionary_SetString(d, nullptr, 0, "empty"); },
       [](Dictionary *d) { Dictionary_SetInt32(d, 16, 0, "hex"); },
       [](Dictionary *d) { Dictionary_SetBool(d, true, 0, "yes"); },
       [](Dictionary *d) { Dictionary_SetFromString(d, "text=x", false, nullptr); },
       [](Dictionary *d) { Dictionary_SetString(d, "020", 0, "typed"); },
       [](Dictionary *d) { Dictionary_SetString(d, "x", DICTIONARY_NOT_PERSISTENT, "text"); },
       [](Dictionary *d) { Dictionary_Unset(d, "none"); },
       [](Dictionary *d) { Dictionary_Unset(d, "fleeting"); }};
   for (const Setters *setters : {&changes, &same}) {
      for (const auto &set : *setters) {
         ASSERT_TRUE(Unmarshal("text = x\nempty =\nhex = 0x10\nyes = y\ntyped = 0x10\n"));
         EXPECT_EQ(16, Dictionary_GetInt32(dictionary_, 0, "typed"));
         EXPECT_EQ(5, Dictionary_GetInt32(dictionary_, 5, "fleeting"));
         set(dictionary_);
         EXPECT_EQ(setters == &changes, Dictionary_IsChanged(dictionary_)) << &set - setters->data();
      }
   }
}

TEST_F(Dictionaries, NameSettingsAsAsked)
{
   for (const char *text : {"a=b=c", "bare", "empty=", "A=2"}) {
      Put(text);
   }
   EXPECT_EQ("2", Text("a") + Text("bare") + Text("empty"));
   Dictionary_SetFromString(dictionary_, "A=3", true, messages_);
   EXPECT_EQ("2", Text("a"));
   EXPECT_EQ("alreadyDefined.string: Variable \"A\" is already defined.\n", Messages());

   Dictionary_Free(dictionary_);
   dictionary_ = Dictionary_CreateWithSize(2, true);
   const std::string name(1022, 'n');
   Dictionary_SetStringFormat(dictionary_, "1", 0, "%s\xC3\xA9", name.c_str());
   EXPECT_TRUE(Dictionary_IsDefined(dictionary_, name.c_str())) << "cut before the half character";
   for (const char *text : {"Guest.a=1", "guest.B=2", "guestx=3", "x=4", "X=5"}) {
      Put(text);
   }
   EXPECT_EQ("45", Text("x") + Text("X"));
   Dictionary_UnsetPrefix(dictionary_, "GUEST.");
   EXPECT_EQ("<null><null>3", Text("Guest.a") + Text("guest.B") + Text("guestx"));
}

TEST_F(Dictionaries, AreDumpedWithoutTheSecrets)
{
   std::string expected;
   const auto set = [&](const std::string &name, const char *shown) {
      Dictionary_SetString(dictionary_, "x", 0, name.c_str());
      expected += "DICT " + std::string(25 - name.size(), ' ') + name + " = " + shown + "\n";
   };
   for (const char *name :
        {"dataFileKey", "ancestorDataFileKeys", "GuestInfo.x", "a.key", "annotation", "Encryption.keySafe"}) {
      set(name, "<not printed>");
   }
   for (const char *name : {".key", "B.KEY", "dataFileKeyX", "encryption"}) {
      set(name, "\"x\"");
   }
   Dictionary_SetBool(dictionary_, true, 0, "bool");
   Dictionary_SetTriState(dictionary_, -1, 0, "tri");
   Dictionary_SetInt32(dictionary_, -5, 0, "int");
   Dictionary_SetInt64(dictionary_, LLONG_MIN, 0, "long");
   Dictionary_SetDouble(dictionary_, 1.5, 0, "double");
   Dictionary_SetString(dictionary_, "gone", DICTIONARY_NOT_PERSISTENT, "fleeting");
   Dictionary_Dump(dictionary_);
   EXPECT_EQ(expected + "DICT                      bool = \"TRUE\"\n"
                        "DICT                       tri = \"DEFAULT\"\n"
                        "DICT                       int = \"-5\"\n"
                        "DICT                      long = \"-9223372036854775808\"\n"
                        "DICT                    double = \"1.5\"\n",
             Log());
}

TEST_F(Dictionaries, KnowTheWordsForTruth)
{
   constexpr int none = 9;
   const std::pair<int, std::vector<const char *>> words[] = {
       {1, {"", "true", "T", "Yes", "y", "oN", "1"}},
       {0, {"FALSE", "f", "No", "N", "off", "0"}},
       {-1, {"Default", "dontcare", "AUTO"}},
       {none, {"2", "00", " true", "truee", "tru", nullptr}}};
   for (const auto &[value, texts] : words) {
      for (const char *text : texts) {
         bool bad[2] = {};
         EXPECT_EQ(value == 1, Dictionary_ParseBool(text, &bad[0])) << text;
         EXPECT_EQ(value == none ? 0 : value, Dictionary_ParseTriState(text, &bad[1])) << text;
         EXPECT_TRUE(bad[0] == (value == none || value == -1) && bad[1] == (value == none)) << text;
      }
   }
}

} // namespace
