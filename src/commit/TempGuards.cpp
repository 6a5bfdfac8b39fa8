#include <opc/Exception.hpp>
#include <opc/Path.hpp>
#include <opc/Text.hpp>
#include <opc/util/Temp.hpp>

#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/temp.hpp>

#include <cstdio>

namespace opc::util {

TempfileGuard::TempfileGuard(const std::u16string& folder, const std::u16string& prefix,
                             const std::u16string& extension)
    : m_path(generateTempFile(folder, prefix, extension)) {
    m_armed = true;
}

TempfileGuard::~TempfileGuard() {
    if (!m_armed)
        return;
    try {
        vela::filesystem::remove(m_path);
    } catch (...) {
        // A guard must not throw from its destructor; the file then stays.
    }
}

std::u16string TempfileGuard::generateTempFile(const std::u16string& folder, const std::u16string& prefix,
                                               const std::u16string& extension) const {
    const std::u16string where = folder.empty() ? getTempDir() : folder;
    const std::u16string start = prefix.empty() ? u"." : prefix;
    const std::u16string end = extension.empty() ? u".tmp" : extension;
    std::u16string name;
    std::FILE* file = vela::filesystem::tmpfile(name, where, start, end);
    if (file == nullptr)
        throw Exception("Temp file could not be created", boost::system::error_code());
    std::fclose(file);
    return detail::normalizePath(name);
}

TempdirGuard::TempdirGuard(const std::u16string& folder, const std::u16string& prefix,
                           const std::u16string& extension)
    : m_path(generateTempDir(folder, prefix, extension)) {
    m_armed = true;
}

TempdirGuard::~TempdirGuard() {
    if (!m_armed)
        return;
    try {
        vela::filesystem::remove_all(m_path);
    } catch (...) {
        // A guard must not throw from its destructor; the folder then stays.
    }
}

std::u16string TempdirGuard::generateTempDir(const std::u16string& folder, const std::u16string& prefix,
                                             const std::u16string& extension) const {
    const std::u16string name = getTempName(folder, prefix, extension);
    try {
        vela::filesystem::create_directory(name);
    } catch (const vela::filesystem::FsysExceptionBase& e) {
        std::string message = "Temporary directory could not be created. ";
        message += e.what();
        if (!e.path().empty()) {
            message += ": ";
            message += toUDEString(e.path());
        }
        throw Exception(message, boost::system::error_code());
    }
    return name;
}

} // namespace opc::util
