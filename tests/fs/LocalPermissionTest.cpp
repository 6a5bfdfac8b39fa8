// Permission failures of the local back end. Root ignores permission bits, so each refused step
// runs in a forked child that dropped to the unprivileged user 65534 and reports by exit status.

#include "support/LocalWorld.hpp"

#include <opc/LocalFileSystemOps.hpp>
#include <opc/Exception.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
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

// The child's check of a reported code; empty when it is the one expected.
std::string expect(error_code const& ec, errc::errc_t code) {
    if (ec == errc::make_error_code(code))
        return {};
    return "code " + ec.message() + " (" + ec.category().name() + ") ";
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

TEST_F(LocalPermissions, OpeningAFileForReadingReportsTheSystemsErrorAndText) {
    auto const file = path("owner-only");
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  error_code ec;
                  if (ops.createInputStream(file, OpenMode::ReadBinary, ec))
                      return "opened";
                  if (ec != boost::system::error_code(EACCES, boost::system::generic_category()))
                      return "code " + ec.message();
                  try {
                      ops.createInputStream(file, OpenMode::ReadBinary);
                      return "no exception";
                  } catch (opc::Exception const& e) {
                      std::string const want = std::string("createInputStream failed: ") + std::strerror(EACCES);
                      return e.what() == want ? "" : std::string("message ") + e.what();
                  }
              }),
              "");
}

TEST_F(LocalPermissions, WritingIntoAFolderWithoutRightsFailsAndCreatesNothing) {
    auto const target = path("locked/new");
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  error_code ec;
                  if (ops.createOutputStream(target, OpenMode::WriteBinary, ec))
                      return "opened";
                  return expect(ec, errc::permission_denied);
              }),
              "");
    EXPECT_FALSE(std::filesystem::exists(m_folder.at("locked/new")));
}

TEST_F(LocalPermissions, ListingAnUnreadableFolderFailsWithTheHostTextAndPath) {
    auto const folder = path("private");
    auto const detailWanted = std::string(std::strerror(EACCES)) + ": " + m_folder.at("private");
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  std::vector<std::u16string> files;
                  try {
                      ops.getFiles(folder, files, false);
                      return "listed";
                  } catch (opc::Exception const& e) {
                      if (e.code() != errc::make_error_code(errc::permission_denied))
                          return "code " + e.code().message();
                      std::string const want = "getFiles failed: " + detailWanted;
                      return e.what() == want ? "" : std::string("message ") + e.what();
                  }
              }),
              "");
}

TEST_F(LocalPermissions, AnUnreadableSubFolderStopsTheWholeRecursiveListing) {
    // The root holds a readable file and the private folder; whatever came before the failure
    // stays listed, nothing inside the private folder is.
    auto const root = utf16(m_folder.path());
    auto const inside = path("private/inside");
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  std::vector<std::u16string> files;
                  error_code ec;
                  ops.getFiles(root, files, true, ec);
                  std::string problems = expect(ec, errc::permission_denied);
                  for (auto const& f : files) {
                      if (f == inside)
                          problems += "listed a file of the unreadable folder ";
                  }
                  return problems;
              }),
              "");
}

TEST_F(LocalPermissions, RemovalAndChangesRefusedWithoutRightsLeaveEverything) {
    auto const file = path("locked/file");
    auto const folder = path("locked");
    struct stat before {};
    ASSERT_EQ(::lstat(m_folder.at("locked/file").c_str(), &before), 0);
    EXPECT_EQ(asNobody([&]() -> std::string {
                  LocalFileSystemOps ops;
                  std::string problems;
                  error_code ec;
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
    std::ifstream in(m_folder.at("locked/file"));
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, "stays");
}

} // namespace
} // namespace opc::test
