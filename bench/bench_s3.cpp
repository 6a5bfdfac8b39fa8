// The s3 scheme against awscli on the same server, in one run: a 100 MiB upload and download
// (each side from and to a local file), a recursive listing of 10,000 keys, and the commit of a
// 16 MiB package over an existing one with and without a backup against its upload alone.
// Needs a server (eval "$(scripts/s3-server.sh start)") and `aws` on PATH; skipped otherwise.
//
//   bench_s3 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

#include <opc/Commit.hpp>
#include <opc/CommitOptions.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Streams.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
constexpr std::size_t MiB = std::size_t(1) << 20;
constexpr int listedKeys = 10000;

std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }
std::string const bucket = env("S3_BUCKET");
std::string const prefix = "bench-s3";
fs::path const scratch = fs::temp_directory_path() / "opc-bench-s3";

std::u16string object(std::string const& name) { return opc::toString("s3://" + bucket + "/" + prefix + "/" + name, true); }
std::string awsUri(std::string const& name) { return "s3://" + bucket + "/" + prefix + "/" + name; }
std::string aws() { return "aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' "; }

opc::VirtualFileSystemOps& ops() {
    static opc::VirtualFileSystemOps instance{stratum::storage::vfs::StorageSystemReference()};
    return instance;
}

// A local file of `size` bytes, made once.
std::string localFile(std::string const& name, std::size_t size) {
    fs::create_directories(scratch);
    fs::path const path = scratch / name;
    if (!fs::exists(path) || fs::file_size(path) != size) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = char((i * 2654435761u) >> 13);
        std::ofstream(path, std::ios::binary) << bytes;
    }
    return path.string();
}

bool ready(benchmark::State& state) {
    if (bucket.empty() || env("AWS_ENDPOINT_URL").empty()) {
        state.SkipWithError("no S3 server: AWS_ENDPOINT_URL and S3_BUCKET are not both set");
        return false;
    }
    if (std::system("command -v aws >/dev/null") != 0) {
        state.SkipWithError("no aws on PATH");
        return false;
    }
    ops().createFolders(opc::toString("s3://" + bucket + "/" + prefix, true));
    return true;
}

// Times `command` as the iteration's time (manual timing).
void timeCommand(benchmark::State& state, std::string const& command) {
    auto const start = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0)
        state.SkipWithError(("failed: " + command).c_str());
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

void upload(std::string const& file, std::u16string const& target) {
    std::ifstream in(file, std::ios::binary);
    auto out = ops().createOutputStream(target, opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
    opc::StreamHelper::copyStreamToStream(in, *out); // published when the stream is released
}

void Upload_Library(benchmark::State& state) {
    if (!ready(state))
        return;
    std::string const file = localFile("100", 100 * MiB);
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        upload(file, object("up-library"));
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations() * 100 * MiB));
}

void Upload_Awscli(benchmark::State& state) {
    if (!ready(state))
        return;
    std::string const file = localFile("100", 100 * MiB);
    for (auto _ : state)
        timeCommand(state, aws() + "s3 cp --quiet " + file + " " + awsUri("up-awscli"));
    state.SetBytesProcessed(std::int64_t(state.iterations() * 100 * MiB));
}

void Download_Library(benchmark::State& state) {
    if (!ready(state))
        return;
    upload(localFile("100", 100 * MiB), object("down"));
    std::string const copy = (scratch / "down-library").string();
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        {
            auto in = ops().createInputStream(object("down"), opc::OpenMode::ReadBinary);
            std::ofstream out(copy, std::ios::binary | std::ios::trunc);
            opc::StreamHelper::copyStreamToStream(*in, out);
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (fs::file_size(copy) != 100 * MiB)
            state.SkipWithError("the download has the wrong size");
    }
    state.SetBytesProcessed(std::int64_t(state.iterations() * 100 * MiB));
}

void Download_Awscli(benchmark::State& state) {
    if (!ready(state))
        return;
    upload(localFile("100", 100 * MiB), object("down"));
    for (auto _ : state)
        timeCommand(state, aws() + "s3 cp --quiet " + awsUri("down") + " " + (scratch / "down-awscli").string());
    state.SetBytesProcessed(std::int64_t(state.iterations() * 100 * MiB));
}

// 10,000 empty objects under many/, made once per run by 16 threads through the library.
void makeKeys() {
    static bool made = [] {
        std::vector<std::u16string> existing;
        boost::system::error_code ec;
        ops().getFiles(object("many"), existing, true, ec);
        if (existing.size() == std::size_t(listedKeys))
            return true;
        for (int folder = 0; folder < 100; ++folder)
            ops().createFolders(object("many/" + std::to_string(folder)));
        std::atomic<int> next{0};
        std::vector<std::thread> writers;
        for (int t = 0; t < 16; ++t)
            writers.emplace_back([&] {
                for (int i; (i = next++) < listedKeys;)
                    ops().createOutputStream(object("many/" + std::to_string(i % 100) + "/" + std::to_string(i)),
                                             opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
            });
        for (auto& writer : writers)
            writer.join();
        return true;
    }();
    (void)made;
}

void List_Library(benchmark::State& state) {
    if (!ready(state))
        return;
    makeKeys();
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        std::vector<std::u16string> files;
        ops().getFiles(object("many"), files, true);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (files.size() != std::size_t(listedKeys))
            state.SkipWithError(("listed " + std::to_string(files.size()) + " keys").c_str());
    }
}

void List_Awscli(benchmark::State& state) {
    if (!ready(state))
        return;
    makeKeys();
    for (auto _ : state)
        timeCommand(state, aws() + "s3 ls --recursive " + awsUri("many/") + " >/dev/null");
}

// The commit of a 16 MiB package over an existing one; state.range(0): keep a backup.
void Commit(benchmark::State& state) {
    if (!ready(state))
        return;
    std::string const file = localFile("16", 16 * MiB);
    opc::LocalFileSystemOps local;
    opc::CommitOptions options;
    options.removeBackup(state.range(0) == 0);
    upload(file, object("p.pkg"));
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        opc::replaceFileWithBackup(ops(), object("p.pkg"), local, opc::toString(file, true), options);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        boost::system::error_code ec;
        ops().remove(object("p.pkg.bak"), ec);
    }
}

void Commit_UploadAlone(benchmark::State& state) {
    if (!ready(state))
        return;
    std::string const file = localFile("16", 16 * MiB);
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        upload(file, object("p.pkg"));
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

#define S3_BENCH(b) BENCHMARK(b)->Unit(benchmark::kMillisecond)->UseManualTime()
S3_BENCH(Upload_Library)->Iterations(3);
S3_BENCH(Upload_Awscli)->Iterations(3);
S3_BENCH(Download_Library)->Iterations(3);
S3_BENCH(Download_Awscli)->Iterations(3);
S3_BENCH(List_Library)->Iterations(3);
S3_BENCH(List_Awscli)->Iterations(3);
S3_BENCH(Commit)->Arg(0)->Arg(1)->Iterations(5);
S3_BENCH(Commit_UploadAlone)->Iterations(5);

} // namespace

BENCHMARK_MAIN();
