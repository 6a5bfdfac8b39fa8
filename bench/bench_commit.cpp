// The commit of a 1 MiB package through the local back end, without and with a backup, against
// the least any safe replacement must do, written with plain system calls in the same run:
// write a temporary file, fdatasync it, rename it over the target, fsync the folder. A second
// floor adds the least a durable backup copy of the old package needs on top of that. The
// commit rows run at 1 MiB and 100 MiB: a kept backup of a local package with one link is a
// hard link to it, so it should cost little more than the commit without one at either size.
//
//   bench_commit --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <opc/Commit.hpp>
#include <opc/LocalFileSystemOps.hpp>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t packageSize = std::size_t(1) << 20;

std::u16string utf16(std::string const& text) { return fs::path(text).u16string(); }

[[noreturn]] void fail(char const* what) { throw std::runtime_error(std::string(what) + " failed: " + std::to_string(errno)); }

// A scratch folder holding the target and the new package; removed afterwards.
struct Scratch {
    std::string dir;
    std::string target;
    std::string source;
    std::vector<char> bytes;

    explicit Scratch(std::size_t size = packageSize) : bytes(size) {
        std::string pattern = (fs::temp_directory_path() / "opc-bench-commit-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            fail("mkdtemp");
        dir = pattern;
        target = dir + "/p.pkg";
        source = dir + "/new.pkg";
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 7 % 251);
        writeWhole(source);
        writeWhole(target);
    }
    ~Scratch() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    void writeWhole(std::string const& path) const {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            fail("open");
        if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            fail("write");
        ::close(fd);
    }
};

// The floor: the same bytes from memory to a temporary file, flushed, renamed, folder flushed.
void BM_Floor_PlainCalls(benchmark::State& state) {
    Scratch s;
    std::string const temp = s.dir + "/.floor.tmp";
    for (auto _ : state) {
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0)
            fail("open");
        if (::write(fd, s.bytes.data(), s.bytes.size()) != static_cast<ssize_t>(s.bytes.size()))
            fail("write");
        if (::fdatasync(fd) != 0)
            fail("fdatasync");
        ::close(fd);
        if (::rename(temp.c_str(), s.target.c_str()) != 0)
            fail("rename");
        int dirFd = ::open(s.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd < 0 || ::fsync(dirFd) != 0)
            fail("fsync folder");
        ::close(dirFd);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * packageSize));
}

// The floor with a backup: the old package copied in the kernel to a temporary name and the new
// one written to another, both flushed with one wait (writeback of both started before either
// flush, so the second flush finds its data on the way), then each renamed into place with its
// folder flushed: the backup's name is durable before the package is replaced. Renaming over
// the previous backup frees its blocks, as the commit's copy over it does.
void BM_Floor_WithBackupCopy(benchmark::State& state) {
    Scratch s;
    std::string const backup = s.target + ".bak", backupTemp = s.dir + "/.floor.bak.tmp";
    std::string const temp = s.dir + "/.floor.tmp";
    s.writeWhole(backup);
    auto syncFolder = [&] {
        int dirFd = ::open(s.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd < 0 || ::fsync(dirFd) != 0)
            fail("fsync folder");
        ::close(dirFd);
    };
    for (auto _ : state) {
        int oldFd = ::open(s.target.c_str(), O_RDONLY | O_CLOEXEC);
        int bakFd = ::open(backupTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        int newFd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (oldFd < 0 || bakFd < 0 || newFd < 0)
            fail("open");
        if (::copy_file_range(oldFd, nullptr, bakFd, nullptr, packageSize, 0) != static_cast<ssize_t>(packageSize))
            fail("copy_file_range");
        if (::write(newFd, s.bytes.data(), s.bytes.size()) != static_cast<ssize_t>(s.bytes.size()))
            fail("write");
        if (::sync_file_range(bakFd, 0, 0, SYNC_FILE_RANGE_WRITE) != 0 ||
            ::sync_file_range(newFd, 0, 0, SYNC_FILE_RANGE_WRITE) != 0)
            fail("sync_file_range");
        if (::fdatasync(bakFd) != 0 || ::fdatasync(newFd) != 0)
            fail("fdatasync");
        ::close(oldFd);
        ::close(bakFd);
        ::close(newFd);
        if (::rename(backupTemp.c_str(), backup.c_str()) != 0)
            fail("rename backup");
        syncFolder();
        if (::rename(temp.c_str(), s.target.c_str()) != 0)
            fail("rename");
        syncFolder();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * packageSize));
}

void commitLoop(benchmark::State& state, bool backup) {
    Scratch s(static_cast<std::size_t>(state.range(0)));
    opc::LocalFileSystemOps ops;
    opc::CommitOptions options;
    options.removeBackup(!backup);
    std::u16string const target = utf16(s.target);
    std::u16string const source = utf16(s.source);
    for (auto _ : state)
        opc::replaceFileWithBackup(ops, target, ops, source, options);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void BM_Commit_NoBackup(benchmark::State& state) { commitLoop(state, false); }
void BM_Commit_WithBackup(benchmark::State& state) { commitLoop(state, true); }

} // namespace

BENCHMARK(BM_Floor_PlainCalls)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Floor_WithBackupCopy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Commit_NoBackup)->Arg(1 << 20)->Arg(100 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Commit_WithBackup)->Arg(1 << 20)->Arg(100 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
