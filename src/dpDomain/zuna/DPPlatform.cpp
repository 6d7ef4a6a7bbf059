#include "DPPlatform.h"

#include <string>

#include <boost/property_tree/ptree.hpp>

#include "Assert.h"
#include "DPDomainManager.h"
#include "ZunaDPAdapter.h"

namespace FenREL {

namespace {

// Lives as long as the process: the link's threads call it until the end.
ZunaDPAdapter* s_adapter = nullptr;

}  // namespace

bool DPPlatform::Init(const boost::property_tree::ptree& mainConfig)
{
    // A second adapter would open a second link to the same agent.
    ASSERT(s_adapter == nullptr);
    const bool isGw = mainConfig.get<bool>("config.fenrel.is_gw", false);
    const std::string path = mainConfig.get<std::string>("config.fenrel.zunagentLink.path", "");
    s_adapter = new ZunaDPAdapter(path, isGw);
    DPDomainManager* manager = DPDomainManager::Init(s_adapter);
    return s_adapter->Init(manager);
}

ZunaDPAdapter* DPPlatform::GetAdapter()
{
    return s_adapter;
}

}  // namespace FenREL
