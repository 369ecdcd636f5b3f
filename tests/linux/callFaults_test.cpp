/* Each operation of the library with one of its calls of the system failing, for every one of them. */

#include "tests/support/callFaults.h"

#include "base/errno.h"
#include "base/owned.h"
#include "client/tesselclient.h"
#include "lib/config/preference.h"
#include "lib/dict/dictll.h"
#include "lib/file/file.h"
#include "lib/file/fileIO.h"
#include "lib/file/fileLock.h"
#include "lib/misc/codeset/codeset.h"
#include "lib/misc/escape.h"
#include "lib/misc/hashTable.h"
#include "lib/misc/host/home.h"
#include "lib/misc/host/hostinfo.h"
#include "lib/misc/host/posixInt.h"
#include "lib/misc/memory/dynbuf.h"
#include "lib/misc/memory/secret.h"
#include "lib/misc/memory/util.h"
#include "lib/misc/rankedLock.h"
#include "lib/string/str.h"
#include "lib/unicode/unicodeSimpleBase.h"
#include "lib/unicode/unicodeSimpleOperations.h"
#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "location/location.h"
#include "tests/support/scriptedPeer.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>

/* The sanitizer's name. NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c) */
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace {

namespace fs = std::filesystem;

/* Buffers have to grow for it. */
const std::string FILLER(500, 'x');
const char *const LONG = FILLER.c_str();

/* What an operation finds. */
struct Scene {
   std::string folder;
   std::string socket; /* Of a daemon, with PEER. */

   [[nodiscard]] std::string Path(const std::string &name) const
   {
      return folder + "/" + name;
   }
};

enum Promise : unsigned {
   ERRNO = 1,  /* A failure leaves the errno of the call that failed. */
   PARTLY = 2, /* A failure can leave some of the files gone and others not. */
   FRESH = 4,  /* A failure can leave an empty file "new". */
   PEER = 8,   /* Somebody has to play the daemon. */
};

struct Operation {
   const char *name;
   const char *failure; /* Null: it never fails but by ending the process. */
   unsigned promises;
   std::string (*run)(const Scene &scene);
};

void PrintTo(const Operation &operation, std::ostream *out)
{
   *out << operation.name;
}

template <auto END> struct Ended {
   template <typename T> void operator()(T *held) const
   {
      const KeptErrno kept;
      END(held);
   }
};

struct OwnedDictionary : std::unique_ptr<Dictionary, Ended<Dictionary_Free>> {
   OwnedDictionary() : unique_ptr(Dictionary_Create())
   {
   }
};

struct OwnedFile {
   FileIOHandle handle = FILEIO_CLOSED;
   std::unique_ptr<FileIOHandle, Ended<FileIO_Close>> owner{&handle};
};

/* The text is looked at when all that is done is done. */
std::string Length(bool done, char *const &text)
{
   return std::to_string(done ? Take(text).size() : 0);
}

std::string Converted(const char *from, const std::string &text, const char *to)
{
   char *output = nullptr;
   return Length(CodeSet_Convert(from, text.data(), text.size(), to, CODESET_SUBSTITUTE, &output, nullptr),
                 output);
}

std::string Escaped(const std::string &text)
{
   EscapeTable table = {};
   table['x'] = 1;
   return Take(Escape_Bytes("%", table, text.data(), text.size(), nullptr));
}

/* One that is there replaced, and one that is not. */
std::string Saved(const std::string &path)
{
   const OwnedDictionary dictionary;
   Dictionary_SetString(dictionary.get(), "2", 0, "a");
   return Dictionary_WriteFile(dictionary.get(), path.c_str()) ? "written" : "failed";
}

std::string FirstValue(const Scene &scene)
{
   char *line;
   char *name;
   char *value;
   const OwnedStream file(fopen(scene.Path("file").c_str(), "re"));
   int read = 0;
   while (file != nullptr && (read = DictLL_ReadLine(file.get(), &line, &name, &value)) == 2 && !value) {
      free(line);
   }
   return read == 2 ? (Take(line), Take(name), Take(value)) : std::string();
}

std::string ReplacedOrNot(const std::string &path, bool replace)
{
   OwnedFile target;
   OwnedFile temporary;
   if (!FileIO_Open(&target.handle, path.c_str(), O_RDWR, 0) ||
       !FileIO_AtomicTempFile(&target.handle, &temporary.handle)) {
      return "failed";
   }
   const bool updated = replace && write(temporary.handle.fd, "new", 3) == 3 &&
                        FileIO_AtomicUpdateEx(&temporary.handle, &target.handle);
   if (!updated) {
      FileIO_AtomicDiscard(&temporary.handle);
   }
   return updated == replace ? "done" : "failed";
}

/* Taken and given back; what is said of the giving back only if it is what is asked about. */
std::string Locked(const Scene &scene, bool exclusive)
{
   int error;
   FileLockToken *const token =
       FileLock_Lock(scene.Path("file").c_str(), exclusive, FILE_LOCK_TRY_ONCE, {}, &error);
   const int unlocked = token != nullptr ? FileLock_Unlock(token, {}) : error;
   errno = exclusive ? error : unlocked;
   return (exclusive ? token != nullptr : unlocked == 0) ? "locked" : "failed";
}

std::string Executed(const char *script)
{
   char shell[] = "sh";
   char option[] = "-c";
   char *const argv[] = {shell, option, const_cast<char *>(script), nullptr};
   const int32_t status = Hostinfo_Execute("/bin/sh", argv, true, nullptr, 0);
   const bool failure = status == -1 || status == 127 * 256 || (status == 0 && errno == ECHILD);
   return failure ? "failed" : std::to_string(status);
}

std::string Registered(const Scene &scene)
{
   int hold = 77;
   const TesselResult result = TesselClient_Register(scene.socket.c_str(), 60000, &hold);
   const bool registered = result.outcome == TESSEL_REGISTERED;
   const bool consistent = registered == (hold != -1) && registered == (result.systemError == 0);
   TesselClient_LetGo(&hold);
   return !consistent ? "inconsistent" : registered ? "registered" : "failed";
}

std::string Listed(const Scene &scene)
{
   char **names = nullptr;
   const int count = File_ListDirectory(scene.Path("tree").c_str(), &names);
   for (int i = 0; i < count; i++) {
      free(names[i]);
   }
   free(names);
   return count == 2 ? "listed" : "failed";
}

std::string Walked(const Scene &scene)
{
   int count = 0;
   char *name;
   const std::unique_ptr<WalkDirContext, Ended<File_WalkDirectoryEnd>> walk(
       File_WalkDirectoryStart(scene.Path("tree").c_str()));
   while (walk != nullptr && File_WalkDirectoryNext(walk.get(), &name)) {
      free(name);
      count++;
   }
   return errno == 0 && count == 2 ? "walked" : "failed";
}

std::string Built()
{
   OwnedDynBuf buffer;
   OwnedDynBuf copy;
   DynBuf *const b = &buffer;
   const bool done =
       DynBuf_Append(b, "abc", 3) && DynBuf_Enlarge(b, 0) && DynBuf_Trim(b) && DynBuf_Copy(b, &copy);
   return done ? "built" : "failed";
}

std::string Named(bool done)
{
   return done ? "done" : "failed";
}

/* A name of each call's road through the library; where operations share one, the one that promises most. */
const Operation OPERATIONS[] = {
    {"Formatting", "6", 0,
     [](const Scene &) {
        errno = 77;
        const size_t length =
            Take(Str_Asprintf(nullptr, "%s%ls%s%1000d%.300f", LONG, L"wide", LONG, 1, 1.5)).size();
        return errno == 77 ? std::to_string(length) : "errno";
     }},
    {"Buffer", "failed", 0, [](const Scene &) { return Built(); }},
    {"Escape", "<null>", 0, [](const Scene &) { return Escaped(LONG); }},
    {"EscapeLittle", "<null>", 0, [](const Scene &) { return Escaped(std::string(500, 'a') + "x"); }},
    {"Unescape", "<null>", 0, [](const Scene &) { return Take(Escape_Unescape('%', "%61b", 4, nullptr)); }},
    {"Quote", "<null>", 0, [](const Scene &) { return Take(Escape_ShellQuote("a", 1, nullptr)); }},
    {"ConvertOnICU", "0", 0, [](const Scene &) { return Converted("ISO-8859-1", "\xE9", "UTF-8"); }},
    {"ConvertCopy", "0", 0, [](const Scene &) { return Converted("UTF-8", LONG, "UTF-8"); }},
    {"ConvertWiden", "0", 0, [](const Scene &) { return Converted("UTF-8", LONG, "UTF-16LE"); }},
    {"ConvertNarrow", "0", 0, [](const Scene &) { return Converted("UTF-16BE", LONG, "UTF-8"); }},
    {"ConvertSubstitute", "0", 0,
     [](const Scene &) { return Converted("US-ASCII", std::string("\xFF") + LONG, "UTF-8"); }},
    {"Normalize", TESSEL_HAVE_ICU ? "0" : nullptr, 0,
     [](const Scene &) {
        char *text = nullptr;
        return Length(CodeSet_Utf8FormD("\xC3\xA9", 2, &text, nullptr), text);
     }},
    {"EncodingNames", nullptr, 0,
     [](const Scene &) {
        UnicodeIANACacheFree();
        const EncodingId found = UnicodeIANALookup("wIndows-1252");
        UnicodeIANACacheFree();
        return std::to_string(found);
     }},
    {"Hold", nullptr, 0,
     [](const Scene &) {
        HashTable *const table = HashTable_Alloc(2, HASH_FLAG_COPYKEY, nullptr);
        RankedLock *const lock = RankedLock_Create("a", 1);
        HashTable_Insert(table, "a", table);
        HashTable_Free(table);
        RankedLock_Free(lock);
        return Take(Unicode_AllocWithLength("\xE9", -1, ENCODING_ISO_8859_1));
     }},
    {"MarshalLine", "failed", 0,
     [](const Scene &) {
        OwnedDynBuf buffer;
        return Named(DictLL_MarshalLine(&buffer, "a", "\""));
     }},
    {"ReadLine", "", ERRNO, FirstValue},
    {"Load", "failed", 0,
     [](const Scene &scene) {
        const OwnedDictionary dictionary;
        return Named(Dictionary_Load(dictionary.get(), scene.Path("file").c_str()));
     }},
    {"LoadFromFileHandle", "failed", 0,
     [](const Scene &scene) {
        const OwnedDictionary dictionary;
        OwnedFile file;
        return Named(FileIO_Open(&file.handle, scene.Path("file").c_str(), O_RDWR, 0) &&
                     Dictionary_LoadFromFileHandle(dictionary.get(), &file.handle, nullptr));
     }},
    {"WriteToBuffer", "0", 0,
     [](const Scene &) {
        const OwnedDictionary dictionary;
        char *text = nullptr;
        size_t size;
        Dictionary_SetString(dictionary.get(), "\xC3\xA9", 0, "a");
        return Length(Dictionary_SetEncoding(dictionary.get(), ENCODING_UTF8, nullptr) &&
                          Dictionary_WriteToBuffer(dictionary.get(), false, &text, &size),
                      text);
     }},
    {"WriteFile", "failed", 0, [](const Scene &scene) { return Saved(scene.Path("file")); }},
    {"WriteNewFile", "failed", FRESH, [](const Scene &scene) { return Saved(scene.Path("new")); }},
    {"Preferences", "<null>", 0,
     [](const Scene &) {
        Preference_Init();
        const std::string value = Take(Preference_GetString(nullptr, "a"));
        Preference_Exit();
        return value;
     }},
    {"List", "failed", ERRNO, Listed},
    {"Walk", "failed", ERRNO, Walked},
    {"DeleteTree", "failed", ERRNO | PARTLY,
     [](const Scene &scene) { return Named(File_DeleteDirectoryTree(scene.Path("tree").c_str())); }},
    {"Unlink", "failed", ERRNO | PARTLY,
     [](const Scene &scene) { return Named(File_Unlink(scene.Path("link").c_str()) == 0); }},
    {"Update", "failed", ERRNO, [](const Scene &scene) { return ReplacedOrNot(scene.Path("link"), true); }},
    {"Discard", "failed", ERRNO, [](const Scene &scene) { return ReplacedOrNot(scene.Path("file"), false); }},
    {"Lock", "failed", ERRNO | PARTLY, [](const Scene &scene) { return Locked(scene, true); }},
    {"Unlock", "failed", ERRNO | PARTLY, [](const Scene &scene) { return Locked(scene, false); }},
    {"ReadLink", "<null>", ERRNO,
     [](const Scene &scene) { return Take(Posix_ReadLink(scene.Path("link").c_str())); }},
    {"RealPath", "<null>", ERRNO, [](const Scene &) { return Take(Posix_RealPath("/..")); }},
    {"Execute", "failed", 0, [](const Scene &) { return Executed("exit 3"); }},
    {"Location", "<null>", 0, [](const Scene &) { return Take(Location_Get("rootDir")); }},
    {"ModulePath", "<null>", 0, [](const Scene &) { return Take(Hostinfo_GetModulePath(1)); }},
    {"ExpandHome", "<null>", 0, [](const Scene &) { return Take(Util_ExpandHome("~bin")); }},
    {"Register", "failed", PEER, Registered},
};

/* What the log says last when memory runs out; the third is what a line that must be put together can say. */
constexpr const char *EXHAUSTED[] = {"Unrecoverable memory allocation failure", "MEM_ALLOC ",
                                     "VERIFY lib/string/str:657"};

/* How an operation ended in its process; shared with it. */
struct Report {
   bool returned;
   char result[100];
   int error;
   long bytes;
   long descriptors;
};

size_t Allocated()
{
   return __sanitizer_get_current_allocated_bytes != nullptr ? __sanitizer_get_current_allocated_bytes() : 0;
}

/* The files below a folder with what is in them. */
using State = std::map<std::string, std::string>;

State StateOf(const std::string &folder)
{
   State state;
   for (const auto &entry : fs::recursive_directory_iterator(folder)) {
      const bool plain = entry.symlink_status().type() == fs::file_type::regular;
      state[entry.path().lexically_relative(folder)] = plain ? ReadFile(entry.path()) : "";
   }
   return state;
}

class CallFaults : public testing::TestWithParam<Operation> {
 protected:
   CallFaults()
   {
      report_ = static_cast<Report *>(
          mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
      setenv("KESTRA_LOCATION_ROOT_FULLPATH", "/product", 1);
      setenv("HOME", folder_.Path("files").c_str(), 1);
   }

   ~CallFaults() override
   {
      munmap(report_, sizeof(Report));
   }

   void Prepare()
   {
      const std::string preferences = scene_.Path("Library/Preferences/Kestra Tessel");
      fs::remove_all(scene_.folder);
      fs::create_directories(preferences);
      fs::create_directories(scene_.Path("tree/folder"));
      WriteFile(preferences + "/config", "a = \"1\"\n");
      WriteFile(scene_.Path("tree/folder/leaf"), "");
      WriteFile(scene_.Path("tree/leaf"), "");
      WriteFile(scene_.Path("file"), "# old\na = \"1\"\n");
      fs::create_symlink("file", scene_.Path("link"));
      log_.Clear();
   }

   [[noreturn]] void RunInChild(CallWatch *watch)
   {
      alarm(60);
      /* A process that ends by itself is not to be looked at for leaks. */
      on_exit([](int status, void *) { _exit(status); }, nullptr);
      const auto descriptors = static_cast<long>(OpenDescriptors());
      const auto bytes = static_cast<long>(Allocated());
      {
         watch->Arm();
         const std::string result = GetParam().run(scene_);
         report_->error = errno;
         CallWatch::Disarm();
         result.copy(report_->result, sizeof report_->result - 1);
      }
      report_->bytes = static_cast<long>(Allocated()) - bytes;
      report_->descriptors = static_cast<long>(OpenDescriptors()) - descriptors;
      report_->returned = true;
      _exit(EXIT_FAILURE);
   }

   /* Its wait status; what it told is in *report_. */
   int Run(CallWatch *watch)
   {
      Prepare();
      std::unique_ptr<ScriptedPeer> peer;
      if ((GetParam().promises & PEER) != 0) {
         peer = std::make_unique<ScriptedPeer>("agr1e");
         scene_.socket = peer->SocketPath();
      }
      *report_ = {};
      const pid_t child = fork();
      if (child == 0) {
         RunInChild(watch);
      }
      int status = -1;
      waitpid(child, &status, 0);
      return status;
   }

   void JudgeReturn(const CallFault &fault, const State &before, const State &after)
   {
      const bool succeeded = report_->result == usual_;
      const bool says = GetParam().failure != nullptr && report_->result == std::string(GetParam().failure);
      const State state = StateOf(scene_.folder);
      State begun = before;
      begun["new"] = "";

      EXPECT_TRUE(succeeded || says) << "neither success nor failure: " << report_->result;
      EXPECT_EQ(0, report_->bytes) << "leaked";
      EXPECT_EQ(0, report_->descriptors) << "left open";
      /* What cannot be removed stays. */
      const bool stays = fault.call == "unlink" || fault.call == "unlinkat" || fault.call == "rmdir";
      if (succeeded) {
         EXPECT_TRUE(state == after || stays) << "success without the work done";
      } else if ((GetParam().promises & PARTLY) == 0 && !stays) {
         EXPECT_TRUE(state == before || state == after ||
                     ((GetParam().promises & FRESH) != 0 && state == begun))
             << "half done: " << testing::PrintToString(state);
      }
      if (!succeeded && (GetParam().promises & ERRNO) != 0) {
         EXPECT_EQ(fault.error, report_->error);
      }
   }

   void Judge(const CallFault &fault, int status, const State &before, const State &after)
   {
      ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
      if (report_->returned) {
         JudgeReturn(fault, before, after);
         return;
      }
      const std::string log = log_.Text();
      const bool exhausted =
          std::any_of(std::begin(EXHAUSTED), std::end(EXHAUSTED), [&log](const char *text) {
             return log.find(std::string("Panic: ") + text) != std::string::npos;
          });
      EXPECT_TRUE(exhausted) << "ended otherwise than by a lack of memory: " << log;
      EXPECT_EQ(ENOMEM, fault.error);
   }

   ScratchFolder folder_;
   CapturedLog log_;
   Scene scene_ = {folder_.Path("files"), ""};
   Report *report_;
   std::string usual_;
};

TEST_P(CallFaults, EveryFailingCallIsAnswered)
{
   std::vector<CallFault> faults;
   Prepare();
   const State before = StateOf(scene_.folder);
   /* The first time, some things are made that stay: the log's time zone, for one. */
   Log("a line\n");
   if ((GetParam().promises & PEER) == 0) {
      GetParam().run(scene_);
   }
   {
      CallWatch watch;
      Run(&watch);
      faults = watch.Faults();
   }
   ASSERT_TRUE(report_->returned);
   usual_ = report_->result;
   ASSERT_NE(std::string(GetParam().failure != nullptr ? GetParam().failure : ""), usual_) << log_.Text();
   ASSERT_EQ(0, report_->bytes + report_->descriptors);
   const State after = StateOf(scene_.folder);
   EXPECT_NE(0U, faults.size());
   for (const CallFault &fault : faults) {
      SCOPED_TRACE(fault.call + " number " + std::to_string(fault.which) + ": " + strerror(fault.error));
      CallWatch watch(fault);
      const int status = Run(&watch);
      EXPECT_TRUE(watch.Struck());
      Judge(fault, status, before, after);
   }
}

/* The names that nm has to say about the products' objects, as one set. */
std::set<std::string> Symbols(const std::string &options)
{
   std::set<std::string> names;
   FILE *const pipe = popen(("nm " + options + " " + TESSEL_PRODUCTS).c_str(), "re");
   char line[1000];
   while (fgets(line, sizeof line, pipe) != nullptr) {
      std::istringstream words(line);
      for (std::string word; words >> word;) {
         names.insert(word); /* The last one is the name; the others look like none. */
      }
   }
   return pclose(pipe) == 0 ? names : std::set<std::string>();
}

/* What compilers and sanitizers put in, and the libraries of C++ and of ICU, whose failures are not errno's. */
bool IsForeign(const std::string &symbol)
{
   static constexpr std::string_view prefixes[] = {
       "__asan_", "__cpu_",       "__gcov_",    "__ubsan_",        "__tsan_", "__sanitizer_",
       "__cxa_",  "__stack_chk_", "__tls_get_", "_GLOBAL_OFFSET_", "_ZSt",    "_ZNSt",
       "_ZNKSt",  "_ZTV",         "u_",         "ucnv_",           "UCNV_",   "unorm2_"};
   return std::any_of(std::begin(prefixes), std::end(prefixes), [&symbol](std::string_view prefix) {
      return symbol.compare(0, prefix.size(), prefix) == 0;
   });
}

/* The call that the compiler has checked the room for, as "__memcpy_chk". */
std::string Unfortified(const std::string &symbol)
{
   const bool fortified = symbol.starts_with("__") && symbol.ends_with("_chk");
   return fortified ? symbol.substr(2, symbol.size() - 6) : symbol;
}

TEST(CallTable, NamesEveryCallOfTheProducts)
{
   const std::set<std::string> defined = Symbols("--defined-only --format=posix");
   std::set<std::string> called;
   for (const std::string &symbol : Symbols("--undefined-only --format=just-symbols")) {
      if (defined.count(symbol) == 0 && !IsForeign(symbol)) {
         called.insert(Unfortified(symbol));
      }
   }
   ASSERT_LT(100U, called.size()) << "nm was not of help";
   const std::set<std::string> known = AllCalls();
   for (const std::string &symbol : called) {
      EXPECT_TRUE(known.count(symbol) != 0) << symbol << " is not in calls.inc";
   }
}

INSTANTIATE_TEST_SUITE_P(Operation, CallFaults, testing::ValuesIn(OPERATIONS),
                         [](const auto &row) { return row.param.name; });

} // namespace
