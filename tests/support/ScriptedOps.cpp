#include "support/ScriptedOps.hpp"

#include <algorithm>

namespace opc::test {

char const* publicName(Op op) {
    static char const* const names[] = {
        "getTempName", "getParentPath", "getFilename", "getExtension", "appendPath", "normalizePath",
        "getLocalPath", "isAbsolutePath", "exists", "isFile", "isFolder", "isSymlink", "getPermissions",
        "setPermissions", "getLastModifiedTime", "setLastModifiedTime", "getSizeInBytes", "getLinkTarget",
        "getFiles", "createInputStream", "createOutputStream", "createFolder", "createFolders", "createSymlink",
        "copy", "rename", "remove", "removeAll", "replaceFileWithBackup"};
    return names[static_cast<int>(op)];
}

Reply Reply::ok(Value v) {
    Reply r;
    r.value = std::move(v);
    return r;
}

Reply Reply::fail(boost::system::error_code ec, std::string detail, Value v) {
    Reply r;
    r.value = std::move(v);
    r.ec = ec;
    r.detail = std::move(detail);
    return r;
}

Reply Reply::fail(boost::system::errc::errc_t e, std::string detail, Value v) {
    return fail(boost::system::errc::make_error_code(e), std::move(detail), std::move(v));
}

std::vector<Op> ScriptedOps::ops() const {
    std::vector<Op> result;
    for (auto const& c : m_calls)
        result.push_back(c.op);
    return result;
}

std::size_t ScriptedOps::count(Op op) const {
    return std::count_if(m_calls.begin(), m_calls.end(), [op](Call const& c) { return c.op == op; });
}

Reply ScriptedOps::next(Call const& call) {
    auto queued = m_queued.find(call.op);
    if (queued != m_queued.end() && !queued->second.empty()) {
        Reply r = std::move(queued->second.front());
        queued->second.pop_front();
        return r;
    }
    if (auto h = m_handlers.find(call.op); h != m_handlers.end())
        return h->second(call);
    if (auto d = m_defaults.find(call.op); d != m_defaults.end())
        return d->second;
    return {};
}

template <class R>
R ScriptedOps::answer(Call call, std::string& detail, error_code& ec, std::vector<std::u16string>* files) {
    m_calls.push_back(call);
    Reply reply = next(call);
    if (reply.effect)
        reply.effect(call);
    if (files)
        files->insert(files->end(), reply.files.begin(), reply.files.end());
    if (!reply.detail.empty())
        detail = reply.detail;
    if (reply.ec != boost::system::error_code())
        ec = reply.ec;
    if constexpr (!std::is_void_v<R>) {
        if (auto const* v = std::get_if<R>(&reply.value))
            return *v;
        return R{};
    }
}

using P = std::u16string const&;
using D = std::string&;
using EC = boost::system::error_code&;

std::u16string ScriptedOps::doGetTempName(P f, D d, EC ec) { return answer<std::u16string>({Op::GetTempName, {f}}, d, ec); }
std::u16string ScriptedOps::doGetParentPath(P p, D d, EC ec) { return answer<std::u16string>({Op::GetParentPath, {p}}, d, ec); }
std::u16string ScriptedOps::doGetFilename(P p, D d, EC ec) { return answer<std::u16string>({Op::GetFilename, {p}}, d, ec); }
std::u16string ScriptedOps::doGetExtension(P p, D d, EC ec) { return answer<std::u16string>({Op::GetExtension, {p}}, d, ec); }
std::u16string ScriptedOps::doAppendPath(P p, P c, D d, EC ec) { return answer<std::u16string>({Op::AppendPath, {p, c}}, d, ec); }
std::u16string ScriptedOps::doNormalizePath(P p, D d, EC ec) { return answer<std::u16string>({Op::NormalizePath, {p}}, d, ec); }

bool ScriptedOps::doGetLocalPath(P p, std::u16string& out) {
    m_calls.push_back({Op::GetLocalPath, {p}});
    Reply reply = next(m_calls.back());
    if (reply.effect)
        reply.effect(m_calls.back());
    if (!reply.files.empty())
        out = reply.files.front();
    auto const* v = std::get_if<bool>(&reply.value);
    return v && *v;
}

bool ScriptedOps::doIsAbsolutePath(P p) {
    m_calls.push_back({Op::IsAbsolutePath, {p}});
    Reply reply = next(m_calls.back());
    auto const* v = std::get_if<bool>(&reply.value);
    return v && *v;
}

bool ScriptedOps::doExists(P p, D d, EC ec) { return answer<bool>({Op::Exists, {p}}, d, ec); }
bool ScriptedOps::doIsFile(P p, D d, EC ec) { return answer<bool>({Op::IsFile, {p}}, d, ec); }
bool ScriptedOps::doIsFolder(P p, D d, EC ec) { return answer<bool>({Op::IsFolder, {p}}, d, ec); }
bool ScriptedOps::doIsSymlink(P p, D d, EC ec) { return answer<bool>({Op::IsSymlink, {p}}, d, ec); }
Perms::Perms_tag ScriptedOps::doGetPermissions(P p, D d, EC ec) { return answer<Perms::Perms_tag>({Op::GetPermissions, {p}}, d, ec); }
void ScriptedOps::doSetPermissions(P p, Perms::Perms_tag v, D d, EC ec) { answer<void>({Op::SetPermissions, {p}, v}, d, ec); }
ScriptedOps::ptime ScriptedOps::doGetLastModifiedTime(P p, D d, EC ec) { return answer<ptime>({Op::GetLastModifiedTime, {p}}, d, ec); }
void ScriptedOps::doSetLastModifiedTime(P p, ptime t, D d, EC ec) { answer<void>({Op::SetLastModifiedTime, {p}, 0, t}, d, ec); }
std::uint64_t ScriptedOps::doGetSizeInBytes(P p, D d, EC ec) { return answer<std::uint64_t>({Op::GetSizeInBytes, {p}}, d, ec); }
std::u16string ScriptedOps::doGetLinkTarget(P p, D d, EC ec) { return answer<std::u16string>({Op::GetLinkTarget, {p}}, d, ec); }
void ScriptedOps::doGetFiles(P f, std::vector<std::u16string>& out, bool r, D d, EC ec) { answer<void>({Op::GetFiles, {f}, r}, d, ec, &out); }
std::shared_ptr<std::istream> ScriptedOps::doCreateInputStream(P p, unsigned m, D d, EC ec) { return answer<std::shared_ptr<std::istream>>({Op::CreateInputStream, {p}, m}, d, ec); }
std::shared_ptr<std::ostream> ScriptedOps::doCreateOutputStream(P p, unsigned m, D d, EC ec) { return answer<std::shared_ptr<std::ostream>>({Op::CreateOutputStream, {p}, m}, d, ec); }
void ScriptedOps::doCreateFolder(P p, D d, EC ec) { answer<void>({Op::CreateFolder, {p}}, d, ec); }
void ScriptedOps::doCreateFolders(P p, D d, EC ec) { answer<void>({Op::CreateFolders, {p}}, d, ec); }
void ScriptedOps::doCreateSymlink(P t, P l, D d, EC ec) { answer<void>({Op::CreateSymlink, {t, l}}, d, ec); }
void ScriptedOps::doCopy(P s, P t, ExistsMode m, D d, EC ec) { answer<void>({Op::Copy, {s, t}, static_cast<std::uint64_t>(m)}, d, ec); }
void ScriptedOps::doRename(P f, P t, D d, EC ec) { answer<void>({Op::Rename, {f, t}}, d, ec); }
void ScriptedOps::doRemove(P p, D d, EC ec) { answer<void>({Op::Remove, {p}}, d, ec); }
void ScriptedOps::doRemoveAll(P p, D d, EC ec) { answer<void>({Op::RemoveAll, {p}}, d, ec); }
void ScriptedOps::doReplaceFileWithBackup(P t, FileSystemOps&, P s, CommitOptions const&, D d, EC ec) { answer<void>({Op::ReplaceFileWithBackup, {t, s}}, d, ec); }

} // namespace opc::test
