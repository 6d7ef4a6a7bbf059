#pragma once

#include <boost/property_tree/ptree.hpp>

namespace FenREL {

// Creates the applications that `config.fenrel.apps` lists and registers them
// with the AppManager.
class AppFactory {
public:
    // Every child of `config.fenrel.apps`, whatever its tag, is one entry: a
    // `name`, an `enabled` flag (absent: skipped) and a `config` subtree that
    // must exist even for a disabled entry. Unknown names create nothing.
    // False when the list has no child at all.
    static bool CreateApps(const boost::property_tree::ptree& mainConfig);
};

}  // namespace FenREL
