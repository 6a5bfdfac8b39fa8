// The virtual back end: construction and the IRI text operations.
#include "fs/VirtualTranslate.hpp"

#include <opc/VirtualFileSystemOps.hpp>
#include <opc/util/Temp.hpp>

#include <stratum/storage/vfs/File.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Operations.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/path.hpp>
#include <vela/filesystem/temp.hpp>

namespace opc {
namespace {

namespace store = stratum::storage::vfs;
namespace hostfs = vela::filesystem;

// A host path object from the native form of `text`; an empty text gives an empty path.
hostfs::path hostPath(std::u16string const& text) {
    if (text.empty())
        return hostfs::path();
    return hostfs::path(hostfs::detail::make_native_form(text, true));
}

// The canonical text of the "file" IRI for a local path.
std::u16string fileIRIText(std::u16string const& localPath) {
    return store::toAbsoluteIRI(u"file", hostPath(localPath)).toString();
}

} // namespace

using detail::guarded;

VirtualFileSystemOps::VirtualFileSystemOps(StorageSystemReference storage) : m_storage(std::move(storage)) {}

VirtualFileSystemOps::~VirtualFileSystemOps() = default;

VirtualFileSystemOps::StorageSystemReference VirtualFileSystemOps::getStorageSystem() const { return m_storage; }

std::u16string VirtualFileSystemOps::doGetTempName(const std::u16string& folder, std::string& detail,
                                                   error_code& ec) {
    std::u16string candidate;
    bool const made = guarded(detail, ec, false, [&] {
        std::u16string const folderIRI =
            folder.empty() ? fileIRIText(util::getTempDir()) : store::AbsoluteIRI(folder).toString();
        store::AbsoluteIRI const base(folderIRI);
        std::u16string const folderPath = base.getPath();
        // A child of the folder's IRI, so that its scheme and authority (an object store's
        // bucket) stay; the name comes from the host's temporary-name routine.
        do {
            std::u16string const name = hostfs::tmpnam(folderPath, u".", u".tmp");
            std::u16string const generic =
                hostfs::detail::make_generic_form(hostfs::detail::make_native_form(name, true));
            candidate = base.getChild(generic.substr(generic.rfind(u'/') + 1)).toString();
        } while (!store::isFree(store::AbsoluteIRI(candidate), m_storage));
        // Inside a commit a temporary file on the local disk is staged as the local back end's
        // is, so that its rename keeps everything about the file it replaces.
        store::AbsoluteIRI const made(candidate);
        if (made.getScheme() == u"file")
            hostfs::staged_rename_scope::stage(hostfs::path(made.getPath()));
        // Inside a commit the first name handed out is its temporary item: if the commit fails
        // before its rename, whatever its copy left there (a partial file, a copied folder) goes.
        hostfs::staged_rename_scope::on_abandon([storage = m_storage, name = candidate] {
            store::AbsoluteIRI const iri(name);
            if (store::exists(iri, storage) != stratum::storage::provider::NoItem)
                store::remove(store::makeFileOrFolder(iri, storage), store::RemoveRecursively);
        });
        return true;
    });
    return made ? candidate : std::u16string();
}

std::u16string VirtualFileSystemOps::doGetParentPath(const std::u16string& path, std::string& detail,
                                                     error_code& ec) {
    return guarded(detail, ec, std::u16string(), [&] {
        store::AbsoluteIRI const iri(path);
        return iri.hasParent() ? iri.getParent().toString() : std::u16string();
    });
}

// The file name and extension let an invalid IRI's exception pass to the caller unchanged.
std::u16string VirtualFileSystemOps::doGetFilename(const std::u16string& path, std::string&, error_code&) {
    return store::AbsoluteIRI(path).getName();
}

std::u16string VirtualFileSystemOps::doGetExtension(const std::u16string& path, std::string&, error_code&) {
    std::u16string const name = store::AbsoluteIRI(path).getName();
    auto const dot = name.rfind(u'.');
    return dot == std::u16string::npos ? std::u16string() : name.substr(dot + 1);
}

std::u16string VirtualFileSystemOps::doAppendPath(const std::u16string& path, const std::u16string& child,
                                                  std::string& detail, error_code& ec) {
    return guarded(detail, ec, std::u16string(), [&] {
        store::AbsoluteIRI const base(path);
        std::u16string const relative = !child.empty() && child.front() == u'/' ? child.substr(1) : child;
        return store::AbsoluteIRI(base, relative).toString();
    });
}

std::u16string VirtualFileSystemOps::doNormalizePath(const std::u16string& path, std::string& detail,
                                                     error_code& ec) {
    return guarded(detail, ec, std::u16string(), [&] {
        if (store::hasIRIPrefix(path))
            return store::AbsoluteIRI(path).toString();
        return store::AbsoluteIRI(fileIRIText(path)).toString();
    });
}

bool VirtualFileSystemOps::doGetLocalPath(const std::u16string& path, std::u16string& localPath) {
    store::AbsoluteIRI const iri(path);
    // Only the scheme written exactly "file" has a local form; "FILE" does not.
    if (iri.getScheme() == u"file") {
        localPath = store::fromAbsoluteIRI(iri);
        return true;
    }
    return false; // the caller's frame empties localPath
}

bool VirtualFileSystemOps::doIsAbsolutePath(const std::u16string& path) {
    if (!store::hasIRIPrefix(path))
        return false;
    try {
        store::AbsoluteIRI const iri(path);
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace opc
