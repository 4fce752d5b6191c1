// `qvn-devcloud destination add|list|remove --db FILE …`: the person running the devcloud
// gives an account its destinations, in the same database a running devcloud uses.
#pragma once

#include <ostream>

namespace qvn::devcloud {

// argv[0] is "destination". The exit code: 0 done, 1 the database or the id failed, 2 a bad
// command line.
int runDestinationCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace qvn::devcloud
