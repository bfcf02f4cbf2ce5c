// What every benchmark process needs before it touches the library: a private namespace (the
// library creates semaphores and the activate flag in /dev/shm) and a system log reader.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// Ends the process with a message unless it runs in a mount namespace of its own, as under
// tests/ns-run, where /dev/shm, /dev and /tmp are private.
void require_private_namespace();

// Binds /dev/log in a child process that reads and discards every message, as the device's
// syslogd does, so the library's log lines cost what they cost there: one datagram each.
void start_syslog_sink();

// Nanoseconds of the monotonic clock.
int64_t now_ns();

// The two steps above: call first thing in main(), before the library is loaded.
void prepare();

// Runs the benchmarks selected on the command line.
int run(int argc, char **argv);

} // namespace bench
