// The s3 back end's own proofs on a live object store (eval "$(scripts/s3-server.sh start)"): what
// awscli sees of it and the reverse, its multipart, part-copy and paged-listing paths and a
// gateway killed during an upload; 503 answers come from a loopback server.
#include "fs/Suite.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
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
    std::string head(std::string const& relative) {
        return aws("s3api head-object --bucket " + env("S3_BUCKET") + " --key '" + m_key + "/" + relative + "'").second;
    }
    bool haveAws() { return run("command -v aws >/dev/null").first; }
};

// What the library writes, copies part-wise and moves, awscli reads; a listing longer than one
// page is whole; a reader pinned to the version it opened fails once the object is replaced.
TEST_P(ObjectStore, AwsReadsWhatTheLibraryWritesAndCopies) {
    if (!haveAws()) GTEST_SKIP() << "no aws on PATH";
    std::string const big = pattern(12 * MiB, 1);
    write(at("small"), "tiny");
    write(at("big"), big);
    ops().createFolder(at("dir"));
    ops().setLastModifiedTime(at("small"), boost::posix_time::from_time_t(981173106));
    ops().copy(at("big"), at("copy"), FailIfExists);
    ops().rename(at("copy"), at("moved"));
    EXPECT_EQ(aws("s3 cp " + uri("small") + " -").second, "tiny");
    for (std::string const name : {"big", "moved"}) { // three parts of 5 MiB, written or copied
        EXPECT_TRUE(aws("s3 cp " + uri(name) + " -").second == big) << name;
        EXPECT_NE(head(name).find("-3\\\""), std::string::npos) << head(name);
    }
    EXPECT_NE(head("dir/").find("\"ContentLength\": 0"), std::string::npos) << head("dir/");
    EXPECT_NE(head("small").find("\"mtime\": \"981173106\""), std::string::npos) << head("small");
    ops().createFolder(at("many")); // more keys than one page of ListObjectsV2 (1,000)
    std::vector<std::thread> writers;
    for (int t = 0; t < 8; ++t)
        writers.emplace_back([&, t] {
            for (int i = t; i < 1100; i += 8) write(at("many/" + std::to_string(i)), "");
        });
    for (auto& writer : writers) writer.join();
    for (bool recursive : {true, false}) EXPECT_EQ(listing(at("many"), recursive).size(), 1100u) << recursive;
    auto in = ops().createInputStream(at("big"), OpenMode::ReadBinary);
    std::string buffer(big.size(), '\0');
    in->read(buffer.data(), std::streamsize(MiB));
    write(at("big"), "replaced");
    in->read(buffer.data() + MiB, std::streamsize(big.size() - MiB));
    EXPECT_TRUE(in->bad());
}

TEST_P(ObjectStore, LibraryReadsWhatAwsWrites) {
    if (!haveAws()) GTEST_SKIP() << "no aws on PATH";
    HostFolder folder;
    std::string const bytes = pattern(20 * MiB, 2), file = (folder.path() / "twenty").string();
    writeFile(file, bytes);
    ASSERT_TRUE(aws("s3 cp " + file + " " + uri("twenty") + " --quiet").first);
    EXPECT_NE(head("twenty").find("-3\\\""), std::string::npos) << "awscli sent three parts: " << head("twenty");
    EXPECT_EQ(ops().getSizeInBytes(at("twenty")), bytes.size());
    EXPECT_TRUE(read(at("twenty")) == bytes);
    // Keys no library write makes: an empty segment, a file beside a folder of its name.
    for (std::string key : {"a//b", "x", "x/y", "e/f"})
        ASSERT_TRUE(aws("s3 cp - '" + uri(key) + "'", "printf " + key + " | ").first);
    EXPECT_EQ(read(m_root + u"/a//b"), "a//b");
    EXPECT_EQ(listing(m_root), expected({"e/f", "twenty", "x"}));
}

TEST_P(ObjectStore, OfFoldersMadeAtOnceOneIsMade) {
    for (int round = 0; round < 5; ++round) {
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

INSTANTIATE_TEST_SUITE_P(BackEnds, ObjectStore, ::testing::Values(BackEnd{"s3", objects, u"s3"}),
                         [](auto const& info) { return info.param.name; });

/// A loopback server answering every request with the next of `answers` (the last one again
/// once they run out), one connection per request.
class FakeServer {
public:
    explicit FakeServer(std::vector<std::string> answers) : m_answers(std::move(answers)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) || ::listen(m_socket, 8) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length))
            throw std::runtime_error("no loopback socket");
        endpoint = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { serve(); });
    }
    ~FakeServer() {
        ::shutdown(m_socket, SHUT_RDWR);
        ::close(m_socket);
        m_thread.join();
    }
    std::string endpoint;
    std::atomic<int> requests{0};

private:
    void serve() {
        for (int client; (client = ::accept(m_socket, nullptr, nullptr)) >= 0; ::close(client)) {
            std::string request;
            char chunk[4096];
            for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = ::recv(client, chunk, sizeof chunk, 0)) > 0;)
                request.append(chunk, std::size_t(n));
            std::string const& answer = m_answers[std::min<std::size_t>(std::size_t(requests++), m_answers.size() - 1)];
            ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    std::vector<std::string> m_answers;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::thread m_thread;
};

TEST(ObjectStoreRetries, RefusalsAreRetriedThenReportedAsTryAgain) {
    std::string const refused = "HTTP/1.1 503 Slow Down\r\nRetry-After: 0\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    std::string const found = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nETag: \"e\"\r\nConnection: close\r\n\r\n";
    for (auto const& [answers, expected] : std::vector<std::pair<std::vector<std::string>, errc::errc_t>>{
             {{refused}, errc::resource_unavailable_try_again}, {{refused, found}, errc::success}}) {
        FakeServer server(answers);
        vfs::S3Settings settings;
        settings.endpoint = server.endpoint;
        settings.accessKeyId = settings.secretAccessKey = "test";
        VirtualFileSystemOps ops{StorageSystemReference(settings)};
        error_code ec;
        std::uint64_t const size = ops.getSizeInBytes(u"s3://bucket/object", ec);
        EXPECT_EQ(ec.value(), expected) << ec.message();
        EXPECT_EQ(size, expected ? 0u : 5u);
        EXPECT_GT(server.requests, 1);
    }
}

} // namespace
} // namespace opc::test
