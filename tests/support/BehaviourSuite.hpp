#pragma once

// One behaviour suite for every FileSystemOps back end.
//
// A back end joins by describing a "world": a fresh back end object, an empty root folder in
// that back end's own path form, and what the back end can do. The suite builds every fixture
// through the public operations (paths with appendPath, files through createOutputStream), so
// it never needs to know how the back end spells its paths.
//
//   INSTANTIATE_TEST_SUITE_P(Mine, BehaviourSuite,
//       ::testing::Values(opc::test::WorldMaker{"mine", caps, [] { return makeMyWorld(); }}),
//       opc::test::worldName);

#include <opc/FileSystemOps.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace opc::test {

/// UTF-8 to UTF-16 (test names and paths are written in UTF-8); invalid text throws.
std::u16string utf16(std::string const& utf8);

/// What a back end supports; the suite skips or relaxes the cases a switch turns off.
struct Capabilities {
    /// createSymlink, isSymlink and getLinkTarget work; links are listed and copied as links.
    bool symlinks = true;
    /// All nine permission bits round-trip. Off: only "writable" (0644) and "read-only" (0444).
    bool posixPermissions = true;
    /// Failures carry the precise POSIX number (ENOENT, EEXIST, EISDIR, ENOTEMPTY...). Off: the
    /// suite only checks that the code reports failure.
    bool preciseErrors = true;
    /// A folder copy follows ExistsMode exactly: FailIfExists refuses an existing destination,
    /// NoOverwrite merges into it. Off: those two cases are not checked.
    bool folderCopyModes = true;
    /// removeAll of a missing path succeeds quietly.
    bool removeAllMissingIsFine = true;
    /// setPermissions(PermsUnknown) and setLastModifiedTime(not-a-date-time) change nothing.
    /// Off: the back end gives those values no special meaning.
    bool unknownValuesChangeNothing = true;
    /// Every failure comes with a detail text. Off: a stream that opens failed may have none.
    bool detailOnEveryFailure = true;
};

/// A fresh back end with an empty root folder. The world owns both and cleans up the folder.
class World {
public:
    virtual ~World();

    virtual FileSystemOps& ops() = 0;
    /// The empty folder every test works in, in the back end's path form.
    virtual std::u16string root() const = 0;

    // Helpers built on the public operations only.

    /// `relative` ("a/b/c.txt") appended element by element to the root with appendPath.
    std::u16string at(std::string const& relative);
    /// Creates or truncates the file and writes `bytes` into it.
    void writeFile(std::u16string const& path, std::string const& bytes);
    /// The whole content of the file.
    std::string readFile(std::u16string const& path);
    /// getFiles, normalised and sorted, so listings compare regardless of the host's order.
    std::vector<std::u16string> listing(std::u16string const& folder, bool recursive);
    /// normalizePath of each `at(relative)`, sorted: what `listing` should return.
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives);
};

/// How to make a world, and what it can do.
struct WorldMaker {
    std::string name;
    Capabilities caps;
    std::function<std::unique_ptr<World>()> make;
};

inline void PrintTo(WorldMaker const& maker, std::ostream* out) { *out << maker.name; }

/// Test-name generator for INSTANTIATE_TEST_SUITE_P: the maker's name.
std::string worldName(::testing::TestParamInfo<WorldMaker> const& info);

/// The fixture of the suite; instantiate it once per back end.
class BehaviourSuite : public ::testing::TestWithParam<WorldMaker> {
protected:
    void SetUp() override;
    void TearDown() override;

    FileSystemOps& ops() { return m_world->ops(); }
    World& world() { return *m_world; }
    Capabilities const& caps() const { return GetParam().caps; }

    /// Checks a failed code: the exact value when the back end reports precise errors.
    void expectFailure(boost::system::error_code const& ec, boost::system::errc::errc_t precise) const;

private:
    std::unique_ptr<World> m_world;
};

} // namespace opc::test
