#include <opc/Path.hpp>

#include <vela/filesystem/path.hpp>

namespace opc::detail {

namespace vfd = vela::filesystem::detail;

namespace {

/// The working path: the empty path stays empty without asking the host layer.
std::u16string working(const std::u16string& path) {
    return path.empty() ? std::u16string() : vfd::make_native_form(path, true);
}

} // namespace

std::u16string normalizePath(const std::u16string& path) { return vfd::make_generic_form(working(path)); }

std::u16string getParentPath(const std::u16string& path) {
    return vfd::make_generic_form(working(vfd::extract_parent_path(working(path))));
}

std::u16string getFilename(const std::u16string& path) { return vfd::extract_filename(working(path)); }

std::u16string getExtension(const std::u16string& path) { return vfd::extract_extension(working(path)); }

std::string makeNativePath(const std::u16string& path) {
    return vfd::make_access_form(vfd::to_filesystem(working(path)));
}

} // namespace opc::detail
