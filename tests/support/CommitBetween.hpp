#pragma once

// Commits between back ends of given kinds, for the tests that run a commit in a child process.

#include "support/HostFolder.hpp"
#include "support/ThroughOps.hpp"

#include <opc/Commit.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/VirtualFileSystemOps.hpp>

namespace opc::test {

// Where the source is read from and the target written to: the host through the local back
// end, memory storage (the source's bytes copied there first, so the commit streams them across
// back ends), or the host through a file IRI.
enum Kind { Local,
            Memory,
            File };
inline char const* const KindNames[] = {"Local", "Memory", "File"};

inline std::u16string pathIn(Kind kind, std::string const& file) {
    return kind == Local ? u16(file) : kind == File ? u16("file://" + file)
                                                    : u"memory:///" + u16(std::filesystem::path(file).filename());
}

// Commits `source` over `target` between back ends of the given kinds.
inline void commitBetween(Kind from, Kind to, std::string const& target, std::string const& source, bool backup = false) {
    stratum::storage::vfs::StorageSystemReference storage;
    LocalFileSystemOps local;
    VirtualFileSystemOps storageOps(storage);
    auto ops = [&](Kind k) -> FileSystemOps& { return k == Local ? static_cast<FileSystemOps&>(local) : storageOps; };
    if (from == Memory)
        writeThrough(ops(Memory), pathIn(Memory, source), readFile(source));
    CommitOptions options;
    options.removeBackup(!backup);
    replaceFileWithBackup(ops(to), pathIn(to, target), ops(from), pathIn(from, source), options);
}

struct Pair {
    Kind from, to;
};
inline std::string pairName(Pair p) { return std::string(KindNames[p.from]) + "To" + KindNames[p.to]; }

} // namespace opc::test
