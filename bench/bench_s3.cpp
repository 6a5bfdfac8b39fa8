// The s3 scheme through a model of an internet link (LinkModel: 10 ms each way, 40 MB/s per
// connection and direction) beside awscli and rclone on the same link, store and run: a 128 MiB
// upload and download (each side from and to a local file), the commit of a 100 KB package over
// an existing object without and with a kept backup, and a recursive listing of 10,000 keys.
// Each run is a whole process: a forked child for the library, the command for the tools.
//
// Counters, per run: requests (and per method), as the link saw them; peak_MiB, the process's
// peak resident memory; for the library's transfers, budget_MiB = parts in flight x part size
// + 32 MiB, the most peak_MiB should be; for the library, start_MiB, the child's resident memory
// before its work (pages it shares with this process). Each row: 5 runs, shown as mean, median, stddev, cv;
// the CPU column is this process's, not the run's. A run over 5 minutes is killed and fails.
// Needs a store: scripts/bench.sh s3 starts one. Rows of a missing tool are skipped.

#include "ChildRun.hpp"
#include "LinkModel.hpp"

#include <opc/Commit.hpp>
#include <opc/CommitOptions.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Streams.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

namespace fs = std::filesystem;
namespace vfs = stratum::storage::vfs;
constexpr std::size_t MiB = std::size_t(1) << 20;
constexpr std::size_t bigBytes = 128 * MiB;
constexpr std::size_t packageBytes = 100 * 1000;
constexpr int listedKeys = 10000;
constexpr std::chrono::seconds longestRun{300};

std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }
std::string const endpoint = env("AWS_ENDPOINT_URL");
std::string const bucket = env("S3_BUCKET");
std::string const prefix = "bench-s3";
fs::path const scratch = fs::temp_directory_path() / "opc-bench-s3";

std::string key(std::string const& name) { return bucket + "/" + prefix + "/" + name; }
std::u16string object(std::string const& name) { return opc::toString("s3://" + key(name), true); }

// The store through the link, made at the first use; nullptr when there is no plain-HTTP
// IPv4 endpoint to forward to.
LinkModel* link() {
    static std::unique_ptr<LinkModel> const instance = []() -> std::unique_ptr<LinkModel> {
        std::string const scheme = "http://";
        if (bucket.empty() || endpoint.compare(0, scheme.size(), scheme) != 0)
            return nullptr;
        std::string const host = endpoint.substr(scheme.size(), endpoint.find('/', scheme.size()) - scheme.size());
        std::size_t const colon = host.rfind(':');
        try {
            return std::make_unique<LinkModel>(host.substr(0, colon), std::stoi(host.substr(colon + 1)), LinkModel::Shape{});
        } catch (std::exception const&) { // no port, or not an IPv4 address
            return nullptr;
        }
    }();
    return instance.get();
}

// The store itself, for the set-up between runs (not through the link, not counted).
opc::VirtualFileSystemOps& store() {
    static opc::VirtualFileSystemOps instance{vfs::StorageSystemReference()};
    return instance;
}

vfs::S3Settings linkSettings() {
    vfs::S3Settings settings = vfs::S3Settings::fromEnvironment();
    settings.endpoint = link()->url();
    return settings;
}

// The memory the library may use: the parts in flight and 32 MiB.
double budgetMiB() {
    vfs::S3Settings const settings = linkSettings();
    return double(settings.parallelTransfers) * double(settings.partSize) / MiB + 32;
}

enum class Tool { Library,
                  Awscli,
                  Rclone };

// Debian's awscli, by its path (a pyenv shim may come first on PATH); it ignores AWS_ENDPOINT_URL.
std::string awscli(std::string const& arguments) {
    return "/usr/bin/aws --endpoint-url " + link()->url() + " s3 " + arguments + " >/dev/null";
}
std::string awsUri(std::string const& name) { return "s3://" + key(name); }

// An rclone remote `link:` on the link, from environment variables; rclone 1.60 refuses a CA
// bundle for a plain-HTTP endpoint. --ignore-times: copy even when the target looks the same.
std::string rclone(std::string const& arguments) {
    return "env -u AWS_CA_BUNDLE RCLONE_CONFIG=/dev/null RCLONE_CONFIG_LINK_TYPE=s3 RCLONE_CONFIG_LINK_PROVIDER=Ceph"
           " RCLONE_CONFIG_LINK_ENV_AUTH=true RCLONE_CONFIG_LINK_REGION=us-east-1 RCLONE_CONFIG_LINK_ENDPOINT=" +
           link()->url() + " rclone -q --ignore-times " + arguments;
}
std::string rcloneUri(std::string const& name) { return "link:" + key(name); }

bool ready(benchmark::State& state, Tool tool) {
    if (!link()) {
        state.SkipWithError("no S3 store: AWS_ENDPOINT_URL (http://<IPv4 address>:<port>) and S3_BUCKET are not both set");
        return false;
    }
    if (tool == Tool::Awscli && access("/usr/bin/aws", X_OK) != 0) {
        state.SkipWithError("no /usr/bin/aws (./scripts/setup-deps.sh bench)");
        return false;
    }
    if (tool == Tool::Rclone && std::system("command -v rclone >/dev/null") != 0) {
        state.SkipWithError("no rclone on PATH (./scripts/setup-deps.sh bench)");
        return false;
    }
    try {
        store().createFolders(opc::toString("s3://" + bucket + "/" + prefix, true));
    } catch (std::exception const& e) {
        state.SkipWithError((std::string("the S3 store does not answer: ") + e.what()).c_str());
        return false;
    }
    return true;
}

// A local file of `size` bytes, made once, a block at a time (the parent stays small).
std::string localFile(std::string const& name, std::size_t size) {
    fs::create_directories(scratch);
    fs::path const path = scratch / name;
    if (!fs::exists(path) || fs::file_size(path) != size) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        std::vector<char> block(MiB);
        for (std::size_t at = 0; at < size; at += block.size()) {
            for (std::size_t i = 0; i < block.size(); ++i)
                block[i] = char(((at + i) * 2654435761u) >> 13);
            out.write(block.data(), std::streamsize(std::min(block.size(), size - at)));
        }
    }
    return path.string();
}

void upload(opc::VirtualFileSystemOps& ops, std::string const& file, std::u16string const& target) {
    std::ifstream in(file, std::ios::binary);
    auto out = ops.createOutputStream(target, opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
    opc::StreamHelper::copyStreamToStream(in, *out); // published when the stream is released
}

// Uploads `file` as `name` straight to the store, from a child: this process does not grow by
// the transfer's buffers, which the children of the measured runs would start with.
bool place(benchmark::State& state, std::string const& file, std::string const& name) {
    auto const uploadDirectly = [&] {
        opc::VirtualFileSystemOps direct{vfs::StorageSystemReference()};
        upload(direct, file, object(name));
    };
    if (runInChild(uploadDirectly, longestRun).ok)
        return true;
    state.SkipWithError(("could not upload " + name).c_str());
    return false;
}

void download(opc::VirtualFileSystemOps& ops, std::u16string const& source, std::string const& file) {
    auto in = ops.createInputStream(source, opc::OpenMode::ReadBinary);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    opc::StreamHelper::copyStreamToStream(*in, out);
}

// What one row runs: the library's work (in a child, on its own storage system through the
// link) or a tool's command.
struct Work {
    std::function<void(opc::VirtualFileSystemOps&)> library;
    std::string awscli;
    std::string rclone;
};

// Times each run of `work` by `tool` as a whole process, with the link's request counts and
// its peak memory as counters; `check` runs after each run, in this process.
void measure(benchmark::State& state, Tool tool, Work const& work, std::function<void()> const& check = {}) {
    std::map<std::string, double> counted;
    double peakMiB = 0;
    double startMiB = 0;
    auto const library = [&work] {
        opc::VirtualFileSystemOps ops{vfs::StorageSystemReference(linkSettings())};
        work.library(ops);
    };
    for (auto _ : state) {
        auto const before = link()->requests();
        ChildRun const run = tool == Tool::Awscli   ? runCommand(work.awscli, longestRun)
                             : tool == Tool::Rclone ? runCommand(work.rclone, longestRun)
                                                    : runInChild(library, longestRun);
        state.SetIterationTime(run.seconds);
        if (!run.ok) {
            state.SkipWithError("the run failed (its error is above)");
            return;
        }
        for (auto const& [method, count] : link()->requests()) {
            double const made = double(count - (before.count(method) ? before.at(method) : 0));
            counted[method] += made;
            counted["requests"] += made;
        }
        peakMiB = std::max(peakMiB, run.peakMiB);
        startMiB = std::max(startMiB, run.startMiB);
        if (check)
            check();
    }
    for (std::string const method : {"requests", "GET", "HEAD", "PUT", "POST", "DELETE"})
        state.counters[method] = benchmark::Counter(counted[method], benchmark::Counter::kAvgIterations);
    state.counters["peak_MiB"] = peakMiB;
    if (tool == Tool::Library)
        state.counters["start_MiB"] = startMiB;
}

void Upload(benchmark::State& state, Tool tool) {
    if (!ready(state, tool))
        return;
    std::string const file = localFile("128", bigBytes);
    if (tool == Tool::Library)
        state.counters["budget_MiB"] = budgetMiB();
    measure(state, tool,
            {[&file](opc::VirtualFileSystemOps& ops) { upload(ops, file, object("up")); },
             awscli("cp " + file + " " + awsUri("up")), rclone("copyto " + file + " " + rcloneUri("up"))});
    state.SetBytesProcessed(std::int64_t(state.iterations() * bigBytes));
}

void Download(benchmark::State& state, Tool tool) {
    if (!ready(state, tool))
        return;
    if (!place(state, localFile("128", bigBytes), "down"))
        return;
    std::string const copy = (scratch / "down-copy").string();
    if (tool == Tool::Library)
        state.counters["budget_MiB"] = budgetMiB();
    measure(
        state, tool,
        {[&copy](opc::VirtualFileSystemOps& ops) { download(ops, object("down"), copy); },
         awscli("cp " + awsUri("down") + " " + copy), rclone("copyto " + rcloneUri("down") + " " + copy)},
        [&] {
            if (fs::file_size(copy) != bigBytes)
                state.SkipWithError("the download has the wrong size");
            fs::remove(copy);
        });
    state.SetBytesProcessed(std::int64_t(state.iterations() * bigBytes));
}

// A server-side copy of the 128 MiB object, as a commit copies a large package into place: the
// library part-wise with its parts side by side (UploadPartCopy, `parallelTransfers` at once) or,
// with `wholeCopy`, in one CopyObject; the tools' own server-side copies.
void ServerCopy(benchmark::State& state, Tool tool, bool wholeCopy) {
    if (!ready(state, tool))
        return;
    if (!place(state, localFile("128", bigBytes), "copied"))
        return;
    measure(state, tool,
            {[wholeCopy](opc::VirtualFileSystemOps&) {
                 vfs::S3Settings settings = linkSettings();
                 settings.copyPartThreshold = wholeCopy ? std::uint64_t(5) << 30 : settings.partSize;
                 opc::VirtualFileSystemOps ops{vfs::StorageSystemReference(settings)};
                 ops.copy(object("copied"), object("copy"), opc::Overwrite);
             },
             awscli("cp " + awsUri("copied") + " " + awsUri("copy")),
             rclone("copyto " + rcloneUri("copied") + " " + rcloneUri("copy"))},
            [] { store().remove(object("copy")); }); // each run copies to a free name
    state.SetBytesProcessed(std::int64_t(state.iterations() * bigBytes));
}

// A 100 KB package saved over an existing object: the library's commit (without or with a kept
// backup), or the tools' plain copy.
void Commit(benchmark::State& state, Tool tool, bool keepBackup) {
    if (!ready(state, tool))
        return;
    std::string const file = localFile("package", packageBytes);
    if (!place(state, file, "p.pkg"))
        return;
    opc::CommitOptions options;
    options.removeBackup(!keepBackup);
    measure(state, tool,
            {[&](opc::VirtualFileSystemOps& ops) {
                 opc::LocalFileSystemOps local;
                 opc::replaceFileWithBackup(ops, object("p.pkg"), local, opc::toString(file, true), options);
             },
             awscli("cp " + file + " " + awsUri("p.pkg")), rclone("copyto " + file + " " + rcloneUri("p.pkg"))},
            [] {
                boost::system::error_code ec;
                store().remove(object("p.pkg.bak"), ec);
            });
}

// 10,000 empty objects under many/, made once per store by 16 threads.
void makeKeys() {
    std::vector<std::u16string> existing;
    boost::system::error_code ec;
    store().getFiles(object("many"), existing, true, ec);
    if (existing.size() == std::size_t(listedKeys))
        return;
    for (int folder = 0; folder < 100; ++folder)
        store().createFolders(object("many/" + std::to_string(folder)));
    std::atomic<int> next{0};
    std::vector<std::thread> writers;
    for (int t = 0; t < 16; ++t)
        writers.emplace_back([&] {
            for (int i; (i = next++) < listedKeys;)
                store().createOutputStream(object("many/" + std::to_string(i % 100) + "/" + std::to_string(i)),
                                           opc::OpenMode::WriteBinary | opc::OpenMode::Truncate);
        });
    for (auto& writer : writers)
        writer.join();
}

void List(benchmark::State& state, Tool tool) {
    if (!ready(state, tool))
        return;
    makeKeys();
    measure(state, tool,
            {[](opc::VirtualFileSystemOps& ops) {
                 std::vector<std::u16string> files;
                 ops.getFiles(object("many"), files, true);
                 if (files.size() != std::size_t(listedKeys))
                     throw std::runtime_error("listed " + std::to_string(files.size()) + " keys");
             },
             awscli("ls --recursive " + awsUri("many/")), rclone("lsf -R " + rcloneUri("many") + " >/dev/null")});
}

#define S3_BENCH(...)                   \
    BENCHMARK_CAPTURE(__VA_ARGS__)      \
        ->Unit(benchmark::kMillisecond) \
        ->UseManualTime()               \
        ->Iterations(1)                 \
        ->Repetitions(5)                \
        ->DisplayAggregatesOnly(true)
S3_BENCH(Upload, library, Tool::Library);
S3_BENCH(Upload, awscli, Tool::Awscli);
S3_BENCH(Upload, rclone, Tool::Rclone);
S3_BENCH(Download, library, Tool::Library);
S3_BENCH(Download, awscli, Tool::Awscli);
S3_BENCH(Download, rclone, Tool::Rclone);
S3_BENCH(ServerCopy, library_parts, Tool::Library, false);
S3_BENCH(ServerCopy, library_whole, Tool::Library, true);
S3_BENCH(ServerCopy, awscli, Tool::Awscli, false);
S3_BENCH(ServerCopy, rclone, Tool::Rclone, false);
S3_BENCH(Commit, library, Tool::Library, false);
S3_BENCH(Commit, library_backup, Tool::Library, true);
S3_BENCH(Commit, awscli, Tool::Awscli, false);
S3_BENCH(Commit, rclone, Tool::Rclone, false);
S3_BENCH(List, library, Tool::Library);
S3_BENCH(List, awscli, Tool::Awscli);
S3_BENCH(List, rclone, Tool::Rclone);

} // namespace

BENCHMARK_MAIN();
