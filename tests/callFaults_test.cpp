/* Each operation of the library with one of its calls of the system failing, for every one of them. */

#include "tests/support/callFaults.h"

#include "client/tesselclient.h"
#include "daemon/serviceLog.h"
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
   const char *result;
   const char *failure; /* Null: it never fails but by ending the process. */
   unsigned promises;
   std::string (*run)(const Scene &scene);
};

void PrintTo(const Operation &operation, std::ostream *out)
{
   *out << operation.name;
}

/* Owners and short forms for the table. */

template <auto END> struct Ended {
   template <typename T> void operator()(T *held) const
   {
      const int error = errno;
      END(held);
      errno = error;
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

   FileIOHandle *get()
   {
      return &handle;
   }
};

std::string Text(const DynBuf *buffer)
{
   return buffer->data != nullptr ? std::string(buffer->data, buffer->size) : std::string();
}

/* Of 500 bytes: buffers have to grow for it. */
#define FIFTY "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
constexpr char LONG[] = FIFTY FIFTY FIFTY FIFTY FIFTY FIFTY FIFTY FIFTY FIFTY FIFTY;

/* The length of the result. */
std::string Converted(const char *from, const char *text, const char *to)
{
   char *output = nullptr;
   size_t length = 0;
   if (!CodeSet_Convert(from, text, strlen(text), to, CODESET_SUBSTITUTE, &output, &length)) {
      return "";
   }
   free(output);
   return std::to_string(length);
}

/* The same; 0 if it fails. */
std::string Escaped(const EscapeTable &table, const char *text)
{
   size_t length = 0;
   free(Escape_Bytes("%", table, text, strlen(text), &length));
   return std::to_string(length);
}

/* A result, which is untouched if there is none. */
std::string Sized(char *text, size_t length)
{
   const size_t expected = text != nullptr ? strlen(text) : 0;
   const std::string result = Take(text);
   return length == expected ? result : "a wrong length";
}

std::string Joined(char **strings, int count)
{
   std::string all;
   for (int i = 0; strings != nullptr && i < count; i++) {
      all += Take(strings[i]);
   }
   free(strings);
   return all;
}

std::string Value(Dictionary *dictionary, const char *name)
{
   return Take(Dictionary_GetString(dictionary, nullptr, "%s", name));
}

std::string Text(const Dictionary *dictionary, const char *name)
{
   return Take(Dictionary_GetText(dictionary, name));
}

std::string Saved(const std::string &path)
{
   OwnedDictionary dictionary;
   Dictionary_SetString(dictionary.get(), "2", 0, "a");
   return Dictionary_WriteFile(dictionary.get(), path.c_str()) ? "written" : "failed";
}

std::string FirstValue(const Scene &scene)
{
   char *line;
   char *name;
   char *value;
   FILE *const file = fopen(scene.Path("file").c_str(), "re");
   int read = 0;
   while (file != nullptr && (read = DictLL_ReadLine(file, &line, &name, &value)) == 2 && value == nullptr) {
      free(line);
   }
   const int error = errno;
   if (file != nullptr) {
      fclose(file);
   }
   errno = error;
   return read == 2 ? (Take(line), Take(name), Take(value)) : std::string();
}

std::string Replaced(const std::string &path)
{
   OwnedFile target;
   OwnedFile temporary;
   if (!FileIO_Open(target.get(), path.c_str(), O_RDWR, 0) ||
       !FileIO_AtomicTempFile(target.get(), temporary.get())) {
      return "0";
   }
   if (write(temporary.get()->fd, "new", 3) != 3 || !FileIO_AtomicUpdateEx(temporary.get(), target.get())) {
      FileIO_AtomicDiscard(temporary.get());
      return "0";
   }
   return "1";
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

/* Every outcome but success is 9. */
std::string Registered(const Scene &scene, int maxWaitMs)
{
   int hold = 77;
   const TesselResult result = TesselClient_Register(scene.socket.c_str(), maxWaitMs, &hold);
   const bool registered = result.outcome == TESSEL_REGISTERED;
   const bool consistent = registered == (hold != -1) && registered == (result.systemError == 0);
   TesselClient_LetGo(&hold);
   return !consistent ? "inconsistent" : registered ? "0" : "9";
}

const Operation OPERATIONS[] = {
#include "tests/support/operations.inc"
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
      const bool succeeded = report_->result == std::string(GetParam().result);
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
   ASSERT_EQ(std::string(GetParam().result), report_->result) << log_.Text();
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
       "__asan_",      "__gcov_",    "__ubsan_",        "__tsan_", "__sanitizer_", "__cxa_",
       "__stack_chk_", "__tls_get_", "_GLOBAL_OFFSET_", "_ZSt",    "_ZNSt",        "_ZNKSt",
       "_ZTV",         "u_",         "ucnv_",           "UCNV_",   "unorm2_"};
   return std::any_of(std::begin(prefixes), std::end(prefixes), [&symbol](std::string_view prefix) {
      return symbol.compare(0, prefix.size(), prefix) == 0;
   });
}

TEST(CallTable, NamesEveryCallOfTheProducts)
{
   const std::set<std::string> defined = Symbols("--defined-only --format=posix");
   std::set<std::string> called;
   for (const std::string &symbol : Symbols("--undefined-only --format=just-symbols")) {
      if (defined.count(symbol) == 0 && !IsForeign(symbol)) {
         called.insert(symbol);
      }
   }
   ASSERT_LT(100U, called.size()) << "nm was not of help";
   const std::set<std::string> known = AllCalls();
   for (const std::string &symbol : called) {
      EXPECT_TRUE(known.count(symbol) != 0) << symbol << " is not in calls.inc";
   }
}

std::string OperationName(const testing::TestParamInfo<Operation> &info)
{
   std::string name;
   for (const char *c = info.param.name; *c != '\0'; c++) {
      if (isalnum(static_cast<unsigned char>(*c)) != 0) {
         name += *c;
      }
   }
   return name;
}

INSTANTIATE_TEST_SUITE_P(Operation, CallFaults, testing::ValuesIn(OPERATIONS), OperationName);

} // namespace
