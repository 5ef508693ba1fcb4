// Moving a connected QP from its primary path to its alternate one.
#include "device/path_migration.hpp"

#include "datapath/datapath.hpp"
#include "engine/engine.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

using qpsm::QpKind;
using qpsm::QpState;

bool migration_armed(const Qp &qp) {
    if (qp.kind != QpKind::Regular) return false;
    if (qp.transport() != VAPI_TS_RC && qp.transport() != VAPI_TS_UC) return false;
    return qp.state() == QpState::Rts && raw_value(qp.attr.path_mig_state) == VAPI_ARMED &&
           qp.alt_path_loaded;
}

void switch_to_alternate_path(Device &dev, Qp &qp) {
    VAPI_qp_attr_t &a = qp.attr;
    a.av = a.alt_av;
    // An alternate port of 0 names the primary port: the path then differs in its address only.
    if (a.alt_port != 0) a.port = a.alt_port;
    a.pkey_ix = a.alt_pkey_ix;
    a.timeout = a.alt_timeout;
    a.path_mig_state = VAPI_MIGRATED;
    // The alternate path has been used up; a new one must be loaded (and armed) to migrate again.
    qp.alt_path_loaded = false;
    // Requests lost on the old path are retransmitted on the new one at once (the timer is made
    // due: any time in the past will do), with a full retry budget.
    qp.retries_left = a.retry_count;
    if (qp.retransmit_at != 0) qp.retransmit_at = 1;
    activate(dev, qp);
}

bool migrate_on_path_loss(Device &dev, Qp &qp, PendingEvents &events) {
    if (!migration_armed(qp)) return false;
    switch_to_alternate_path(dev, qp);
    qp_event(qp, VAPI_QP_PATH_MIGRATED, events);
    return true;
}

size_t migrate_paths_through(Device &dev, Device *port_owner, IB_port_t port, IB_lid_t lost_lid,
                             PendingEvents &events) {
    size_t migrated = 0;
    for (auto &[h, obj] : dev.qps) {
        Qp &qp = *static_cast<Qp *>(obj.get());
        const bool leaves_there = &dev == port_owner && qp.attr.port == port;
        const bool leads_there = lost_lid != 0 && qp.attr.av.dlid == lost_lid;
        if ((leaves_there || leads_there) && migrate_on_path_loss(dev, qp, events)) ++migrated;
    }
    return migrated;
}

bool migrate_path(const std::string &device, VAPI_qp_hndl_t qp) {
    Device *d = device_by_name(device);
    if (!d) return false;
    PendingEvents events;
    bool migrated = false;
    {
        std::lock_guard lk(d->mu);
        if (Qp *q = find_qp(*d, qp)) migrated = migrate_on_path_loss(*d, *q, events);
    }
    events.deliver(*d);
    if (migrated) engine_kick();
    return migrated;
}

}  // namespace marlix::softhca
