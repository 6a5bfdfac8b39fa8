#include <opc/Commit.hpp>
#include <opc/Exception.hpp>
#include <opc/Text.hpp>
#include <opc/testing/FaultInjectingOps.hpp>

#include <type_traits>
#include <utility>

namespace opc::testing {

using P = std::u16string const&;
using EC = boost::system::error_code;

// The one path every operation takes: count and log the call, then fail it, let the derived
// double answer it, or forward it.
struct FaultInjectingOps::Route {
    template <class R, class Forward>
    static R run(FaultInjectingOps& self, Call const& call, std::string& detail, EC& ec, Forward&& forward) {
        // A copy is kept: an answer or a forwarded commit may call this double again.
        self.m_calls.push_back(call);
        Call const& c = call;
        ++self.m_counts[c.operation];
        EC const fault = self.m_calls.size() == self.m_failAt ? self.m_failAtCode
                         : self.m_pick && self.m_pick(c)      ? self.m_pickCode
                                                              : EC();
        if (fault.failed()) {
            self.m_fired = true;
            ec = fault;
            detail = fault.message();
            if (!c.paths.empty())
                detail += ": " + opc::detail::toUTF8String(c.paths.front(), false);
            return failureValue<R>();
        }
        if (std::optional<Result> answered = self.answer(c, detail, ec))
            return valueOf<R>(*answered);
        if (!self.m_inner)
            return R();
        return forward(*self.m_inner);
    }

    template <class R>
    static R failureValue() {
        if constexpr (std::is_same_v<R, Perms::Perms_tag>)
            return Perms::PermsUnknown;
        else
            return R();
    }

    template <class R>
    static R valueOf(Result const& result) {
        if constexpr (std::is_void_v<R>)
            return;
        else
            return std::holds_alternative<R>(result) ? std::get<R>(result) : R();
    }

    // Calls the inner back end's throwing form, so that a failure comes back with the detail
    // the back end wrote (less the frame's "<name> failed: ") and its code, as they were.
    template <class R, class F>
    static R forward(char const* operation, std::string& detail, EC& ec, F&& f) {
        try {
            return f();
        } catch (Exception const& e) {
            std::string const what = e.what(), prefix = std::string(operation) + " failed: ";
            detail = what.compare(0, prefix.size(), prefix) == 0 ? what.substr(prefix.size()) : what;
            ec = e.code();
            return failureValue<R>();
        }
    }
};

namespace {
Call call(char const* operation, std::vector<std::u16string> paths, std::uint64_t value = 0,
          boost::posix_time::ptime time = {}) {
    return Call{operation, std::move(paths), value, time};
}
} // namespace

FaultInjectingOps::FaultInjectingOps(FileSystemOps& inner) : m_inner(&inner) {}
FaultInjectingOps::FaultInjectingOps() = default;
FaultInjectingOps::~FaultInjectingOps() = default;

void FaultInjectingOps::failCall(std::size_t k, error_code code) {
    m_failAt = k;
    m_failAtCode = code;
    reset();
}

void FaultInjectingOps::failWhen(Picker pick, error_code code) {
    m_pick = std::move(pick);
    m_pickCode = code;
    m_fired = false;
}

bool FaultInjectingOps::fired() const noexcept { return m_fired; }

void FaultInjectingOps::reset() {
    m_calls.clear();
    m_counts.clear();
    m_fired = false;
}

std::size_t FaultInjectingOps::callCount() const noexcept { return m_calls.size(); }

std::size_t FaultInjectingOps::callCount(std::string const& operation) const {
    auto const found = m_counts.find(operation);
    return found == m_counts.end() ? 0 : found->second;
}

std::vector<Call> const& FaultInjectingOps::calls() const noexcept { return m_calls; }

std::optional<FaultInjectingOps::Result> FaultInjectingOps::answer(Call const&, std::string&, error_code&) {
    return std::nullopt;
}

// clang-format off
// `R` the result type, `name` the public name, the call's paths in braces, its scalar, then the
// arguments handed on.
#define OPC_ROUTE(R, name, paths, value, ...) \
    return Route::run<R>(*this, call(#name, std::vector<std::u16string> paths, value), d, ec, [&](FileSystemOps& in) { \
        return Route::forward<R>(#name, d, ec, [&] { return in.name(__VA_ARGS__); }); })
std::u16string FaultInjectingOps::doGetTempName(P f, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, getTempName, {f}, 0, f); }
std::u16string FaultInjectingOps::doGetParentPath(P p, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, getParentPath, {p}, 0, p); }
std::u16string FaultInjectingOps::doGetFilename(P p, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, getFilename, {p}, 0, p); }
std::u16string FaultInjectingOps::doGetExtension(P p, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, getExtension, {p}, 0, p); }
std::u16string FaultInjectingOps::doAppendPath(P p, P c, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, appendPath, ({p, c}), 0, p, c); }
std::u16string FaultInjectingOps::doNormalizePath(P p, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, normalizePath, {p}, 0, p); }
bool FaultInjectingOps::doExists(P p, std::string& d, EC& ec) { OPC_ROUTE(bool, exists, {p}, 0, p); }
bool FaultInjectingOps::doIsFile(P p, std::string& d, EC& ec) { OPC_ROUTE(bool, isFile, {p}, 0, p); }
bool FaultInjectingOps::doIsFolder(P p, std::string& d, EC& ec) { OPC_ROUTE(bool, isFolder, {p}, 0, p); }
bool FaultInjectingOps::doIsSymlink(P p, std::string& d, EC& ec) { OPC_ROUTE(bool, isSymlink, {p}, 0, p); }
Perms::Perms_tag FaultInjectingOps::doGetPermissions(P p, std::string& d, EC& ec) { OPC_ROUTE(Perms::Perms_tag, getPermissions, {p}, 0, p); }
void FaultInjectingOps::doSetPermissions(P p, Perms::Perms_tag v, std::string& d, EC& ec) { OPC_ROUTE(void, setPermissions, {p}, v, p, v); }
FileSystemOps::ptime FaultInjectingOps::doGetLastModifiedTime(P p, std::string& d, EC& ec) { OPC_ROUTE(ptime, getLastModifiedTime, {p}, 0, p); }
std::uint64_t FaultInjectingOps::doGetSizeInBytes(P p, std::string& d, EC& ec) { OPC_ROUTE(std::uint64_t, getSizeInBytes, {p}, 0, p); }
std::u16string FaultInjectingOps::doGetLinkTarget(P p, std::string& d, EC& ec) { OPC_ROUTE(std::u16string, getLinkTarget, {p}, 0, p); }
std::shared_ptr<std::istream> FaultInjectingOps::doCreateInputStream(P p, unsigned m, std::string& d, EC& ec) { OPC_ROUTE(std::shared_ptr<std::istream>, createInputStream, {p}, m, p, m); }
std::shared_ptr<std::ostream> FaultInjectingOps::doCreateOutputStream(P p, unsigned m, std::string& d, EC& ec) { OPC_ROUTE(std::shared_ptr<std::ostream>, createOutputStream, {p}, m, p, m); }
void FaultInjectingOps::doCreateFolder(P p, std::string& d, EC& ec) { OPC_ROUTE(void, createFolder, {p}, 0, p); }
void FaultInjectingOps::doCreateFolders(P p, std::string& d, EC& ec) { OPC_ROUTE(void, createFolders, {p}, 0, p); }
void FaultInjectingOps::doCreateSymlink(P t, P l, std::string& d, EC& ec) { OPC_ROUTE(void, createSymlink, ({t, l}), 0, t, l); }
void FaultInjectingOps::doCopy(P s, P t, ExistsMode m, std::string& d, EC& ec) { OPC_ROUTE(void, copy, ({s, t}), m, s, t, m); }
void FaultInjectingOps::doRename(P f, P t, std::string& d, EC& ec) { OPC_ROUTE(void, rename, ({f, t}), 0, f, t); }
std::string FaultInjectingOps::doGetVersionTag(P p, std::string& d, EC& ec) { OPC_ROUTE(std::string, getVersionTag, {p}, 0, p); }
void FaultInjectingOps::doRenameIfVersion(P f, P t, std::string const& v, std::string& d, EC& ec) { OPC_ROUTE(void, renameIfVersion, ({f, t}), 0, f, t, v); }
void FaultInjectingOps::doRemove(P p, std::string& d, EC& ec) { OPC_ROUTE(void, remove, {p}, 0, p); }
void FaultInjectingOps::doRemoveAll(P p, std::string& d, EC& ec) { OPC_ROUTE(void, removeAll, {p}, 0, p); }
#undef OPC_ROUTE
// clang-format on

bool FaultInjectingOps::doGetLocalPath(P p, std::u16string& out) { return m_inner && m_inner->getLocalPath(p, out); }
bool FaultInjectingOps::doIsAbsolutePath(P p) { return m_inner && m_inner->isAbsolutePath(p); }

void FaultInjectingOps::doSetLastModifiedTime(P p, ptime t, std::string& d, EC& ec) {
    Route::run<void>(*this, call("setLastModifiedTime", {p}, 0, t), d, ec, [&](FileSystemOps& in) {
        Route::forward<void>("setLastModifiedTime", d, ec, [&] { in.setLastModifiedTime(p, t); });
    });
}

// The answered list is appended, as a back end appends what it finds.
void FaultInjectingOps::doGetFiles(P f, std::vector<std::u16string>& out, bool r, std::string& d, EC& ec) {
    auto answered = Route::run<std::vector<std::u16string>>(*this, call("getFiles", {f}, r), d, ec,
                                                            [&](FileSystemOps& in) {
                                                                Route::forward<void>("getFiles", d, ec, [&] {
                                                                    in.getFiles(f, out, r);
                                                                });
                                                                return std::vector<std::u16string>();
                                                            });
    out.insert(out.end(), answered.begin(), answered.end());
}

// The commit runs here with this double as the target, so its calls meet the faults; its
// failure comes back as a back end reports it: the commit's message and code as they are.
void FaultInjectingOps::doReplaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o, std::string& d,
                                                EC& ec) {
    Route::run<void>(*this, call("replaceFileWithBackup", {t, s}), d, ec, [&](FileSystemOps&) {
        try {
            opc::replaceFileWithBackup(*this, t, so, s, o);
        } catch (Exception const& e) {
            d = e.what();
            ec = e.code();
        }
    });
}

} // namespace opc::testing
