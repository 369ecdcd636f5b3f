/* The order of the tickets in the file locks' protocol, for more processes than the whole of it (fileLock.pml) can be
   explored with: a number is held as fileLockNumber.pml shows that it is, by one process at a time, so that taking it and
   making En is one step, and so is each look at a name whose process can be told for ended. docs/locks.md argues why
   that leaves nothing out.

   PROCESSES, NUMBERS, ROUNDS, CRASHES, MIXED, IMPATIENT, MACHINES, BROKEN_...   see fileLock.pml */

#ifndef MACHINES
#define MACHINES 1
#endif

#define BIT(p) (1 << (p))
#define ALL ((1 << NUMBERS) - 1)
#define ENDED(p, q) (dead[q] && (MACHINES == 1 || (((p) == 0) == ((q) == 0))))

byte writing[NUMBERS];
byte member[NUMBERS];
byte ticket[PROCESSES];
bool exclusive[PROCESSES];
bool dead[PROCESSES];
bool inside[PROCESSES];
byte crashes;
byte done;
byte begun;

#define CONFLICT(q) (exclusive[self] || exclusive[q])
#define FIRST(q, k) (ticket[q] < ticket[self] || (ticket[q] == ticket[self] && (k) < number))

/* The owner of Ek, if there is one, needs no waiting for; nor does that of Mk. */
#define CHOSEN(k) (writing[k] == 0 || ENDED(self, writing[k] - 1) || !CONFLICT(writing[k] - 1))
#define BEHIND(k) \
   (member[k] == 0 || ENDED(self, member[k] - 1) || !CONFLICT(member[k] - 1) || !FIRST(member[k] - 1, k))

#define COUNTS(k) (member[k] != 0 && !ENDED(self, member[k] - 1) && ticket[member[k] - 1] > highest)

#ifdef BROKEN_NEAREST
/* Waits only for the last of those who are before it, as in a queue. */
#define NEARER(j, k) \
   ((j) != (k) && !BEHIND(j) && \
    (ticket[member[j] - 1] > ticket[member[k] - 1] || \
     (ticket[member[j] - 1] == ticket[member[k] - 1] && (j) > (k))))
#define PASSES(k) (BEHIND(k) || NEARER(0, k) || NEARER(1, k) || NEARER(2, k))
#else
#define PASSES(k) BEHIND(k)
#endif

inline draw(k)
{
   number = k;
   writing[k] = self + 1;
   todo = ALL & ~BIT(k)
}

inline look(k)
{
   if
   :: COUNTS(k) -> highest = ticket[member[k] - 1]
   :: else
   fi;
   todo = todo & ~BIT(k)
}

inline leave()
{
   assert(member[number] == self + 1);
   inside[self] = false;
   member[number] = 0;
   ticket[self] = 0;
   exclusive[self] = false;
   number = 0;
   todo = 0
}

#define FREE(k) (writing[k] == 0 && member[k] == 0)

/* Processes of one machine are alike, so that they may be called by the order in which they begin. */
#define BEFORE (MACHINES - 1)
#define TURN (self < BEFORE || begun >= self - BEFORE)

inline round()
{
   atomic {
      TURN ->
      if
      :: FREE(0) -> draw(0)
      :: FREE(1) -> draw(1)
#if NUMBERS > 2
      :: FREE(2) -> draw(2)
#endif
#if NUMBERS > 3
      :: FREE(3) -> draw(3)
#endif
      fi;
#ifdef MIXED
      if
      :: exclusive[self] = true
      :: exclusive[self] = false
      fi;
#else
      exclusive[self] = true;
#endif
      if
      :: self >= BEFORE && begun == self - BEFORE -> begun++
      :: else
      fi
   }
   /* A ticket. */
   do
   :: atomic { (todo & 1) -> look(0) }
   :: atomic { (todo & 2) -> look(1) }
#if NUMBERS > 2
   :: atomic { (todo & 4) -> look(2) }
#endif
#if NUMBERS > 3
   :: atomic { (todo & 8) -> look(3) }
#endif
   :: atomic {
         todo == 0 ->
         assert(writing[number] == self + 1 && member[number] == 0);
         ticket[self] = highest + 1;
         member[number] = self + 1;
         writing[number] = 0;
         highest = 0;
         todo = ALL & ~BIT(number)
      };
      break
   od;
   /* The choosers. */
   do
   :: atomic { (todo & 1) && CHOSEN(0) -> todo = todo & ~1 }
   :: atomic { (todo & 2) && CHOSEN(1) -> todo = todo & ~2 }
#if NUMBERS > 2
   :: atomic { (todo & 4) && CHOSEN(2) -> todo = todo & ~4 }
#endif
#if NUMBERS > 3
   :: atomic { (todo & 8) && CHOSEN(3) -> todo = todo & ~8 }
#endif
   :: atomic { todo == 0 -> todo = ALL & ~BIT(number) }; break
#ifdef BROKEN_NO_CHOOSERS
   :: atomic { todo = ALL & ~BIT(number) }; break
#endif
#ifdef IMPATIENT
   :: atomic { todo != 0 -> leave() }; goto over
#endif
   od;
   /* The tickets before the own one. */
   do
   :: atomic { (todo & 1) && PASSES(0) -> todo = todo & ~1 }
   :: atomic { (todo & 2) && PASSES(1) -> todo = todo & ~2 }
#if NUMBERS > 2
   :: atomic { (todo & 4) && PASSES(2) -> todo = todo & ~4 }
#endif
#if NUMBERS > 3
   :: atomic { (todo & 8) && PASSES(3) -> todo = todo & ~8 }
#endif
   :: atomic {
         todo == 0 ->
         inside[self] = true;
         todo = 0;
         do
         :: todo == PROCESSES -> break
         :: else ->
            assert(todo == self || !inside[todo] || dead[todo] || (!exclusive[self] && !exclusive[todo]));
            todo++
         od;
         todo = 0
      };
      break
#ifdef IMPATIENT
   :: atomic { todo != 0 -> leave() }; goto over
#endif
   od;
   atomic { leave() };
over:
   skip
}

proctype taker(byte self)
{
   byte number, todo, highest, rounds;

   {
      do
      :: atomic { rounds == ROUNDS -> break }
      :: atomic { rounds < ROUNDS -> rounds++ };
         round()
      od;
      atomic { done = done | BIT(self); rounds = 0 }
   } unless {
      atomic {
         dead[self] ->
         number = 0; todo = 0; highest = 0; rounds = 0;
         inside[self] = false
      }
   }
}

#define CAN_END(p) (!dead[p] && !(done & BIT(p)) && (p < BEFORE || begun > p - BEFORE))
#define LEFT(owner) ((owner) != 0 && dead[(owner) - 1] && !(MACHINES == 2 && (owner) == 1))

/* Ends processes that have begun, each at any step; and clears away, at any time, what those leave, but for the one that is
   alone on its machine. That there may be another end to come must not hide that all wait: the number is chosen
   beforehand, and this is no process to wait for. */
proctype world()
{
end_world:
   do
   :: atomic { crashes > 0 && CAN_END(0) -> crashes--; dead[0] = true }
   :: atomic { crashes > 0 && CAN_END(1) -> crashes--; dead[1] = true }
#if PROCESSES > 2
   :: atomic { crashes > 0 && CAN_END(2) -> crashes--; dead[2] = true }
#endif
#if PROCESSES > 3
   :: atomic { crashes > 0 && CAN_END(3) -> crashes--; dead[3] = true }
#endif
   :: atomic { LEFT(writing[0]) -> writing[0] = 0 }
   :: atomic { LEFT(member[0]) -> ticket[member[0] - 1] = 0; member[0] = 0 }
   :: atomic { LEFT(writing[1]) -> writing[1] = 0 }
   :: atomic { LEFT(member[1]) -> ticket[member[1] - 1] = 0; member[1] = 0 }
#if NUMBERS > 2
   :: atomic { LEFT(writing[2]) -> writing[2] = 0 }
   :: atomic { LEFT(member[2]) -> ticket[member[2] - 1] = 0; member[2] = 0 }
#endif
#if NUMBERS > 3
   :: atomic { LEFT(writing[3]) -> writing[3] = 0 }
   :: atomic { LEFT(member[3]) -> ticket[member[3] - 1] = 0; member[3] = 0 }
#endif
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
#if PROCESSES > 3
      run taker(3);
#endif
#if CRASHES > 0
      select(crashes : 0 .. CRASHES);
      run world()
#endif
   }
}
