#pragma once

#include "support/BehaviourSuite.hpp"

#include <memory>
#include <string>

namespace opc::test {

/// A fresh folder under the host's temporary folder, mode 0777 so that a child process that
/// dropped its privileges can work in it too. Removed with everything inside on destruction.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(ScratchFolder const&) = delete;
    ScratchFolder& operator=(ScratchFolder const&) = delete;

    /// The folder's path, UTF-8.
    std::string const& path() const { return m_path; }
    /// `path()` + "/" + `relative`.
    std::string at(std::string const& relative) const { return m_path + "/" + relative; }

private:
    std::string m_path;
};

/// A world over LocalFileSystemOps rooted in a scratch folder, with every capability on.
std::unique_ptr<World> makeLocalWorld();

} // namespace opc::test
