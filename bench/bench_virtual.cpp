// Small-file work through the virtual back end on memory: against the local back end on tmpfs,
// and recursive listings of one tree over memory: against over file:.
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/StorageSystem.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr int kFiles = 100000;
constexpr int kPerFolder = 1000;

// A fresh folder on tmpfs, removed afterwards.
struct ShmFolder {
    ShmFolder() {
        std::string pattern = "/dev/shm/opc-bench-XXXXXX";
        if (!mkdtemp(pattern.data()))
            std::abort();
        path = pattern;
    }
    ~ShmFolder() { std::filesystem::remove_all(path); }
    std::u16string path16() const { return std::u16string(path.begin(), path.end()); }
    std::string path;
};

std::u16string number(int i) {
    std::string const s = std::to_string(i);
    return std::u16string(s.begin(), s.end());
}

// Creates kFiles files in folders of kPerFolder under root, writes, reads back, lists.
void smallFiles(benchmark::State& state, opc::FileSystemOps& ops, std::u16string const& root) {
    std::string const payload(64, 'p');
    for (auto _ : state) {
        auto const base = ops.appendPath(root, u"run");
        for (int f = 0; f < kFiles / kPerFolder; ++f)
            ops.createFolders(ops.appendPath(base, u"d" + number(f)));
        for (int i = 0; i < kFiles; ++i) {
            auto const path = ops.appendPath(base, u"d" + number(i / kPerFolder) + u"/f" + number(i));
            auto out = ops.createOutputStream(path, opc::OpenMode::WriteBinary);
            out->write(payload.data(), std::streamsize(payload.size()));
        }
        std::size_t bytes = 0;
        std::vector<std::u16string> files;
        ops.getFiles(base, files, true);
        for (auto const& path : files) {
            auto in = ops.createInputStream(path, opc::OpenMode::ReadBinary);
            char buffer[128];
            in->read(buffer, sizeof buffer);
            bytes += std::size_t(in->gcount());
        }
        if (files.size() != std::size_t(kFiles) || bytes != std::size_t(kFiles) * payload.size())
            state.SkipWithError("lost files");
        state.PauseTiming();
        ops.removeAll(base);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}

void BM_SmallFilesMemory(benchmark::State& state) {
    stratum::storage::vfs::StorageSystemReference storage;
    opc::VirtualFileSystemOps ops(storage);
    smallFiles(state, ops, u"memory:///");
}

void BM_SmallFilesLocalTmpfs(benchmark::State& state) {
    ShmFolder shm;
    opc::LocalFileSystemOps ops;
    smallFiles(state, ops, shm.path16());
}

// One tree of kFiles files written through `ops` under root, then listed recursively.
void listing(benchmark::State& state, opc::FileSystemOps& ops, std::u16string const& root) {
    auto const base = ops.appendPath(root, u"tree");
    for (int f = 0; f < kFiles / kPerFolder; ++f)
        ops.createFolders(ops.appendPath(base, u"d" + number(f)));
    for (int i = 0; i < kFiles; ++i)
        ops.createOutputStream(ops.appendPath(base, u"d" + number(i / kPerFolder) + u"/f" + number(i)),
                               opc::OpenMode::WriteBinary);
    for (auto _ : state) {
        std::vector<std::u16string> files;
        ops.getFiles(base, files, true);
        if (files.size() != std::size_t(kFiles))
            state.SkipWithError("wrong count");
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}

void BM_GetFilesMemory(benchmark::State& state) {
    stratum::storage::vfs::StorageSystemReference storage;
    opc::VirtualFileSystemOps ops(storage);
    listing(state, ops, u"memory:///");
}

void BM_GetFilesFileScheme(benchmark::State& state) {
    ShmFolder shm;
    stratum::storage::vfs::StorageSystemReference storage;
    opc::VirtualFileSystemOps ops(storage);
    listing(state, ops, ops.normalizePath(shm.path16()));
}

} // namespace

BENCHMARK(BM_SmallFilesMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallFilesLocalTmpfs)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetFilesMemory)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetFilesFileScheme)->Iterations(3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
