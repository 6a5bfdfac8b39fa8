#include "support/LocalWorld.hpp"

#include <opc/LocalFileSystemOps.hpp>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace opc::test {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder() {
    std::string pattern = (fs::temp_directory_path() / "opc-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot create a scratch folder in " + fs::temp_directory_path().string());
    m_path = pattern;
    ::chmod(m_path.c_str(), 0777);
}

ScratchFolder::~ScratchFolder() {
    // Tests leave read-only files and folders behind; give the owner back its rights first.
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(m_path, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    fs::remove_all(m_path, ec);
}

namespace {

class LocalWorld : public World {
public:
    LocalWorld() : m_root(utf16(m_folder.path())) {}
    FileSystemOps& ops() override { return m_ops; }
    std::u16string root() const override { return m_root; }

private:
    ScratchFolder m_folder;
    std::u16string m_root;
    LocalFileSystemOps m_ops;
};

} // namespace

std::unique_ptr<World> makeLocalWorld() { return std::make_unique<LocalWorld>(); }

} // namespace opc::test
