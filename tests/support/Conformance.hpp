#pragma once

// One conformance suite for every FileSystemOps back end. A back end joins by describing a
// "world": a fresh back end object, an empty root folder in its own path form, and what it can
// do. Fixtures are built through the public operations (appendPath, createOutputStream), so
// the suite needs to know nothing of how a back end spells its paths.

#include <opc/FileSystemOps.hpp>

#include <boost/system/error_code.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace opc::test {

/// UTF-8 to UTF-16 through ICU; invalid text throws.
std::u16string utf16(std::string const& utf8);

/// A fresh host folder, mode 0777 so that a child that dropped its privileges can work in it.
/// Removed with everything inside (read-only folders included) on destruction.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(ScratchFolder const&) = delete;
    ScratchFolder& operator=(ScratchFolder const&) = delete;
    std::string const& path() const { return m_path; }
    std::string at(std::string const& relative) const { return m_path + "/" + relative; }

private:
    std::string m_path;
};

/// What a back end supports; a switch that is off skips or relaxes the cases that need it.
struct Capabilities {
    bool symlinks = true;          ///< links are made, seen, listed and copied as links
    bool posixPermissions = true;  ///< all nine bits round-trip (else only 0644/0444)
    bool preciseErrors = true;     ///< failures carry the exact POSIX number
    bool folderCopyModes = true;   ///< folder copy: FailIfExists refuses, NoOverwrite merges
    bool lenientRemoval = true;    ///< removeAll of a missing path succeeds
    bool unknownValuesIgnored = true; ///< PermsUnknown and not-a-date-time change nothing
};

/// A fresh back end with an empty root folder; the world owns both and cleans up.
class World {
public:
    virtual ~World();
    virtual FileSystemOps& ops() = 0;
    virtual std::u16string root() const = 0;
    /// The host path of `relative`, or "" when the items are not host files.
    virtual std::string host(std::string const& relative) const = 0;
    /// An empty folder of another scheme in the same back end, or "" when there is none.
    virtual std::u16string otherRoot() { return {}; }

    /// `relative` ("a/b/c.txt") appended element by element to `base` (default: the root).
    std::u16string at(std::string const& relative, std::u16string base = {});
    void write(std::u16string const& path, std::string const& bytes);
    std::string read(std::u16string const& path);
    /// getFiles of `folder`, normalised and sorted.
    std::vector<std::u16string> listing(std::u16string const& folder, bool recursive = true);
    /// normalizePath of each `at(relative, base)`, sorted: what `listing` should return.
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives, std::u16string base = {});
};

struct WorldMaker {
    std::string name;
    Capabilities caps;
    std::function<std::unique_ptr<World>()> make;
};
inline void PrintTo(WorldMaker const& maker, std::ostream* out) { *out << maker.name; }

std::unique_ptr<World> makeLocalWorld();
/// The virtual back end on a folder of `scheme`: a scratch host folder for "file", else
/// "<scheme>:///conformance" in a storage system of its own.
std::unique_ptr<World> makeVirtualWorld(std::u16string const& scheme);

class Conformance : public ::testing::TestWithParam<WorldMaker> {
protected:
    void SetUp() override { m_world = GetParam().make(); }
    FileSystemOps& ops() { return m_world->ops(); }
    World& world() { return *m_world; }
    Capabilities const& caps() const { return GetParam().caps; }
    /// A failed code, and exactly `precise` when the back end reports precise errors.
    void expectFailure(boost::system::error_code const& ec, boost::system::errc::errc_t precise) const;

private:
    std::unique_ptr<World> m_world;
};

} // namespace opc::test
