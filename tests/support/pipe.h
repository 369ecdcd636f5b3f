#ifndef TESSEL_TESTS_SUPPORT_PIPE_H
#define TESSEL_TESTS_SUPPORT_PIPE_H

#include "lib/public/owned.h"
#include "platform/localStream.h"

#include <cstdlib>

/* Both ends of a pipe, closed on exec. */
struct Pipe {
   Pipe()
   {
      int ends[2];
      if (!LocalStream_Pipe(ends)) {
         abort();
      }
      reader.reset(ends[0]);
      writer.reset(ends[1]);
   }

   OwnedDescriptor reader;
   OwnedDescriptor writer;
};

#endif
