#include "base/owned.h"
#include "lib/file/fileIO.h"
#include "tests/support/dictionaryFixture.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string UTF8 = ".encoding = \"UTF-8\"\n";

class DictionaryFiles : public DictionaryFixture {
 protected:
   std::string Written(bool protect = true)
   {
      char *text = nullptr;
      size_t size = 0;
      const bool written = Dictionary_WriteToBuffer(dictionary_, protect, &text, &size);
      EXPECT_EQ(written ? strlen(text) + 1 : 0, size);
      return Take(text);
   }

   bool Write(const std::string &name = "f")
   {
      return Dictionary_WriteFile(dictionary_, Path(name).c_str());
   }

   struct stat Attributes(const std::string &name = "f")
   {
      struct stat attributes = {};
      EXPECT_EQ(0, stat(Path(name).c_str(), &attributes));
      return attributes;
   }
};

TEST_F(DictionaryFiles, AreWrittenBackAsTheyWereRead)
{
   const std::pair<std::string, std::string> cases[] = {
       {"", UTF8},
       {"a=1", UTF8 + "a=1\n"},
       {"#!/x\n# y\n\n# z\na = b # c\n.encoding = utf8\n\tB=\"|41\"\n",
        "#!/x\n# y\n" + UTF8 + "\n# z\na = b # c\n\tB=\"|41\"\n"},
       {"\xEF\xBB\xBF# c\na=\xC3\xA9\n", "# c\n" + UTF8 + "a=\xC3\xA9\n"},
       {" # not a head\n", UTF8 + " # not a head\n"},
       {".other = 1\na=1\n", UTF8 + "a=1\n"},
       {"VMList.Encoding = \"us-ascii\"\na=1\n", ".encoding = \"ASCII\"\na=1\n"},
       /* Values before and after the line that names the encoding. */
       {"a=\xE9\n.encoding=ISO-8859-1\nb=\xE8\n", ".encoding = \"ISO-8859-1\"\na=\xE9\nb=\xE8\n"},
   };
   for (const auto &[read, written] : cases) {
      EXPECT_TRUE(Load(read)) << read;
      EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
      EXPECT_EQ(written, Written());
   }
   EXPECT_EQ("\xC3\xA9\xC3\xA8", Text("a") + Text("b"));
   EXPECT_EQ("DictionaryParseReadLine: \"@/f\" line 1: unrecognized metavariable \".other\"\n", Log());
   EXPECT_EQ("", Messages());

   /* The bytes of a mark where it is not meant, and a wide encoding, which cannot be that of lines of bytes. */
   WriteFile(Path(), "\xEF\xBB\xBF\na=\xE9\n");
   ASSERT_TRUE(DictionaryLoad(dictionary_, Path().c_str(), true, ENCODING_ISO_8859_1, messages_));
   EXPECT_EQ("\xC3\xA9", Text("a"));
   EXPECT_EQ("", Messages()) << "the failed guess leaves no message";
   ASSERT_TRUE(Load(".encoding=UTF-16LE\na=abcd\n"));
   EXPECT_FALSE(Load(".encoding=UTF-16LE\na=abc\n"));
}

TEST_F(DictionaryFiles, KeepSettingsInOrderAndMarshalChangesOnly)
{
   ASSERT_TRUE(Load("b = 1 # one\n# c\na=2\nd=3\ngone=4\n"));
   Dictionary_SetString(dictionary_, "x|y\n\"", 0, "A");
   Dictionary_SetDouble(dictionary_, 1.0 / 3, 0, "new1");
   Dictionary_SetTriState(dictionary_, -1, 0, "new2");
   Dictionary_SetInt64(dictionary_, -5, 0, "new3");
   Dictionary_SetBool(dictionary_, false, 0, "new4");
   Dictionary_SetBool(dictionary_, true, DICTIONARY_NOT_PERSISTENT, "d");
   Dictionary_Unset(dictionary_, "gone");
   EXPECT_EQ(7, Dictionary_GetInt32(dictionary_, 7, "fleeting"));
   const std::string written = UTF8 + "b = 1 # one\n# c\na = \"x|7Cy|0A|22\"\nnew1 = \"0.333333333\"\n"
                                      "new2 = \"DEFAULT\"\nnew3 = \"-5\"\nnew4 = \"FALSE\"\n";
   EXPECT_EQ(written, Written());
   EXPECT_EQ(written, Written());
   ASSERT_TRUE(Unmarshal(written));
   EXPECT_EQ("x|y\n\"", Text("a"));
   EXPECT_EQ(4, Dictionary_GetLineNumber(dictionary_, "a"));
}

TEST_F(DictionaryFiles, PutHeadersFirst)
{
   const char *header[] = {"# one", "# two", nullptr};
   ASSERT_TRUE(Load("# one\na=1\n"));
   Dictionary_AddHeaderLines(dictionary_, header);
   Dictionary_AddHeaderLines(dictionary_, header);
   EXPECT_TRUE(Dictionary_AddInterpreterLine(dictionary_, "/bin/x"));
   EXPECT_FALSE(Dictionary_AddInterpreterLine(dictionary_, "/bin/y"));
   EXPECT_EQ("#!/bin/x\n# one\n# two\n# one\n" + UTF8 + "a=1\n", Written());
}

TEST_F(DictionaryFiles, SayWhereReadingFails)
{
   const struct {
      const char *content, *messages, *log;
   } cases[] = {
       {"a=1\na = b c\nz=1\n", "read.syntaxError: File \"@/f\" line 2: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"a = b c\".\n"},
       {"junk\xFF\\", "read.syntaxError: File \"@/f\" line 1: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"junk\\xFF\\x5C\".\n"},
       {"\xC3\xA9=1\n", "nameNotASCII: File \"@/f\" line 1: Variable \"\\xC3\\xA9\" is not valid ASCII.\n",
        ""},
       {".encoding=no-such\n",
        "unknownEncoding: File \"@/f\" (line 1) specifies a character encoding (no-such) that is not "
        "supported.\n",
        "UnicodeIANALookup: Did not find an IANA match for encoding \"no-such\"\n"},
       {".encoding=UTF-8\n.encoding=utf8\n.encoding=ASCII\n",
        "hasEncoding: File \"@/f\" (line 3) already has encoding \"UTF-8\".\n", ""},
       {"a=\xC3\xA9\n.encoding=ASCII\n",
        "badEncodedInput: File \"@/f\" line 2: Value \"\\xC3\\xA9\" for variable \"a\" is not valid in "
        "encoding \"ASCII\".\n",
        ""},
       {"a=\xFF\n",
        "badEncodedInputNoLine: File \"@/f\": Value \"\\xFF\" for variable \"a\" is not valid in encoding "
        "\"UTF-8\".\nbadDefaultEncoding: An error occurred while decoding file \"@/f\" using the default "
        "character encoding.\n",
        ""},
       {"a=1\nA=2\n\nb=1\na=3\n",
        "alreadyDefined: File \"@/f\" line 2: Variable \"A\" is already defined.\n"
        "alreadyDefined: File \"@/f\" line 5: Variable \"a\" is already defined.\n",
        ""},
   };
   for (const auto &[content, messages, log] : cases) {
      EXPECT_FALSE(Load(content));
      EXPECT_EQ(messages, Messages());
      EXPECT_EQ(log, Log());
   }
   EXPECT_EQ("11", Text("a") + Text("b")) << "the first wins, and reading goes on";
   EXPECT_EQ(UTF8 + "a=1\nA=2\n\nb=1\na=3\n", Written());
   ASSERT_FALSE(Load("a=1\njunk junk\nb=1\n"));
   EXPECT_EQ("1<null>", Text("a") + Text("b"));
}

TEST_F(DictionaryFiles, TakeABufferWithoutAFileName)
{
   EXPECT_TRUE(Unmarshal("a = \"x\"\r\nb = \"y\ry\"\r\n#\r\n"));
   EXPECT_EQ(UTF8 + "a = \"x\"\nb = \"y\ry\"\n#\n", Written());
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_UNKNOWN, messages_));
   EXPECT_TRUE(Dictionary_SetEncoding(dictionary_, ENCODING_DEFAULT, messages_));
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_US_ASCII, messages_));
   EXPECT_FALSE(Unmarshal("a=1\na=2\njunk\nz=1\n"));
   EXPECT_FALSE(Unmarshal(".encoding=x-none\n"));
   EXPECT_FALSE(Unmarshal(".encoding=ASCII\na=\xFF\n"));
   EXPECT_FALSE(Unmarshal("a=\xFF\n", false, ENCODING_UTF8));
   EXPECT_EQ("unknownEncodingNoFile: Character encoding \"unknown\" is not supported.\n"
             "hasEncodingNoFile: The dictionary already has encoding \"UTF-8\".\n"
             "alreadyDefinedNoFile: Variable \"a\" is already defined.\n"
             "read.syntaxErrorNoFile: Syntax error.\n"
             "unknownEncodingNoFile: Character encoding \"x-none\" is not supported.\n"
             "badEncodedInputNoFile: Value \"\\xFF\" for variable \"a\" is not valid in encoding \"ASCII\".\n"
             "badEncodedInputNoFile: Value \"\\xFF\" for variable \"a\" is not valid in encoding \"UTF-8\".\n"
             "badDefaultEncodingNoFile: Failed to decode the dictionary in the default character encoding.\n",
             Messages());
   EXPECT_TRUE(Unmarshal("b=1\n"));
   EXPECT_TRUE(Unmarshal("c=1\n", true, ENCODING_US_ASCII));
   EXPECT_EQ(UTF8 + "b=1\nc=1\n", Written());
}

TEST_F(DictionaryFiles, StandAHundredDuplicatesInAFile)
{
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
   EXPECT_FALSE(Unmarshal(content + "a=2\nz=1\n"));
   EXPECT_EQ("1", Text("z"));
}

TEST_F(DictionaryFiles, AreUpgradedForWhatTheirEncodingCannotHold)
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

   ASSERT_TRUE(Load(".encoding=ASCII\na=1\n"));
   Dictionary_SetString(dictionary_, "\xFF", 0, "b");
   EXPECT_EQ("<null>", Written());
   EXPECT_FALSE(Write());
   EXPECT_EQ(".encoding=ASCII\na=1\n", ReadFile(Path()));
   EXPECT_NE(
       std::string::npos,
       Messages().find("writefile.export: An error occurred while exporting a dictionary to a buffer.\n"));
}

/* What a stand-in for an encryption layer saw: the section becomes one line, and the hash is the length of the text. */
struct Layer {
   std::string section;
   int cleared = 0;
   bool refuses = false;
};

TEST_F(DictionaryFiles, GoThroughTheHooksOfAnEncryptionLayer)
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
   const std::string section = "encryption.unspecified.default=x\nsecret = \"hidden\"\n";
   EXPECT_EQ(file, Written());
   EXPECT_EQ(section, layer.section);

   /* What was written is read, opened and written again, with one hash. */
   ASSERT_TRUE(Unmarshal(file));
   Dictionary_Unset(dictionary_, "encryption.data");
   Dictionary_SetDefaultProtection(dictionary_, true);
   ASSERT_TRUE(Unmarshal(section, true, ENCODING_UTF8));
   EXPECT_EQ(file, Written());
   EXPECT_EQ(section, layer.section);
   EXPECT_NE(std::string::npos, Written(false).find("secret = \"hidden\"\nencryption.integrityHash"));

   Dictionary_SetDefaultProtection(dictionary_, false);
   ASSERT_TRUE(Unmarshal("a=1\n"));
   EXPECT_NE("<null>", Written());
   EXPECT_EQ("\n", layer.section);
   layer.refuses = true;
   EXPECT_EQ("<null>", Written());
}

TEST_F(DictionaryFiles, AreNotWrittenWithoutTheirIntegrity)
{
   ASSERT_TRUE(Unmarshal("encryption.integrityProtected=TRUE\na=1\n"));
   EXPECT_NE("<null>", Written()) << "not a file of the encryption layer";
   Dictionary_SetProtectionKey(dictionary_, this);
   EXPECT_EQ("<null>", Written());
   EXPECT_EQ("Dictionary_WriteToBuffer: Dictionary integrity is not valid.", Log());
   Dictionary_SetIntegrityVerified(dictionary_, true);
   EXPECT_NE("<null>", Written());
   Dictionary_SetIntegrityVerified(dictionary_, false);
   Dictionary_SetBool(dictionary_, false, 0, "encryption.integrityProtected");
   EXPECT_NE("<null>", Written());
}

TEST_F(DictionaryFiles, ReportWhatCannotBeLoaded)
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
   if (fs::exists("/proc/self/mem")) {
      EXPECT_FALSE(Dictionary_Load(dictionary_, "/proc/self/mem")) << "opens, but cannot be read";
      EXPECT_EQ("read.readError: File \"/proc/self/mem\" line 1: Input/output error.\n", Messages());
   }
}

TEST_F(DictionaryFiles, LoadFromAHandleThatStaysUsable)
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
   handle = {.fd = ends[1], .path = strdup("pipe")};
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

TEST_F(DictionaryFiles, KeepModeOwnerAndLink)
{
   WriteFile(Path("real"), "a=1\n");
   ASSERT_EQ(0, chmod(Path("real").c_str(), 0640));
   ASSERT_TRUE(geteuid() != 0 || chown(Path("real").c_str(), 1234, 4321) == 0);
   fs::create_symlink("real", Path());
   const struct stat before = Attributes();
   ASSERT_TRUE(Dictionary_Load(dictionary_, Path().c_str()));
   Dictionary_SetInt32(dictionary_, 2, 0, "a");
   EXPECT_TRUE(Write());
   EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
   const struct stat after = Attributes();
   EXPECT_EQ(std::tuple(before.st_mode, before.st_uid, before.st_gid),
             std::tuple(after.st_mode, after.st_uid, after.st_gid));
   EXPECT_NE(before.st_ino, after.st_ino);
   EXPECT_TRUE(fs::is_symlink(Path()));
   EXPECT_EQ(UTF8 + "a = \"2\"\n", ReadFile(Path("real")));

   const mode_t mask = umask(022);
   EXPECT_TRUE(Write("new"));
   umask(mask);
   EXPECT_EQ(0754U, Attributes("new").st_mode & 07777);
   chmod(Path("new").c_str(), 0640);
   EXPECT_TRUE(Dictionary_MakeExecutable(Path("new").c_str()));
   EXPECT_EQ(0750U, Attributes("new").st_mode & 07777);
   EXPECT_FALSE(Dictionary_MakeExecutable(Path("none").c_str()));
   EXPECT_EQ("Dictionary_MakeExecutable: cannot stat configuration file @/none: No such file or directory\n",
             Log());
}

TEST_F(DictionaryFiles, AreRewrittenInPlaceWhereTheyCannotBeReplaced)
{
   ASSERT_TRUE(Load("a=1\nlong = \"a line that makes the old content longer than the new one\"\n"));
   Dictionary_Unset(dictionary_, "long");
   fs::create_directory(Path("f~")); /* Has the temporary file's name. */
   const ino_t before = Attributes().st_ino;
   EXPECT_TRUE(Write());
   EXPECT_EQ(before, Attributes().st_ino);
   EXPECT_EQ(UTF8 + "a=1\n", ReadFile(Path()));
   EXPECT_TRUE(Log().starts_with("FileIO_AtomicTempFile: Failed to unlink temporary file, errno: "));

   /* A link in the temporary file's place is not followed. */
   WriteFile(Path("victim"), "precious");
   fs::remove(Path("f~"));
   fs::create_symlink(Path("victim"), Path("f~"));
   EXPECT_TRUE(Write());
   EXPECT_EQ("precious", ReadFile(Path("victim")));
   EXPECT_FALSE(fs::is_symlink(fs::symlink_status(Path("f~"))));
}

TEST_F(DictionaryFiles, SayWhyTheyCannotBeWritten)
{
   EXPECT_FALSE(Write("none/f"));
   EXPECT_FALSE(Write(std::string(300, 'n')));
   EXPECT_EQ("open: Cannot open configuration file \"@/none/f\": No such file or directory.\n"
             "nameTooLong: File name too long",
             Messages());
   if (!fs::exists("/dev/full") || !fs::exists("/sys/kernel/uevent_seqnum")) {
      GTEST_SKIP() << "this system has no device that is always full, or no file that root may not write";
   }
   fs::create_symlink("/dev/full", Path("full"));
   EXPECT_FALSE(Write("full"));
   EXPECT_TRUE(fs::is_character_file("/dev/full")) << "is written to, not replaced";
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, "/sys/kernel/uevent_seqnum"));
   EXPECT_EQ(
       "writefile.write: An error occurred while writing configuration file \"@/full\": No space left on "
       "device.\n"
       "permissions: Access to \"/sys/kernel/uevent_seqnum\" failed due to file system permissions issues\n",
       Messages());
}

/* Settings and comments of every spelling, behind the line of the encoding. */
TEST_F(DictionaryFiles, SurviveARoundTripOfTwentyThousandLines)
{
   for (const bool latin : {false, true}) {
      const std::string accent = latin ? "\xE9" : "\xC3\xA9";
      const std::string spellings[] = {" = \"a |22|7C|0A|zz\t#=" + accent + "\" # \"note\" =",
                                       "=x|41=|z\\'." + accent, " \t= \t", "  =\t\"\"", " = x# note"};
      const std::string comments[] = {"# " + accent + " = \"|22", " \t#\t#", "", " "};
      std::string content = ".encoding = \"" + std::string(latin ? "ISO-8859-1" : "UTF-8") + "\"\n";
      for (size_t i = 0; i < 10000; i++) {
         content += (i % 3 == 0 ? "\tName:" : "name:") + std::to_string(i) + spellings[i % 5] + "\n" +
                    comments[i % 4] + "\n";
      }
      ASSERT_TRUE(Load(content)) << Messages();
      ASSERT_TRUE(Write());
      ASSERT_TRUE(content == ReadFile(Path()));
      Dictionary_SetInt32(dictionary_, 42, 0, "NAME:5001");
      Dictionary_SetInt32(dictionary_, 43, 0, "name.5001");
      ASSERT_TRUE(Write());
      const size_t changed = content.find("\tName:5001");
      content.replace(changed, content.find('\n', changed) - changed, "Name:5001 = \"42\"");
      EXPECT_TRUE(content + "name.5001 = \"43\"\n" == ReadFile(Path()));
   }
}

} // namespace
