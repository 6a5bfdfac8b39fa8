#pragma once

// Runs work in a forked child process and measures it as a whole: its wall time and its peak
// resident memory (the child's own, from wait4, with that of any process it waited for). The
// child starts with some of the parent's resident pages (startMiB), so fork before allocating
// much.

#include <chrono>
#include <functional>
#include <string>

struct ChildRun {
    bool ok = false;     ///< it exited with 0
    double seconds = 0;  ///< from the fork to its end
    double peakMiB = 0;  ///< peak resident memory
    double startMiB = 0; ///< the child's resident memory before its work
};

/// Runs `work` in a child, which then ends with _exit (no destructor of the parent's statics
/// runs there); an exception from `work` is printed to standard error and fails the run, and so
/// does running longer than `limit` (the child is killed then).
ChildRun runInChild(std::function<void()> const& work, std::chrono::seconds limit);

/// Runs `command` with /bin/sh -c in a child.
ChildRun runCommand(std::string const& command, std::chrono::seconds limit);
