#pragma once

// An empty host folder for one test, removed with everything in it afterwards.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace opc::test {

class HostFolder {
public:
    HostFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "opc-test-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~HostFolder() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    HostFolder(HostFolder const&) = delete;
    HostFolder& operator=(HostFolder const&) = delete;

    std::filesystem::path const& path() const { return m_path; }
    /// The folder as UTF-16 text (it is plain ASCII).
    std::u16string path16() const {
        std::string const text = m_path.string();
        return std::u16string(text.begin(), text.end());
    }

private:
    std::filesystem::path m_path;
};

} // namespace opc::test
