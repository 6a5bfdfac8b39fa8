#pragma once

#include "support/ScriptedOps.hpp"

#include <opc/FileSystemOps.hpp>

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace opc::test {

/// Forwards every operation to an inner back end, except that it fails the k-th counted call
/// with a chosen code instead of forwarding it, so a failed call changes nothing. The two
/// operations that cannot fail are forwarded uncounted. Forwarding uses the inner public forms,
/// so an inner detail text becomes the code's own message (the path-text operations keep theirs).
class FaultyOps : public FileSystemOps {
public:
    explicit FaultyOps(FileSystemOps& inner) : m_inner(inner) {}

    /// Fails call number `k` (1-based) from now on, 0 none; resets the count and the log.
    void failCall(std::size_t k, boost::system::error_code code);

    std::vector<Op> const& log() const { return m_log; }
    bool fired() const { return m_fired; }

    static char const* injectedDetail() { return "injected fault"; }

protected:
    using Path = const std::u16string&;
    using Detail = std::string&;
    std::u16string doGetTempName(Path f, Detail d, error_code& ec) override;
    std::u16string doGetParentPath(Path p, Detail d, error_code& ec) override;
    std::u16string doGetFilename(Path p, Detail d, error_code& ec) override;
    std::u16string doGetExtension(Path p, Detail d, error_code& ec) override;
    std::u16string doAppendPath(Path p, Path c, Detail d, error_code& ec) override;
    std::u16string doNormalizePath(Path p, Detail d, error_code& ec) override;
    bool doGetLocalPath(Path p, std::u16string& out) override;
    bool doIsAbsolutePath(Path p) override;
    bool doExists(Path p, Detail d, error_code& ec) override;
    bool doIsFile(Path p, Detail d, error_code& ec) override;
    bool doIsFolder(Path p, Detail d, error_code& ec) override;
    bool doIsSymlink(Path p, Detail d, error_code& ec) override;
    Perms::Perms_tag doGetPermissions(Path p, Detail d, error_code& ec) override;
    void doSetPermissions(Path p, Perms::Perms_tag v, Detail d, error_code& ec) override;
    ptime doGetLastModifiedTime(Path p, Detail d, error_code& ec) override;
    void doSetLastModifiedTime(Path p, ptime t, Detail d, error_code& ec) override;
    std::uint64_t doGetSizeInBytes(Path p, Detail d, error_code& ec) override;
    std::u16string doGetLinkTarget(Path p, Detail d, error_code& ec) override;
    void doGetFiles(Path f, std::vector<std::u16string>& out, bool r, Detail d, error_code& ec) override;
    std::shared_ptr<std::istream> doCreateInputStream(Path p, unsigned m, Detail d, error_code& ec) override;
    std::shared_ptr<std::ostream> doCreateOutputStream(Path p, unsigned m, Detail d, error_code& ec) override;
    void doCreateFolder(Path p, Detail d, error_code& ec) override;
    void doCreateFolders(Path p, Detail d, error_code& ec) override;
    void doCreateSymlink(Path t, Path l, Detail d, error_code& ec) override;
    void doCopy(Path s, Path t, ExistsMode m, Detail d, error_code& ec) override;
    void doRename(Path f, Path t, Detail d, error_code& ec) override;
    void doRemove(Path p, Detail d, error_code& ec) override;
    void doRemoveAll(Path p, Detail d, error_code& ec) override;
    void doReplaceFileWithBackup(Path t, FileSystemOps& so, Path s, const CommitOptions& o, Detail d,
                                 error_code& ec) override;

private:
    // Counts the call and fails the chosen one; otherwise forwards and turns an error into a detail.
    template <class R, class F>
    R pass(Op op, R failed, std::string& detail, error_code& ec, F&& forward);
    template <class F>
    void passVoid(Op op, std::string& detail, error_code& ec, F&& forward);
    template <class F>
    std::u16string passText(Op op, std::string& detail, error_code& ec, F&& forward);

    FileSystemOps& m_inner;
    std::size_t m_failAt = 0;
    boost::system::error_code m_code;
    bool m_fired = false;
    std::vector<Op> m_log;
};

} // namespace opc::test
