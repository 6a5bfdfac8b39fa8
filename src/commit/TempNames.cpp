#include <opc/Exception.hpp>
#include <opc/Path.hpp>
#include <opc/util/Temp.hpp>

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

namespace opc::util {

std::u16string getTempDir() {
    try {
        std::u16string folder = vela::filesystem::temp_directory_name();
        if (folder.empty())
            folder = vela::filesystem::get_current_path();
        return detail::normalizePath(folder);
    } catch (const vela::filesystem::FsysExceptionBase& e) {
        throw Exception(e.what(), boost::system::error_code());
    }
}

std::u16string getTempName(const std::u16string& folder, const std::u16string& prefix,
                           const std::u16string& extension) {
    const std::u16string where = folder.empty() ? getTempDir() : folder;
    const std::u16string start = prefix.empty() ? u"." : prefix;
    const std::u16string end = extension.empty() ? u".tmp" : extension;
    for (;;) {
        std::u16string candidate = vela::filesystem::tmpnam(where, start, end);
        if (!vela::filesystem::exists(candidate))
            return detail::normalizePath(candidate);
    }
}

} // namespace opc::util
