/* The file locking protocol of lib/file/lock/, one call on the file system a step. docs/locks.md says what is
   shown with it; verification/run has the sizes and runs it.

   PROCESSES, NUMBERS   how many processes take the lock, and how many numbers they draw from
   ROUNDS               how often each takes it
   CRASHES              how many processes may end, each at any step; at most PROCESSES - 1
   MIXED                shared and exclusive, as each likes; otherwise all exclusive
   IMPATIENT            whoever waits may give up
   MACHINES             2: the first process is on another machine than the rest, so that nobody can tell that it has ended
   LUCKY                a number is drawn that is free at that moment, if there is one: for progress only

   What ends in BROKEN_ breaks the protocol, and the run has to find out. */

#include "holding.inc"

/* A member file does not change, and no process has two, so that ticket and kind are kept by process. */
byte ticket[PROCESSES];
bool exclusive[PROCESSES];

bool inside[PROCESSES];
byte crashes;
byte done;

#define FREE(k) (!entry[k] && member[k] == 0 && writing[k] == 0)
#if NUMBERS == 1
#define EMPTY (FREE(0))
#define SOME_FREE (FREE(0))
#elif NUMBERS == 2
#define EMPTY (FREE(0) && FREE(1))
#define SOME_FREE (FREE(0) || FREE(1))
#else
#define EMPTY (FREE(0) && FREE(1) && FREE(2))
#define SOME_FREE (FREE(0) || FREE(1) || FREE(2))
#endif
#ifdef LUCKY
#define OPEN(k) (FREE(k) || !SOME_FREE)
#else
#define OPEN(k) true
#endif

inline draw()
{
   if
   :: OPEN(0) -> number = 0
#if NUMBERS > 1
   :: OPEN(1) -> number = 1
#endif
#if NUMBERS > 2
   :: OPEN(2) -> number = 2
#endif
   fi
}

/* The next name of a list, in any order. */
inline pick()
{
   if
   :: (todo & 1) -> k = 0
#if NUMBERS > 1
   :: (todo & 2) -> k = 1
#endif
#if NUMBERS > 2
   :: (todo & 4) -> k = 2
#endif
   fi;
   todo = todo & ~BIT(k)
}

#define FIRST(q, k) (ticket[q] < ticket[self] || (ticket[q] == ticket[self] && (k) < number))
#define PRECEDES(k) \
   (member[k] != 0 && FIRST(member[k] - 1, k) && (exclusive[self] || exclusive[member[k] - 1]))

/* Whether someone who is not known to have ended has a marker. */
#define MARKED(k, q) ((markers[k] & BIT(q)) && !ENDED(self, q) && q != self)
#if PROCESSES > 2
#define SOMEONE(k) (MARKED(k, 0) || MARKED(k, 1) || MARKED(k, 2))
#else
#define SOMEONE(k) (MARKED(k, 0) || MARKED(k, 1))
#endif

inline waitForChooser()
{
   do
   :: atomic { writing[k] == 0 -> break }
   :: atomic { writing[k] != 0 -> skip };
      survey(k);
      if
      :: found == OVER -> reclaim(k); break
      :: atomic { found == ALIVE && !exclusive[self] -> found = NOBODY; break }
      :: atomic { (found == ALIVE && exclusive[self]) || found == ALIVE_ALL -> found = NOBODY };
         if
         :: writing[k] == 0 || !SOMEONE(k)
#ifdef IMPATIENT
         :: gaveUp = true; break
#endif
         fi
      :: found == NOBODY
      fi
   od
}

inline waitForMember()
{
   do
   :: atomic { !PRECEDES(k) -> break }
#ifndef BROKEN_DEAD
   :: atomic { PRECEDES(k) && ENDED(self, member[k] - 1) -> skip }; reclaim(k); break
#endif
   :: atomic { PRECEDES(k) && !ENDED(self, member[k] - 1) -> skip };
      if
#ifdef BROKEN_STAT
      /* Waits for the name, whoever it belongs to by now. */
      :: member[k] == 0 -> break
      :: member[k] != 0 && ENDED(self, member[k] - 1)
#else
      :: !PRECEDES(k) || ENDED(self, member[k] - 1)
#endif
#ifdef IMPATIENT
      :: gaveUp = true; break
#endif
      fi
   od
}

/* Ticket and wait. What ends a round is the removal of the member file, and of the lock directory if that is empty. */
inline round()
{
   /* A number. */
   do
   :: there = true;
      atomic {
         draw();
         got = there && !entry[number];
         entry[number] = entry[number] || there
      }
      if
      :: !got -> skip
      :: else ->
         claim(number, exclusive[self], false);
         if
         :: !got -> removeEntry(number)
         :: got && member[number] != 0 -> withdraw(number)
         :: got && member[number] == 0 ->
            if
            :: atomic { writing[number] == 0 -> writing[number] = self + 1 }; break
            :: else -> withdraw(number)
            fi
         fi
      fi
   od;
   /* A ticket. */
   atomic { got = false; highest = 0; todo = ALL };
   do
   :: todo == 0 -> break
   :: else ->
      atomic {
         pick();
         if
         :: member[k] != 0 && !ENDED(self, member[k] - 1) && ticket[member[k] - 1] > highest ->
            highest = ticket[member[k] - 1]
         :: else
         fi;
         found = (member[k] != 0 && ENDED(self, member[k] - 1) -> OVER : NOBODY)
      }
      if
      :: found == OVER -> reclaim(k)
      :: else
      fi
   od;
   atomic {
      /* The rename. It must not miss the own file, nor hit another's ticket. */
      assert(writing[number] == self + 1 && member[number] == 0);
      ticket[self] = highest + 1;
      member[number] = self + 1;
      writing[number] = 0;
      k = 0; found = NOBODY; highest = 0
   }
   withdraw(number);
   /* The choosers. */
#ifndef BROKEN_NO_CHOOSERS
   todo = ALL;
   do
   :: todo == 0 || gaveUp -> break
   :: else ->
      atomic { pick() };
#ifdef BROKEN_ONE_LIST
      /* The names come in any order: here that of the ticket before that of the choice. */
      if
      :: k != number -> waitForMember()
      :: else
      fi;
#endif
      if
      :: writing[k] != 0 -> waitForChooser()
      :: writing[k] == 0 && entry[k] ->
         survey(k);
         if
         :: found == OVER -> reclaim(k)
         :: found == NOBODY -> reclaim(k)
         /* Not yet old enough. */
         :: found == NOBODY
         :: atomic { found >= ALIVE -> found = NOBODY }
         fi
      :: writing[k] == 0 && !entry[k]
      fi
   od;
#endif
   /* The tickets before the own one. */
#ifndef BROKEN_ONE_LIST
   atomic { todo = ALL & ~BIT(number); k = 0; found = NOBODY };
   do
   :: todo == 0 || gaveUp -> break
   :: else ->
      atomic { pick() };
      waitForMember()
   od;
#endif
   if
   :: !gaveUp ->
      atomic {
         inside[self] = true;
         rest = OTHERS;
         do
         :: rest == 0 -> break
         :: else ->
            q = (rest & 1 -> 0 : (rest & 2 -> 1 : 2));
            rest = rest & ~BIT(q);
            /* Nobody else is inside who must not be. */
            assert(!inside[q] || dead[q] || (!exclusive[self] && !exclusive[q]))
         od;
         q = 0
      }
      atomic { inside[self] = false }
   :: else
   fi;
   atomic {
      assert(member[number] == self + 1);
      member[number] = 0;
      ticket[self] = 0;
      gaveUp = false; k = 0; todo = 0; found = NOBODY; number = 0
   }
   atomic {
      if
      :: EMPTY -> there = false
      :: else
      fi
   }
}

proctype taker(byte self)
{
   byte number, k, q, todo, rest, highest, found, rounds;
   bool got, made, gaveUp;

   {
      do
      :: rounds == ROUNDS -> break
      :: else ->
         rounds++;
#ifdef MIXED
         if
         :: exclusive[self] = true
         :: exclusive[self] = false
         fi;
#else
         exclusive[self] = true;
#endif
         round()
progress_round:
         skip
      od;
      done = done | BIT(self)
   } unless {
      atomic {
         dead[self] ->
         /* Alike, however it came to this. */
         number = 0; k = 0; q = 0; todo = 0; rest = 0; highest = 0; found = 0; rounds = 0;
         got = false; made = false; gaveUp = false; inside[self] = false
      }
   }
}

/* Ends processes, each at any step of its own. How many is chosen beforehand: an end that might still come would hide a
   deadlock. */
proctype crasher()
{
   do
   :: crashes == 0 -> break
   :: atomic {
         crashes > 0 ->
         crashes--;
         if
         :: !dead[0] && !(done & 1) -> dead[0] = true
         :: !dead[1] && !(done & 2) -> dead[1] = true
#if PROCESSES > 2
         :: !dead[2] && !(done & 4) -> dead[2] = true
#endif
         :: else
         fi
      }
   od
}

init
{
   atomic {
      run taker(0);
      run taker(1);
#if PROCESSES > 2
      run taker(2);
#endif
#if CRASHES > 0
      select(crashes : 0 .. CRASHES);
      run crasher()
#endif
   }
}
