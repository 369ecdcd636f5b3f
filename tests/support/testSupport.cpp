#include "tests/support/testSupport.h"

#include "daemon/serviceLog.h"

#include <barrier>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
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
   path_ = std::filesystem::canonical(pattern).string(); /* The system's own place for them can be a link. */
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
   return Replaced(std::move(text), path_, "@");
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

Program::Program(const std::string &command)
{
   int ends[2];
   if (pipe(ends) != 0 || (pid_ = fork()) == -1) {
      abort();
   }
   if (pid_ == 0) {
      for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
         signal(number, SIG_DFL);
      }
      setpgid(0, 0);
      dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      close(ends[0]);
      close(ends[1]);
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
      _exit(111);
   }
   close(ends[1]);
   reader_.reset(ends[0]);
   fcntl(ends[0], F_SETFD, FD_CLOEXEC);
}

Program::~Program()
{
   if (pid_ != -1) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }
}

bool Program::Says(const std::string &text)
{
   while (output_.find(text) == std::string::npos) {
      if (!ReadMore()) {
         return false;
      }
   }
   return true;
}

int Program::Status()
{
   int status = -1;
   while (ReadMore()) {
   }
   waitpid(std::exchange(pid_, -1), &status, 0);
   return ExitStatusOf(status);
}

bool Program::ReadMore()
{
   char buffer[4096];
   const ssize_t length = read(reader_.get(), buffer, sizeof buffer);
   output_.append(buffer, length > 0 ? static_cast<size_t>(length) : 0);
   return length > 0;
}

pid_t Program::Pid() const
{
   return pid_;
}

const std::string &Program::Output() const
{
   return output_;
}

int ExitStatusOf(int waitStatus)
{
   return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -WTERMSIG(waitStatus);
}

bool Eventually(const std::function<bool()> &condition, int limitSeconds)
{
   for (int i = 0; i < limitSeconds * 1000; i++) {
      if (condition()) {
         return true;
      }
      usleep(1000);
   }
   return condition();
}

size_t OpenDescriptors()
{
   size_t open = 0;
   for (int fd = 0; fd < 4096; fd++) {
      open += fcntl(fd, F_GETFD) != -1 ? 1U : 0U;
   }
   return open;
}

void OnThreads(size_t count, const std::function<void(size_t thread)> &work)
{
   std::barrier start(static_cast<std::ptrdiff_t>(count));
   std::vector<std::thread> threads;
   for (size_t thread = 0; thread < count; thread++) {
      threads.emplace_back([&, thread] {
         start.arrive_and_wait();
         work(thread);
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
}

std::string Replaced(std::string text, const std::string &what, const std::string &by)
{
   for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
      text.replace(at, what.size(), by);
   }
   return text;
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
