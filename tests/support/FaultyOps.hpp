#pragma once

#include "support/ScriptedOps.hpp"

#include <opc/FileSystemOps.hpp>

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace opc::test {

/// A back end that forwards every operation to an inner one and fails the k-th counted call
/// with a chosen code instead of forwarding it (so a failed call changes nothing).
///
/// Every fallible operation counts; `getLocalPath` and `isAbsolutePath`, which cannot fail, are
/// forwarded uncounted. Forwarding goes through the inner back end's public forms, so the inner
/// detail text is replaced by the code's own message (the path-text operations, which only
/// throw, keep theirs). `replaceFileWithBackup` commits with this object as the target, so a
/// nested commit is itself subject to faults.
class FaultyOps : public FileSystemOps {
public:
    explicit FaultyOps(FileSystemOps& inner) : m_inner(inner) {}

    /// Fails call number `k` (1-based) from now on; 0 fails nothing. Resets the count and log.
    void failCall(std::size_t k, boost::system::error_code code);

    std::size_t calls() const { return m_log.size(); }
    /// The counted operations in order.
    std::vector<Op> const& log() const { return m_log; }
    /// True once the chosen call was failed.
    bool fired() const { return m_fired; }

    static char const* injectedDetail() { return "injected fault"; }

protected:
    std::u16string doGetTempName(const std::u16string& f, std::string& d, error_code& ec) override;
    std::u16string doGetParentPath(const std::u16string& p, std::string& d, error_code& ec) override;
    std::u16string doGetFilename(const std::u16string& p, std::string& d, error_code& ec) override;
    std::u16string doGetExtension(const std::u16string& p, std::string& d, error_code& ec) override;
    std::u16string doAppendPath(const std::u16string& p, const std::u16string& c, std::string& d,
                                error_code& ec) override;
    std::u16string doNormalizePath(const std::u16string& p, std::string& d, error_code& ec) override;
    bool doGetLocalPath(const std::u16string& p, std::u16string& out) override;
    bool doIsAbsolutePath(const std::u16string& p) override;
    bool doExists(const std::u16string& p, std::string& d, error_code& ec) override;
    bool doIsFile(const std::u16string& p, std::string& d, error_code& ec) override;
    bool doIsFolder(const std::u16string& p, std::string& d, error_code& ec) override;
    bool doIsSymlink(const std::u16string& p, std::string& d, error_code& ec) override;
    Perms::Perms_tag doGetPermissions(const std::u16string& p, std::string& d, error_code& ec) override;
    void doSetPermissions(const std::u16string& p, Perms::Perms_tag v, std::string& d, error_code& ec) override;
    ptime doGetLastModifiedTime(const std::u16string& p, std::string& d, error_code& ec) override;
    void doSetLastModifiedTime(const std::u16string& p, ptime t, std::string& d, error_code& ec) override;
    std::uint64_t doGetSizeInBytes(const std::u16string& p, std::string& d, error_code& ec) override;
    std::u16string doGetLinkTarget(const std::u16string& p, std::string& d, error_code& ec) override;
    void doGetFiles(const std::u16string& f, std::vector<std::u16string>& out, bool r, std::string& d,
                    error_code& ec) override;
    std::shared_ptr<std::istream> doCreateInputStream(const std::u16string& p, unsigned m, std::string& d,
                                                      error_code& ec) override;
    std::shared_ptr<std::ostream> doCreateOutputStream(const std::u16string& p, unsigned m, std::string& d,
                                                       error_code& ec) override;
    void doCreateFolder(const std::u16string& p, std::string& d, error_code& ec) override;
    void doCreateFolders(const std::u16string& p, std::string& d, error_code& ec) override;
    void doCreateSymlink(const std::u16string& t, const std::u16string& l, std::string& d, error_code& ec) override;
    void doCopy(const std::u16string& s, const std::u16string& t, ExistsMode m, std::string& d,
                error_code& ec) override;
    void doRename(const std::u16string& f, const std::u16string& t, std::string& d, error_code& ec) override;
    void doRemove(const std::u16string& p, std::string& d, error_code& ec) override;
    void doRemoveAll(const std::u16string& p, std::string& d, error_code& ec) override;
    void doReplaceFileWithBackup(const std::u16string& t, FileSystemOps& so, const std::u16string& s,
                                 const CommitOptions& o, std::string& d, error_code& ec) override;

private:
    // Counts the call; fails it when it is the chosen one, otherwise runs `forward(ec)` and
    // turns a failure it reports into a detail text.
    template <class R, class F>
    R pass(Op op, R failed, std::string& detail, error_code& ec, F&& forward);
    template <class F>
    void passVoid(Op op, std::string& detail, error_code& ec, F&& forward);
    // For operations that only have a throwing form.
    template <class F>
    std::u16string passText(Op op, std::string& detail, error_code& ec, F&& forward);

    FileSystemOps& m_inner;
    std::size_t m_failAt = 0;
    boost::system::error_code m_code;
    bool m_fired = false;
    std::vector<Op> m_log;
};

} // namespace opc::test
