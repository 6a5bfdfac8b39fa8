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

// Each operation forwards to the inner back end's public form of the same name.
#define OPC_TEXT(Name, call) return passText(Op::Name, d, ec, [&] { return m_inner.call; })
#define OPC_PASS(Name, failed, call) return pass(Op::Name, failed, d, ec, [&](EC e) { return m_inner.call; })
#define OPC_VOID(Name, call) passVoid(Op::Name, d, ec, [&](EC e) { m_inner.call; })

std::u16string FaultyOps::doGetTempName(P f, D d, EC ec) { OPC_TEXT(GetTempName, getTempName(f)); }
std::u16string FaultyOps::doGetParentPath(P p, D d, EC ec) { OPC_TEXT(GetParentPath, getParentPath(p)); }
std::u16string FaultyOps::doGetFilename(P p, D d, EC ec) { OPC_TEXT(GetFilename, getFilename(p)); }
std::u16string FaultyOps::doGetExtension(P p, D d, EC ec) { OPC_TEXT(GetExtension, getExtension(p)); }
std::u16string FaultyOps::doAppendPath(P p, P c, D d, EC ec) { OPC_TEXT(AppendPath, appendPath(p, c)); }
std::u16string FaultyOps::doNormalizePath(P p, D d, EC ec) { OPC_TEXT(NormalizePath, normalizePath(p)); }
bool FaultyOps::doGetLocalPath(P p, std::u16string& out) { return m_inner.getLocalPath(p, out); }
bool FaultyOps::doIsAbsolutePath(P p) { return m_inner.isAbsolutePath(p); }
bool FaultyOps::doExists(P p, D d, EC ec) { OPC_PASS(Exists, false, exists(p, e)); }
bool FaultyOps::doIsFile(P p, D d, EC ec) { OPC_PASS(IsFile, false, isFile(p, e)); }
bool FaultyOps::doIsFolder(P p, D d, EC ec) { OPC_PASS(IsFolder, false, isFolder(p, e)); }
bool FaultyOps::doIsSymlink(P p, D d, EC ec) { OPC_PASS(IsSymlink, false, isSymlink(p, e)); }
Perms::Perms_tag FaultyOps::doGetPermissions(P p, D d, EC ec) {
    OPC_PASS(GetPermissions, Perms::PermsUnknown, getPermissions(p, e));
}
void FaultyOps::doSetPermissions(P p, Perms::Perms_tag v, D d, EC ec) {
    OPC_VOID(SetPermissions, setPermissions(p, v, e));
}
FaultyOps::ptime FaultyOps::doGetLastModifiedTime(P p, D d, EC ec) {
    OPC_PASS(GetLastModifiedTime, ptime(), getLastModifiedTime(p, e));
}
void FaultyOps::doSetLastModifiedTime(P p, ptime t, D d, EC ec) {
    OPC_VOID(SetLastModifiedTime, setLastModifiedTime(p, t, e));
}
std::uint64_t FaultyOps::doGetSizeInBytes(P p, D d, EC ec) {
    OPC_PASS(GetSizeInBytes, std::uint64_t(0), getSizeInBytes(p, e));
}
std::u16string FaultyOps::doGetLinkTarget(P p, D d, EC ec) {
    OPC_PASS(GetLinkTarget, std::u16string(), getLinkTarget(p, e));
}
void FaultyOps::doGetFiles(P f, std::vector<std::u16string>& out, bool r, D d, EC ec) {
    OPC_VOID(GetFiles, getFiles(f, out, r, e));
}
std::shared_ptr<std::istream> FaultyOps::doCreateInputStream(P p, unsigned m, D d, EC ec) {
    OPC_PASS(CreateInputStream, std::shared_ptr<std::istream>(), createInputStream(p, m, e));
}
std::shared_ptr<std::ostream> FaultyOps::doCreateOutputStream(P p, unsigned m, D d, EC ec) {
    OPC_PASS(CreateOutputStream, std::shared_ptr<std::ostream>(), createOutputStream(p, m, e));
}
void FaultyOps::doCreateFolder(P p, D d, EC ec) { OPC_VOID(CreateFolder, createFolder(p, e)); }
void FaultyOps::doCreateFolders(P p, D d, EC ec) { OPC_VOID(CreateFolders, createFolders(p, e)); }
void FaultyOps::doCreateSymlink(P t, P l, D d, EC ec) { OPC_VOID(CreateSymlink, createSymlink(t, l, e)); }
void FaultyOps::doCopy(P s, P t, ExistsMode m, D d, EC ec) { OPC_VOID(Copy, copy(s, t, m, e)); }
void FaultyOps::doRename(P f, P t, D d, EC ec) { OPC_VOID(Rename, rename(f, t, e)); }
void FaultyOps::doRemove(P p, D d, EC ec) { OPC_VOID(Remove, remove(p, e)); }
void FaultyOps::doRemoveAll(P p, D d, EC ec) { OPC_VOID(RemoveAll, removeAll(p, e)); }

// Commits with this object as the target, so the nested commit is itself subject to faults.
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

#undef OPC_TEXT
#undef OPC_PASS
#undef OPC_VOID

} // namespace opc::test
