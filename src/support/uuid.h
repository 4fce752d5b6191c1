// Random (version 4) UUIDs in upper-case text form, as the studio's identifiers are written.
#pragma once

#include <string>

namespace qvn {

std::string makeUUID();

}  // namespace qvn
