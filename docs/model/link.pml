/*
 * The agent's link to its daemon: launcher, client, reconnect timer, operation queue, the connections with
 * their private threads, and a daemon that comes and goes. README.md tells how to read and run it.
 *
 * Each promise of the platform is a switch, 1 unless the compiler is told otherwise. Time is counted in units;
 * it advances only once no thread has anything to do (see Clock).
 */

/* The platform's promises. */
#ifndef ONE_LOSS         /* a connection reports one loss at most */
#define ONE_LOSS 1
#endif
#ifndef PACED            /* losses keep a distance from each other */
#define PACED 1
#endif
#ifndef QUIET_START      /* ... and the first one the same distance from the first `resume` */
#define QUIET_START 1
#endif
#ifndef CALL_DISTANCE    /* a loss keeps this many units from a delivered call */
#define CALL_DISTANCE (INTERVAL + 1)
#endif
#ifndef LOSS_AFTER_SEND  /* no loss is reported before something was sent */
#define LOSS_AFTER_SEND 1
#endif
#ifndef CALL_AFTER_SEND  /* no call is delivered before something was sent */
#define CALL_AFTER_SEND 1
#endif
#ifndef NO_LATE_CALL     /* no call is delivered after the loss was reported */
#define NO_LATE_CALL 1
#endif
#ifndef EARLY_SEND_SAFE  /* what is sent before `resume` is lost quietly */
#define EARLY_SEND_SAFE 1
#endif
#ifndef LOSS_NOTICED     /* a daemon that is gone is noticed, even if the bus does not say so */
#define LOSS_NOTICED 1
#endif
#ifndef ENDS_QUIET       /* the main run loop returns once delivery has stopped and private threads are done */
#define ENDS_QUIET 1
#endif
/* Not a promise but what all of them rest on: a thread that can run does so within a unit. */
#ifndef THREADS_TIMELY
#define THREADS_TIMELY 1
#endif

/* The world. */
#ifndef INTERVAL         /* the timer's, in units */
#define INTERVAL 3
#endif
#ifndef PACE             /* between two losses, in units */
#define PACE INTERVAL
#endif
#ifndef CHANGES          /* how often the daemon comes or goes */
#define CHANGES 3
#endif
#ifndef EVENTS           /* screen locks and the like */
#define EVENTS 1
#endif
#ifndef EXTRA_CALLS      /* calls that the daemon makes unasked */
#define EXTRA_CALLS 1
#endif
#ifndef PATIENCE         /* units that the daemon may take in all before it answers */
#define PATIENCE 2
#endif
#ifndef SPURIOUS         /* spurious wake-ups of the timer's wait */
#define SPURIOUS 1
#endif
#ifndef ENDS             /* 1: the process may be asked to end at any time; that it does is then what is checked */
#define ENDS 0
#endif
#ifndef VACUOUS          /* 1: checks that the agent is never linked, which must fail */
#define VACUOUS 0
#endif

#define NONE  2          /* no connection; 0 and 1 are the slots for connections */
#define SLOTS 3          /* with one that is never used, for NONE */

#define INTERRUPTION 0
#define INVALIDATION 1
#define handlerOf(connection, loss) handler[2 * (connection) + (loss)]

/* ---- The daemon and the wires to it ------------------------------------------------------------------ */

bool up;                 /* the daemon runs */
bool stays;              /* and will do so from now on */
byte changes = CHANGES;
byte extraCalls = EXTRA_CALLS;
byte patience = PATIENCE;
bool daemonAwake = true; /* has not yet gone to sleep until the next unit */
bool answerHeld;         /* keeps its answers until the next unit */

/* ---- Connections -------------------------------------------------------------------------------------- */

bool used[SLOTS];        /* created and not yet recycled */
bool resumed[SLOTS];
bool released[SLOTS];    /* the client let go of it */
bool sent[SLOTS];        /* something was sent on it */
bool known[SLOTS];       /* the daemon has had a call from it */
bool broken[SLOTS];      /* its daemon is gone, or it never had one */
bool noticed[SLOTS];     /* the connection knows */
bool lost[SLOTS];        /* the loss was reported */
bool lostTwice[SLOTS];
bool confirmed[SLOTS];   /* the daemon's answer was delivered */
bool handler[2 * SLOTS];  /* set, by handlerOf */
byte asked[SLOTS];       /* `connect` on the way to the daemon */
byte calls[SLOTS];       /* `connected:` on the way to the agent */
bool busy[SLOTS];        /* the private thread is at work */
byte sinceLoss = (QUIET_START -> 0 : PACE); /* units since a loss was reported, on any connection; PACE at most */
byte sinceCall = CALL_DISTANCE;

/* ---- The agent ---------------------------------------------------------------------------------------- */

byte current = NONE;     /* the client's m_xpcConnection */

mtype = { CONNECT, TEARDOWN };
chan queue = [5] of { mtype };
bool connectIsLast;      /* the newest operation on the queue is CONNECT */
bool queueBusy;

bool onConnected;        /* the launcher's handlers are subscribed */
bool onDisconnected;
bool armed;              /* the placeholder timer has been replaced */
bool replacing;
bool destroyed;          /* the launcher is gone */
bool ending;             /* the main run loop has been asked to return */
bool ended;
byte events = EVENTS;
bool mainAwake = true;

/* The timer's own state, by its names (BaseTimerImpl). */
bool m_active;
bool m_inTask;
bool m_task;             /* the future is valid */
bool taskEnded;          /* and ready */
bool launched;
bool inRun;
bool waiting;            /* the task is in its timed wait, and no notification has come */
byte waitLeft;
byte spurious = SPURIOUS;

/* ---- Client -------------------------------------------------------------------------------------------- */

/* Adding a CONNECT behind a CONNECT is left out: the second one would find the first one's connection. */
inline addOperation(operation) {
    atomic {
        if
        :: operation == CONNECT && connectIsLast
        :: else ->
            assert(nfull(queue));
            queue!operation;
            connectIsLast = (operation == CONNECT)
        fi
    }
}

/* The caller has read `current` into `connection` in a step of its own. */
inline sendOn(connection, isConnect) {
    atomic {
        if
        :: connection == NONE
        :: connection != NONE && !resumed[connection] -> assert(EARLY_SEND_SAFE || released[connection])
        :: connection != NONE && resumed[connection] && (lost[connection] || released[connection])
        :: connection != NONE && resumed[connection] && !lost[connection] && !released[connection] ->
            sent[connection] = true;
            if
            :: !up ->
                broken[connection] = true;
                noticed[connection] = true
            :: up && broken[connection] -> noticed[connection] = (noticed[connection] || LOSS_NOTICED)
            :: up && !broken[connection] ->
                if
                :: isConnect && asked[connection] < 2 -> asked[connection]++
                :: else
                fi
            fi
        fi
    }
}

inline timerStop() {
    assert(!replacing && !destroyed);
    if
    :: !m_active
    :: m_active ->
        m_active = false;
        waiting = false
    fi
}

inline timerRun() {
    /* On the placeholder, or two at once on the future, is undefined. */
    atomic { assert(armed && !destroyed && !inRun); inRun = true; m_active = true }
    if
    :: m_inTask
    :: !m_inTask ->
        if
        :: m_task -> taskEnded
        :: !m_task
        fi;
        atomic { m_task = true; taskEnded = false; launched = true }
    fi;
    inRun = false
}

/* ---- Timer task ---------------------------------------------------------------------------------------- */

active proctype Task() {
    byte connection;

endIdle:
    do
    :: launched ->
        launched = false;
        /* Has its lock from here on. */
        m_inTask = true;
        do
        :: !m_active -> break
        :: m_active ->
            /* Here a stop is missed: it wakes nobody. */
            atomic { waiting = true; waitLeft = INTERVAL }
            if
            :: !waiting
            :: waiting && waitLeft == 0
            :: waiting && waitLeft > 0 && spurious > 0 -> spurious--
            fi;
            atomic { waiting = false; waitLeft = 0 }
            if
            :: !m_active -> break
            :: m_active
            fi;
            assert(!destroyed);
            addOperation(CONNECT);
            connection = current;
            sendOn(connection, true);
            connection = NONE
        od;
        m_inTask = false;
        taskEnded = true
    od
}

/* ---- Operation queue ----------------------------------------------------------------------------------- */

active proctype Queue() {
    byte slot = NONE;

endIdle:
    do
    :: atomic {
        queue?[CONNECT] -> queue?CONNECT;
        queueBusy = true;
        connectIsLast = connectIsLast && nempty(queue)
       }
        if
        :: current != NONE
        :: current == NONE ->
            atomic {
                if
                :: !used[0] -> slot = 0
                :: used[0] && !used[1] -> slot = 1
                /* Both taken: a promise that is off keeps an old connection busy; wait for it. */
                :: used[0] && used[1] -> !used[0] || !used[1];
                    if
                    :: !used[0] -> slot = 0
                    :: else -> slot = 1
                    fi
                fi;
                used[slot] = true;
                current = slot
            }
            atomic { handlerOf(slot, INTERRUPTION) = true; handlerOf(slot, INVALIDATION) = true }
            atomic {
                resumed[slot] = true;
                if
                :: !LOSS_AFTER_SEND && !up -> broken[slot] = true; noticed[slot] = true
                :: else
                fi
            }
            slot = NONE
        fi;
        queueBusy = false
    :: atomic {
        queue?[TEARDOWN] -> queue?TEARDOWN;
        queueBusy = true;
        connectIsLast = connectIsLast && nempty(queue)
       }
        atomic {
            if
            :: current != NONE -> released[current] = true; current = NONE
            :: current == NONE
            fi
        }
        if
        :: onDisconnected ->
            addOperation(CONNECT);
            timerRun()
        :: !onDisconnected
        fi;
        queueBusy = false
    od
}

/* ---- A connection's private thread --------------------------------------------------------------------- */

#define delivering (!ended && !(ENDS_QUIET && ending))
#define callReady  (calls[id] > 0 && (sent[id] || !CALL_AFTER_SEND))
#define lossReady  (resumed[id] && broken[id] && (noticed[id] || LOSS_NOTICED) && (sent[id] || !LOSS_AFTER_SEND))
#define lossDue    ((!PACED || sinceLoss == PACE) && sinceCall == CALL_DISTANCE)

inline takeCall() {
    busy[id] = true;
    calls[id]--;
    sinceCall = 0;
    confirmed[id] = !broken[id]
}

inline deliverCall() {
    if
    :: onConnected -> timerStop()
    :: !onConnected
    fi;
    busy[id] = false
}

/* The client clears the handler of the connection that it holds then, whichever that is. */
inline onLoss(loss) {
    connection = current;
    atomic {
        if
        :: connection != NONE -> handlerOf(connection, loss) = false
        :: connection == NONE
        fi
    }
    addOperation(TEARDOWN);
    connection = NONE
}

proctype Connection(byte id) {
    byte connection = NONE;

endIdle:
    do
    :: atomic { used[id] && delivering && callReady && !released[id] && !lost[id] -> takeCall() }
        deliverCall()
    :: atomic { used[id] && delivering && lossReady && lossDue && !released[id] && !lost[id] ->
        busy[id] = true; lost[id] = true; sinceLoss = 0 }
        if
        :: handlerOf(id, INTERRUPTION) -> onLoss(INTERRUPTION)
        :: handlerOf(id, INVALIDATION) -> onLoss(INVALIDATION)
        :: !handlerOf(id, INTERRUPTION) && !handlerOf(id, INVALIDATION)
        fi;
        busy[id] = false
    /* What must not be. */
    :: atomic { used[id] && delivering && !NO_LATE_CALL && lost[id] && calls[id] > 0 -> takeCall() }
        deliverCall()
    :: atomic { used[id] && delivering && !ONE_LOSS && lost[id] && !lostTwice[id] &&
        handlerOf(id, INVALIDATION) ->
        busy[id] = true; lostTwice[id] = true }
        onLoss(INVALIDATION);
        busy[id] = false
    /* Forgotten. */
    :: d_step { used[id] && released[id] && (NO_LATE_CALL || calls[id] == 0) ->
        used[id] = false; resumed[id] = false; released[id] = false; sent[id] = false; known[id] = false;
        broken[id] = false; noticed[id] = false; lost[id] = false; lostTwice[id] = false;
        confirmed[id] = false; asked[id] = 0; calls[id] = 0;
        handlerOf(id, INTERRUPTION) = false; handlerOf(id, INVALIDATION) = false }
    od
}

/* ---- The daemon ---------------------------------------------------------------------------------------- */

inline breakLink(id) {
    if
    :: used[id] && resumed[id] && (sent[id] || !LOSS_AFTER_SEND) ->
        broken[id] = true;
        noticed[id] = LOSS_NOTICED;
        confirmed[id] = false;
        asked[id] = 0;
        known[id] = false
    :: else -> asked[id] = 0; known[id] = false
    fi
}

active proctype Daemon() {
endIdle:
    do
    :: atomic { up && !stays && changes > 1 && daemonAwake ->
        changes--; up = false; breakLink(0); breakLink(1) }
    :: atomic { !up && changes > 0 && daemonAwake -> changes--; up = true }
    :: atomic { up && !stays && daemonAwake -> stays = true; changes = 0 }
    :: atomic { !stays && daemonAwake -> daemonAwake = false }
    :: atomic { up && !answerHeld && asked[0] > 0 -> asked[0]--; known[0] = true; calls[0]++ }
    :: atomic { up && !answerHeld && asked[1] > 0 -> asked[1]--; known[1] = true; calls[1]++ }
    :: atomic { up && !answerHeld && patience > 0 && asked[0] + asked[1] > 0 ->
        answerHeld = true; patience-- }
    :: atomic { up && extraCalls > 0 && used[0] && (known[0] || (resumed[0] && !CALL_AFTER_SEND)) ->
        extraCalls--; calls[0]++ }
    :: atomic { up && extraCalls > 0 && used[1] && (known[1] || (resumed[1] && !CALL_AFTER_SEND)) ->
        extraCalls--; calls[1]++ }
    :: atomic { extraCalls > 0 -> extraCalls = 0 }
    od
}

/* ---- The main thread ----------------------------------------------------------------------------------- */

active proctype Main() {
    byte connection = NONE;

    /* The world as it is found, and the connections' threads, which are there before they are needed. */
    atomic {
        if
        :: up = true
        :: skip
        fi;
        run Connection(0);
        run Connection(1)
    }
    /* MonitorLauncher's constructor, then launch(). */
    addOperation(CONNECT);
    onConnected = true;
    onDisconnected = true;
    replacing = true;
    atomic { replacing = false; armed = true }
    timerRun();
endRunLoop:
    do
    :: atomic { events > 0 && mainAwake -> events-- }
        connection = current;
        sendOn(connection, false);
        connection = NONE
    :: atomic { events > 0 && mainAwake -> mainAwake = false }
    :: ENDS -> break
    od;
    /* The run loop returns. */
    ending = true;
    if
    :: ENDS_QUIET ->
        /* Each thread finishes what it is in. */
        !busy[0] && !busy[1] && empty(queue) && !queueBusy
    :: !ENDS_QUIET
    fi;
    /* ~MonitorLauncher, ~BaseTimer */
    timerStop();
    if
    :: m_task -> taskEnded
    :: !m_task
    fi;
    destroyed = true
endDestroyed:
    ended = ENDS_QUIET
}

/* ---- Time ---------------------------------------------------------------------------------------------- */

#define lossWaits(id) (used[id] && !released[id] && !lost[id] && broken[id])
#define timeMatters   (waitLeft > 0 || !stays || answerHeld || lossWaits(0) || lossWaits(1))

/* `timeout` holds when no other process can do anything: so a unit is longer than whatever threads have to do
   at once, and shorter than what they are told to wait. */
active proctype Clock() {
endStill:
    do
    :: atomic { (timeout || (!THREADS_TIMELY && waitLeft > 0)) && timeMatters ->
        if
        :: waitLeft > 0 -> waitLeft--
        :: else
        fi;
        if
        :: sinceLoss < PACE -> sinceLoss++
        :: else
        fi;
        if
        :: sinceCall < CALL_DISTANCE -> sinceCall++
        :: else
        fi;
        daemonAwake = !stays;
        mainAwake = (events > 0);
        answerHeld = false }
    od
}

/* ---- What must hold ------------------------------------------------------------------------------------ */

#define linked (current != NONE && resumed[current] && confirmed[current] && !broken[current] && !m_active)

#if VACUOUS
/* Must fail: otherwise the model shows nothing. */
ltl neverLinked { [] !linked }
#elif ENDS
/* Whatever the link is in, the process ends. */
ltl ends { [] (ending -> <> destroyed) }
#else
/* Once the daemon stays, there is a time from which on the agent is linked and its timer rests. */
ltl relinked { [] (stays -> <> [] linked) }
#endif
