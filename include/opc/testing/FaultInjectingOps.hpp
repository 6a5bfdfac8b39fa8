#pragma once

#include <opc/FileSystemOps.hpp>
#include <opc/testing/Export.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace opc::testing {

/// One call that reached a `FaultInjectingOps`.
struct OPC_TESTING_API Call {
    /// The public name of the operation ("exists", "copy", "replaceFileWithBackup"...).
    std::string operation;
    /// The path arguments in the order the operation takes them (source before destination,
    /// target before link; a commit's target, then its source).
    std::vector<std::u16string> paths;
    /// The one scalar argument, when there is one: permission bits, open mode, `ExistsMode`,
    /// or 1 for a recursive `getFiles`; 0 otherwise.
    std::uint64_t value = 0;
    /// The time handed to `setLastModifiedTime`; not-a-date-time otherwise.
    boost::posix_time::ptime time;
};

/// A back end for tests that forwards every operation to another back end, counts the calls,
/// and makes chosen calls fail instead.
///
/// A failed call does not reach the inner back end. It fails the way a failure of a real back
/// end does: the throwing form throws `opc::Exception` with "<operation> failed: " + the code's
/// message + ": " + the first path argument, and the chosen code; the error-code form sets the
/// code and returns the operation's failure value (false, 0, an empty string or stream,
/// `PermsUnknown`, not-a-date-time).
///
/// `replaceFileWithBackup` is not forwarded whole: after its own call is counted it runs the
/// library's commit with this object as the target back end, so the commit's calls are counted
/// and can fail too. `getLocalPath` and `isAbsolutePath`, which cannot fail, are forwarded and
/// neither counted nor logged.
///
/// Not safe for concurrent calls; the inner back end must outlive this object.
class OPC_TESTING_API FaultInjectingOps : public FileSystemOps {
public:
    /// Chooses the calls to fail: sees each call before it is forwarded.
    using Picker = std::function<bool(Call const& call)>;

    /// Forwards to `inner`; no call fails until `failCall` or `failWhen` says so.
    explicit FaultInjectingOps(FileSystemOps& inner);
    ~FaultInjectingOps() override;

    /// Fails the `k`-th call counted from now (1-based; 0 fails none) with `code`, and starts the
    /// counts and the log afresh. Replaces an earlier `failCall`; `failWhen` stays.
    void failCall(std::size_t k, error_code code);
    /// Fails every call `pick` chooses with `code` (an empty `pick` chooses none). Replaces an
    /// earlier `failWhen`; `failCall` stays.
    void failWhen(Picker pick, error_code code);
    /// True once a call was failed on purpose since the last `failCall`, `failWhen` or `reset`.
    bool fired() const noexcept;
    /// Starts the counts and the log afresh and clears `fired`, keeping the faults.
    void reset();

    /// The number of calls counted, in total.
    std::size_t callCount() const noexcept;
    /// The number of calls counted of the operation with public name `operation`.
    std::size_t callCount(std::string const& operation) const;
    /// Every counted call in order, failed ones included.
    std::vector<Call> const& calls() const noexcept;

protected:
    /// What a call returns: nothing, or a value of one of the operations' result types (a list
    /// of paths for `getFiles`, which appends it to the caller's list).
    using Result = std::variant<std::monostate, bool, std::u16string, Perms::Perms_tag, ptime, std::uint64_t,
                                std::shared_ptr<std::istream>, std::shared_ptr<std::ostream>,
                                std::vector<std::u16string>, std::string>;

    /// For doubles built on this one that answer calls themselves: a call `answer` leaves to be
    /// forwarded succeeds with an empty result instead; `getLocalPath` and `isAbsolutePath`
    /// return false.
    FaultInjectingOps();

    /// Called for every counted call that is not failed on purpose. A derived double answers
    /// the call by returning its result (and, to fail it, setting `ec` and `detail` as a back
    /// end does), or returns nothing to have it forwarded. A result of another type than the
    /// operation's counts as an empty one. It may throw, as a misbehaving back end would (that
    /// reaches callers of the throwing forms; the noexcept error-code forms end the process).
    /// This one forwards every call.
    virtual std::optional<Result> answer(Call const& call, std::string& detail, error_code& ec);

    // The back-end operations: each counts and logs its call, then fails it, lets `answer`
    // answer it, or forwards it to the inner back end through its throwing form, so that an
    // inner failure comes back with the back end's own detail and code (and the failure value).
    std::u16string doGetTempName(const std::u16string& folder, std::string& detail, error_code& ec) override;
    std::u16string doGetParentPath(const std::u16string& path, std::string& detail, error_code& ec) override;
    std::u16string doGetFilename(const std::u16string& path, std::string& detail, error_code& ec) override;
    std::u16string doGetExtension(const std::u16string& path, std::string& detail, error_code& ec) override;
    std::u16string doAppendPath(const std::u16string& path, const std::u16string& child, std::string& detail,
                                error_code& ec) override;
    std::u16string doNormalizePath(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doGetLocalPath(const std::u16string& path, std::u16string& localPath) override;
    bool doIsAbsolutePath(const std::u16string& path) override;
    bool doExists(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doIsFile(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doIsFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    bool doIsSymlink(const std::u16string& path, std::string& detail, error_code& ec) override;
    Perms::Perms_tag doGetPermissions(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doSetPermissions(const std::u16string& path, Perms::Perms_tag perms, std::string& detail,
                          error_code& ec) override;
    ptime doGetLastModifiedTime(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doSetLastModifiedTime(const std::u16string& path, ptime time, std::string& detail, error_code& ec) override;
    std::uint64_t doGetSizeInBytes(const std::u16string& path, std::string& detail, error_code& ec) override;
    std::u16string doGetLinkTarget(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doGetFiles(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive,
                    std::string& detail, error_code& ec) override;
    std::shared_ptr<std::istream> doCreateInputStream(const std::u16string& path, unsigned mode, std::string& detail,
                                                      error_code& ec) override;
    std::shared_ptr<std::ostream> doCreateOutputStream(const std::u16string& path, unsigned mode, std::string& detail,
                                                       error_code& ec) override;
    void doCreateFolder(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doCreateFolders(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doCreateSymlink(const std::u16string& target, const std::u16string& link, std::string& detail,
                         error_code& ec) override;
    void doCopy(const std::u16string& source, const std::u16string& destination, ExistsMode mode, std::string& detail,
                error_code& ec) override;
    void doRename(const std::u16string& from, const std::u16string& to, std::string& detail, error_code& ec) override;
    std::string doGetVersionTag(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doRenameIfVersion(const std::u16string& from, const std::u16string& to, const std::string& expectedVersion,
                           std::string& detail, error_code& ec) override;
    void doRemove(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doRemoveAll(const std::u16string& path, std::string& detail, error_code& ec) override;
    void doReplaceFileWithBackup(const std::u16string& targetPath, FileSystemOps& sourceOps,
                                 const std::u16string& sourcePath, const CommitOptions& options, std::string& detail,
                                 error_code& ec) override;

private:
    struct Route;

    FileSystemOps* m_inner = nullptr;
    std::vector<Call> m_calls;
    std::map<std::string, std::size_t, std::less<>> m_counts;
    std::size_t m_failAt = 0;
    error_code m_failAtCode;
    Picker m_pick;
    error_code m_pickCode;
    bool m_fired = false;
};

} // namespace opc::testing
