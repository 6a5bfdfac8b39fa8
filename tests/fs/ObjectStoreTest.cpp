// The s3 back end's own proofs on a live object store (eval "$(scripts/s3-server.sh start)"): what
// awscli sees of it and the reverse, its multipart, part-copy and paged-listing paths and a
// gateway killed during an upload; refused, cut, stalled and lost answers from a fault proxy in
// front of the store.
#include "fs/Suite.hpp"
#include "support/FaultProxy.hpp"

#include <opc/CommitOptions.hpp>

#include <stratum/storage/vfs/Operations.hpp>
#include <stratum/storage/vfs/Streams.hpp>

#include <cstdio>
#include <future>
#include <thread>

namespace opc::test {
namespace {

/// What `command` writes to standard output, and whether it exited with 0.
std::pair<bool, std::string> run(std::string const& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    char chunk[65536];
    for (std::size_t n; pipe && (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
    return {pipe && ::pclose(pipe) == 0, out};
}

class ObjectStore : public BackEndTest {
protected:
    std::string uri(std::string const& relative) { return toUDEString(m_root) + "/" + relative; }
    /// awscli on the test server (Debian's ignores AWS_ENDPOINT_URL).
    std::pair<bool, std::string> aws(std::string const& arguments, std::string const& input = "") {
        return run(input + "aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' " + arguments);
    }
    std::string headOf(std::string const& relative) {
        return "s3api head-object --bucket " + env("S3_BUCKET") + " --key '" + m_key + "/" + relative + "'";
    }
    /// `aws` on a thread of its own.
    std::future<std::pair<bool, std::string>> later(std::string const& arguments, std::string const& input = "") {
        return std::async(std::launch::async, [=] { return aws(arguments, input); });
    }
    bool haveAws() { return run("command -v aws >/dev/null").first; }
    /// The store again, through `proxy`: stalls end after 1 s, repeats come at once, and copies
    /// above 1 MiB go part-wise.
    static StorageSystemReference through(FaultProxy const& proxy, unsigned parallelTransfers = 8) {
        vfs::S3Settings settings = objectStorage();
        settings.endpoint = proxy.endpoint;
        settings.copyPartThreshold = MiB;
        settings.stallSeconds = 1;
        settings.retryMilliseconds = 4;
        settings.parallelTransfers = parallelTransfers;
        return StorageSystemReference(settings);
    }
    /// Unfinished uploads below `relative` of the root, as the store lists them.
    std::size_t uploads(std::string const& relative = "") {
        return vfs::removeS3Litter(objectStorage(), env("S3_BUCKET"), m_key + "/" + relative, std::chrono::seconds(0), true).uploads.size();
    }
};

std::string const broken = "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n";

/// Writes `bytes` to `path` through `ops` in writes of at most `chunk` bytes and closes the stream
/// itself: a failure the upload reports only at close() is thrown, not dropped with the stream.
void writeAndClose(FileSystemOps& ops, std::u16string const& path, std::string const& bytes, std::size_t chunk = SIZE_MAX) {
    auto out = ops.createOutputStream(path, OpenMode::WriteBinary | OpenMode::Truncate);
    for (std::size_t at = 0; at < bytes.size(); at += chunk)
        out->write(bytes.data() + at, std::streamsize(std::min(chunk, bytes.size() - at)));
    dynamic_cast<vfs::ofstream&>(*out).close();
}

/// Whether reading `path` through `ops` to its end fails (bad stream) rather than returning content.
bool readFails(FileSystemOps& ops, std::u16string const& path, std::size_t size) {
    auto in = ops.createInputStream(path, OpenMode::ReadBinary);
    std::string buffer(size + 1, '\0');
    in->read(buffer.data(), std::streamsize(buffer.size()));
    return in->bad() && std::size_t(in->gcount()) < size;
}

/// Requests whose line starts with `method` ("P": PUT and POST) and holds `has` but not `hasNot` (line and headers).
std::function<bool(std::string const&)> on(std::string method, std::string has = "", std::string hasNot = "\n\n") {
    return [=](std::string const& head) {
        return head.rfind(method, 0) == 0 && head.find(has) != std::string::npos && head.find(hasNot) == std::string::npos;
    };
}

// What the library writes, copies part-wise and moves, awscli reads; a listing longer than one
// page is whole, and a tree of 1,000 keys goes in one DeleteObjects; a reader pinned to the
// version it opened fails once the object is replaced.
TEST_P(ObjectStore, AwsReadsWhatTheLibraryWritesAndCopies) {
    if (!haveAws()) GTEST_SKIP() << "no aws on PATH";
    std::string const big = pattern(12 * MiB, 1);
    write(at("small"), "tiny");
    write(at("big"), big);
    write(at("part"), big.substr(0, 5 * MiB)); // exactly one part: one PUT
    ops().createFolder(at("dir"));
    ops().setLastModifiedTime(at("small"), boost::posix_time::from_time_t(981173106));
    ops().setLastModifiedTime(at("dir"), boost::posix_time::from_time_t(0));
    ops().copy(at("big"), at("copy"), FailIfExists);
    ops().rename(at("copy"), at("moved"));
    // awscli starts slowly: its runs go side by side.
    auto small = later("s3 cp " + uri("small") + " -"), smallHead = later(headOf("small")), dirHead = later(headOf("dir/")),
         partHead = later(headOf("part"));
    for (std::string const name : {"big", "moved"}) { // three parts of 5 MiB, written or copied
        auto content = later("s3 cp " + uri(name) + " -"), description = later(headOf(name));
        EXPECT_TRUE(content.get().second == big) << name;
        std::string const head = description.get().second;
        EXPECT_NE(head.find("-3\\\""), std::string::npos) << head;
    }
    EXPECT_EQ(small.get().second, "tiny");
    std::string const part = partHead.get().second;
    EXPECT_TRUE(part.find("\"ETag\"") != std::string::npos && part.find("-1\\\"") == std::string::npos) << part;
    std::string const dir = dirHead.get().second, smallText = smallHead.get().second;
    EXPECT_NE(dir.find("\"ContentLength\": 0"), std::string::npos) << dir;
    EXPECT_NE(dir.find("\"mtime\": \"0\""), std::string::npos) << dir;
    EXPECT_NE(smallText.find("\"mtime\": \"981173106\""), std::string::npos) << smallText;
    ops().createFolder(at("many")); // its marker and 999 files: the root holds more than a page (1,000 keys)
    std::vector<std::thread> writers;
    for (int t = 0; t < 32; ++t) // each write waits on the network, not on a processor
        writers.emplace_back([&, t] {
            for (int i = t; i < 999; i += 32) write(at("many/" + std::to_string(i)), "");
        });
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(listing(m_root).size(), 1003u);
    EXPECT_EQ(listing(at("many"), false).size(), 999u);
    FaultProxy counter(env("AWS_ENDPOINT_URL"), {Fault::CutAnswer, on("POST ", "?delete"), SIZE_MAX, 1000});
    VirtualFileSystemOps(through(counter)).removeAll(at("many"));
    EXPECT_EQ(counter.hits, 1);
    auto in = ops().createInputStream(at("big"), OpenMode::ReadBinary);
    std::string buffer(big.size(), '\0');
    in->read(buffer.data(), std::streamsize(MiB));
    in->seekg(std::streamoff(10 * MiB)).read(buffer.data(), 16); // beyond the window read so far
    EXPECT_EQ(buffer.substr(0, 16), big.substr(10 * MiB, 16));
    in->seekg(std::streamoff(MiB));
    write(at("big"), "replaced");
    in->read(buffer.data() + MiB, std::streamsize(big.size() - MiB));
    EXPECT_TRUE(in->bad());
}

TEST_P(ObjectStore, LibraryReadsWhatAwsWrites) {
    if (!haveAws()) GTEST_SKIP() << "no aws on PATH";
    HostFolder folder;
    std::string const bytes = pattern(20 * MiB, 2), file = (folder.path() / "twenty").string();
    writeFile(file, bytes);
    writeFile(file + ".held", "held");
    // Keys no library write makes: an empty segment, a file beside a folder of its name, a key
    // ending in "/" that holds bytes. awscli starts slowly: its runs go side by side.
    std::vector<std::future<std::pair<bool, std::string>>> writes;
    writes.push_back(later("s3 cp " + file + " " + uri("twenty") + " --quiet"));
    for (std::string key : {"a//b", "x", "x/y", "e/f"}) writes.push_back(later("s3 cp - '" + uri(key) + "'", "printf " + key + " | "));
    writes.push_back(later("s3api put-object --bucket " + env("S3_BUCKET") + " --key " + m_key + "/held/ --body " + file + ".held"));
    for (auto& done : writes) ASSERT_TRUE(done.get().first);
    std::string const head = aws(headOf("twenty")).second;
    EXPECT_NE(head.find("-3\\\""), std::string::npos) << "awscli sent three parts: " << head;
    EXPECT_EQ(ops().getSizeInBytes(at("twenty")), bytes.size());
    EXPECT_TRUE(read(at("twenty")) == bytes);
    // An IRI keeps no trailing "/": one that ends in it names no file, for reading or writing;
    // "held/" is the marker of folder "held", and reading that folder as a file says what the marker holds.
    for (auto const& [path, says] : {std::pair{m_root + u"/held/", "names a folder"}, {at("held"), "/held/\" holds 4 bytes"}}) {
        auto const [message, code] = thrown([&, path = path] { ops().createInputStream(path, OpenMode::ReadBinary); });
        EXPECT_TRUE(code == errc::not_supported && message.find(says) != std::string::npos) << message;
    }
    EXPECT_EQ(thrown([&] { ops().createOutputStream(m_root + u"/x/", OpenMode::WriteBinary); }).second, errc::not_supported);
    EXPECT_TRUE(ops().isFolder(at("held")));
    EXPECT_EQ(read(at("x")), "x");
    EXPECT_EQ(read(m_root + u"/a//b"), "a//b");
    EXPECT_EQ(listing(m_root), expected({"e/f", "twenty", "x"})); // "held/" is a folder's marker
}

TEST_P(ObjectStore, OfFoldersMadeAtOnceOneIsMade) {
    for (int round = 0; round < 3; ++round) {
        std::atomic<int> made{0};
        std::vector<std::thread> makers;
        for (int t = 0; t < 6; ++t)
            makers.emplace_back([&] {
                error_code ec;
                ops().createFolder(at("f" + std::to_string(round)), ec);
                made += !ec;
                EXPECT_TRUE(!ec || ec == errc::file_exists) << ec.message();
            });
        for (auto& maker : makers) maker.join();
        EXPECT_EQ(made, 1) << "round " << round;
    }
}

TEST_P(ObjectStore, GatewayKilledDuringAnUploadLeavesTheOldObject) {
    if (env("OPC_S3_DIR").empty()) GTEST_SKIP() << "OPC_S3_DIR does not name a cluster this test may stop";
    std::string const script = std::string(OPC_SOURCE_DIR) + "/scripts/s3-server.sh ";
    write(at("target"), "old");
    auto out = ops().createOutputStream(at("target"), OpenMode::WriteBinary | OpenMode::Truncate);
    std::string const part = pattern(6 * MiB, 4);
    out->write(part.data(), std::streamsize(part.size())); // the first part goes out
    ASSERT_TRUE(run(script + "stop-gateway --kill").first);
    EXPECT_THROW((out->write(part.data(), std::streamsize(part.size())), out->flush()), Exception);
    out.reset();
    ASSERT_TRUE(run(script + "start-gateway").first);
    EXPECT_EQ(read(at("target")), "old");
    EXPECT_EQ(listing(m_root), expected({"target"}));
}

// A HEAD's answer or request cut at any byte of its status line and headers, a GET's at chosen
// bytes of its body (also without its Content-Length), a stalled answer or a refusal is repeated:
// the size and bytes read are the object's. Refusals without end are TryAgain after six attempts.
TEST_P(ObjectStore, ExchangesCutAnywhereAreRepeated) {
    std::string const bytes = pattern(3000, 5), refused = "HTTP/1.1 503 Slow Down\r\nRetry-After: 0\r\nContent-Length: 0\r\n\r\n";
    write(at("cut"), bytes);
    FaultProxy probe(env("AWS_ENDPOINT_URL"), {});
    VirtualFileSystemOps(through(probe)).getSizeInBytes(at("cut"));
    std::size_t const answerHead = probe.headerBytes;
    ASSERT_GT(answerHead, 100u);
    std::vector<std::thread> sweeps;
    for (std::size_t lane = 0; lane < 8; ++lane)
        sweeps.emplace_back([&, lane] {
            for (std::size_t at = lane; at < answerHead + 400; at += 8) {
                Fault const cuts[] = {{Fault::CutAnswer, on("HEAD "), at}, {Fault::CutRequest, on("HEAD "), at},
                                      {Fault::CutAnswer, on("GET "), answerHead + at * 7}, {Fault::CutUnsized, on("GET "), at * 7}};
                for (auto const& fault : cuts) {
                    if (fault.kind != Fault::CutRequest && (fault.matches("HEAD ") ? at >= answerHead : at * 7 >= bytes.size()))
                        continue;
                    FaultProxy proxy(env("AWS_ENDPOINT_URL"), fault);
                    VirtualFileSystemOps ops{through(proxy)};
                    error_code ec;
                    EXPECT_EQ(ops.getSizeInBytes(this->at("cut"), ec), bytes.size()) << at << ec.message();
                    EXPECT_TRUE(!fault.matches("GET ") || readThrough(ops, this->at("cut")) == bytes) << at;
                }
            }
        });
    for (auto& sweep : sweeps) sweep.join();
    for (auto const& [fault, expected] : {std::pair{Fault{Fault::Stall, on("HEAD ")}, errc::success},
                                          {Fault{Fault::Refuse, on("HEAD "), 0, 1, refused}, errc::success},
                                          {Fault{Fault::Refuse, on("HEAD "), 0, 1000, refused}, errc::resource_unavailable_try_again}}) {
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), fault);
        error_code ec;
        EXPECT_EQ(VirtualFileSystemOps(through(proxy)).getSizeInBytes(at("cut"), ec), expected ? 0 : bytes.size());
        EXPECT_EQ(ec, expected) << ec.message();
        EXPECT_EQ(proxy.hits, expected ? 6 : 1);
    }
}

// Commits over an existing package through a faulty network, read back without it: success means
// the new package is in place, failure the old one (or the new one with an error saying that only
// the clean-up failed); no upload and no temporary object is left. Two sizes (one part, two
// parts), with and without a backup, from a local file and from an object.
TEST_P(ObjectStore, CommitsThroughFaultsLeaveTheOldOrTheNewPackage) {
    unsigned const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    auto const slowDown = [](std::string const& status) { // the document, not the status, says SlowDown
        return "HTTP/1.1 " + status + "\r\nContent-Length: 59\r\n\r\n<Error><Code>SlowDown</Code><Message>busy</Message></Error>";
    };
    std::string const refused = slowDown("503 Slow Down");
    std::string const copy = "x-amz-copy-source:", old = pattern(1000, 6);
    struct Config { std::size_t size; bool backup, fromObject; };
    Config const configs[] = {{200000, false, false}, {200000, true, true}, {5 * MiB + 1000, true, false}, {5 * MiB + 1000, false, true}};
    HostFolder folder;
    std::vector<std::thread> lanes; // one folder each, side by side
    for (int lane = 0; lane < 4; ++lane) {
        ops().createFolder(at("c" + std::to_string(lane)));
        lanes.emplace_back([&, lane] {
            SCOPED_TRACE("seed " + std::to_string(seed));
            std::mt19937 random(seed + unsigned(lane));
            auto within = [&](std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(random); };
            Config const config = configs[lane];
            std::string const dir = "c" + std::to_string(lane) + "/", fresh = pattern(config.size, 7);
            std::u16string const target = at(dir + "pkg"), backup = at(dir + "pkg.bak");
            std::u16string const source = config.fromObject ? at(dir + "new") : u16(folder.path().string() + "/" + dir[1]);
            config.fromObject ? write(source, fresh) : writeFile(folder.path().string() + "/" + dir[1], fresh);
            // Outcome from a local file, then from an object: N new, C new with the clean-up error, O
            // old; "~": some packages never meet the fault.
            std::pair<Fault, std::string> const rows[] = {
                {{Fault::CutAnswer, on("HEAD "), within(180)}, "NN"},                                    // cut in headers
                {{Fault::CutAnswer, on("PUT "), within(150)}, "NN"},                                     // write's answer cut
                {{Fault::CutRequest, on("PUT "), within(config.fromObject ? 600 : config.size)}, "NN"},  // write cut
                {{Fault::CutAnswer, on("PUT ", copy, "partNumber="), 0, 6}, "NN~"},                      // copy done, answers lost
                {{Fault::CutAnswer, on("POST ", "uploadId="), 0, 6}, "NN~"},                             // completion done, answers lost
                {{Fault::CutAnswer, on("POST ", "?uploads="), 0, 2}, "NN~"},                             // upload started, answer lost
                {{Fault::Refuse, on("DELETE ", ".tmp ", "/.copy-"), 0, 6, refused}, "CC"},               // temporary object stays
                {{Fault::Refuse, on("P"), 0, 2, slowDown("300 Multiple Choices")}, "NN"},               // writes refused twice
                {{Fault::Refuse, on("PUT ", copy), 0, 1000, broken}, "OO"},                              // copies always fail
                {{Fault::Refuse, on("PUT ", "", copy), 0, 1000, refused}, "ON~"},                        // uploads always refused
            };
            LocalFileSystemOps local;
            for (std::size_t i = 0; i < std::size(rows); ++i) {
                auto const& [fault, outcomes] = rows[i];
                SCOPED_TRACE("row " + std::to_string(i) + ", " + std::to_string(config.size) + " bytes" +
                             (config.backup ? ", backup" : "") + (config.fromObject ? ", from an object" : ""));
                write(target, old);
                FaultProxy proxy(env("AWS_ENDPOINT_URL"), fault);
                VirtualFileSystemOps faulty{through(proxy)};
                CommitOptions options;
                options.removeBackup(!config.backup);
                auto const [message, ec] = thrown([&] { // the first real cause: a fault never makes anything "Not found"
                    faulty.replaceFileWithBackup(target, config.fromObject ? faulty : static_cast<FileSystemOps&>(local), source, options);
                });
                char const outcome = !ec ? 'N' : ec == errc::state_not_recoverable ? 'C' : 'O';
                EXPECT_EQ(outcome, outcomes[config.fromObject]) << message;
                EXPECT_EQ(message.find("Not found"), std::string::npos) << message;
                EXPECT_TRUE(read(target) == (outcome == 'O' ? old : fresh)) << message;
                EXPECT_TRUE(proxy.hits > 0 || outcomes.size() > 2);
                std::vector<std::string> left{dir + "pkg"};
                if (config.backup && (outcome != 'O' || ops().exists(backup))) left.push_back(dir + "pkg.bak");
                if (config.fromObject) left.push_back(dir + "new");
                EXPECT_EQ(listing(at(dir)), expected(left));
                EXPECT_EQ(uploads(dir), 0u);
                error_code ignored;
                if (config.backup) ops().remove(backup, ignored);
            }
        });
    }
    for (auto& lane : lanes) lane.join();
}

// Requests per operation, counted through a proxy, so that a change adding round trips fails
// here. A query on a file is one HEAD, a read its GETs and one HEAD. A copy or rename asks about
// both names (a free name: HEAD and LIST), then copies (and deletes). A commit over an object reads
// the target once, lists its temporary name, uploads, copies into place and removes the
// temporary object; a backup adds the check of its name and its copy. From an object above the
// copy threshold (1 MiB here), both copies go part-wise.
TEST_P(ObjectStore, RequestsPerOperation) {
    HostFolder folder;
    std::string const file = folder.path().string() + "/new", big = pattern(8 * MiB + 10, 9);
    writeFile(file, pattern(100000, 9));
    write(at("pkg"), "old");
    write(at("big"), big);
    FaultProxy proxy(env("AWS_ENDPOINT_URL"), {});
    VirtualFileSystemOps counted{through(proxy)};
    LocalFileSystemOps local;
    CommitOptions keep, drop;
    keep.removeBackup(false);
    drop.removeBackup(true);
    std::pair<std::function<void()>, std::string> const rows[] = {
        {[&] { counted.exists(at("pkg")); }, "HEAD 1"},
        {[&] { counted.isFile(at("pkg")); }, "HEAD 1"},
        {[&] { counted.getSizeInBytes(at("pkg")); }, "HEAD 1"},
        {[&] { counted.getPermissions(at("pkg")); }, "HEAD 1"},
        {[&] { counted.getLastModifiedTime(at("pkg")); }, "HEAD 1"},
        {[&] { EXPECT_TRUE(readThrough(counted, at("big")) == big); }, "GET 2 HEAD 1"},
        {[&] { counted.copy(at("pkg"), at("copy"), FailIfExists); }, "COPY 1 HEAD 2 LIST 1"},
        {[&] { counted.rename(at("copy"), at("moved")); }, "COPY 1 DELETE 1 HEAD 2 LIST 1"},
        {[&] { counted.rename(at("moved"), at("pkg")); }, "COPY 1 DELETE 1 HEAD 2"},
        {[&] { counted.replaceFileWithBackup(at("pkg"), local, u16(file), drop); }, "COPY 1 DELETE 1 HEAD 1 LIST 1 PUT 1"},
        {[&] { counted.replaceFileWithBackup(at("pkg"), local, u16(file), keep); }, "COPY 2 DELETE 1 HEAD 2 LIST 2 PUT 1"},
        {[&] { counted.replaceFileWithBackup(at("pkg"), counted, at("big"), drop); }, "COPY 4 DELETE 1 HEAD 4 LIST 1 POST 4"},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        proxy.requests();
        rows[i].first();
        EXPECT_EQ(proxy.requests(), rows[i].second) << "row " << i;
    }
    EXPECT_EQ(read(at("pkg")), big);
    write(at("pkg"), "other"); // nothing is remembered beyond a call: another writer's change shows at once
    EXPECT_EQ(counted.getSizeInBytes(at("pkg")), 5u);
    // A free-name check whose listing other names fill ("n-0" ... "n-8" sort before the folder "n/").
    for (int i = 0; i < 9; ++i) write(at("n-" + std::to_string(i)), "");
    write(at("n/x"), "");
    vfs::StorageSystemReference const storage(objectStorage());
    auto const isFree = [&](std::string const& name) { return vfs::isFree(vfs::AbsoluteIRI(at(name)), storage); };
    EXPECT_TRUE(!isFree("n") && !isFree("n-0") && !isFree("n/x") && isFree("n-9") && isFree("n/y"));
}

// One byte of a body flipped on the way. A write's body carries its MD5 (Content-MD5) besides its
// signed SHA-256: the store refuses a damaged one (BadDigest; radosgw checks the SHA-256 first and
// answers XAmzContentSHA256Mismatch), the library sends the same bytes again and the right content
// is stored, or, damaged at every attempt, the write fails (IOError) and nothing is stored. A read of an
// object written in one PUT is checked against its ETag (its MD5): a damaged answer fails the read
// that reaches the end (IOError), also for the old content an append starts from.
TEST_P(ObjectStore, DamagedBodiesAreRefusedOrRepeated) {
    std::string const small = pattern(200000, 9), parts = pattern(11 * MiB + 1000, 10);
    struct Row { Fault fault; std::string const& bytes; bool stored; };
    Row const rows[] = {
        {{Fault::Corrupt, on("PUT "), 1000}, small, true},                            // one PUT, once
        {{Fault::Corrupt, on("PUT "), 1000, 1000}, small, false},                     // one PUT, always
        {{Fault::Corrupt, on("PUT ", "partNumber=2&"), 5 * MiB - 1}, parts, true},    // a part among three, once
        {{Fault::Corrupt, on("PUT ", "partNumber=2&"), 77, 1000}, parts, false},      // a part, always
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        std::string const name = "w" + std::to_string(i);
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), rows[i].fault);
        VirtualFileSystemOps faulty{through(proxy)};
        auto const [message, ec] = thrown([&] { writeAndClose(faulty, at(name), rows[i].bytes, MiB); });
        EXPECT_EQ(!ec, rows[i].stored) << message;
        EXPECT_TRUE(rows[i].stored || ec == errc::io_error) << message;
        EXPECT_TRUE(read(at(name)) == (rows[i].stored ? rows[i].bytes : "<missing>"));
        EXPECT_EQ(proxy.hits, rows[i].stored ? 1 : 6);
        EXPECT_EQ(uploads(name), 0u);
    }
    // Reads: one range, the second of two ranges of one PUT, and an append's old content.
    std::string const twoRanges = pattern(9 * MiB, 11);
    vfs::S3Settings onePut = objectStorage();
    onePut.partSize = 16 * MiB;
    VirtualFileSystemOps wide{StorageSystemReference(onePut)};
    writeAndClose(wide, at("r1"), small);
    writeAndClose(wide, at("r2"), twoRanges);
    for (auto const& [name, fault] : {std::pair{"r1", Fault{Fault::Corrupt, on("GET "), 1234}},
                                      {"r2", Fault{Fault::Corrupt, on("GET ", "range: bytes=8388608-"), 5}}}) {
        SCOPED_TRACE(name);
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), fault);
        VirtualFileSystemOps faulty{through(proxy)};
        EXPECT_TRUE(readFails(faulty, at(name), name == std::string("r1") ? small.size() : twoRanges.size()));
        EXPECT_EQ(proxy.hits, 1);
        EXPECT_TRUE(read(at(name)) == (name == std::string("r1") ? small : twoRanges)); // without the proxy: whole
    }
    FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::Corrupt, on("GET "), 10});
    VirtualFileSystemOps faulty{through(proxy)};
    auto const [message, ec] = thrown([&] { faulty.createOutputStream(at("r1"), OpenMode::WriteBinary | OpenMode::Append); });
    EXPECT_EQ(ec, errc::io_error) << message;
    EXPECT_NE(message.find("does not match its ETag"), std::string::npos) << message;
    EXPECT_TRUE(read(at("r1")) == small);
}

// Four parts (three of 5 MiB and a short one), several in flight at once: a part that fails for
// good among them reaches the writer (at a later write or at close) and leaves no object and no
// upload, and so does a completion refused after all four; a part that fails twice is repeated and
// the content is whole; a stream dropped without close() while parts are in flight leaves nothing
// either. The proxy never sees more parts at once than allowed. Part copies likewise.
TEST_P(ObjectStore, PartsFailingAmongOthersInFlightReachTheWriter) {
    std::string const bytes = pattern(15 * MiB + 1000, 12);
    struct Row { Fault fault; unsigned parallel; bool stored; };
    Row const rows[] = {
        {{Fault::Refuse, on("PUT ", "partNumber=3&"), 0, 1000, broken}, 4, false}, // the 3rd part always refused
        {{Fault::Refuse, on("PUT ", "partNumber=3&"), 0, 1000, broken}, 1, false}, // ... one part at a time
        {{Fault::CutRequest, on("PUT ", "partNumber=3&"), 200, 1000}, 4, false},    // cut in its headers, always
        {{Fault::Refuse, on("PUT ", "partNumber=1&"), 0, 1000, broken}, 4, false}, // the 1st: later writes go on
        {{Fault::Refuse, on("PUT ", "partNumber=3&"), 0, 2, broken}, 4, true},     // refused twice, then taken
        {{Fault::Refuse, on("POST ", "uploadId="), 0, 1000, broken}, 4, false},    // all four taken, the completion refused
        {{Fault::Gather, on("PUT ", "partNumber="), 4, 4}, 4, true},                // the first four parts meet at the proxy
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        std::string const name = "p" + std::to_string(i);
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), rows[i].fault);
        VirtualFileSystemOps faulty{through(proxy, rows[i].parallel)};
        auto const [message, ec] = thrown([&] { writeAndClose(faulty, at(name), bytes, 3 * MiB); });
        EXPECT_EQ(!ec, rows[i].stored) << message;
        EXPECT_TRUE(rows[i].stored || ec == errc::io_error) << message;
        EXPECT_TRUE(read(at(name)) == (rows[i].stored ? bytes : "<missing>"));
        EXPECT_EQ(uploads(name), 0u);
        EXPECT_LE(proxy.peak, int(rows[i].parallel)); // never more parts in flight than allowed
        // Met at once, each sent once (a repeat after a stall would count twice).
        EXPECT_TRUE(rows[i].fault.kind != Fault::Gather || (proxy.peak == 4 && proxy.matched == 4)) << "parts went one by one";
    }
    for (unsigned parallel : {1u, 4u}) {
        // Dropped while parts are in flight (the last full ones, the 2nd refused twice first):
        // joined, then aborted.
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::Refuse, on("PUT ", "partNumber=2&"), 0, 2, broken});
        VirtualFileSystemOps faulty{through(proxy, parallel)};
        std::string const name = "dropped" + std::to_string(parallel);
        try {
            auto out = faulty.createOutputStream(at(name), OpenMode::WriteBinary | OpenMode::Truncate);
            out->write(bytes.data(), std::streamsize(bytes.size()));
            throw std::runtime_error("dropped"); // the stream goes during unwinding: no close()
        } catch (std::runtime_error const&) {
        }
        EXPECT_EQ(read(at(name)), "<missing>");
        EXPECT_EQ(uploads(name), 0u);
    }
    // Server-side copies of the four parts, four at once: the 3rd copy refused for good fails the
    // copy and leaves nothing; the four copies meet at the proxy and the copy is whole.
    std::pair<Fault, bool> const copies[] = {{{Fault::Refuse, on("PUT ", "partNumber=3&"), 0, 1000, broken}, false},
                                             {{Fault::Gather, on("PUT ", "partNumber=", "bytes=0-0"), 4, 4}, true}}; // not the probe of one byte
    for (std::size_t i = 0; i < std::size(copies); ++i) {
        auto const& [fault, copied] = copies[i];
        std::string const name = "copy" + std::to_string(i);
        SCOPED_TRACE(name);
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), fault);
        VirtualFileSystemOps faulty{through(proxy, 4)};
        auto const [message, ec] = thrown([&] { faulty.copy(at("p4"), at(name), FailIfExists); });
        EXPECT_EQ(!ec, copied) << message;
        EXPECT_TRUE(read(at(name)) == (copied ? bytes : "<missing>"));
        EXPECT_EQ(uploads(name), 0u);
        EXPECT_TRUE(fault.kind == Fault::Gather ? proxy.peak == 4 && proxy.matched == 4 : proxy.peak <= 4) << proxy.peak; // straight to the free name
    }
}

// Ranges of 8 MiB fetched ahead side by side reach the reader in order: a range whose answer is
// lost once is repeated; one refused for good fails the read exactly where it starts, after every
// byte before it; seeks away from the ranges fetched ahead and back, and a stream dropped while
// ranges are in flight, read and leave nothing wrong.
TEST_P(ObjectStore, RangesFetchedAheadArriveInOrder) {
    std::string const bytes = pattern(3 * 8 * MiB + 1000, 13);
    write(at("r"), bytes);
    std::string const third = "range: bytes=" + std::to_string(16 * MiB) + "-";
    for (unsigned parallel : {1u, 4u}) {
        SCOPED_TRACE(std::to_string(parallel) + " in flight");
        {
            FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::CutAnswer, on("GET ", third), 1000});
            VirtualFileSystemOps faulty{through(proxy, parallel)};
            EXPECT_TRUE(readThrough(faulty, at("r")) == bytes);
            EXPECT_EQ(proxy.hits, 1);
            EXPECT_LE(proxy.peak, int(parallel) + 1); // the range being read, and those fetched ahead
        }
        { // the first range and those fetched ahead (all four ranges at most) meet at the proxy
            int const atOnce = int(std::min(parallel + 1, 4u));
            FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::Gather, on("GET ", "range: "), std::size_t(atOnce), atOnce});
            VirtualFileSystemOps faulty{through(proxy, parallel)};
            EXPECT_TRUE(readThrough(faulty, at("r")) == bytes);
            EXPECT_EQ(proxy.peak, atOnce) << "no range was fetched ahead";
            EXPECT_EQ(proxy.matched, 4); // each range once: no repeat after a stall
        }
        FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::Refuse, on("GET ", third), 0, 1000, broken});
        VirtualFileSystemOps faulty{through(proxy, parallel)};
        auto in = faulty.createInputStream(at("r"), OpenMode::ReadBinary);
        std::string got, piece(MiB, '\0');
        while (in->read(piece.data(), std::streamsize(piece.size()))) got += piece;
        EXPECT_TRUE(in->bad());
        EXPECT_TRUE(got == bytes.substr(0, 16 * MiB)) << got.size();
        in = faulty.createInputStream(at("r"), OpenMode::ReadBinary);
        for (std::size_t offset : {std::size_t(0), 17 * MiB, 3 * MiB, 9 * MiB, 8 * MiB - 10, 0 * MiB}) {
            if (offset >= 16 * MiB) { // in the refused range: fails, then the stream is opened again
                in->seekg(std::streamoff(offset)).read(piece.data(), 16);
                EXPECT_TRUE(in->bad()) << offset;
                in = faulty.createInputStream(at("r"), OpenMode::ReadBinary);
                continue;
            }
            in->seekg(std::streamoff(offset)).read(piece.data(), std::streamsize(piece.size()));
            EXPECT_TRUE(in->good() && piece == bytes.substr(offset, MiB)) << offset;
        }
        in.reset(); // ranges may still be arriving
    }
}

// Litter of killed writers: old unfinished uploads and temporary objects are found and removed,
// other objects stay.
TEST_P(ObjectStore, LitterIsFoundAndRemoved) {
    ops().createFolder(at("dir"));
    for (std::string name : {".abcdefghij0123456.tmp", ".0123456789abcdef.tmp", "dir/.zzzzzzzzzzzzzzzz.tmp", "a.tmp", ".short.tmp"})
        write(at(name), "x");
    FaultProxy proxy(env("AWS_ENDPOINT_URL"), {Fault::Refuse, on("", "uploadId="), 0, 1000, broken});
    VirtualFileSystemOps faulty{through(proxy)}; // an upload whose completion and abort are refused stays behind
    EXPECT_THROW(writeAndClose(faulty, at("big"), pattern(5 * MiB + 1, 8)), Exception);
    ASSERT_EQ(uploads(), 1u);
    std::string const bucket = env("S3_BUCKET"), prefix = m_key + "/";
    EXPECT_EQ(vfs::removeS3Litter(objectStorage(), bucket, prefix, std::chrono::hours(1)).objects.size(), 0u);
    EXPECT_EQ(uploads(), 1u);
    vfs::S3Litter const found = vfs::removeS3Litter(objectStorage(), bucket, prefix, std::chrono::seconds(0));
    EXPECT_EQ(found.uploads, std::vector<std::string>{prefix + "big"});
    EXPECT_EQ(found.objects, (std::vector<std::string>{prefix + ".0123456789abcdef.tmp", prefix + "dir/.zzzzzzzzzzzzzzzz.tmp"}));
    EXPECT_EQ(uploads(), 0u);
    EXPECT_EQ(listing(m_root), expected({".abcdefghij0123456.tmp", "a.tmp", ".short.tmp"}));
}

INSTANTIATE_TEST_SUITE_P(BackEnds, ObjectStore, ::testing::Values(BackEnd{"s3", objects, u"s3"}),
                         [](auto const& info) { return info.param.name; });

} // namespace
} // namespace opc::test
