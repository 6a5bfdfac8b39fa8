// The behaviour suite every back end passes, run over the machine's own file system.

#include "support/BehaviourSuite.hpp"
#include "support/LocalWorld.hpp"

namespace opc::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Local, BehaviourSuite,
                         ::testing::Values(WorldMaker{"local", Capabilities{}, [] { return makeLocalWorld(); }}),
                         worldName);

} // namespace
} // namespace opc::test
