#pragma once

// A place to run the storage behaviour suite: a fresh folder of one scheme in a fresh storage
// system, with small helpers to write, read and describe what is stored.
#include <stratum/storage/vfs/vfs.hpp>

#include "TestText.hpp"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>

namespace stratum::test {

namespace vfs = stratum::storage::vfs;

class StorageWorld {
public:
    virtual ~StorageWorld() = default;
    virtual std::string name() const = 0;
    vfs::StorageSystemReference const& storage() const { return storage_; }
    /// An existing, empty folder that belongs to this world alone.
    vfs::AbsoluteIRI const& root() const { return root_; }
    vfs::AbsoluteIRI at(std::u16string const& relative) const { return vfs::AbsoluteIRI(root_, relative); }
    vfs::File file(std::u16string const& relative) const { return vfs::File(at(relative), storage_); }
    vfs::Folder folder(std::u16string const& relative) const { return vfs::Folder(at(relative), storage_); }

protected:
    vfs::StorageSystemReference storage_;
    vfs::AbsoluteIRI root_;
};

/// `memory:///world` in a new storage system.
class MemoryWorld : public StorageWorld {
public:
    MemoryWorld() {
        root_ = vfs::AbsoluteIRI(u"memory:///world");
        vfs::Folder(root_, storage_).createFolder();
    }
    std::string name() const override { return "memory"; }
};

/// A new temporary folder on the local disk, removed afterwards.
class FileWorld : public StorageWorld {
public:
    FileWorld() {
        std::string pattern = (std::filesystem::temp_directory_path() / "stratum-world-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        host_ = pattern;
        root_ = vfs::toAbsoluteIRI(u"file", u16(host_));
    }
    ~FileWorld() override {
        std::error_code ignored;
        std::filesystem::remove_all(host_, ignored);
    }
    std::string name() const override { return "file"; }

private:
    std::string host_;
};

inline std::unique_ptr<StorageWorld> makeMemoryWorld() { return std::make_unique<MemoryWorld>(); }
inline std::unique_ptr<StorageWorld> makeFileWorld() { return std::make_unique<FileWorld>(); }

/// Writes `content` to `file` (truncating) and closes the stream.
inline void writeFile(vfs::File const& file, std::string const& content) {
    vfs::ofstream out(file, vfs::OpenMode::Out | vfs::OpenMode::Truncate | vfs::OpenMode::Binary);
    EXPECT_TRUE(out.is_open()) << u8(file.getIRI().toString());
    out << content;
    out.close();
    EXPECT_FALSE(out.bad());
}

inline std::string readFile(vfs::File const& file) {
    vfs::ifstream in(file);
    EXPECT_TRUE(in.is_open()) << u8(file.getIRI().toString());
    std::ostringstream content;
    if (in.peek() != std::char_traits<char>::eof()) content << in.rdbuf();
    return content.str();
}

/// Every item below `folder`, by "/"-joined decoded relative path: a file maps to its content,
/// a folder to "<folder>". Walks with plain `listAll`, independently of the recursive listing.
inline std::map<std::u16string, std::string> snapshot(vfs::Folder const& folder, std::u16string const& prefix = u"") {
    std::map<std::u16string, std::string> out;
    for (auto const& entry : folder.listAll(u"")) {
        std::u16string name = prefix + entry.getIRI().getName();
        auto item = entry.getFileOrFolder();
        if (item.index() == 1) {
            out[name] = "<folder>";
            out.merge(snapshot(std::get<vfs::Folder>(item), name + u"/"));
        } else {
            out[name] = readFile(std::get<vfs::File>(item));
        }
    }
    return out;
}

/// Runs `work` and returns the storage error code it threw, or -1 when it threw none.
template <class Work>
vfs::ErrorCode errorOf(Work&& work) {
    try {
        work();
    } catch (vfs::Exception const& e) {
        return e.getErrorCode();
    }
    return static_cast<vfs::ErrorCode>(-1);
}

} // namespace stratum::test
