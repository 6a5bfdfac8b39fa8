#include "ChildRun.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

namespace {

double residentMiB() {
    long pages = 0, resident = 0;
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(statm);
    }
    return double(resident) * double(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

} // namespace

ChildRun runInChild(std::function<void()> const& work, std::chrono::seconds limit) {
    int told[2]; // the child's resident memory before its work, from the child
    if (pipe2(told, O_CLOEXEC) != 0)
        return {};
    std::fflush(nullptr); // else the child would write the parent's buffered output again
    auto const start = std::chrono::steady_clock::now();
    pid_t const pid = fork();
    if (pid < 0) {
        close(told[0]);
        close(told[1]);
        return {};
    }
    if (pid == 0) {
        double const startMiB = residentMiB();
        (void)!write(told[1], &startMiB, sizeof startMiB);
        try {
            work();
            _exit(0);
        } catch (std::exception const& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "child: unknown exception\n");
        }
        _exit(1);
    }
    // A watchdog kills a child that outlives the limit.
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!ended.wait_for(lock, limit, [&] { return done; })) {
            std::fprintf(stderr, "child: killed after %lld s\n", static_cast<long long>(limit.count()));
            kill(pid, SIGKILL);
        }
    });
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    ended.notify_one();
    watchdog.join();
    ChildRun run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    run.peakMiB = double(usage.ru_maxrss) / 1024; // KiB on Linux
    close(told[1]);
    if (read(told[0], &run.startMiB, sizeof run.startMiB) != sizeof run.startMiB)
        run.startMiB = 0;
    close(told[0]);
    return run;
}

ChildRun runCommand(std::string const& command, std::chrono::seconds limit) {
    return runInChild(
        [&command] {
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        },
        limit);
}
