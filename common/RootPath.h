#pragma once

#include <string>

namespace FenREL {

// Resolves one of the daemon's fixed absolute paths under $FENREL_ROOT, so that
// tests and demos run several daemons side by side without root. With the
// variable unset or empty the path is returned as it is.
std::string RootPath(const std::string& absolutePath);

}  // namespace FenREL
