#ifndef TESSEL_DAEMON_SERVICEPRIVILEGE_H
#define TESSEL_DAEMON_SERVICEPRIVILEGE_H

/* The effective user of the process, switched between the real user, under whom nearly everything runs, and the
   user that the program was started with, who may write the log, run the helper, reach the kernel controls
   and delete the service copy.

   The program lowers first thing in main. From then on every raise is followed by one lower: there is no
   count, and a lower while already lowered would forget the privileged user for good. PrivilegeBracket keeps
   the pairs. */

/* Remembers the effective user and makes the real user effective. A failure is reported, not returned. Keeps
   errno. */
void ServiceImpl_PrivLower();

/* Makes the remembered user effective again. A failure is reported, not returned. Keeps errno. */
void ServiceImpl_PrivRaise();

/* Raised from here to the end of the scope. */
class PrivilegeBracket {
 public:
   PrivilegeBracket()
   {
      ServiceImpl_PrivRaise();
   }

   ~PrivilegeBracket()
   {
      ServiceImpl_PrivLower();
   }

   PrivilegeBracket(const PrivilegeBracket &) = delete;
   PrivilegeBracket &operator=(const PrivilegeBracket &) = delete;
};

#endif
