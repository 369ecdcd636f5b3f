#include "lib/file/fileIO.h"
#include "lib/public/owned.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <random>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/* A text that no released block may hold, while it is set. */
std::string_view sSecret;
int sLeakedSecrets = 0;

} // namespace

/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c) */
extern "C" {
void __real_free(void *block);

void __wrap_free(void *block)
{
   if (block != nullptr && !sSecret.empty()) {
      const std::string_view content(static_cast<const char *>(block), malloc_usable_size(block));
      sLeakedSecrets += content.find(sSecret) != std::string_view::npos ? 1 : 0;
   }
   __real_free(block);
}
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c) */

namespace {

/* A dictionary with a message list, and a folder for its files. */
class DictionaryFiles : public testing::Test {
 protected:
   ~DictionaryFiles() override
   {
      Dictionary_Free(dictionary_);
      MsgList_Free(messages_);
   }

   DictionaryFiles()
   {
      Dictionary_SetMessageList(dictionary_, messages_);
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

   bool Unmarshal(const std::string &content, EncodingId encoding = ENCODING_DEFAULT)
   {
      return Dictionary_Unmarshal(dictionary_, content.c_str(), false, encoding, messages_);
   }

   std::string Written()
   {
      char *text = nullptr;
      size_t size = 0;
      const bool written = Dictionary_WriteToBuffer(dictionary_, true, &text, &size);
      EXPECT_EQ(written ? strlen(text) + 1 : 0, size);
      return Take(text);
   }

   std::string Text(const char *name)
   {
      return Take(Dictionary_GetText(dictionary_, name));
   }

   /* The messages so far, as "identifier: text" with the folder's name left out, which are then dropped. */
   std::string Messages()
   {
      std::string all;
      for (size_t i = 0; i < MsgList_Count(messages_); i++) {
         const MsgListMessage *message = MsgList_Get(messages_, i);
         all += std::string(message->identifier).substr(strlen("msg.dictionary.")) + ": " + message->text;
      }
      MsgList_Rollback(messages_, 0);
      return Relative(all);
   }

   std::string Relative(std::string text)
   {
      const std::string prefix = folder_.Path() + "/";
      for (size_t at; (at = text.find(prefix)) != std::string::npos;) {
         text.erase(at, prefix.size());
      }
      return text;
   }

   std::string Log()
   {
      const std::string text = Relative(log_.Text());
      log_.Clear();
      return text;
   }

   ScratchFolder folder_;
   CapturedLog log_;
   MsgList *messages_ = MsgList_Create();
   Dictionary *dictionary_ = Dictionary_Create();
};

constexpr const char *UTF8_LINE = ".encoding = \"UTF-8\"\n";

TEST_F(DictionaryFiles, AreWrittenBackAsTheyWereRead)
{
   struct Case {
      const char *read;
      const char *written;
   };
   static const Case cases[] = {
       {"", ".encoding = \"UTF-8\"\n"},
       {"a=1", ".encoding = \"UTF-8\"\na=1\n"},
       {"#!/x\n# y\n\n# z\na = b # c\n.encoding = utf8\n\tB=\"|41\"\n",
        "#!/x\n# y\n.encoding = \"UTF-8\"\n\n# z\na = b # c\n\tB=\"|41\"\n"},
       {"\xEF\xBB\xBF# c\na=\xC3\xA9\n", "# c\n.encoding = \"UTF-8\"\na=\xC3\xA9\n"},
       {" # not a head\n", ".encoding = \"UTF-8\"\n # not a head\n"},
       {".other = 1\na=1\n", ".encoding = \"UTF-8\"\na=1\n"},
       {"VMList.Encoding = \"us-ascii\"\na=1\n", ".encoding = \"ASCII\"\na=1\n"},
   };
   for (const Case &c : cases) {
      EXPECT_TRUE(Load(c.read)) << c.read;
      EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
      EXPECT_EQ(c.written, Written());
   }
   EXPECT_EQ("DictionaryParseReadLine: \"f\" line 1: unrecognized metavariable \".other\"\n", Log());
   EXPECT_EQ("", Messages());
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
   EXPECT_EQ(".encoding = \"UTF-8\"\nb = 1 # one\n# c\na = \"x|7Cy|0A|22\"\nnew1 = \"0.333333333\"\n"
             "new2 = \"DEFAULT\"\nnew3 = \"-5\"\nnew4 = \"FALSE\"\n",
             Written());
   EXPECT_EQ(Written(), Written());
   ASSERT_TRUE(Unmarshal(Written()));
   EXPECT_EQ("x|y\n\"", Text("a"));
   EXPECT_EQ(4, Dictionary_GetLineNumber(dictionary_, "a"));
}

TEST_F(DictionaryFiles, PutHeadersFirst)
{
   const char *header[] = {"# one", "# two", nullptr};
   ASSERT_TRUE(Load("# one\na=1\n"));
   Dictionary_AddHeaderLines(dictionary_, header);
   Dictionary_AddHeaderLines(dictionary_, header);
   EXPECT_EQ(std::string("# one\n# two\n# one\n") + UTF8_LINE + "a=1\n", Written());
   EXPECT_TRUE(Dictionary_AddInterpreterLine(dictionary_, "/bin/x"));
   EXPECT_FALSE(Dictionary_AddInterpreterLine(dictionary_, "/bin/y"));
   EXPECT_EQ(std::string("#!/bin/x\n# one\n# two\n# one\n") + UTF8_LINE + "a=1\n", Written());
}

TEST_F(DictionaryFiles, SayWhereReadingFails)
{
   struct Case {
      const char *content;
      const char *messages;
      const char *log;
   };
   static const Case cases[] = {
       {"a=1\na = b c\nz=1\n", "read.syntaxError: File \"f\" line 2: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"a = b c\".\n"},
       {"junk\xFF\\", "read.syntaxError: File \"f\" line 1: Syntax error.\n",
        "DictionaryParseReadLine: syntax error with line, \"junk\\xFF\\x5C\".\n"},
       {"a=1\nA=2\n\nb=1\na=3\n",
        "alreadyDefined: File \"f\" line 2: Variable \"A\" is already defined.\n"
        "alreadyDefined: File \"f\" line 5: Variable \"a\" is already defined.\n",
        ""},
       {"\xC3\xA9=1\n", "nameNotASCII: File \"f\" line 1: Variable \"\\xC3\\xA9\" is not valid ASCII.\n", ""},
       {".encoding=no-such\n",
        "unknownEncoding: File \"f\" (line 1) specifies a character encoding (no-such) that is not "
        "supported.\n",
        nullptr},
       {".encoding=UTF-8\n.encoding=utf8\n.encoding=ASCII\n",
        "hasEncoding: File \"f\" (line 3) already has encoding \"UTF-8\".\n", ""},
       {".encoding=UTF-8\na=\xFF\n",
        "badEncodedInput: File \"f\" line 2: Value \"\\xFF\" for variable \"a\" is not valid in encoding "
        "\"UTF-8\".\n",
        ""},
       {"a=\xC3\xA9\n.encoding=ASCII\n",
        "badEncodedInput: File \"f\" line 2: Value \"\\xC3\\xA9\" for variable \"a\" is not valid in "
        "encoding "
        "\"ASCII\".\n",
        ""},
       {"a=\xFF\n",
        "badEncodedInputNoLine: File \"f\": Value \"\\xFF\" for variable \"a\" is not valid in encoding "
        "\"UTF-8\".\nbadDefaultEncoding: An error occurred while decoding file \"f\" using the default "
        "character encoding.\n",
        ""},
   };
   for (const Case &c : cases) {
      EXPECT_FALSE(Load(c.content));
      EXPECT_EQ(c.messages, Messages());
      const std::string logged = Log();
      EXPECT_EQ(c.log != nullptr ? c.log : logged, logged);
   }
   ASSERT_FALSE(Load("a=1\nA=2\nb=1\n"));
   EXPECT_EQ("11", Text("a") + Text("b")) << "the first wins, and reading goes on";
   EXPECT_EQ(std::string(UTF8_LINE) + "a=1\nA=2\nb=1\n", Written());
   ASSERT_FALSE(Load("a=1\njunk junk\nb=1\n"));
   EXPECT_EQ("1<null>", Text("a") + Text("b"));
   const CapturedLog quiet;
   MsgList_Rollback(messages_, 0);
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_UNKNOWN, messages_));
   EXPECT_TRUE(Dictionary_SetEncoding(dictionary_, ENCODING_DEFAULT, messages_));
   EXPECT_FALSE(Dictionary_SetEncoding(dictionary_, ENCODING_US_ASCII, messages_));
   EXPECT_EQ("unknownEncodingNoFile: Character encoding \"unknown\" is not supported.\n"
             "hasEncodingNoFile: The dictionary already has encoding \"UTF-8\".\n",
             Messages());
}

TEST_F(DictionaryFiles, StandAHundredDuplicatesInAFile)
{
   std::string content = "a=1\n";
   for (int i = 0; i < 100; i++) {
      content += "a=2\n";
   }
   EXPECT_FALSE(Load(content + "z=1\n"));
   EXPECT_EQ("1", Text("z"));
   EXPECT_EQ("", Log());
   EXPECT_EQ(100U, MsgList_Count(messages_));
   EXPECT_FALSE(Load(content + "a=2\nz=1\n"));
   EXPECT_EQ("<null>", Text("z"));
   EXPECT_EQ("DictionaryReadLines: \"f\" line 102: too many duplicate entries in dictionary, quitting.\n",
             Log());
   EXPECT_FALSE(Unmarshal(content + "a=2\nz=1\n"));
   EXPECT_EQ("1", Text("z"));
}

TEST_F(DictionaryFiles, TakeABufferWithoutAFileName)
{
   EXPECT_TRUE(Unmarshal("a = \"x\"\r\nb = \"y\ry\"\r\n#\r\n"));
   EXPECT_EQ(std::string(UTF8_LINE) + "a = \"x\"\nb = \"y\ry\"\n#\n", Written());
   EXPECT_EQ("", Messages());

   EXPECT_FALSE(Unmarshal("a=1\na=2\njunk\nz=1\n"));
   EXPECT_FALSE(Unmarshal(".encoding=x-none\n"));
   EXPECT_FALSE(Unmarshal(".encoding=ASCII\na=\xFF\n"));
   EXPECT_FALSE(Unmarshal("a=\xFF\n", ENCODING_UTF8));
   EXPECT_EQ("alreadyDefinedNoFile: Variable \"a\" is already defined.\n"
             "read.syntaxErrorNoFile: Syntax error.\n"
             "unknownEncodingNoFile: Character encoding \"x-none\" is not supported.\n"
             "badEncodedInputNoFile: Value \"\\xFF\" for variable \"a\" is not valid in encoding \"ASCII\".\n"
             "badEncodedInputNoFile: Value \"\\xFF\" for variable \"a\" is not valid in encoding \"UTF-8\".\n"
             "badDefaultEncodingNoFile: Failed to decode the dictionary in the default character encoding.\n",
             Messages());
   EXPECT_TRUE(Unmarshal("b=1\n"));
   EXPECT_TRUE(Dictionary_Unmarshal(dictionary_, "c=1\n", true, ENCODING_US_ASCII, messages_));
   EXPECT_EQ(std::string(UTF8_LINE) + "b=1\nc=1\n", Written());
}

TEST_F(DictionaryFiles, ConvertValuesFromTheirEncoding)
{
   /* Values before and after the line that names the encoding, and the bytes of a mark where it is not meant. */
   ASSERT_TRUE(Load("a=\xE9\n.encoding=ISO-8859-1\nb=\xE8\n"));
   EXPECT_EQ("\xC3\xA9\xC3\xA8", Text("a") + Text("b"));
   EXPECT_EQ(".encoding = \"ISO-8859-1\"\na=\xE9\nb=\xE8\n", Written());
   ASSERT_TRUE(Load("\xEF\xBB\xBF"
                    "a=\xC3\xA9\n"));
   WriteFile(Path(), "\xEF\xBB\xBF"
                     "a=\xE9\n");
   ASSERT_TRUE(DictionaryLoad(dictionary_, Path().c_str(), true, ENCODING_ISO_8859_1, messages_));
   EXPECT_EQ("\xC3\xA9", Text("a"));
   EXPECT_EQ("", Messages()) << "the failed guess leaves no message";
   /* A wide encoding cannot be that of lines of bytes, but must do no harm. */
   ASSERT_TRUE(Load(".encoding=UTF-16LE\na=abcd\n"));
   EXPECT_FALSE(Load(".encoding=UTF-16LE\na=abc\n"));
   EXPECT_NE("", Messages());
}

TEST_F(DictionaryFiles, AreUpgradedForWhatTheirEncodingCannotHold)
{
   ASSERT_TRUE(Load(".encoding=ASCII\na=1\nn=0x10\n"));
   EXPECT_EQ(16, Dictionary_GetInt32(dictionary_, 0, "n"));
   Dictionary_SetString(dictionary_, "plain", 0, "b");
   EXPECT_EQ(".encoding = \"ASCII\"\na=1\nn=0x10\nb = \"plain\"\n", Written());
   Dictionary_SetString(dictionary_, "\xC3\xA9", 0, "b");
   EXPECT_EQ(std::string(UTF8_LINE) + "a = \"1\"\nn=0x10\nb = \"\xC3\xA9\"\n", Written());
   EXPECT_EQ(
       "badEncodedOutput: Value \"\xC3\xA9\" for variable \"b\" is not valid in the \"ASCII\" encoding.\n",
       Messages());
   EXPECT_EQ("Dictionary_WriteToBuffer: upgrading encoding from ASCII to UTF-8\n", Log());

   ASSERT_TRUE(Load(".encoding=ASCII\na=1\n"));
   Dictionary_SetString(dictionary_, "\xFF", 0, "b");
   EXPECT_EQ("<null>", Written());
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, Path().c_str()));
   EXPECT_EQ(".encoding=ASCII\na=1\n", ReadFile(Path()));
   EXPECT_NE(
       std::string::npos,
       Messages().find("writefile.export: An error occurred while exporting a dictionary to a buffer.\n"));
}

/* A stand-in for an encryption layer: the section becomes one line, and the hash is the length of the text. */
struct Layer {
   std::string seen;
   int cleared = 0;
   bool refuse = false;

   DictionaryHooks Hooks()
   {
      return {.cleared = [](Dictionary *, void *context) { static_cast<Layer *>(context)->cleared++; },
              .protect =
                  [](Dictionary *, const char *section, void *context) {
                     auto *layer = static_cast<Layer *>(context);
                     layer->seen = section;
                     return layer->refuse ? nullptr : strdup("encryption.data = \"closed\"\n");
                  },
              .integrity = [](Dictionary *, const char *, size_t size,
                              void *) { return strdup(std::to_string(size).c_str()); },
              .context = this};
   }
};

TEST_F(DictionaryFiles, GoThroughTheHooksOfAnEncryptionLayer)
{
   Layer layer;
   const DictionaryHooks hooks = layer.Hooks();
   Dictionary_SetHooks(dictionary_, &hooks);
   ASSERT_TRUE(Unmarshal("open=1\nencryption.unspecified.default=x\nencryption.keySafe=k\n"));
   EXPECT_EQ(1, layer.cleared);
   Dictionary_SetString(dictionary_, "hidden", DICTIONARY_PROTECTED, "secret");

   const std::string body =
       std::string(UTF8_LINE) + "open=1\nencryption.keySafe=k\nencryption.data = \"closed\"\n";
   const std::string file = body + "encryption.integrityHash = \"" + std::to_string(body.size()) + "\"\n";
   EXPECT_EQ(file, Written());
   EXPECT_EQ("encryption.unspecified.default=x\nsecret = \"hidden\"\n", layer.seen);

   /* What was written is read, opened and written again, with one hash. */
   ASSERT_TRUE(Unmarshal(file));
   Dictionary_Unset(dictionary_, "encryption.data");
   Dictionary_SetDefaultProtection(dictionary_, true);
   ASSERT_TRUE(Dictionary_Unmarshal(dictionary_, layer.seen.c_str(), true, ENCODING_UTF8, messages_));
   EXPECT_EQ(file, Written());
   EXPECT_EQ("encryption.unspecified.default=x\nsecret = \"hidden\"\n", layer.seen);

   char *text = nullptr;
   size_t size = 0;
   EXPECT_TRUE(Dictionary_WriteToBuffer(dictionary_, false, &text, &size));
   EXPECT_NE(std::string::npos, Take(text).find("secret = \"hidden\"\nencryption.integrityHash"));

   Dictionary_SetDefaultProtection(dictionary_, false);
   ASSERT_TRUE(Unmarshal("a=1\n"));
   EXPECT_NE("<null>", Written());
   EXPECT_EQ("\n", layer.seen);
   layer.refuse = true;
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
   const auto load = [this](const std::string &name) {
      return Dictionary_LoadUTF8(dictionary_, Path(name).c_str());
   };
   ASSERT_TRUE(Load("a=1\n"));
   EXPECT_TRUE(Dictionary_Append(dictionary_, nullptr));
   EXPECT_EQ("1", Text("a"));
   EXPECT_FALSE(Dictionary_Append(dictionary_, Path().c_str())) << "all its names are there already";
   EXPECT_TRUE(Dictionary_Load(dictionary_, nullptr));
   EXPECT_EQ("<null>", Text("a"));
   MsgList_Rollback(messages_, 0);

   EXPECT_FALSE(load("none"));
   mkdir(Path("d").c_str(), 0700);
   EXPECT_FALSE(load("d"));
   EXPECT_EQ("load.openFailed: Cannot open file \"none\": No such file or directory.\n"
             "load.isDirectory: \"d\" is a directory.\n",
             Messages());
   EXPECT_EQ("DictionaryLoad: Cannot open file \"none\": No such file or directory.\n"
             "DictionaryLoad: \"d\" is a directory.\n",
             Log());
   /* Opens and has attributes, but cannot be read. */
   EXPECT_FALSE(Dictionary_Load(dictionary_, "/proc/self/mem"));
   EXPECT_EQ("read.readError: File \"/proc/self/mem\" line 1: Input/output error.\n", Messages());
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
   EXPECT_EQ(std::string(UTF8_LINE) + "a = \"2\"\n", ReadFile(Path()));
   lseek(handle.fd, 3, SEEK_SET);
   mkdir(Path("f-copy-0").c_str(), 0700);
   EXPECT_FALSE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ("Warning: DictionarySaveFileCopy: Unable to save a copy of f\n", Log());
   WriteFile(Path("f-copy-1"), "something older and longer than what is copied over it");
   EXPECT_TRUE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ(ReadFile(Path()), ReadFile(Path("f-copy-1")));
   EXPECT_EQ(3, lseek(handle.fd, 0, SEEK_CUR));
   EXPECT_TRUE(FileIO_Close(&handle));

   int ends[2];
   ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
   const OwnedDescriptor reader(ends[0]);
   handle = {.fd = ends[1], .path = strdup("pipe")};
   EXPECT_FALSE(Dictionary_LoadFromFileHandle(dictionary_, &handle, messages_));
   EXPECT_EQ("loadFile.seekFailed: Cannot seek file \"pipe\": Illegal seek.\n", Messages());
   EXPECT_FALSE(Dictionary_WriteToFileHandle(dictionary_, &handle, nullptr, messages_));
   EXPECT_EQ("writefile.seek: An error occurred while seeking within configuration file \"pipe\":Illegal "
             "seek.\n",
             Messages());
   EXPECT_FALSE(DictionarySaveFileCopy(&handle));
   EXPECT_EQ("Warning: DictionarySaveFileCopy: Unable to record the current position of file pipe\n", Log());
   EXPECT_TRUE(FileIO_Close(&handle));
}

TEST_F(DictionaryFiles, KeepModeOwnerAndLink)
{
   struct stat before;
   struct stat after;
   WriteFile(Path("real"), "a=1\n");
   ASSERT_EQ(0, chmod(Path("real").c_str(), 0640));
   if (geteuid() == 0) {
      ASSERT_EQ(0, chown(Path("real").c_str(), 1234, 4321));
   }
   ASSERT_EQ(0, symlink("real", Path().c_str()));
   ASSERT_EQ(0, stat(Path().c_str(), &before));
   ASSERT_TRUE(Dictionary_Load(dictionary_, Path().c_str()));
   Dictionary_SetInt32(dictionary_, 2, 0, "a");
   EXPECT_TRUE(Dictionary_WriteFile(dictionary_, Path().c_str()));
   EXPECT_FALSE(Dictionary_IsChanged(dictionary_));
   ASSERT_EQ(0, stat(Path().c_str(), &after));
   EXPECT_EQ(std::tuple(before.st_mode, before.st_uid, before.st_gid),
             std::tuple(after.st_mode, after.st_uid, after.st_gid));
   EXPECT_NE(before.st_ino, after.st_ino);
   EXPECT_TRUE(std::filesystem::is_symlink(Path()));
   EXPECT_EQ(std::string(UTF8_LINE) + "a = \"2\"\n", ReadFile(Path("real")));

   const mode_t mask = umask(022);
   EXPECT_TRUE(Dictionary_WriteFile(dictionary_, Path("new").c_str()));
   umask(mask);
   ASSERT_EQ(0, stat(Path("new").c_str(), &after));
   EXPECT_EQ(0754U, after.st_mode & 07777);
   chmod(Path("new").c_str(), 0640);
   EXPECT_TRUE(Dictionary_MakeExecutable(Path("new").c_str()));
   ASSERT_EQ(0, stat(Path("new").c_str(), &after));
   EXPECT_EQ(0750U, after.st_mode & 07777);
   EXPECT_FALSE(Dictionary_MakeExecutable(Path("none").c_str()));
   EXPECT_EQ("Dictionary_MakeExecutable: cannot stat configuration file none: No such file or directory\n",
             Log());
}

TEST_F(DictionaryFiles, AreRewrittenInPlaceWhereTheyCannotBeReplaced)
{
   struct stat before;
   struct stat after;
   ASSERT_TRUE(Load("a=1\nlong = \"a line that makes the old content longer than the new one\"\n"));
   Dictionary_Unset(dictionary_, "long");
   /* A folder has the temporary file's name. */
   mkdir(Path("f~").c_str(), 0700);
   ASSERT_EQ(0, stat(Path().c_str(), &before));
   EXPECT_TRUE(Dictionary_WriteFile(dictionary_, Path().c_str()));
   ASSERT_EQ(0, stat(Path().c_str(), &after));
   EXPECT_EQ(before.st_ino, after.st_ino);
   EXPECT_EQ(std::string(UTF8_LINE) + "a=1\n", ReadFile(Path()));
   EXPECT_EQ("FileIO_AtomicTempFile: Failed to unlink temporary file, errno: " + std::to_string(EISDIR) +
                 "\n",
             Log());

   /* A device is written to, not replaced. */
   ASSERT_EQ(0, symlink("/dev/full", Path("full").c_str()));
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, Path("full").c_str()));
   EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
   EXPECT_EQ("writefile.write: An error occurred while writing configuration file \"full\": No space left on "
             "device.\n",
             Messages());
}

TEST_F(DictionaryFiles, DoNotFollowALinkInThePlaceOfTheTemporaryFile)
{
   WriteFile(Path("victim"), "precious");
   ASSERT_EQ(0, symlink(Path("victim").c_str(), Path("f~").c_str()));
   ASSERT_TRUE(Load("a=1\n"));
   EXPECT_TRUE(Dictionary_WriteFile(dictionary_, Path().c_str()));
   EXPECT_EQ("precious", ReadFile(Path("victim")));
   EXPECT_FALSE(std::filesystem::is_symlink(std::filesystem::symlink_status(Path("f~"))));
}

TEST_F(DictionaryFiles, SayWhyTheyCannotBeOpenedForWriting)
{
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, Path("none/f").c_str()));
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, Path(std::string(300, 'n')).c_str()));
   EXPECT_FALSE(Dictionary_WriteFile(dictionary_, "/sys/kernel/uevent_seqnum"));
   EXPECT_EQ("open: Cannot open configuration file \"none/f\": No such file or directory.\n"
             "nameTooLong: File name too longpermissions: Access to \"/sys/kernel/uevent_seqnum\" failed due "
             "to file system "
             "permissions issues\n",
             Messages());
}

TEST_F(DictionaryFiles, ZeroValuesBeforeTheyAreReleased)
{
   const std::string secret = "S3cr3t-that-stays-in-no-block";
   const std::string filler(600, 'x');
   WriteFile(Path(), "# " + secret + "\na=" + secret + "\nb = \"|41" + secret + "\"\nc=" + filler + secret +
                         "\nd=\xE9" + secret + "\n.encoding = ISO-8859-1\n");
   sSecret = secret;
   sLeakedSecrets = 0;
   Dictionary *dictionary = Dictionary_Create();
   EXPECT_TRUE(Dictionary_Load(dictionary, Path().c_str()));
   EXPECT_FALSE(Dictionary_GetBool(dictionary, false, "a"));
   Dictionary_SetString(dictionary, "other", 0, "b");
   Dictionary_SetString(dictionary, secret.c_str(), 0, "e");
   EXPECT_TRUE(Dictionary_WriteFile(dictionary, Path("g").c_str()));
   Dictionary_Unset(dictionary, "c");
   EXPECT_FALSE(Dictionary_Append(dictionary, Path().c_str()));
   EXPECT_FALSE(Dictionary_Unmarshal(dictionary, ("junk " + secret).c_str(), true, 0, nullptr));
   Dictionary_Free(dictionary);
   EXPECT_EQ(0, sLeakedSecrets);

   /* The watch itself works. */
   char *volatile unzeroed = strdup(secret.c_str());
   free(unzeroed);
   EXPECT_EQ(1, sLeakedSecrets);
   sSecret = {};
}

/* Settings and comments of every spelling, from a fixed seed. */
class RandomFile {
 public:
   std::vector<std::string> lines;

   explicit RandomFile(unsigned seed, bool latin) : random_(seed), latin_(latin)
   {
      for (int i = 0; i < 10000; i++) {
         lines.push_back(Setting(i));
         lines.push_back(Comment());
      }
      std::shuffle(lines.begin(), lines.end(), random_);
   }

 private:
   size_t Below(size_t n)
   {
      return std::uniform_int_distribution<size_t>(0, n - 1)(random_);
   }

   std::string Blanks()
   {
      static constexpr const char *blanks[] = {"", "", " ", "\t", "  \t "};
      return blanks[Below(std::size(blanks))];
   }

   std::string Run(const char *start, const std::vector<std::string> &pieces)
   {
      std::string text = start;
      for (size_t i = Below(30); i > 0; i--) {
         text += pieces[Below(pieces.size())];
      }
      return text;
   }

   std::string Setting(int number)
   {
      const std::string accent = latin_ ? "\xE9" : "\xC3\xA9";
      const std::vector<std::string> bare = {"a", "Z", "0", "=", "|z", "|41", "|0A", "\\", ".", "'", accent};
      const std::vector<std::string> quoted = {"a", "Z", " ", "\t", "#", "=", "|22", "|7C", "|zz", accent};
      const std::string value = Below(2) == 0 ? Run("x", bare) : Run("\"", quoted) + "\"";
      const std::string note = Below(4) == 0 ? Run("# ", {"note", "\"", "=", " "}) : "";
      return Blanks() + (Below(2) == 0 ? "Name:" : "name.") + std::to_string(number) + Blanks() + "=" +
             Blanks() + value + Blanks() + note;
   }

   std::string Comment()
   {
      return Blanks() + (Below(8) == 0 ? "" : Run("#", {" ", "word", "=", "\"", "|", "\t", "#"}));
   }

   std::mt19937 random_;
   bool latin_;
};

std::vector<std::string> SplitLines(const std::string &text)
{
   std::vector<std::string> lines;
   for (size_t start = 0; start < text.size();) {
      const size_t end = text.find('\n', start);
      lines.push_back(text.substr(start, end - start));
      start = end + 1;
   }
   return lines;
}

TEST_F(DictionaryFiles, SurviveARoundTripOfTwentyThousandLines)
{
   for (const bool latin : {false, true}) {
      const RandomFile random(latin ? 1 : 2, latin);
      const std::string encodingLine = latin ? ".encoding = \"ISO-8859-1\"" : ".encoding = \"UTF-8\"";
      std::vector<std::string> expected = random.lines;
      const auto head = std::find_if(expected.begin(), expected.end(),
                                     [](const std::string &line) { return line.empty() || line[0] != '#'; });
      expected.insert(head, encodingLine);
      std::string content;
      for (const std::string &line : expected) {
         content += line + "\n";
      }
      ASSERT_TRUE(Load(content)) << Messages();
      ASSERT_TRUE(Dictionary_WriteFile(dictionary_, Path().c_str()));
      ASSERT_EQ(content, ReadFile(Path()));

      Dictionary_SetInt32(dictionary_, 42, 0, "name.5000");
      Dictionary_SetInt32(dictionary_, 42, 0, "name:5000");
      ASSERT_TRUE(Dictionary_WriteFile(dictionary_, Path().c_str()));
      const std::vector<std::string> lines = SplitLines(ReadFile(Path()));
      int changed = 0;
      for (size_t i = 0; i < expected.size(); i++) {
         changed += expected[i] != lines.at(i) ? 1 : 0;
      }
      EXPECT_EQ(1, changed);
      EXPECT_EQ(expected.size() + 1, lines.size()) << "the other spelling is a name of its own";
   }
}

} // namespace
