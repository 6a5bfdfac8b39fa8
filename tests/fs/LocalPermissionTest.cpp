// Permission failures of the local back end. Root ignores permission bits, so each refused step
// runs in a forked child that dropped to the unprivileged user 65534 and reports by exit status.

#include "support/LocalWorld.hpp"

#include <opc/LocalFileSystemOps.hpp>
#include <opc/Exception.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace opc::test {
namespace {

namespace errc = boost::system::errc;
using boost::system::error_code;

// Runs `step` in a child without privileges; the child's failures come back as one message.
// The step returns an empty string when everything it checked held.
std::string asNobody(std::function<std::string()> const& step) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return "pipe failed";
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::close(pipeFds[0]);
        std::string message;
        if (::geteuid() == 0 && (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0))
            message = "could not drop privileges";
        else if (::geteuid() == 0)
            message = "still privileged";
        else
            message = step();
        if (!message.empty() && ::write(pipeFds[1], message.data(), message.size()) < 0)
            ::_exit(3);
        ::_exit(message.empty() ? 0 : 1);
    }
    ::close(pipeFds[1]);
    std::string message;
    char buffer[512];
    for (ssize_t n; (n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;)
        message.append(buffer, std::size_t(n));
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status))
        return "child did not exit normally";
    if (WEXITSTATUS(status) != 0 && message.empty())
        return "child failed without a message";
    return message;
}

// The child's checks: empty when the code, or the thrown message, is the one expected.
std::string expect(error_code const& ec, errc::errc_t code) {
    return ec == errc::make_error_code(code) ? "" : "code " + ec.message() + " (" + ec.category().name() + ") ";
}

template <class Call>
std::string expectThrown(Call&& call, std::string const& message) {
    try {
        call();
        return "no exception ";
    } catch (opc::Exception const& e) {
        std::string const code = expect(e.code(), errc::permission_denied);
        return e.what() == message ? code : code + "message " + e.what() + " ";
    }
}

class LocalPermissions : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(m_folder.at("private").c_str(), 0700), 0);
        std::ofstream(m_folder.at("private/inside")) << "secret";
        ASSERT_EQ(::mkdir(m_folder.at("locked").c_str(), 0755), 0);
        std::ofstream(m_folder.at("locked/file")) << "stays";
        std::ofstream(m_folder.at("owner-only")) << "mine";
        ASSERT_EQ(::chmod(m_folder.at("owner-only").c_str(), 0600), 0);
        if (::geteuid() == 0) {
            // The scratch folder must be writable by the child; these must not.
            ASSERT_EQ(::chown(m_folder.path().c_str(), 0, 0), 0);
        }
    }

    std::u16string path(std::string const& relative) const { return utf16(m_folder.at(relative)); }

    ScratchFolder m_folder;
};

TEST_F(LocalPermissions, ReadingWithoutRightsFailsWithTheHostsCodeAndText) {
    auto const file = path("owner-only"), folder = path("private"), inside = path("private/inside");
    auto const root = utf16(m_folder.path());
    auto const listingText = "getFiles failed: " + std::string(std::strerror(EACCES)) + ": " + m_folder.at("private");
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  error_code ec;
                  std::string problems;
                  if (ops.createInputStream(file, OpenMode::ReadBinary, ec))
                      problems += "opened ";
                  problems += expect(ec, errc::permission_denied);
                  problems += expectThrown([&] { ops.createInputStream(file, OpenMode::ReadBinary); },
                                           std::string("createInputStream failed: ") + std::strerror(EACCES));
                  std::vector<std::u16string> files;
                  problems += expectThrown([&] { ops.getFiles(folder, files, false); }, listingText);
                  // An unreadable sub-folder stops the whole recursive listing; nothing inside it is listed.
                  ops.getFiles(root, files, true, ec);
                  problems += expect(ec, errc::permission_denied);
                  if (std::find(files.begin(), files.end(), inside) != files.end())
                      problems += "listed a file of the unreadable folder ";
                  return problems;
              }),
              "");
}

TEST_F(LocalPermissions, ChangesRefusedWithoutRightsLeaveEverything) {
    auto const file = path("locked/file"), folder = path("locked"), target = path("locked/new");
    struct stat before {};
    ASSERT_EQ(::lstat(m_folder.at("locked/file").c_str(), &before), 0);
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  std::string problems;
                  error_code ec;
                  if (ops.createOutputStream(target, OpenMode::WriteBinary, ec))
                      problems += "opened ";
                  problems += expect(ec, errc::permission_denied);
                  ops.remove(file, ec);
                  problems += expect(ec, errc::permission_denied);
                  ops.removeAll(folder, ec);
                  problems += expect(ec, errc::permission_denied);
                  ops.rename(file, file + u"-moved", ec);
                  problems += expect(ec, errc::permission_denied);
                  ops.setPermissions(file, Perms::Perms_tag(0777), ec); // not the owner: EPERM
                  problems += expect(ec, errc::permission_denied);
                  return problems;
              }),
              "");
    struct stat after {};
    ASSERT_EQ(::lstat(m_folder.at("locked/file").c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_FALSE(std::filesystem::exists(m_folder.at("locked/file-moved")));
    EXPECT_FALSE(std::filesystem::exists(m_folder.at("locked/new")));
    std::ifstream in(m_folder.at("locked/file"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "stays");
}

} // namespace
} // namespace opc::test
