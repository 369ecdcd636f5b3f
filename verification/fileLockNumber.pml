/* The holding of one number in the file locks' protocol, for more processes than the whole of it (fileLock.pml) can be
   explored with. Each takes the number, gives it up or makes it a ticket, gives that back, and clears away what the dead
   have left under it: as often as it likes, whatever it may have seen elsewhere, and in any order that the protocol
   allows a process by what it has of this number. One may end at any step.

   PROCESSES, CRASHES, MACHINES, BROKEN_...   see fileLock.pml */

#define NUMBERS 1
#include "holding.inc"

byte crashes;

/* Who may make, rename and remove En and Mn, 0 for nobody. */
byte holder;

inline hold()
{
   assert(holder == 0 || dead[holder - 1]);
   holder = self + 1
}

inline take()
{
   atomic {
      got = !entry[0];
      entry[0] = true
   }
   if
   :: got ->
      claim(0, true, false);
      if
      :: !got -> removeEntry(0)
      :: got && member[0] != 0 -> withdraw(0)
      :: got && member[0] == 0 ->
         if
         :: atomic { writing[0] == 0 -> got = false; hold(); writing[0] = self + 1 };
            if
            :: atomic {
                  /* The rename. It must not miss the own file, nor hit another's ticket. */
                  assert(writing[0] == self + 1 && member[0] == 0 && holder == self + 1);
                  writing[0] = 0;
                  member[0] = self + 1
               }
            :: atomic { assert(writing[0] == self + 1 && holder == self + 1); writing[0] = 0 }
            fi;
            atomic { assert(holder == self + 1); holder = 0 };
            withdraw(0)
         :: writing[0] != 0 -> withdraw(0)
         fi
      fi
   :: else
   fi
}

proctype taker(byte self)
{
   byte q, rest, found;
   bool got, made;

   {
end_idle:
      do
      :: member[0] != self + 1 -> take()
      :: atomic { member[0] == self + 1 -> member[0] = 0 }
      :: reclaim(0)
      od
   } unless {
      atomic {
         dead[self] ->
         q = 0; rest = 0; found = 0; got = false; made = false;
         holder = (holder == self + 1 -> 0 : holder)
      }
   }
}

/* Ends processes, each at any step of its own. */
proctype crasher()
{
end_crasher:
   do
   :: atomic { crashes > 0 && !dead[0] -> crashes--; dead[0] = true }
   :: atomic { crashes > 0 && !dead[1] -> crashes--; dead[1] = true }
#if PROCESSES > 2
   :: atomic { crashes > 0 && !dead[2] -> crashes--; dead[2] = true }
#endif
   od
}

init
{
   atomic {
      there = true;
      run taker(0);
      run taker(1);
#if PROCESSES > 2
      run taker(2);
#endif
      crashes = CRASHES;
      run crasher()
   }
}
