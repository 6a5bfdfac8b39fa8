#include "commit/Conditions.hpp"

#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/Text.hpp>

#include <boost/system/error_code.hpp>

#include <algorithm>

namespace opc::detail {

std::string versionMismatchText(const std::string& why, const std::string& path) {
    return "Not the expected version (" + why + "): " + path;
}

void removeQuietly(FileSystemOps& ops, const std::u16string& path) {
    boost::system::error_code ignored;
    ops.remove(path, ignored);
}

std::vector<std::u16string> freeNames(FileSystemOps& ops, std::vector<std::u16string> candidates) {
    candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                    [&](const std::u16string& name) {
                                        boost::system::error_code unknown;
                                        return ops.exists(name, unknown) || unknown.failed();
                                    }),
                     candidates.end());
    return candidates;
}

bool holds(const std::vector<std::u16string>& names, const std::u16string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

void requireExpectedVersion(FileSystemOps& ops, const std::u16string& path, const std::string& expected) {
    std::string tag;
    bool missing = false;
    try {
        tag = ops.getVersionTag(path);
    } catch (const Exception& e) {
        if (e.code() != boost::system::errc::no_such_file_or_directory)
            throw;
        missing = true;
    }
    if (expected.empty() && !missing)
        throw Exception(versionMismatchText("something is at the target already", toUTF8String(path, false)),
                        CommitOptions::versionMismatch());
    if (!expected.empty() && (missing || tag != expected))
        throw Exception(versionMismatchText(missing ? "another writer removed it" : "another writer changed it",
                                            toUTF8String(path, false)),
                        CommitOptions::versionMismatch());
}

} // namespace opc::detail
