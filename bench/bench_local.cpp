// The local back end against the plain tools and calls it stands in for. One run each; the
// fixtures (100,000 files in 1,000 folders, a 1 GiB file) are built once under /tmp and kept.
//
//   bench_local --benchmark_filter=Listing   # getFiles vs find vs std::filesystem
//   bench_local --benchmark_filter=Query     # exists / isFile vs lstat
//   bench_local --benchmark_filter=Copy      # copy vs cp + sync

#include <opc/LocalFileSystemOps.hpp>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int folderCount = 1000;
constexpr int filesPerFolder = 100;
constexpr std::uint64_t bigFileSize = std::uint64_t(1) << 30;

std::string const treeRoot = "/tmp/opc-bench-tree";
std::string const bigFile = "/tmp/opc-bench-1g";
std::string const bigCopy = "/tmp/opc-bench-1g-copy";

std::u16string utf16(std::string const& text) { return fs::path(text).u16string(); }

std::string fileName(int folder, int file) {
    return treeRoot + "/d" + std::to_string(folder) + "/f" + std::to_string(file);
}

// 1,000 folders of 100 empty files; a marker file says the tree is complete.
void ensureTree() {
    std::string const marker = treeRoot + "/.complete";
    if (fs::exists(marker))
        return;
    fs::remove_all(treeRoot);
    fs::create_directories(treeRoot);
    for (int d = 0; d < folderCount; ++d) {
        std::string const folder = treeRoot + "/d" + std::to_string(d);
        if (::mkdir(folder.c_str(), 0755) != 0)
            throw std::runtime_error("mkdir " + folder);
        for (int f = 0; f < filesPerFolder; ++f) {
            int const fd = ::open(fileName(d, f).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0)
                throw std::runtime_error("create " + fileName(d, f));
            ::close(fd);
        }
    }
    ::close(::open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
}

void ensureBigFile() {
    struct stat st {};
    if (::stat(bigFile.c_str(), &st) == 0 && std::uint64_t(st.st_size) == bigFileSize)
        return;
    int const fd = ::open(bigFile.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::runtime_error("create " + bigFile);
    std::string block(1 << 20, '\0');
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = char(i * 131 + 7); // not all zeros: no sparse shortcut
    for (std::uint64_t written = 0; written < bigFileSize; written += block.size()) {
        if (::write(fd, block.data(), block.size()) != ssize_t(block.size()))
            throw std::runtime_error("write " + bigFile);
    }
    ::fsync(fd);
    ::close(fd);
}

// ---- Listing: 100,000 files in 1,000 folders ----

void ListingGetFiles(benchmark::State& state) {
    ensureTree();
    opc::LocalFileSystemOps ops;
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<std::u16string> files;
        ops.getFiles(utf16(treeRoot), files, true);
        count = files.size();
        benchmark::DoNotOptimize(files.data());
    }
    state.counters["files"] = double(count);
}

void ListingFind(benchmark::State& state) {
    ensureTree();
    std::size_t count = 0;
    for (auto _ : state) {
        FILE* pipe = ::popen(("find " + treeRoot + " -type f").c_str(), "r");
        if (!pipe)
            throw std::runtime_error("popen find");
        char buffer[1 << 16];
        count = 0;
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            for (std::size_t i = 0; i < n; ++i)
                count += buffer[i] == '\n';
        }
        ::pclose(pipe);
    }
    state.counters["files"] = double(count);
}

void ListingStdFilesystem(benchmark::State& state) {
    ensureTree();
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<std::u16string> files;
        for (auto const& entry : fs::recursive_directory_iterator(treeRoot)) {
            if (entry.is_regular_file() || entry.is_symlink())
                files.push_back(entry.path().u16string());
        }
        count = files.size();
        benchmark::DoNotOptimize(files.data());
    }
    state.counters["files"] = double(count);
}

// ---- Queries on 100,000 paths ----

struct Paths {
    std::vector<std::string> narrow;
    std::vector<std::u16string> wide;
};

Paths const& allPaths() {
    static Paths const paths = [] {
        Paths p;
        for (int d = 0; d < folderCount; ++d) {
            for (int f = 0; f < filesPerFolder; ++f) {
                p.narrow.push_back(fileName(d, f));
                p.wide.push_back(utf16(p.narrow.back()));
            }
        }
        return p;
    }();
    return paths;
}

// Asks `query` of the back end for every path of the tree; `found` counts the true answers.
template <class Query>
void queryAll(benchmark::State& state, Query query) {
    ensureTree();
    auto const& paths = allPaths().wide;
    opc::LocalFileSystemOps ops;
    std::size_t found = 0;
    for (auto _ : state) {
        found = 0;
        boost::system::error_code ec;
        for (auto const& p : paths)
            found += query(ops, p, ec);
    }
    state.counters["found"] = double(found);
}

void QueryExists(benchmark::State& state) {
    queryAll(state, [](opc::FileSystemOps& ops, std::u16string const& p, boost::system::error_code& ec) {
        return ops.exists(p, ec);
    });
}

void QueryIsFile(benchmark::State& state) {
    queryAll(state, [](opc::FileSystemOps& ops, std::u16string const& p, boost::system::error_code& ec) {
        return ops.isFile(p, ec);
    });
}

void QueryLstat(benchmark::State& state) {
    ensureTree();
    auto const& paths = allPaths().narrow;
    std::size_t found = 0;
    for (auto _ : state) {
        found = 0;
        struct stat st {};
        for (auto const& p : paths)
            found += ::lstat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    }
    state.counters["found"] = double(found);
}

// ---- Copy of 1 GiB, synced to disk ----

void CopyLocal(benchmark::State& state) {
    ensureBigFile();
    opc::LocalFileSystemOps ops;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove(bigCopy);
        ::sync();
        state.ResumeTiming();
        ops.copy(utf16(bigFile), utf16(bigCopy), opc::Overwrite);
    }
    if (fs::file_size(bigCopy) != bigFileSize)
        state.SkipWithError("copy has the wrong size");
    state.SetBytesProcessed(std::int64_t(bigFileSize) * state.iterations());
    fs::remove(bigCopy);
}

void CopyCpSync(benchmark::State& state) {
    ensureBigFile();
    std::string const command = "cp " + bigFile + " " + bigCopy + " && sync " + bigCopy;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove(bigCopy);
        ::sync();
        state.ResumeTiming();
        if (std::system(command.c_str()) != 0)
            state.SkipWithError("cp failed");
    }
    state.SetBytesProcessed(std::int64_t(bigFileSize) * state.iterations());
    fs::remove(bigCopy);
}

} // namespace

BENCHMARK(ListingGetFiles)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ListingFind)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ListingStdFilesystem)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(QueryExists)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(QueryIsFile)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(QueryLstat)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(CopyLocal)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(CopyCpSync)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
