#ifndef TESSEL_CLIENT_TESSELCLIENT_H
#define TESSEL_CLIENT_TESSELCLIENT_H

#include <stddef.h>

/* The client's side of tessel-daemon, for C and C++. A client registers by handing the daemon a descriptor that
   becomes readable, or reaches its end, when the client lets go or exits; until then the services stay up.

   All routines may be called from several threads at once. They keep no state of their own, change no
   signal's disposition, raise no SIGPIPE and go on after EINTR. What they open is closed on exec. */

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-use-using): C knows no other way. */
typedef enum TesselOutcome {
   TESSEL_REGISTERED,    /* The services are up. */
   TESSEL_REFUSED,       /* The daemon could not start the services, or cannot watch the descriptor. */
   TESSEL_NO_SOCKET,     /* Nothing is at the socket's path. */
   TESSEL_NOT_LISTENING, /* Something is at the path, but no daemon listens there. */
   TESSEL_NO_PERMISSION, /* The socket, or a folder on the way to it, is closed to this user. */
   TESSEL_PATH_TOO_LONG, /* The path does not fit into a socket address (107 bytes on Linux, 103 on macOS). */
   TESSEL_DAEMON_GONE,   /* The daemon hung up, or ended, before it answered. */
   TESSEL_UNEXPECTED_REPLY, /* It answered something else than yes or no: it is another program. */
   TESSEL_TIMED_OUT,        /* The caller's limit passed first. */
   TESSEL_SYSTEM_ERROR      /* A system call failed in another way: see systemError. */
} TesselOutcome;

typedef struct TesselResult {
   TesselOutcome outcome;
   int systemError; /* The errno of the call that failed, 0 if none did. */
} TesselResult;
/* NOLINTEND(modernize-use-using) */

enum {
   TESSEL_NO_LIMIT = 0,   /* For maxWaitMs: wait for as long as it takes. */
   TESSEL_TEXT_SIZE = 256 /* Room for any text of TesselClient_Describe. */
};

/* Registers with the daemon that listens on the socket at socketPath. The first client waits until the services
   have been started, however long that takes; maxWaitMs above 0 ends the wait after so many milliseconds.

   With TESSEL_REGISTERED *hold is a descriptor that is the caller's until TesselClient_LetGo. The client
   counts as gone once every copy of it is closed: by TesselClient_LetGo, or by the end of the process, but
   not while a child forked without exec still has it. With every other outcome *hold is -1 and nothing is
   registered: if the daemon gets to a request that was given up, it sees at once that the client has gone. */
TesselResult TesselClient_Register(const char *socketPath, int maxWaitMs, int *hold);

/* Whether the daemon still has what TesselClient_Register gave it: 1, or 0 once it has ended, however it did, which is the
   only way for it to let go first. Does not wait. To wait, poll(2) the hold for no events at all: it comes
   back with an error condition (POLLERR or POLLHUP) when the daemon ends. Keeps errno. */
int TesselClient_IsHeld(int hold);

/* TesselClient_Register with a descriptor of the caller's choice, such as the reading end of a pipe; it stays the caller's and
   may be closed afterwards. The daemon never reads from it; the first byte in it counts as letting go. With
   an outcome other than TESSEL_REGISTERED or TESSEL_REFUSED the daemon may all the same have taken the
   descriptor, or may still do so: make it readable then, too. */
TesselResult TesselClient_RegisterDescriptor(const char *socketPath, int maxWaitMs, int descriptor);

/* Ends a registration. *hold becomes -1; a *hold of -1 is left alone. Does not wait for the daemon. Keeps errno. */
void TesselClient_LetGo(int *hold);

/* Writes what happened as one English phrase without a line end, with the system's own text where a call failed:
   "no daemon listens on the socket (Connection refused)". Cut to size bytes, NUL included; size may be 0. */
void TesselClient_Describe(const TesselResult *result, char *text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
