#include "DpDomainFixture.h"

#include "AppManager.h"
#include "CPDomainManager.h"
#include "DPDomainManager.h"
#include "GlobalLock.h"
#include "IoService.h"
#include "MsgDispatcher.h"
#include "SessionApp.h"
#include "StateCache.h"
#include "StateCacheConfigTable.h"
#include "StateCacheL2Table.h"
#include "StateCacheRemoteSessionTable.h"
#include "WorkGroup.h"

namespace FenRELTest {

namespace {

namespace config = com::corvid::zun::config;
namespace l2 = com::corvid::zun::l2;

class DpDomainEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ZUNChannel::WorkGroup::Get().Start(8);
        ZUNChannel::AppManager::Create();
        FenREL::SessionApp::Init(com::corvid::zun::ProductVersionMsg());
        FenREL::StateCache::Init();
        FenREL::CPDomainManager::Create()->Start(ZUNChannel::AppManager::Get());
        FenREL::StateCache::GetInstance()->GetConfigTable()->RegisterLocalCacheObserver(config::VIF,
                                                                                        &LocalVifRecorder::Get());
    }
};

testing::Environment* const g_environment = testing::AddGlobalTestEnvironment(new DpDomainEnvironment);

}  // namespace

void DpDomainFixture::TearDown()
{
    FenREL::DPDomainManager::Destroy();
    {
        ZUNChannel::GlobalLockGuard lock;
        FenREL::StateCache* cache = FenREL::StateCache::GetInstance();
        // Empty full syncs sweep both config caches.
        cache->GetConfigTable()->AtomicUpdateRemoteCache(std::vector<config::ZunConfigDeltaMsg>(), true);
        cache->GetConfigTable()->AtomicUpdateLocalCache(std::vector<config::ZunStateDeltaMsg>(), true);
        std::vector<uint32_t> vnis;
        cache->GetL2Table()->ListVnis(FenREL::L2Side::Remote, vnis);
        for (const uint32_t vni : vnis) {
            cache->GetL2Table()->RemoveRemoteL2ForVni(vni);
        }
        cache->GetL2Table()->AtomicUpdateLocalL2Cache(l2::L2UpdateMsg(), true);
        std::vector<FenREL::RemoteSessionUpdate> sessions;
        cache->GetRemoteSessionTable()->QuerySessions(sessions);
        for (const auto& session : sessions) {
            cache->GetRemoteSessionTable()->RemoveSession(session.sessionType, session.index);
        }
    }
    LocalVifRecorder::Get().Take();
    ZUNChannel::IoService::Get()->poll();
    ZUNChannel::IoService::Get()->restart();
}

com::corvid::zun::UuidMsg DpDomainFixture::Uuid(uint64_t id)
{
    com::corvid::zun::UuidMsg uuid;
    uuid.set_left(id);
    uuid.set_right(~id);
    return uuid;
}

void DpDomainFixture::AddRemoteSwitch(uint64_t id, uint32_t vni)
{
    config::ZunConfigDeltaMsg entity;
    entity.set_operation(config::ZunConfigDeltaMsg::UPDATE_OP);
    *entity.mutable_entity_id() = Uuid(id);
    entity.set_entity_type(config::LOG_SWITCH);
    config::ZunConfigDeltaMsg withVni = entity;
    config::EntityPropertyMsg* property = withVni.add_property();
    property->set_property_type(config::EntityPropertyMsg::LS_VNI);
    property->mutable_ls_vni()->set_vni(vni);
    ZUNChannel::GlobalLockGuard lock;
    FenREL::StateCache::GetInstance()->GetConfigTable()->AtomicUpdateRemoteCache(
        std::vector<config::ZunConfigDeltaMsg>{entity, withVni}, false);
}

void DpDomainFixture::AddRemoteVtep(uint32_t vni, uint32_t vtepIp)
{
    l2::L2UpdateMsg msg;
    l2::L2MappingUpdateMsg* join = msg.add_mapping_update();
    join->mutable_vn_instance()->set_vni(vni);
    join->mutable_vn_instance()->set_transport_switch_id(7);
    join->add_items()->set_op(l2::L2UpdateMappingItemMsg::ADD);
    l2::L2MappingUpdateMsg* vtep = msg.add_mapping_update();
    vtep->set_type(l2::L2MappingUpdateMsg::VTEP);
    *vtep->mutable_vn_instance() = join->vn_instance();
    l2::L2UpdateMappingItemMsg* item = vtep->add_items();
    item->set_op(l2::L2UpdateMappingItemMsg::ADD);
    item->mutable_vtep()->mutable_vtep_ip()->set_ipv4(vtepIp);
    ZUNChannel::GlobalLockGuard lock;
    FenREL::StateCache::GetInstance()->GetL2Table()->AtomicUpdateRemoteL2Cache(msg, false, false);
}

void DpDomainFixture::SetRemoteSession(int32_t type, uint32_t index, int32_t state, const std::string& ip)
{
    ZUNChannel::GlobalLockGuard lock;
    FenREL::StateCacheRemoteSessionTable* table = FenREL::StateCache::GetInstance()->GetRemoteSessionTable();
    table->UpdateSessionState(type, index, state);
    table->UpdateControllerIp(type, index, ip);
}

config::ZunStateDeltaMsg DpDomainFixture::Vif(const std::string& id, uint32_t ip)
{
    config::ZunStateDeltaMsg delta;
    delta.set_operation(config::ZunStateDeltaMsg::UPDATE_OP);
    delta.set_entity_id(id);
    delta.set_entity_type(config::VIF);
    config::EntityStateMsg* state = delta.add_state();
    state->set_state_type(config::EntityStateMsg::VIF_IP);
    state->add_vif_ips()->set_ipv4(ip);
    return delta;
}

uint32_t DpDomainFixture::LocalVifIp(const std::string& id)
{
    ZUNChannel::GlobalLockGuard lock;
    config::EntityStateMsg state;
    if (!FenREL::StateCache::GetInstance()->GetConfigTable()->GetLocalState(id, config::EntityStateMsg::VIF_IP,
                                                                           state) ||
        state.vif_ips_size() == 0) {
        return 0;
    }
    return state.vif_ips(0).ipv4();
}

LocalVifRecorder& LocalVifRecorder::Get()
{
    static LocalVifRecorder* recorder = new LocalVifRecorder();  // registered for the life of the process
    return *recorder;
}

std::vector<LocalVifRecorder::Change> LocalVifRecorder::Take()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _probe = nullptr;
    return std::move(_changes);
}

void LocalVifRecorder::SetProbe(std::function<bool()> probe)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _probe = std::move(probe);
}

void LocalVifRecorder::ProcessLocalStateUpdate(const FenREL::LocalStateUpdateList& updates)
{
    std::lock_guard<std::mutex> lock(_mutex);
    const bool probe = _probe && _probe();
    for (const auto& update : updates) {
        _changes.push_back(Change{update.entityId, update.operation, probe});
    }
}

CpSinkStandIn::CpSinkStandIn(uint32_t type) : _type(type)
{
    FenREL::MsgDispatcher::Get().UnRegisterSink(FenREL::MsgDispatcher::CP_DOMAIN, type);
    FenREL::MsgDispatcher::Get().RegisterSink(FenREL::MsgDispatcher::CP_DOMAIN, type, this);
}

CpSinkStandIn::~CpSinkStandIn()
{
    FenREL::MsgDispatcher::Get().UnRegisterSink(FenREL::MsgDispatcher::CP_DOMAIN, _type);
    FenREL::MsgDispatcher::Get().RegisterSink(FenREL::MsgDispatcher::CP_DOMAIN, _type, FenREL::CPDomainManager::Get());
}

void CpSinkStandIn::Process(uint32_t type, const uint8_t* data, uint32_t length)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _received.push_back(std::to_string(type) + ":" + std::string(reinterpret_cast<const char*>(data), length));
}

std::vector<std::string> CpSinkStandIn::Received()
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _received;
}

}  // namespace FenRELTest
