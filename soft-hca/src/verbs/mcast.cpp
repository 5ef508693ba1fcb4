// Multicast group membership: which UD QPs of the device receive the packets of a group.
#include <algorithm>
#include <cstring>
#include <map>

#include "device/qp.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

namespace {

using namespace limits;

struct Group {
    IB_lid_t mlid = 0;
    std::set<VAPI_qp_hndl_t> members;
};

// The device's multicast groups, kept in the device's single multicast slot.
struct McastState : Object {
    std::map<Mgid, Group> groups;
};

McastState &state_of(Device &dev) {
    if (!dev.mcast) dev.mcast = std::make_unique<McastState>();
    return *static_cast<McastState *>(dev.mcast.get());
}

Mgid key_of(const IB_gid_t gid) {
    Mgid k;
    std::memcpy(k.data(), gid, k.size());
    return k;
}

// Shared checks of attach and detach.
VAPI_ret_t check_group_args(Device &dev, const IB_gid_t mgid, VAPI_qp_hndl_t qp_hndl, IB_lid_t mlid,
                            Qp *&qp) {
    qp = find_qp(dev, qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    if (!mgid || mgid[0] != 0xff) return VAPI_EINVAL_MCG_GID;
    if (mlid < kFirstMulticastLid || mlid > kLastMulticastLid) return VAPI_EINVAL_MCG_LID;
    // Only unreliable datagram QPs take part in multicast.
    if (qp->kind != qpsm::QpKind::Regular || qp->transport() != VAPI_TS_UD) return VAPI_EINVAL_SERVICE_TYPE;
    return VAPI_OK;
}

}  // namespace

void detach_qp_from_all_groups(Device &dev, Qp &qp) {
    if (qp.mcast_groups.empty() || !dev.mcast) return;
    McastState &st = state_of(dev);
    for (const auto &[mgid, mlid] : qp.mcast_groups) {
        auto it = st.groups.find(mgid);
        if (it == st.groups.end()) continue;
        it->second.members.erase(qp.hndl);
        if (it->second.members.empty()) st.groups.erase(it);
    }
    qp.mcast_groups.clear();
}

std::vector<VAPI_qp_hndl_t> mcast_group_members(Device &dev, const IB_gid_t mgid) {
    if (!dev.mcast) return {};
    McastState &st = state_of(dev);
    auto it = st.groups.find(key_of(mgid));
    if (it == st.groups.end()) return {};
    return {it->second.members.begin(), it->second.members.end()};
}

void mcast_members_by_lid(Device &dev, IB_lid_t mlid, std::vector<VAPI_qp_hndl_t> &out) {
    out.clear();
    if (!dev.mcast) return;
    for (auto &[gid, g] : state_of(dev).groups)
        if (g.mlid == mlid) out.insert(out.end(), g.members.begin(), g.members.end());
}

}  // namespace marlix::softhca

using namespace marlix::softhca;

extern "C" {

VAPI_ret_t VAPI_attach_to_multicast(VAPI_hca_hndl_t hca_hndl, IB_gid_t mcg_dgid, VAPI_qp_hndl_t qp_hndl,
                                    IB_lid_t mcg_lid) {
    Call call(Verb::VAPI_attach_to_multicast, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Qp *qp = nullptr;
    if (VAPI_ret_t rc = check_group_args(dev, mcg_dgid, qp_hndl, mcg_lid, qp); rc != VAPI_OK) return rc;
    McastState &st = state_of(dev);
    Mgid key = key_of(mcg_dgid);
    auto it = st.groups.find(key);
    if (it == st.groups.end()) {
        if (st.groups.size() >= dev.cap.max_mcast_grp_num) return VAPI_EOL;
    } else {
        // A group has one MLID; a second attach under another one is a caller error.
        if (it->second.mlid != mcg_lid) return VAPI_EINVAL_MCG_LID;
        // Attaching twice would make the two detaches the caller owes ambiguous: refused.
        if (it->second.members.count(qp_hndl)) return VAPI_EINVAL_PARAM;
        if (it->second.members.size() >= dev.cap.max_mcast_qp_attach_num) return VAPI_E2BIG_MCG_SIZE;
    }
    Group &g = st.groups[key];
    g.mlid = mcg_lid;
    g.members.insert(qp_hndl);
    qp->mcast_groups.insert({key, mcg_lid});
    return VAPI_OK;
}

VAPI_ret_t VAPI_detach_from_multicast(VAPI_hca_hndl_t hca_hndl, IB_gid_t mcg_dgid, VAPI_qp_hndl_t qp_hndl,
                                      IB_lid_t mcg_lid) {
    Call call(Verb::VAPI_detach_from_multicast, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Qp *qp = nullptr;
    if (VAPI_ret_t rc = check_group_args(dev, mcg_dgid, qp_hndl, mcg_lid, qp); rc != VAPI_OK) return rc;
    McastState &st = state_of(dev);
    Mgid key = key_of(mcg_dgid);
    auto it = st.groups.find(key);
    if (it == st.groups.end()) return VAPI_EINVAL_MCG_GID;
    if (it->second.mlid != mcg_lid) return VAPI_EINVAL_MCG_LID;
    // Detaching a QP that is not a member is refused.
    if (!it->second.members.erase(qp_hndl)) return VAPI_EINVAL_PARAM;
    if (it->second.members.empty()) st.groups.erase(it);
    qp->mcast_groups.erase({key, mcg_lid});
    return VAPI_OK;
}

}  // extern "C"
