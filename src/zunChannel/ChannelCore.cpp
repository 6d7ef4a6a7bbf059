#include "ChannelCore.h"

#include "AppManager.h"
#include "Configuration.h"
#include "CoreApp.h"
#include "CtrlConnPool.h"
#include "ShardingMgr.h"

namespace ZUNChannel {

void ChannelCore::Create()
{
    AppManager::Create();
    CtrlConnPool::Init();
    ShardingMgr::Init();
    CoreApp::Init();
    AppManager::Get()->RegisterApp(CoreApp::Get());
}

void ChannelCore::Destroy()
{
    Configuration::SetConnList({});
    CoreApp::Destroy();
    CtrlConnPool::Destroy();
    ShardingMgr::Destroy();
    AppManager::Destroy();
    Configuration::ClearNodeUuids();
}

}  // namespace ZUNChannel
