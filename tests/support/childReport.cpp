/* A program for the tests to run: reports what it inherited, or where it lies, to the file named by its last
   argument. */

#include "daemon/serviceLog.h"
#include "lib/misc/hostinfo.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/resource.h>

namespace {

/* Lists before any file of its own is open, but for the listing's. */
void ReportDescriptors(FILE *out, DIR *folder)
{
   while (const struct dirent *entry = readdir(folder)) {
      const long fd = strtol(entry->d_name, nullptr, 10);
      if (entry->d_name[0] != '.' && fd != dirfd(folder) && fd != fileno(out)) {
         fprintf(out, "open %ld\n", fd);
      }
   }
}

void ReportState(FILE *out, DIR *folder)
{
   struct rlimit limit;

   ReportDescriptors(out, folder);
   for (int number = 1; number <= 31; number++) {
      struct sigaction action;
      if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
         fprintf(out, "ignored %d\n", number);
      }
   }
   if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != limit.rlim_max) {
      fprintf(out, "limited address space\n");
   }
}

/* After what was logged on the way. */
void ReportPath(FILE *out, const char *file)
{
   ServiceImpl_LogOpen(file);
   char *const path = Hostinfo_GetModulePath(1);

   fprintf(out, "%s", path != nullptr ? path : "none");
   free(path);
}

} // namespace

int main(int argc, char **argv)
{
   if (argc != 3) {
      return EXIT_FAILURE;
   }
   DIR *const folder = opendir("/proc/self/fd");
   FILE *const out = fopen(argv[2], "a");
   if (folder == nullptr || out == nullptr) {
      return EXIT_FAILURE;
   }
   if (strcmp(argv[1], "state") == 0) {
      ReportState(out, folder);
   } else {
      ReportPath(out, argv[2]);
   }
   closedir(folder);
   return fclose(out) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
