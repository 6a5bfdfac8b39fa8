// The conformance suite over every back end. A storage scheme joins with one line.
#include "support/Conformance.hpp"

namespace opc::test {
namespace {

// Storage has no links and only writable/read-only permissions; a stream that opens failed is
// io_error, a non-overwriting folder copy refuses an existing folder, removing a missing path
// fails, and PermsUnknown and not-a-date-time mean nothing special.
Capabilities const storage{false, false, false, false, false, false};

INSTANTIATE_TEST_SUITE_P(
    BackEnds, Conformance,
    ::testing::Values(WorldMaker{"local", Capabilities(), [] { return makeLocalWorld(); }},
                      WorldMaker{"file", storage, [] { return makeVirtualWorld(u"file"); }},
                      WorldMaker{"memory", storage, [] { return makeVirtualWorld(u"memory"); }}),
    [](auto const& info) { return info.param.name; });

} // namespace
} // namespace opc::test
