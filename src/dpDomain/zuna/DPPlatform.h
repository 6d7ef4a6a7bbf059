#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

namespace FenREL {

class ZunaDPAdapter;

// The platform initialisation of the start-up: the adapter to this host's
// data path, and DPDomainManager with it. It reads from the main
// configuration tree:
//
//   config.fenrel.is_gw              bool, default false: a public-cloud gateway
//   config.fenrel.zunagentLink.path  string, empty or missing: the default
//                                    socket of the data-path agent
//
// StateCache::Init and the CPDomainManager's creation come first.
class DPPlatform {
public:
    // Makes the adapter, initialises DPDomainManager with it and then the
    // adapter, which opens its link. The result is the adapter's Init: false
    // when nothing can reach the data path. Once per process.
    static bool Init(const boost::property_tree::ptree& mainConfig);
    // The adapter, null before Init.
    static ZunaDPAdapter* GetAdapter();
};

}  // namespace FenREL
