#ifndef TESSEL_TESTS_SUPPORT_SCRIPTEDPEER_H
#define TESSEL_TESTS_SUPPORT_SCRIPTEDPEER_H

#include "platform/descriptorMessage.h"
#include "tests/support/daemonHarness.h"

#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

/* Takes the daemon's place in the conversation, one step a letter:

      a   accept a client, and hang up on the one before
      c   wait for a client without accepting it
      r   receive a descriptor
      e   read from the descriptor to its end
      g   send a greeting
      n   have room for a single client in the queue
      s   sleep for a while
      m   wait for AwaitMark
      w   wait for ever

   Any other letter is sent as it is. The status at the end of the script is 0; a step that fails ends the
   process with its letter, and one that takes very long by a signal. */
class ScriptedPeer : public DaemonProcess {
 public:
   explicit ScriptedPeer(const std::string &script)
       : DaemonProcess([&script](int listener, int launcher) {
            alarm(60);
            signal(SIGPIPE, SIG_IGN);
            Stage stage{listener, launcher, OwnedDescriptor(), OwnedDescriptor()};
            for (const char step : script) {
               if (!stage.Take(step)) {
                  _exit(step);
               }
            }
            _exit(0);
         })
   {
   }

   void AwaitMark() const
   {
      int status = 0;
      EXPECT_EQ(waitpid(Pid(), &status, WUNTRACED), Pid());
      EXPECT_EQ(kill(Pid(), SIGCONT), 0);
   }

 private:
   struct Stage {
      bool Take(char step)
      {
         struct pollfd client = {.fd = listener, .events = POLLIN, .revents = 0};
         switch (step) {
         case 'a':
            connection.reset();
            connection.reset(accept(listener, nullptr, nullptr));
            return connection.get() != -1;
         case 'c':
            return poll(&client, 1, -1) == 1;
         case 'r':
            return Receive();
         case 'e':
            return ReadToEnd(received.get());
         case 'n':
            return listen(listener, 0) == 0;
         case 'm':
            return raise(SIGSTOP) == 0;
         case 's':
            return usleep(30000) == 0;
         case 'w':
            return ReadToEnd(launcher);
         default:
            step = step == 'g' ? '\0' : step;
            return write(connection.get(), &step, 1) == 1;
         }
      }

      bool Receive()
      {
         uint8_t byte;
         int descriptor = -1;
         const auto result = DescriptorMessage_Receive(connection.get(), &byte, &descriptor);
         received.reset(descriptor);
         return result == DescriptorMessageResult::Received;
      }

      static bool ReadToEnd(int descriptor)
      {
         char byte;
         ssize_t length = 1;
         while (length == 1) {
            length = read(descriptor, &byte, 1);
         }
         return length == 0;
      }

      int listener;
      int launcher;
      OwnedDescriptor connection;
      OwnedDescriptor received;
   };
};

#endif
