#ifndef TESSEL_TESTS_SUPPORT_DAEMONHARNESS_H
#define TESSEL_TESTS_SUPPORT_DAEMONHARNESS_H

#include "base/owned.h"
#include "tests/support/testSupport.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/* Both ends of a pipe, closed on exec. */
struct Pipe {
   Pipe();
   OwnedDescriptor reader;
   OwnedDescriptor writer;
};

/* What the daemon knows as /Library: under Linux that of a private view (see run-in-private-library), in front of the programs
   as they ship. Elsewhere the tests run programs that were built for them (see CMakeLists.txt) with a folder
   of the build. */
inline const std::filesystem::path LIBRARY = TESSEL_LIBRARY;
inline const std::filesystem::path SERVICE_COPY =
    LIBRARY / "Application Support/Kestra/Kestra Tessel/Services";
inline const std::filesystem::path SERVICE_LOG = LIBRARY / "Logs/Kestra Tessel Services.log";

/* To be called before anything is done with it: false if there is none that is the test's own, which is then to skip itself. */
bool EnterLibrary();

/* Empties it but for the folder of the log and a service copy of these two programs, in which "/Library" stands for it. */
void MakeLibrary(const std::string &helper, const std::string &script);

/* Whether kernel controls can be stood in for. */
bool HasKernelControls();

/* A listening local-domain socket at this path, closed on exec. */
OwnedDescriptor ListenAt(const std::string &path);

/* Serves the kernel extensions' controls until the end of the scope, in processes of its own: a connection is taken and
   closed. */
class Teardowns {
 public:
   Teardowns();
   ~Teardowns();
   Teardowns(const Teardowns &) = delete;
   Teardowns &operator=(const Teardowns &) = delete;

 private:
   std::vector<pid_t> servers_;
};

/* A daemon in a process of its own, with a listening socket and a launcher descriptor as a launcher makes them. */
class DaemonProcess {
 public:
   /* What the process does, given the two descriptor numbers, which no exec closes; must not return. */
   using Body = std::function<void(int listener, int launcher)>;

   explicit DaemonProcess(const Body &body);
   ~DaemonProcess(); /* Kills the process if it is still there. */
   DaemonProcess(const DaemonProcess &) = delete;
   DaemonProcess &operator=(const DaemonProcess &) = delete;

   /* The launcher goes away. */
   void DropLauncher();

   /* Waits for the end of the process and gives its exit status; -signal if a signal ended it. */
   int ExitStatus();

   /* Hands the process over to the caller, who collects it. */
   pid_t Release();

   /* Waits until the daemon is inside one of these system calls. */
   void AwaitCall(const std::vector<long> &calls) const;

   /* Stops the process, does the work and lets it go on. */
   void WhileStopped(const std::function<void()> &work) const;

   /* The number of open descriptors once the daemon has handled all that happened before; the same always where the system
      does not tell. */
   [[nodiscard]] size_t OpenDescriptors() const;
   [[nodiscard]] pid_t Pid() const;
   [[nodiscard]] const std::string &SocketPath() const;

 private:
   ScratchFolder folder_;
   std::string socketPath_;
   OwnedDescriptor launcher_;
   pid_t pid_ = -1;
};

/* For DaemonProcess: the program, with such arguments. An empty one stands for the listening socket, "-" for the launcher's
   descriptor. */
DaemonProcess::Body DaemonImage(std::string program, std::vector<std::string> arguments = {"", "-"});

/* A new terminal for a process that leads a session to take (TIOCSCTTY); "" if there can be none. */
std::string OpenTerminal(OwnedDescriptor *ours);

/* One message with this text and these descriptors. False if it cannot be sent. */
bool SendMessage(int socket, const std::string &text, const std::vector<int> &descriptors);

/* One connection to the daemon, step by step, as good or as bad as the test wants it. */
class Connection {
 public:
   explicit Connection(const DaemonProcess &daemon);

   /* The next byte from the daemon; nothing at the end of the connection. */
   std::optional<uint8_t> Read();

   bool Send(const std::string &text, const std::vector<int> &descriptors);

   /* Greeting, message, answer; nothing if the daemon hung up without one. */
   std::optional<char> HandOver(int descriptor, char data = 'x');

   void ShutdownSending();
   void Close();

   /* This end of the connection, for what the routines above cannot do. */
   [[nodiscard]] int Socket() const;

 private:
   OwnedDescriptor socket_;
};

/* A well-behaved client: registered while it lives. */
class Client {
 public:
   explicit Client(const DaemonProcess &daemon);

   [[nodiscard]] std::optional<char> Reply() const;
   void LetGo();

 private:
   Pipe held_;
   std::optional<char> reply_;
};

#endif
