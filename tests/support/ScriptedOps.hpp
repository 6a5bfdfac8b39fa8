#pragma once

#include <opc/FileSystemOps.hpp>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace opc::test {

/// The back-end operations, one per `do*` member, in interface order.
enum class Op {
    GetTempName, GetParentPath, GetFilename, GetExtension, AppendPath, NormalizePath, GetLocalPath,
    IsAbsolutePath, Exists, IsFile, IsFolder, IsSymlink, GetPermissions, SetPermissions,
    GetLastModifiedTime, SetLastModifiedTime, GetSizeInBytes, GetLinkTarget, GetFiles, CreateInputStream,
    CreateOutputStream, CreateFolder, CreateFolders, CreateSymlink, Copy, Rename, Remove, RemoveAll,
    ReplaceFileWithBackup
};

/// The public name of an operation ("exists" for Op::Exists).
char const* publicName(Op op);

/// One call received by the back end: its paths in order and its one scalar argument
/// (permissions, open mode, ExistsMode or the recursive flag), or its time stamp.
struct Call {
    Call(Op o, std::vector<std::u16string> p, std::uint64_t n = 0, boost::posix_time::ptime t = {})
        : op(o), paths(std::move(p)), number(n), time(t) {}

    Op op;
    std::vector<std::u16string> paths;
    std::uint64_t number = 0;
    boost::posix_time::ptime time;
};

using Value = std::variant<std::monostate, bool, std::u16string, Perms::Perms_tag, boost::posix_time::ptime,
                           std::uint64_t, std::shared_ptr<std::istream>, std::shared_ptr<std::ostream>>;

/// What the back end does for one call: run `effect` (which may throw), append `files`
/// (getFiles) or fill the out path (getLocalPath, from `value`), write `detail` when it is not
/// empty, assign `ec` when it is set, and return `value` (or a default one).
struct Reply {
    Value value;
    boost::system::error_code ec;
    std::string detail;
    std::vector<std::u16string> files;
    std::function<void(Call const&)> effect;

    static Reply ok(Value v = {});
    static Reply fail(boost::system::error_code ec, std::string detail = {}, Value v = {});
    static Reply fail(boost::system::errc::errc_t e, std::string detail = {}, Value v = {});
};

/// A back end whose every operation does what the test scripted and records what it received.
/// Replies are taken from the operation's queue first, then from its handler, then from its
/// default; without any of them an operation succeeds with a default value.
class ScriptedOps : public FileSystemOps {
public:
    void enqueue(Op op, Reply reply) { m_queued[op].push_back(std::move(reply)); }
    void on(Op op, std::function<Reply(Call const&)> handler) { m_handlers[op] = std::move(handler); }
    void byDefault(Op op, Reply reply) { m_defaults[op] = std::move(reply); }

    std::vector<Call> const& calls() const { return m_calls; }
    std::vector<Op> ops() const;
    std::size_t count(Op op) const;
    void forget() { m_calls.clear(); }

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
    Reply next(Call const& call);
    // Records the call, applies the reply to detail and code, and returns its value as R.
    template <class R>
    R answer(Call call, std::string& detail, error_code& ec, std::vector<std::u16string>* files = nullptr);

    std::map<Op, std::deque<Reply>> m_queued;
    std::map<Op, std::function<Reply(Call const&)>> m_handlers;
    std::map<Op, Reply> m_defaults;
    std::vector<Call> m_calls;
};

} // namespace opc::test
