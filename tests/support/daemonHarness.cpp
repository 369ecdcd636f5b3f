#include "tests/support/daemonHarness.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void Require(bool condition, const char *what)
{
   if (!condition) {
      perror(what);
      abort();
   }
}

int CloseOnExec(int fd)
{
   Require(fd != -1 && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0, "descriptor");
   return fd;
}

struct sockaddr_un SocketAddress(const std::string &path)
{
   struct sockaddr_un address = {};
   address.sun_family = AF_UNIX;
   Require(path.size() < sizeof address.sun_path, "socket path");
   memcpy(address.sun_path, path.c_str(), path.size());
   return address;
}

} // namespace

bool EnterLibrary()
{
   if (LIBRARY == "/Library") {
      return getenv("TESSEL_PRIVATE_LIBRARY") != nullptr;
   }
   std::filesystem::create_directory(LIBRARY);
   return true;
}

bool HasKernelControls()
{
   return std::filesystem::exists("/run/tessel-kext");
}

void MakeLibrary(const std::string &helper, const std::string &script)
{
   for (const auto &entry : std::filesystem::directory_iterator(LIBRARY)) {
      std::filesystem::remove_all(entry);
   }
   std::filesystem::create_directories(SERVICE_LOG.parent_path());
   std::filesystem::create_directories(SERVICE_COPY / "Contents/Library/services");
   for (const auto &[name, text] : {std::pair("kestra-id", helper), {"services/services.sh", script}}) {
      const std::filesystem::path path = SERVICE_COPY / "Contents/Library" / name;
      WriteFile(path.string(), Replaced(text, "/Library/", LIBRARY.string() + "/"));
      std::filesystem::permissions(path, std::filesystem::perms(0755));
   }
}

OwnedDescriptor ListenAt(const std::string &path)
{
   const struct sockaddr_un address = SocketAddress(path);
   OwnedDescriptor listener(CloseOnExec(socket(AF_UNIX, SOCK_STREAM, 0)));
   Require(bind(listener.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0,
           "bind");
   Require(listen(listener.get(), 4096) == 0, "listen");
   return listener;
}

Pipe::Pipe()
{
   int ends[2];
   Require(pipe(ends) == 0, "pipe");
   reader.reset(CloseOnExec(ends[0]));
   writer.reset(CloseOnExec(ends[1]));
}

Teardowns::Teardowns()
{
   for (const std::string extension : {"hvcore", "hvlink"}) {
      const std::string path = "/run/tessel-kext/com.kestra.kext." + extension + ".teardown";
      std::filesystem::remove(path);
      const OwnedDescriptor listener = ListenAt(path);
      servers_.push_back(fork());
      while (servers_.back() == 0) {
         close(accept(listener.get(), nullptr, nullptr));
      }
   }
   /* The daemon looks for them as an ordinary user. */
   std::filesystem::permissions("/run/tessel-kext", std::filesystem::perms(0755));
}

Teardowns::~Teardowns()
{
   for (const pid_t server : servers_) {
      kill(server, SIGKILL);
      waitpid(server, nullptr, 0);
   }
}

DaemonProcess::DaemonProcess(const Body &body) : socketPath_(folder_.Path("socket"))
{
   const OwnedDescriptor listener = ListenAt(socketPath_);
   Pipe launcher;

   pid_ = fork();
   Require(pid_ != -1, "fork");
   if (pid_ == 0) {
      launcher.writer.reset();
      fcntl(listener.get(), F_SETFD, 0);
      fcntl(launcher.reader.get(), F_SETFD, 0);
      body(listener.get(), launcher.reader.get());
      _exit(126);
   }
   launcher_.reset(launcher.writer.release());
}

DaemonProcess::~DaemonProcess()
{
   if (pid_ != -1) {
      kill(pid_, SIGTERM);
      ExitStatus();
   }
}

void DaemonProcess::DropLauncher()
{
   launcher_.reset();
}

int DaemonProcess::ExitStatus()
{
   int status = -1;
   Require(waitpid(pid_, &status, 0) == pid_, "waitpid");
   pid_ = -1;
   return ExitStatusOf(status);
}

pid_t DaemonProcess::Release()
{
   return std::exchange(pid_, -1);
}

/* A process that is not in a call shows no number. */
void DaemonProcess::AwaitCall(const std::vector<long> &calls) const
{
   const std::string path = "/proc/" + std::to_string(pid_) + "/syscall";
   for (;;) {
      const std::string state = ReadFile(path);
      const long call = isdigit(static_cast<unsigned char>(state[0])) != 0 ? atol(state.c_str()) : -1;
      if (std::find(calls.begin(), calls.end(), call) != calls.end()) {
         return;
      }
      usleep(1000);
   }
}

void DaemonProcess::WhileStopped(const std::function<void()> &work) const
{
   int status;
   kill(pid_, SIGSTOP);
   Require(waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status), "stop");
   work();
   kill(pid_, SIGCONT);
}

/* While it greets, the daemon does nothing else. The first of two greetings may overtake an older event, the second
   may not: the queue has put the listening socket behind that event by then. */
size_t DaemonProcess::OpenDescriptors() const
{
   Connection(*this).Read();
   Connection serving(*this);
   serving.Read();
   std::error_code none;
   const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid_) + "/fd", none);
   return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

pid_t DaemonProcess::Pid() const
{
   return pid_;
}

const std::string &DaemonProcess::SocketPath() const
{
   return socketPath_;
}

DaemonProcess::Body DaemonImage(std::string program, std::vector<std::string> arguments)
{
   return [program, arguments](int listener, int launcher) mutable {
      std::vector<char *> argv = {program.data()};
      for (std::string &argument : arguments) {
         argument = argument.empty()  ? std::to_string(listener)
                    : argument == "-" ? std::to_string(launcher)
                                      : argument;
         argv.push_back(argument.data());
      }
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
   };
}

std::string OpenTerminal(OwnedDescriptor *ours)
{
   ours->reset(posix_openpt(O_RDWR | O_NOCTTY));
   const bool usable = ours->get() != -1 && grantpt(ours->get()) == 0 && unlockpt(ours->get()) == 0;
   fcntl(ours->get(), F_SETFD, FD_CLOEXEC);
   return usable ? ptsname(ours->get()) : "";
}

bool SendMessage(int socket, const std::string &text, const std::vector<int> &descriptors)
{
   const size_t bytes = descriptors.size() * sizeof(int);
   std::vector<char> control(CMSG_SPACE(bytes));
   std::string data = text;
   struct iovec part = {.iov_base = data.data(), .iov_len = data.size()};
   struct msghdr message = {};

   message.msg_iov = &part;
   message.msg_iovlen = 1;
   if (!descriptors.empty()) {
      message.msg_control = control.data();
      message.msg_controllen = static_cast<decltype(message.msg_controllen)>(control.size());
      struct cmsghdr *record = CMSG_FIRSTHDR(&message);
      record->cmsg_level = SOL_SOCKET;
      record->cmsg_type = SCM_RIGHTS;
      record->cmsg_len = static_cast<decltype(record->cmsg_len)>(CMSG_LEN(bytes));
      memcpy(CMSG_DATA(record), descriptors.data(), bytes);
   }
   return sendmsg(socket, &message, 0) == static_cast<ssize_t>(text.size());
}

Connection::Connection(const DaemonProcess &daemon) : socket_(CloseOnExec(socket(AF_UNIX, SOCK_STREAM, 0)))
{
   const struct sockaddr_un address = SocketAddress(daemon.SocketPath());
   Require(connect(socket_.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0,
           "connect");
}

std::optional<uint8_t> Connection::Read()
{
   uint8_t byte;
   return read(socket_.get(), &byte, 1) == 1 ? std::optional(byte) : std::nullopt;
}

bool Connection::Send(const std::string &text, const std::vector<int> &descriptors)
{
   return SendMessage(socket_.get(), text, descriptors);
}

std::optional<char> Connection::HandOver(int descriptor, char data)
{
   if (!Read() || !Send(std::string(1, data), {descriptor})) {
      return std::nullopt;
   }
   const std::optional<uint8_t> reply = Read();
   return reply ? std::optional(static_cast<char>(*reply)) : std::nullopt;
}

void Connection::ShutdownSending()
{
   shutdown(socket_.get(), SHUT_WR);
}

void Connection::Close()
{
   socket_.reset();
}

int Connection::Socket() const
{
   return socket_.get();
}

Client::Client(const DaemonProcess &daemon) : reply_(Connection(daemon).HandOver(held_.reader.get()))
{
   held_.reader.reset();
}

std::optional<char> Client::Reply() const
{
   return reply_;
}

void Client::LetGo()
{
   held_.writer.reset();
}
