#ifndef TESSEL_DAEMON_SERVICEPROCESS_H
#define TESSEL_DAEMON_SERVICEPROCESS_H

/* Replaces what a starter chose and root's helper would inherit: the folder becomes "/", the file mode mask 022, no core
   is written, and the terminal's signals reach no child: by a session of its own, or, where the process leads
   a group of another one's session, by SIGINT, SIGQUIT and SIGTSTP being blocked. The environment, the other
   limits and what else the signal mask holds stay: clearing them is the helper's business. What fails is
   reported; the rest is done all the same. Not to be undone. */
void ServiceProcess_LeaveLauncher();

#endif
