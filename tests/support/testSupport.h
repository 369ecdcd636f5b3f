#ifndef TESSEL_TESTS_SUPPORT_TESTSUPPORT_H
#define TESSEL_TESTS_SUPPORT_TESTSUPPORT_H

#include "base/owned.h"

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>

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

/* A command of the shell in a process of its own, without input; its output and its errors are gathered together. They end only when every process that it left behind has ended too. */
class Program {
 public:
   explicit Program(const std::string &command);
   ~Program(); /* Kills the process if it is still there. */
   Program(const Program &) = delete;
   Program &operator=(const Program &) = delete;

   /* Waits until the output so far contains the text; false if it ends without. */
   bool Says(const std::string &text);

   /* Waits for the end of all output and of the program, and gives its exit status; -signal if one ended it. */
   int Status();

   [[nodiscard]] pid_t Pid() const;
   [[nodiscard]] const std::string &Output() const; /* So far. */

 private:
   bool ReadMore();

   pid_t pid_ = -1;
   OwnedDescriptor reader_;
   std::string output_;
};

/* A wait status as a number: the exit status, or -signal. */
int ExitStatusOf(int waitStatus);

/* Waits until it is so, and says whether it came to be so in time. Where there is an event to wait for, that is better. */
bool Eventually(const std::function<bool()> &condition, int limitSeconds = 60);

/* How many descriptors this process has open. */
size_t OpenDescriptors();

/* Runs work(0), work(1) and so on, each on a thread of its own, at the same time, and waits for them all. */
void OnThreads(size_t count, const std::function<void(size_t thread)> &work);

/* The text with each occurrence of the one by the other. */
std::string Replaced(std::string text, const std::string &what, const std::string &by);

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
