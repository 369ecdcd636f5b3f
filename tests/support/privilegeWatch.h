#ifndef TESSEL_TESTS_SUPPORT_PRIVILEGEWATCH_H
#define TESSEL_TESTS_SUPPORT_PRIVILEGEWATCH_H

#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

/* What a process that was started with root as its effective user, and those that it forks up to their exec, do with
   that right. */
class PrivilegeWatch {
 public:
   /* To be called in the process to be watched, before its exec. False: this system does not let it be watched. */
   static bool Ask();

   /* Follows the process to its end, and gives its wait status. Other children of the caller are collected, too. */
   int Follow(pid_t process);

   /* Each system call made while root was the effective user, once, from the first time that it was not; with the file or the
      socket that it was about. What memory takes is left out. */
   [[nodiscard]] const std::set<std::string> &Raised() const;

   /* What each program that was executed started with: by "cmdline", "environ", the names of /proc/PID/status, and "fd 0" and
      so on. */
   using Facts = std::map<std::string, std::string>;
   [[nodiscard]] const std::vector<Facts> &Executed() const;

 private:
   void Stopped(pid_t process, int status);
   void AtCall(pid_t process);

   pid_t watched_ = -1;
   bool lowered_ = false;
   std::set<std::string> raised_;
   std::vector<Facts> executed_;
};

#endif
