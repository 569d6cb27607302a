// The garbage-collection sweep, run before every request and for CLEANUP.
//
// The daemon never waits for its children. Between requests the sweep reaps,
// without blocking, the agents, the default login program and the users'
// login programs that have ended, drops what belonged to them, logs out
// users whose login failed, who logged off, whose login program ended or
// who were idle longer than the login time-out, and sends SIGTERM to agents
// that outlived the transaction time-out (again on every sweep until they
// end).
//
// A sweep costs what changed, not what the tables hold: the children that
// ended are learned from one non-blocking wait for any child (one call per
// ended child, and one that finds none), made only when SIGCHLD, which the
// first sweep blocks for good, is pending; they are handed to their owner through
// the tables' pid indexes; only the transactions that wait for a buffer are
// looked at for expiry, only the oldest agents for the time-out, and only
// the users longest idle for the login time-out.
#pragma once

// One sweep. `why` is 0 before a request and 1 for CLEANUP; both sweeps do
// the same work.
void quor_garbage_collect(int why);
