#pragma once

// The one test double of the back-end interface: every operation answers from a script, or
// forwards to a real back end, and any chosen call can be made to fail instead.

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/FileSystemOps.hpp>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace opc::test {

// Every `do*` operation, in interface order: the only list of them. TEXT operations have only
// the throwing public form, CODE ones an error-code form too; ODD ones are written out below.
// Columns: name, result, public name, parameters, arguments.
#define OPC_TEST_OPERATIONS(TEXT, CODE, ODD)                                                           \
    TEXT(GetTempName, std::u16string, getTempName, (P f), (f))                                         \
    TEXT(GetParentPath, std::u16string, getParentPath, (P p), (p))                                     \
    TEXT(GetFilename, std::u16string, getFilename, (P p), (p))                                         \
    TEXT(GetExtension, std::u16string, getExtension, (P p), (p))                                       \
    TEXT(AppendPath, std::u16string, appendPath, (P p, P c), (p, c))                                   \
    TEXT(NormalizePath, std::u16string, normalizePath, (P p), (p))                                     \
    ODD(GetLocalPath, bool, getLocalPath, (P p, std::u16string & out), (p, out))                       \
    ODD(IsAbsolutePath, bool, isAbsolutePath, (P p), (p))                                              \
    CODE(Exists, bool, exists, (P p), (p))                                                             \
    CODE(IsFile, bool, isFile, (P p), (p))                                                             \
    CODE(IsFolder, bool, isFolder, (P p), (p))                                                         \
    CODE(IsSymlink, bool, isSymlink, (P p), (p))                                                       \
    CODE(GetPermissions, Perms::Perms_tag, getPermissions, (P p), (p))                                 \
    CODE(SetPermissions, void, setPermissions, (P p, Perms::Perms_tag v), (p, v))                      \
    CODE(GetLastModifiedTime, ptime, getLastModifiedTime, (P p), (p))                                  \
    CODE(SetLastModifiedTime, void, setLastModifiedTime, (P p, ptime t), (p, t))                       \
    CODE(GetSizeInBytes, std::uint64_t, getSizeInBytes, (P p), (p))                                    \
    CODE(GetLinkTarget, std::u16string, getLinkTarget, (P p), (p))                                     \
    ODD(GetFiles, void, getFiles, (P f, std::vector<std::u16string> & out, bool r), (f, out, r))       \
    CODE(CreateInputStream, std::shared_ptr<std::istream>, createInputStream, (P p, unsigned m), (p, m)) \
    CODE(CreateOutputStream, std::shared_ptr<std::ostream>, createOutputStream, (P p, unsigned m), (p, m)) \
    CODE(CreateFolder, void, createFolder, (P p), (p))                                                 \
    CODE(CreateFolders, void, createFolders, (P p), (p))                                               \
    CODE(CreateSymlink, void, createSymlink, (P t, P l), (t, l))                                       \
    CODE(Copy, void, copy, (P s, P t, ExistsMode m), (s, t, m))                                        \
    CODE(Rename, void, rename, (P f, P t), (f, t))                                                     \
    CODE(Remove, void, remove, (P p), (p))                                                             \
    CODE(RemoveAll, void, removeAll, (P p), (p))                                                       \
    ODD(ReplaceFileWithBackup, void, replaceFileWithBackup, (P t, FileSystemOps & so, P s, CommitOptions const& o), \
        (t, so, s, o))

#define OPC_TEST_ENUM(Name, ...) Name,
enum class Op { OPC_TEST_OPERATIONS(OPC_TEST_ENUM, OPC_TEST_ENUM, OPC_TEST_ENUM) };
#undef OPC_TEST_ENUM

/// The public name of an operation ("exists" for Op::Exists).
char const* publicName(Op op);

/// One call received: its paths in order, its one scalar argument (permissions, open mode,
/// ExistsMode or the recursive flag) and its time stamp.
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

/// A scripted answer: run `effect` (which may throw), append `files` (getFiles; the first one
/// fills getLocalPath's out path), set `detail` when not empty and `ec` when set, return `value`.
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

/// Each call is logged, then answered by the first that applies: an injected fault (call k,
/// or a call the predicate picks: the operation's failure value, the chosen code and the detail
/// "injected fault", nothing forwarded), the operation's queued reply, its handler, its default
/// reply, the inner back end (through its public forms, so an inner failure arrives as code and
/// message), or success with a default value. getLocalPath and isAbsolutePath cannot fail and
/// are not counted. Forwarded, replaceFileWithBackup commits with this double as the target, so
/// the nested commit meets the faults too.
class ScriptedOps : public FileSystemOps {
public:
    ScriptedOps() = default;
    explicit ScriptedOps(FileSystemOps& inner) : m_inner(&inner) {}

    void enqueue(Op op, Reply reply) { m_queued[op].push_back(std::move(reply)); }
    void on(Op op, std::function<Reply(Call const&)> handler) { m_handlers[op] = std::move(handler); }
    void byDefault(Op op, Reply reply) { m_defaults[op] = std::move(reply); }

    /// Fails the k-th counted call from now on (1-based; 0 none); clears the log and the count.
    void failCall(std::size_t k, boost::system::error_code code);
    /// Fails every call that `pick` chooses (an empty function: none).
    void failWhen(std::function<bool(Call const&)> pick, boost::system::error_code code);
    bool fired() const { return m_fired; }
    static char const* injectedDetail() { return "injected fault"; }

    std::vector<Call> const& calls() const { return m_calls; }
    std::vector<Op> ops() const;
    std::size_t count(Op op) const;
    void forget() { m_calls.clear(); }

protected:
    using P = std::u16string const&;

#define OPC_TEST_TEXT(Name, R, name, params, args)                                                     \
    R do##Name(OPC_TEST_LIST params, std::string& d, error_code& ec) override {                        \
        return answer<R>(call(Op::Name, OPC_TEST_LIST args), d, ec,                                    \
                         [&](error_code& e) { return forwardText(Op::Name, d, e, [&] { return m_inner->name args; }); }); \
    }
#define OPC_TEST_CODE(Name, R, name, params, args)                                                     \
    R do##Name(OPC_TEST_LIST params, std::string& d, error_code& ec) override {                        \
        return answer<R>(call(Op::Name, OPC_TEST_LIST args), d, ec,                                    \
                         [&](error_code& e) { return m_inner->name(OPC_TEST_LIST args, e); });         \
    }
#define OPC_TEST_LIST(...) __VA_ARGS__
#define OPC_TEST_NONE(...)
    OPC_TEST_OPERATIONS(OPC_TEST_TEXT, OPC_TEST_CODE, OPC_TEST_NONE)
#undef OPC_TEST_TEXT
#undef OPC_TEST_CODE
#undef OPC_TEST_LIST
#undef OPC_TEST_NONE

    bool doGetLocalPath(P p, std::u16string& out) override;
    bool doIsAbsolutePath(P p) override;
    void doGetFiles(P f, std::vector<std::u16string>& out, bool r, std::string& d, error_code& ec) override;
    void doReplaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o, std::string& d,
                                 error_code& ec) override;

private:
    template <class... A>
    static Call call(Op op, A const&... args) {
        Call c(op, {});
        auto add = [&c](auto const& x) {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, std::u16string>)
                c.paths.push_back(x);
            else if constexpr (std::is_same_v<T, ptime>)
                c.time = x;
            else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>)
                c.number = static_cast<std::uint64_t>(x);
        };
        (add(args), ...);
        return c;
    }

    template <class R, class F>
    R answer(Call c, std::string& d, error_code& ec, F&& forward, std::vector<std::u16string>* files = nullptr) {
        m_calls.push_back(c);
        bool const injected = ++m_counted == m_failAt || (m_pick && m_pick(c));
        std::optional<Reply> reply = injected ? std::nullopt : next(c);
        if (injected || reply) {
            m_fired = m_fired || injected;
            Reply const r = injected ? Reply::fail(m_code, injectedDetail()) : *reply;
            if (r.effect)
                r.effect(c);
            if (files)
                files->insert(files->end(), r.files.begin(), r.files.end());
            d = r.detail.empty() ? d : r.detail;
            ec = r.ec == error_code() ? ec : r.ec;
            if constexpr (std::is_same_v<R, Perms::Perms_tag>)
                if (injected)
                    return Perms::PermsUnknown;
            if constexpr (!std::is_void_v<R>)
                return std::holds_alternative<R>(r.value) ? std::get<R>(r.value) : R{};
            else
                return;
        }
        if (!m_inner)
            return R();
        if constexpr (std::is_void_v<R>)
            forward(ec);
        else {
            R result = forward(ec);
            d = ec.failed() && d.empty() ? ec.message() : d;
            return result;
        }
        d = ec.failed() && d.empty() ? ec.message() : d;
    }

    // Calls a throwing path-text operation, keeping its detail without the "<name> failed: ".
    template <class F>
    std::u16string forwardText(Op op, std::string& d, error_code& e, F&& f) {
        try {
            return f();
        } catch (Exception const& x) {
            std::string const prefix = std::string(publicName(op)) + " failed: ", what = x.what();
            d = what.compare(0, prefix.size(), prefix) == 0 ? what.substr(prefix.size()) : what;
            e = x.code();
            return {};
        }
    }

    std::optional<Reply> next(Call const& c);

    FileSystemOps* m_inner = nullptr;
    std::map<Op, std::deque<Reply>> m_queued;
    std::map<Op, std::function<Reply(Call const&)>> m_handlers;
    std::map<Op, Reply> m_defaults;
    std::vector<Call> m_calls;
    std::size_t m_counted = 0, m_failAt = 0;
    std::function<bool(Call const&)> m_pick;
    boost::system::error_code m_code;
    bool m_fired = false;
};

} // namespace opc::test
