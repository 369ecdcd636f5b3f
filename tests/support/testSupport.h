#ifndef TESSEL_TESTS_SUPPORT_TESTSUPPORT_H
#define TESSEL_TESTS_SUPPORT_TESTSUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>

struct Freed {
   void operator()(void *block) const
   {
      free(block);
   }
};

/* Takes a malloc'ed string that a routine returned, and gives it as a std::string; null gives "<null>". */
std::string Take(char *text);

/* A folder of the test's own, removed with all it holds at the end of the scope. */
class ScratchFolder {
 public:
   ScratchFolder();
   ~ScratchFolder();
   ScratchFolder(const ScratchFolder &) = delete;
   ScratchFolder &operator=(const ScratchFolder &) = delete;

   /* The folder's path, or that of a name in it. */
   [[nodiscard]] std::string Path(const std::string &name = "") const;

   /* The text with "@" for the folder's path. */
   [[nodiscard]] std::string Shorten(std::string text) const;

 private:
   std::string path_;
};

/* Sends the log to a file of its own while it lives. */
class CapturedLog {
 public:
   CapturedLog();
   ~CapturedLog();

   /* All that was logged so far, as written. */
   [[nodiscard]] std::string Raw() const;

   /* The same without the timestamp prefixes. */
   [[nodiscard]] std::string Text() const;

   /* Forgets what was logged so far. */
   void Clear() const;

   /* The text so far, which is then forgotten. */
   [[nodiscard]] std::string TakeText() const;

 private:
   ScratchFolder folder_;
};

/* A log as written, without its timestamp prefixes. */
std::string WithoutTimestamps(const std::string &log);

/* Runs work(0), work(1) and so on, each on a thread of its own, at the same time, and waits for them all. */
void OnThreads(size_t count, const std::function<void(size_t thread)> &work);

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &content);

/* The number that a variable of the environment holds, or another one if it is not set. */
uint64_t FromEnvironment(const char *name, uint64_t otherwise);

/* The statement ends the process through Panic with a text that matches the regular expression. */
#define EXPECT_PANIC(statement, textRegex)                                                                   \
   EXPECT_EXIT(                                                                                              \
       {                                                                                                     \
          LogToStandardError();                                                                              \
          statement;                                                                                         \
       },                                                                                                    \
       ::testing::ExitedWithCode(1), "\\| Panic: " textRegex)

/* Sends the log to what standard error is now, at its place in it. */
void LogToStandardError();

#endif
