#include "support/FaultyOps.hpp"

#include <opc/Commit.hpp>
#include <opc/Exception.hpp>

namespace opc::test {

void FaultyOps::failCall(std::size_t k, boost::system::error_code code) {
    m_failAt = k;
    m_code = code;
    m_fired = false;
    m_log.clear();
}

template <class R, class F>
R FaultyOps::pass(Op op, R failed, std::string& detail, error_code& ec, F&& forward) {
    m_log.push_back(op);
    if (m_log.size() == m_failAt) {
        m_fired = true;
        ec = m_code;
        detail = injectedDetail();
        return failed;
    }
    R result = forward(ec);
    if (ec.failed() && detail.empty())
        detail = ec.message();
    return result;
}

template <class F>
void FaultyOps::passVoid(Op op, std::string& detail, error_code& ec, F&& forward) {
    pass(op, 0, detail, ec, [&](error_code& e) {
        forward(e);
        return 0;
    });
}

template <class F>
std::u16string FaultyOps::passText(Op op, std::string& detail, error_code& ec, F&& forward) {
    return pass(op, std::u16string(), detail, ec, [&](error_code& e) {
        try {
            return forward();
        } catch (Exception const& x) {
            // Keep the inner detail without the inner frame's "<name> failed: ".
            std::string const prefix = std::string(publicName(op)) + " failed: ";
            std::string const what = x.what();
            detail = what.compare(0, prefix.size(), prefix) == 0 ? what.substr(prefix.size()) : what;
            e = x.code();
            return std::u16string();
        }
    });
}

using P = std::u16string const&;
using D = std::string&;
using EC = boost::system::error_code&;

std::u16string FaultyOps::doGetTempName(P f, D d, EC ec) {
    return passText(Op::GetTempName, d, ec, [&] { return m_inner.getTempName(f); });
}
std::u16string FaultyOps::doGetParentPath(P p, D d, EC ec) {
    return passText(Op::GetParentPath, d, ec, [&] { return m_inner.getParentPath(p); });
}
std::u16string FaultyOps::doGetFilename(P p, D d, EC ec) {
    return passText(Op::GetFilename, d, ec, [&] { return m_inner.getFilename(p); });
}
std::u16string FaultyOps::doGetExtension(P p, D d, EC ec) {
    return passText(Op::GetExtension, d, ec, [&] { return m_inner.getExtension(p); });
}
std::u16string FaultyOps::doAppendPath(P p, P c, D d, EC ec) {
    return passText(Op::AppendPath, d, ec, [&] { return m_inner.appendPath(p, c); });
}
std::u16string FaultyOps::doNormalizePath(P p, D d, EC ec) {
    return passText(Op::NormalizePath, d, ec, [&] { return m_inner.normalizePath(p); });
}
bool FaultyOps::doGetLocalPath(P p, std::u16string& out) { return m_inner.getLocalPath(p, out); }
bool FaultyOps::doIsAbsolutePath(P p) { return m_inner.isAbsolutePath(p); }

bool FaultyOps::doExists(P p, D d, EC ec) {
    return pass(Op::Exists, false, d, ec, [&](EC e) { return m_inner.exists(p, e); });
}
bool FaultyOps::doIsFile(P p, D d, EC ec) {
    return pass(Op::IsFile, false, d, ec, [&](EC e) { return m_inner.isFile(p, e); });
}
bool FaultyOps::doIsFolder(P p, D d, EC ec) {
    return pass(Op::IsFolder, false, d, ec, [&](EC e) { return m_inner.isFolder(p, e); });
}
bool FaultyOps::doIsSymlink(P p, D d, EC ec) {
    return pass(Op::IsSymlink, false, d, ec, [&](EC e) { return m_inner.isSymlink(p, e); });
}
Perms::Perms_tag FaultyOps::doGetPermissions(P p, D d, EC ec) {
    return pass(Op::GetPermissions, Perms::PermsUnknown, d, ec, [&](EC e) { return m_inner.getPermissions(p, e); });
}
void FaultyOps::doSetPermissions(P p, Perms::Perms_tag v, D d, EC ec) {
    passVoid(Op::SetPermissions, d, ec, [&](EC e) { m_inner.setPermissions(p, v, e); });
}
FaultyOps::ptime FaultyOps::doGetLastModifiedTime(P p, D d, EC ec) {
    return pass(Op::GetLastModifiedTime, ptime(), d, ec, [&](EC e) { return m_inner.getLastModifiedTime(p, e); });
}
void FaultyOps::doSetLastModifiedTime(P p, ptime t, D d, EC ec) {
    passVoid(Op::SetLastModifiedTime, d, ec, [&](EC e) { m_inner.setLastModifiedTime(p, t, e); });
}
std::uint64_t FaultyOps::doGetSizeInBytes(P p, D d, EC ec) {
    return pass(Op::GetSizeInBytes, std::uint64_t(0), d, ec, [&](EC e) { return m_inner.getSizeInBytes(p, e); });
}
std::u16string FaultyOps::doGetLinkTarget(P p, D d, EC ec) {
    return pass(Op::GetLinkTarget, std::u16string(), d, ec, [&](EC e) { return m_inner.getLinkTarget(p, e); });
}
void FaultyOps::doGetFiles(P f, std::vector<std::u16string>& out, bool r, D d, EC ec) {
    passVoid(Op::GetFiles, d, ec, [&](EC e) { m_inner.getFiles(f, out, r, e); });
}
std::shared_ptr<std::istream> FaultyOps::doCreateInputStream(P p, unsigned m, D d, EC ec) {
    return pass(Op::CreateInputStream, std::shared_ptr<std::istream>(), d, ec,
                [&](EC e) { return m_inner.createInputStream(p, m, e); });
}
std::shared_ptr<std::ostream> FaultyOps::doCreateOutputStream(P p, unsigned m, D d, EC ec) {
    return pass(Op::CreateOutputStream, std::shared_ptr<std::ostream>(), d, ec,
                [&](EC e) { return m_inner.createOutputStream(p, m, e); });
}
void FaultyOps::doCreateFolder(P p, D d, EC ec) {
    passVoid(Op::CreateFolder, d, ec, [&](EC e) { m_inner.createFolder(p, e); });
}
void FaultyOps::doCreateFolders(P p, D d, EC ec) {
    passVoid(Op::CreateFolders, d, ec, [&](EC e) { m_inner.createFolders(p, e); });
}
void FaultyOps::doCreateSymlink(P t, P l, D d, EC ec) {
    passVoid(Op::CreateSymlink, d, ec, [&](EC e) { m_inner.createSymlink(t, l, e); });
}
void FaultyOps::doCopy(P s, P t, ExistsMode m, D d, EC ec) {
    passVoid(Op::Copy, d, ec, [&](EC e) { m_inner.copy(s, t, m, e); });
}
void FaultyOps::doRename(P f, P t, D d, EC ec) {
    passVoid(Op::Rename, d, ec, [&](EC e) { m_inner.rename(f, t, e); });
}
void FaultyOps::doRemove(P p, D d, EC ec) {
    passVoid(Op::Remove, d, ec, [&](EC e) { m_inner.remove(p, e); });
}
void FaultyOps::doRemoveAll(P p, D d, EC ec) {
    passVoid(Op::RemoveAll, d, ec, [&](EC e) { m_inner.removeAll(p, e); });
}
void FaultyOps::doReplaceFileWithBackup(P t, FileSystemOps& so, P s, CommitOptions const& o, D d, EC ec) {
    pass(Op::ReplaceFileWithBackup, 0, d, ec, [&](EC e) {
        try {
            opc::replaceFileWithBackup(*this, t, so, s, o);
        } catch (Exception const& x) {
            d = x.what();
            e = x.code();
        }
        return 0;
    });
}

} // namespace opc::test
