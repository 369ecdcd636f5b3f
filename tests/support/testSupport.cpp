#include "tests/support/testSupport.h"

#include "daemon/serviceLog.h"

#include <barrier>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/* The log's own way in is a path, and opening one would empty a file that the descriptor leads to. A new log takes
   the lowest free number. */
void PointLogAt(int fd)
{
   const int logNumber = dup(fd);
   close(logNumber);
   ServiceImpl_LogOpen("/dev/null");
   dup2(fd, logNumber);
}

} // namespace

std::string Take(char *text)
{
   const std::unique_ptr<char, Freed> owned(text);
   return text != nullptr ? std::string(text) : std::string("<null>");
}

ScratchFolder::ScratchFolder()
{
   std::string pattern = (std::filesystem::temp_directory_path() / "tessel-XXXXXX").string();
   if (mkdtemp(pattern.data()) == nullptr) {
      abort();
   }
   path_ = pattern;
}

ScratchFolder::~ScratchFolder()
{
   std::error_code ignored;
   std::filesystem::remove_all(path_, ignored);
}

std::string ScratchFolder::Path(const std::string &name) const
{
   return name.empty() ? path_ : path_ + "/" + name;
}

std::string ScratchFolder::Shorten(std::string text) const
{
   for (size_t at; (at = text.find(path_)) != std::string::npos;) {
      text.replace(at, path_.size(), "@");
   }
   return text;
}

CapturedLog::CapturedLog()
{
   Clear();
}

void CapturedLog::Clear() const
{
   ServiceImpl_LogOpen(folder_.Path("log").c_str());
}

CapturedLog::~CapturedLog()
{
   PointLogAt(STDOUT_FILENO);
}

std::string CapturedLog::Raw() const
{
   return ReadFile(folder_.Path("log"));
}

std::string CapturedLog::Text() const
{
   return WithoutTimestamps(Raw());
}

std::string CapturedLog::TakeText() const
{
   std::string text = Text();
   Clear();
   return text;
}

/* Each ends in ".123| ", with a "T" between date and time. */
std::string WithoutTimestamps(const std::string &log)
{
   std::string text = log;
   for (size_t end = 23; (end = text.find("| ", end)) != std::string::npos;) {
      if (text[end - 13] == 'T' && text[end - 4] == '.') {
         text.erase(end - 23, 25);
      } else {
         end++;
      }
   }
   return text;
}

void OnThreads(size_t count, const std::function<void(size_t thread)> &work)
{
   std::barrier start(static_cast<std::ptrdiff_t>(count));
   std::vector<std::jthread> threads;
   for (size_t thread = 0; thread < count; thread++) {
      threads.emplace_back([&, thread] {
         start.arrive_and_wait();
         work(thread);
      });
   }
}

std::string ReadFile(const std::string &path)
{
   std::ifstream file(path, std::ios::binary);
   std::ostringstream content;
   content << file.rdbuf();
   return content.str();
}

void WriteFile(const std::string &path, const std::string &content)
{
   std::ofstream(path, std::ios::binary) << content;
}

uint64_t FromEnvironment(const char *name, uint64_t otherwise)
{
   const char *text = getenv(name);
   return text != nullptr ? strtoull(text, nullptr, 10) : otherwise;
}

void LogToStandardError()
{
   PointLogAt(STDERR_FILENO);
}

int main(int argc, char **argv)
{
   /* The foundation calls this and the log; naming both here has the linker take them from the program's own
      libraries, which it meets first. */
   if (Location_GetLookup() == nullptr) {
      return EXIT_FAILURE;
   }
   setenv("TZ", "UTC", 1);
   testing::InitGoogleTest(&argc, argv);
   return RUN_ALL_TESTS();
}
