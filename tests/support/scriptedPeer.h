#ifndef TESSEL_TESTS_SUPPORT_SCRIPTEDPEER_H
#define TESSEL_TESTS_SUPPORT_SCRIPTEDPEER_H

#include "lib/public/owned.h"
#include "platform/descriptorMessage.h"
#include "platform/localStream.h"
#include "tests/support/testSupport.h"

#include <csignal>
#include <functional>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

/* True once the descriptor is readable or at its end. */
inline bool Readable(int descriptor, int waitMs)
{
   struct pollfd wanted = {.fd = descriptor, .events = POLLIN, .revents = 0};
   return poll(&wanted, 1, waitMs) == 1;
}

inline bool AtEnd(int descriptor)
{
   char byte;
   return Readable(descriptor, 5000) && read(descriptor, &byte, 1) == 0;
}

/* The daemon's place in the conversation, taken by a test's script on a thread of its own. */
class Peer {
 public:
   using Script = std::function<void(Peer &)>;

   /* Without a script nobody accepts. */
   explicit Peer(const Script &script = nullptr, int backlog = 1) : listener_(LocalStream_Socket())
   {
      struct sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      Path().copy(address.sun_path, sizeof address.sun_path - 1);
      EXPECT_EQ(bind(listener_.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
      EXPECT_EQ(listen(listener_.get(), backlog), 0);
      if (script != nullptr) {
         thread_ = std::thread([this, script] { Run(script); });
      }
   }

   ~Peer()
   {
      Join();
   }

   Peer(const Peer &) = delete;
   Peer &operator=(const Peer &) = delete;

   void Join()
   {
      if (thread_.joinable()) {
         thread_.join();
      }
   }

   void StopListening()
   {
      listener_.reset();
   }

   void AwaitConnection()
   {
      EXPECT_TRUE(Readable(listener_.get(), 5000));
   }

   void Accept()
   {
      connection_.reset(accept(listener_.get(), nullptr, nullptr));
   }

   void Write(char byte)
   {
      EXPECT_EQ(write(connection_.get(), &byte, 1), 1);
   }

   void Receive()
   {
      uint8_t byte;
      int descriptor = -1;
      EXPECT_EQ(DescriptorMessage_Receive(connection_.get(), &byte, &descriptor),
                DescriptorMessageResult::Received);
      received_.reset(descriptor);
   }

   void Close()
   {
      connection_.reset();
   }

   /* Until the client hangs up. */
   void Wait()
   {
      char byte;
      while (read(connection_.get(), &byte, 1) == 1) {
      }
   }

   [[nodiscard]] int Received() const
   {
      return received_.get();
   }

   [[nodiscard]] std::string Path() const
   {
      return folder_.Path("socket");
   }

 private:
   /* No signal ends the test from here, SIGPIPE included. */
   void Run(const Script &script)
   {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      script(*this);
      Close();
   }

   ScratchFolder folder_;
   OwnedDescriptor listener_;
   OwnedDescriptor connection_;
   OwnedDescriptor received_;
   std::thread thread_;
};

/* A daemon that answers everybody the same. */
inline Peer::Script Daemon(char greeting, char reply)
{
   return [=](Peer &peer) {
      peer.Accept();
      peer.Write(greeting);
      peer.Receive();
      peer.Write(reply);
   };
}

#endif
