#pragma once

// One behaviour suite for every FileSystemOps back end. A back end joins by describing a
// "world": a fresh back end object, an empty root folder in its own path form, and what it can
// do. Fixtures are built through the public operations only (appendPath, createOutputStream),
// so the suite never needs to know how the back end spells its paths.

#include <opc/FileSystemOps.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace opc::test {

/// UTF-8 to UTF-16; invalid text throws.
std::u16string utf16(std::string const& utf8);

/// What a back end supports; the suite skips or relaxes the cases a switch turns off.
struct Capabilities {
    bool symlinks = true;                   ///< links are created, seen, listed and copied as links
    bool posixPermissions = true;           ///< all nine bits round-trip, not just 0644/0444
    bool preciseErrors = true;              ///< failures carry the exact POSIX number
    bool folderCopyModes = true;            ///< folder copy: FailIfExists refuses, NoOverwrite merges
    bool removeAllMissingIsFine = true;     ///< removeAll of a missing path succeeds
    bool unknownValuesChangeNothing = true; ///< PermsUnknown and not-a-date-time are no-ops
};

/// A fresh back end with an empty root folder; the world owns both and cleans up.
class World {
public:
    virtual ~World();
    virtual FileSystemOps& ops() = 0;
    virtual std::u16string root() const = 0;

    /// `relative` ("a/b/c.txt") appended element by element to the root.
    std::u16string at(std::string const& relative);
    void writeFile(std::u16string const& path, std::string const& bytes);
    std::string readFile(std::u16string const& path);
    /// getFiles, normalised and sorted.
    std::vector<std::u16string> listing(std::u16string const& folder, bool recursive);
    /// normalizePath of each `at(relative)`, sorted: what `listing` should return.
    std::vector<std::u16string> expected(std::vector<std::string> const& relatives);
};

struct WorldMaker {
    std::string name;
    Capabilities caps;
    std::function<std::unique_ptr<World>()> make;
};

inline void PrintTo(WorldMaker const& maker, std::ostream* out) { *out << maker.name; }
std::string worldName(::testing::TestParamInfo<WorldMaker> const& info);

class BehaviourSuite : public ::testing::TestWithParam<WorldMaker> {
protected:
    void SetUp() override;
    void TearDown() override;

    FileSystemOps& ops() { return m_world->ops(); }
    World& world() { return *m_world; }
    Capabilities const& caps() const { return GetParam().caps; }
    /// A failed code, and the exact value when the back end reports precise errors.
    void expectFailure(boost::system::error_code const& ec, boost::system::errc::errc_t precise) const;

private:
    std::unique_ptr<World> m_world;
};

} // namespace opc::test
