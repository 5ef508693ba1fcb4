// The port's local management agents: the subnet management agent (LID-routed and directed-route
// SMPs: NodeInfo, NodeDescription, PortInfo, GUIDInfo, P_KeyTable) and the performance management
// agent (PortCounters), answered through EVAPI_process_local_mad.
#include <cstring>

#include "device/device.hpp"

using namespace marlix::softhca;

namespace {

constexpr uint8_t kClassSmLid = 0x01;
constexpr uint8_t kClassSmDirected = 0x81;
constexpr uint8_t kClassPerf = 0x04;

constexpr uint8_t kMethodGet = 0x01;
constexpr uint8_t kMethodSet = 0x02;
constexpr uint8_t kMethodGetResp = 0x81;

constexpr uint16_t kAttrNodeDesc = 0x0010;
constexpr uint16_t kAttrNodeInfo = 0x0011;
constexpr uint16_t kAttrGuidInfo = 0x0014;
constexpr uint16_t kAttrPortInfo = 0x0015;
constexpr uint16_t kAttrPkeyTable = 0x0016;
constexpr uint16_t kAttrPortCounters = 0x0012;

// MAD status: the invalid-field code in bits 2..4.
constexpr uint16_t kStatusBadVersion = 1 << 2;
constexpr uint16_t kStatusMethodUnsupported = 2 << 2;
constexpr uint16_t kStatusAttrUnsupported = 3 << 2;
constexpr uint16_t kStatusInvalidField = 7 << 2;
constexpr uint16_t kStatusDirection = 0x8000;  // directed-route SMP: the D bit

constexpr size_t kSmpData = 64;   // SMP attribute data (64 bytes)
constexpr size_t kPerfData = 64;  // PerfMgt attribute data (192 bytes)

const char kNodeDescription[] = "MT23108 InfiniHost Mellanox Technologies";

void put16(uint8_t *p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
void put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (24 - 8 * i));
}
void put64(uint8_t *p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (56 - 8 * i));
}
uint16_t get16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
uint32_t get32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

void node_info(const Device &dev, const Port &port, uint8_t *d) {
    d[0] = 1;  // base version
    d[1] = 1;  // class version
    d[2] = 1;  // node type: channel adapter
    d[3] = uint8_t(dev.ports.size());
    put64(d + 4, dev.node_guid);  // system image GUID
    put64(d + 12, dev.node_guid);
    put64(d + 20, port.guid);
    put16(d + 28, dev.cap.max_pkeys);  // partition cap
    put16(d + 30, uint16_t(dev.vendor.vendor_part_id));
    put32(d + 32, dev.vendor.hw_ver);
    d[36] = port.num;
    d[37] = uint8_t(dev.vendor.vendor_id >> 16);
    d[38] = uint8_t(dev.vendor.vendor_id >> 8);
    d[39] = uint8_t(dev.vendor.vendor_id);
}

void port_info(const Port &p, uint8_t *d) {
    put64(d + 8, p.gid_prefix);
    put16(d + 16, p.lid);
    put16(d + 18, p.sm_lid);
    put32(d + 20, p.capability_mask);
    d[28] = p.num;
    d[29] = 0x03;                                    // link width enabled: 1x, 4x
    d[30] = 0x03;                                    // supported: 1x, 4x
    d[31] = p.active() ? 0x02 : 0x00;                // active: 4x
    d[32] = uint8_t(0x1 << 4 | (p.state & 0xF));     // speed supported 2.5 Gb/s | port state
    d[33] = uint8_t((p.phys_state & 0xF) << 4 | 2);  // physical state | link down default: polling
    d[34] = p.lmc & 0x7;
    d[35] = uint8_t(0x1 << 4 | 0x1);  // speed active | enabled: 2.5 Gb/s
    d[36] = uint8_t(MTU2048 << 4 | (p.sm_sl & 0xF));
    d[37] = uint8_t(4 << 4);  // VL cap: VL0-7
    d[41] = MTU2048;          // MTU cap
    d[43] = uint8_t(4 << 4);  // operational VLs
    put16(d + 46, uint16_t(p.bad_pkey_counter > 0xFFFF ? 0xFFFF : p.bad_pkey_counter));
    put16(d + 48, uint16_t(p.qkey_viol_counter > 0xFFFF ? 0xFFFF : p.qkey_viol_counter));
    d[50] = 32;  // GUID cap
    d[51] = 18;  // subnet timeout
}

// Answers an SMP; returns the MAD status.
uint16_t smp(Device &dev, Port &port, uint8_t method, uint16_t attr, uint32_t mod, uint8_t *d) {
    if (method == kMethodSet) {
        // The SM configures ports through Set(PortInfo) in a real subnet; here the built-in subnet
        // manager owns the port state, so only the attributes' Get is served.
        switch (attr) {
            case kAttrNodeDesc:
            case kAttrNodeInfo:
            case kAttrGuidInfo:
            case kAttrPortInfo:
            case kAttrPkeyTable:
                return kStatusMethodUnsupported;
            default:
                return kStatusAttrUnsupported;
        }
    }
    if (method != kMethodGet) return kStatusMethodUnsupported;
    std::memset(d, 0, kSmpData);
    switch (attr) {
        case kAttrNodeDesc:
            std::memcpy(d, kNodeDescription, sizeof kNodeDescription - 1);
            return 0;
        case kAttrNodeInfo:
            node_info(dev, port, d);
            return 0;
        case kAttrPortInfo: {
            Port *p = mod == 0 ? &port : dev.port(IB_port_t(mod));
            if (!p || mod > 255) return kStatusInvalidField;
            port_info(*p, d);
            return 0;
        }
        case kAttrGuidInfo:
            if (mod != 0) return kStatusInvalidField;  // one block of 8 GUIDs covers the table in use
            put64(d, port.guid);
            return 0;
        case kAttrPkeyTable: {
            if (mod >= (port.pkeys.size() + 31) / 32) return kStatusInvalidField;
            for (size_t i = 0; i < 32 && mod * 32 + i < port.pkeys.size(); ++i)
                put16(d + 2 * i, port.pkeys[mod * 32 + i]);
            return 0;
        }
        default:
            return kStatusAttrUnsupported;
    }
}

uint16_t perf(Port &port, uint8_t method, uint16_t attr, uint8_t *d) {
    if (attr != kAttrPortCounters) return kStatusAttrUnsupported;
    if (method != kMethodGet && method != kMethodSet) return kStatusMethodUnsupported;
    if (method == kMethodSet) {
        // Set clears the counters its CounterSelect names.
        uint16_t sel = get16(d + 2);
        if (sel & 0x0001) port.symbol_errors = 0;
        if (sel & 0x0004) port.link_downed = 0;
        if (sel & 0x0008) port.rcv_errors = 0;
        if (sel & 0x0040) port.xmit_discards = 0;
        // The data counters' select bits (0x1000 PortXmitData to 0x8000 PortRcvPkts) are in the
        // order of PortDataCounters::Counter. They are cleared while other threads count.
        port.data_counters.clear((sel >> 12) & 0xF);
    }
    uint8_t select = d[1];
    std::memset(d, 0, 192);
    d[1] = select;
    put16(d + 4, port.symbol_errors);
    d[7] = port.link_downed;
    put16(d + 8, port.rcv_errors);
    put16(d + 14, port.xmit_discards);
    const auto data = port.data_counters.read();
    put32(d + 24, data[PortDataCounters::kXmitData]);
    put32(d + 28, data[PortDataCounters::kRcvData]);
    put32(d + 32, data[PortDataCounters::kXmitPkts]);
    put32(d + 36, data[PortDataCounters::kRcvPkts]);
    return 0;
}

}  // namespace

extern "C" VAPI_ret_t EVAPI_process_local_mad(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, IB_lid_t slid,
                                              EVAPI_proc_mad_opt_t proc_mad_opts, const void *mad_in_p,
                                              void *mad_out_p) {
    (void)slid;           // the agents answer whoever asks
    (void)proc_mad_opts;  // M_Key is 0 and unchecked, so ignoring it changes nothing
    Call call(Verb::EVAPI_process_local_mad, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Port *port = dev.port(port_num);
    if (!port) return VAPI_EINVAL_PORT;
    if (!mad_in_p || !mad_out_p) return VAPI_EINVAL_PARAM;

    uint8_t mad[EVAPI_MAD_SIZE];
    std::memcpy(mad, mad_in_p, sizeof mad);
    const uint8_t mgmt_class = mad[1];
    if (mgmt_class != kClassSmLid && mgmt_class != kClassSmDirected && mgmt_class != kClassPerf)
        return VAPI_EINVAL_MAD;  // no local agent for that class
    const uint8_t method = mad[3] & 0x7F;
    const uint16_t attr = get16(mad + 16);
    const uint32_t mod = get32(mad + 20);

    uint16_t status;
    if (mad[0] != 1 || mad[2] != 1)
        status = kStatusBadVersion;
    else if (mgmt_class == kClassPerf)
        status = perf(*port, method, attr, mad + kPerfData);
    else
        status = smp(dev, *port, method, attr, mod, mad + kSmpData);

    if (mgmt_class == kClassSmDirected) status |= kStatusDirection;
    mad[3] = kMethodGetResp;
    put16(mad + 4, status);
    std::memcpy(mad_out_p, mad, sizeof mad);
    return VAPI_OK;
}
