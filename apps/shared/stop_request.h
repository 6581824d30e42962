// How a server program learns that it should end: an interrupt or termination signal, or the end of its
// standard input. The flag may be read from any thread; servers look at it between waits of at most
// kStopPollMicroseconds.
#pragma once

constexpr int kStopPollMicroseconds = 50000;

/// From now on SIGINT and SIGTERM request a stop instead of ending the process.
void StopOnSignals();

/// From now on the end of standard input requests a stop; lines that arrive are ignored.
void StopWhenInputEnds();

bool StopRequested();
