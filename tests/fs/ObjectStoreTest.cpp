// The s3 scheme against a live object store (eval "$(scripts/s3-server.sh start)"): what awscli
// reads of the library's objects and the reverse, the multipart, part-copy and paged-listing
// paths, a gateway killed during an upload, and 503 answers from a loopback server.
#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/Exception.hpp>
#include <opc/Text.hpp>
#include <opc/VirtualFileSystemOps.hpp>

#include <stratum/storage/vfs/S3Settings.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
using boost::system::error_code;
using stratum::storage::vfs::S3Settings;
using stratum::storage::vfs::StorageSystemReference;
constexpr std::size_t MiB = std::size_t(1) << 20;

std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }

/// What `command` writes to standard output, and whether it exited with 0.
std::pair<bool, std::string> run(std::string const& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    char chunk[65536];
    for (std::size_t n; pipe && (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    return {pipe && ::pclose(pipe) == 0, out};
}

/// A fresh folder of the bucket the environment names, through settings with 5 MiB parts and
/// part-wise copies above 6 MiB.
class ObjectStore : public ::testing::Test {
protected:
    void SetUp() override {
        if (env("AWS_ENDPOINT_URL").empty() || env("S3_BUCKET").empty())
            GTEST_SKIP() << "no S3 server: AWS_ENDPOINT_URL and S3_BUCKET are not both set "
                            "(eval \"$(scripts/s3-server.sh start)\" sets them)";
        S3Settings settings = S3Settings::fromEnvironment();
        settings.partSize = 5 * MiB;
        settings.copyPartThreshold = 6 * MiB;
        m_ops = std::make_unique<VirtualFileSystemOps>(StorageSystemReference(settings));
        m_prefix = "objects-" + std::to_string(std::random_device{}());
        m_ops->createFolder(at(""));
    }
    void TearDown() override {
        error_code ec;
        if (m_ops)
            m_ops->removeAll(at(""), ec);
    }
    std::string uri(std::string const& relative) {
        return "s3://" + env("S3_BUCKET") + "/" + m_prefix + (relative.empty() ? "" : "/" + relative);
    }
    std::u16string at(std::string const& relative) { return toString(uri(relative), true); }
    void write(std::string const& relative, std::string const& bytes) { writeThrough(*m_ops, at(relative), bytes); }
    std::string read(std::string const& relative) { return readThrough(*m_ops, at(relative)); }
    /// awscli on the test server (Debian's ignores AWS_ENDPOINT_URL).
    std::pair<bool, std::string> aws(std::string const& arguments) {
        return run("aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' " + arguments);
    }
    std::string head(std::string const& relative) {
        return aws("s3api head-object --bucket " + env("S3_BUCKET") + " --key '" + m_prefix + "/" + relative + "'").second;
    }
    void needAws() {
        if (!run("command -v aws >/dev/null").first)
            GTEST_SKIP() << "no aws on PATH";
    }

    std::unique_ptr<VirtualFileSystemOps> m_ops;
    std::string m_prefix;
};

// What the library writes, copies part-wise and moves, awscli reads; a listing longer than one
// page is whole; a reader pinned to the version it opened fails once the object is replaced.
TEST_F(ObjectStore, AwsReadsWhatTheLibraryWritesAndCopies) {
    needAws();
    std::string const big = pattern(12 * MiB, 1);
    write("small", "tiny");
    write("big", big);
    m_ops->createFolder(at("dir"));
    m_ops->setLastModifiedTime(at("small"), boost::posix_time::from_time_t(981173106));
    m_ops->copy(at("big"), at("copy"), FailIfExists);
    m_ops->rename(at("copy"), at("moved"));
    EXPECT_EQ(aws("s3 cp " + uri("small") + " -").second, "tiny");
    for (std::string const name : {"big", "moved"}) { // three parts of 5 MiB, written or copied
        EXPECT_TRUE(aws("s3 cp " + uri(name) + " -").second == big) << name;
        EXPECT_NE(head(name).find("-3\\\""), std::string::npos) << head(name);
    }
    EXPECT_NE(head("dir/").find("\"ContentLength\": 0"), std::string::npos) << head("dir/");
    EXPECT_NE(head("small").find("\"mtime\": \"981173106\""), std::string::npos) << head("small");
    m_ops->createFolder(at("many")); // more keys than one page of ListObjectsV2 (1,000)
    std::vector<std::thread> writers;
    for (int t = 0; t < 8; ++t)
        writers.emplace_back([&, t] {
            for (int i = t; i < 1100; i += 8)
                write("many/" + std::to_string(i), "");
        });
    for (auto& writer : writers)
        writer.join();
    std::vector<std::u16string> flat, oneLevel;
    m_ops->getFiles(at("many"), flat, true);
    m_ops->getFiles(at("many"), oneLevel, false);
    EXPECT_EQ(flat.size(), 1100u);
    EXPECT_EQ(oneLevel.size(), 1100u);
    auto in = m_ops->createInputStream(at("big"), OpenMode::ReadBinary);
    std::string part(MiB, '\0');
    in->read(part.data(), std::streamsize(part.size()));
    write("big", "replaced");
    std::string rest(big.size() - MiB, '\0');
    in->read(rest.data(), std::streamsize(rest.size()));
    EXPECT_TRUE(in->bad());
}

TEST_F(ObjectStore, LibraryReadsWhatAwsWrites) {
    needAws();
    HostFolder folder;
    std::string const bytes = pattern(20 * MiB, 2), file = (folder.path() / "twenty").string();
    writeFile(file, bytes);
    ASSERT_TRUE(aws("s3 cp " + file + " " + uri("twenty") + " --quiet").first);
    EXPECT_NE(head("twenty").find("-3\\\""), std::string::npos) << "awscli sent three parts: " << head("twenty");
    EXPECT_EQ(m_ops->getSizeInBytes(at("twenty")), bytes.size());
    EXPECT_TRUE(read("twenty") == bytes);
    // Keys no library write makes: an empty segment, a file beside a folder of its name.
    for (std::string key : {"a//b", "x", "x/y", "e/f"})
        ASSERT_TRUE(run("printf " + key + " | aws --endpoint-url '" + env("AWS_ENDPOINT_URL") + "' s3 cp - '" + uri(key) + "'").first);
    EXPECT_EQ(read("a//b"), "a//b");
    std::vector<std::u16string> files;
    m_ops->getFiles(at(""), files, true);
    EXPECT_EQ(files, (std::vector<std::u16string>{at("e/f"), at("twenty"), at("x")}));
}

TEST_F(ObjectStore, OfFoldersMadeAtOnceOneIsMade) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> made{0};
        std::vector<std::thread> makers;
        for (int t = 0; t < 6; ++t)
            makers.emplace_back([&] {
                error_code ec;
                m_ops->createFolder(at("f" + std::to_string(round)), ec);
                made += !ec;
                EXPECT_TRUE(!ec || ec == errc::file_exists) << ec.message();
            });
        for (auto& maker : makers)
            maker.join();
        EXPECT_EQ(made, 1) << "round " << round;
    }
}

TEST_F(ObjectStore, GatewayKilledDuringAnUploadLeavesTheOldObject) {
    if (env("OPC_S3_DIR").empty())
        GTEST_SKIP() << "OPC_S3_DIR does not name a cluster this test may stop";
    std::string const script = std::string(OPC_SOURCE_DIR) + "/scripts/s3-server.sh ";
    write("target", "old");
    auto out = m_ops->createOutputStream(at("target"), OpenMode::WriteBinary | OpenMode::Truncate);
    std::string const part = pattern(6 * MiB, 4);
    out->write(part.data(), std::streamsize(part.size())); // the first part goes out
    ASSERT_TRUE(run(script + "stop-gateway --kill").first);
    EXPECT_THROW((out->write(part.data(), std::streamsize(part.size())), out->flush()), Exception);
    out.reset();
    ASSERT_TRUE(run(script + "start-gateway").first);
    EXPECT_EQ(read("target"), "old");
    std::vector<std::u16string> files;
    m_ops->getFiles(at(""), files, true);
    EXPECT_EQ(files, std::vector<std::u16string>{at("target")});
}

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
        m_endpoint = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { serve(); });
    }
    ~FakeServer() {
        ::shutdown(m_socket, SHUT_RDWR);
        ::close(m_socket);
        m_thread.join();
    }
    std::string const& endpoint() const { return m_endpoint; }
    int requests() const { return m_requests; }

private:
    void serve() {
        for (int client; (client = ::accept(m_socket, nullptr, nullptr)) >= 0; ::close(client)) {
            std::string request;
            char chunk[4096];
            for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = ::recv(client, chunk, sizeof chunk, 0)) > 0;)
                request.append(chunk, std::size_t(n));
            std::string const& answer = m_answers[std::min<std::size_t>(std::size_t(m_requests++), m_answers.size() - 1)];
            ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    std::vector<std::string> m_answers;
    int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
    std::string m_endpoint;
    std::atomic<int> m_requests{0};
    std::thread m_thread;
};

TEST(ObjectStoreRetries, RefusalsAreRetriedThenReportedAsTryAgain) {
    std::string const refused = "HTTP/1.1 503 Slow Down\r\nRetry-After: 0\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    std::string const found = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nETag: \"e\"\r\nConnection: close\r\n\r\n";
    for (auto const& [answers, expected] : std::vector<std::pair<std::vector<std::string>, errc::errc_t>>{
             {{refused}, errc::resource_unavailable_try_again}, {{refused, found}, errc::success}}) {
        FakeServer server(answers);
        S3Settings settings;
        settings.endpoint = server.endpoint();
        settings.accessKeyId = settings.secretAccessKey = "test";
        VirtualFileSystemOps ops{StorageSystemReference(settings)};
        error_code ec;
        std::uint64_t const size = ops.getSizeInBytes(u"s3://bucket/object", ec);
        EXPECT_EQ(ec.value(), expected) << ec.message();
        EXPECT_EQ(size, expected ? 0u : 5u);
        EXPECT_GT(server.requests(), 1);
    }
}

} // namespace
} // namespace opc::test
