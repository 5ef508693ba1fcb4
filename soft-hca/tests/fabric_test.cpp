#include <vector>

#include "device/device.hpp"
#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

TEST_F(SoftHcaTest, SubnetManagerAssignsLidsFromOneToCabledPorts) {
    auto p01 = sh::port_status("InfiniHost0", 1), p11 = sh::port_status("InfiniHost1", 1),
         p02 = sh::port_status("InfiniHost0", 2);
    ASSERT_TRUE(p01 && p11 && p02);
    EXPECT_EQ(p01->state, PORT_ACTIVE);
    EXPECT_EQ(p01->lid, 1);
    EXPECT_EQ(p11->lid, 2);
    EXPECT_EQ(p11->sm_lid, 1);
    EXPECT_EQ(p11->capability_mask, 0x02510a68u);  // the SM lives on InfiniHost0 port 1
    EXPECT_EQ(p02->state, PORT_DOWN);
    EXPECT_EQ(p02->phys_state, PORT_PHYS_POLLING);
    IB_port_t port = 0;
    EXPECT_EQ(sh::device_by_lid(2, &port), sh::device_by_name("InfiniHost1"));
    EXPECT_EQ(port, 1);
    EXPECT_EQ(sh::device_by_lid(3, &port), nullptr);
}

TEST_F(SoftHcaTest, UnplugAndReplugRaisePortEventsAndKeepTheLid) {
    VAPI_hca_hndl_t h = open("InfiniHost1");
    static std::vector<VAPI_event_record_t> events;
    events.clear();
    auto handler = [](VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *) { events.push_back(*rec); };
    ASSERT_EQ(VAPI_set_async_event_handler(h, handler, nullptr), VAPI_OK);

    ASSERT_TRUE(sh::unplug("InfiniHost1", 1));
    VAPI_hca_port_t p{};
    ASSERT_EQ(VAPI_query_hca_port_prop(h, 1, &p), VAPI_OK);
    EXPECT_EQ(p.state, PORT_DOWN);
    EXPECT_EQ(sh::device_by_lid(2, nullptr), nullptr);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, VAPI_PORT_ERROR);
    EXPECT_EQ(events[0].modifier.port_num, 1);

    ASSERT_TRUE(sh::plug("InfiniHost1", 1));
    ASSERT_EQ(VAPI_query_hca_port_prop(h, 1, &p), VAPI_OK);
    EXPECT_EQ(p.state, PORT_ACTIVE);
    EXPECT_EQ(p.lid, 2);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].type, VAPI_PORT_ACTIVE);
    EXPECT_FALSE(sh::unplug("InfiniHost1", 3));
    EXPECT_FALSE(sh::plug("InfiniHost7", 1));
}

TEST_F(SoftHcaTest, PluggingPortTwoGivesItTheNextLid) {
    ASSERT_TRUE(sh::plug("InfiniHost0", 2));
    auto p = sh::port_status("InfiniHost0", 2);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->state, PORT_ACTIVE);
    EXPECT_EQ(p->lid, 3);
    EXPECT_EQ(p->sm_lid, 1);
}

TEST_F(SoftHcaTest, DisabledPortIsDownAndDisabled) {
    ASSERT_TRUE(sh::set_port_disabled("InfiniHost0", 1, true));
    auto p = sh::port_status("InfiniHost0", 1);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->state, PORT_DOWN);
    EXPECT_EQ(p->phys_state, PORT_PHYS_DISABLED);
    // The SM moved to the first port still up.
    EXPECT_EQ(sh::port_status("InfiniHost1", 1)->sm_lid, 2);
}

class NoSmTest : public SoftHcaTest {
    sh::Options options() override {
        sh::Options o;
        o.subnet_manager = false;
        o.device_count = 3;
        return o;
    }
};

TEST_F(NoSmTest, WithoutSubnetManagerCabledPortsStayInitializing) {
    EXPECT_EQ(sh::device_names().size(), 3u);
    auto p = sh::port_status("InfiniHost2", 1);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->state, PORT_INITIALIZE);
    EXPECT_EQ(p->phys_state, PORT_PHYS_LINKUP);
    EXPECT_EQ(p->lid, 0);
}

TEST_F(SoftHcaTest, IbstatShowsEveryDeviceAndPort) {
    sh::unplug("InfiniHost1", 1);
    std::string t = sh::ibstat_text();
    const char *expect0 =
        "CA 'InfiniHost0'\n"
        "\tCA type: MT23108\n"
        "\tNumber of ports: 2\n"
        "\tFirmware version: 3.5.0\n"
        "\tHardware version: a1\n"
        "\tNode GUID: 0x0002c90000001000\n"
        "\tSystem image GUID: 0x0002c90000001000\n"
        "\tPort 1:\n"
        "\t\tState: Active\n"
        "\t\tPhysical state: LinkUp\n"
        "\t\tRate: 10\n"
        "\t\tBase lid: 1\n"
        "\t\tLMC: 0\n"
        "\t\tSM lid: 1\n"
        "\t\tCapability mask: 0x02510a6a\n"
        "\t\tPort GUID: 0x0002c90000001001\n"
        "\t\tLink layer: InfiniBand\n"
        "\tPort 2:\n"
        "\t\tState: Down\n"
        "\t\tPhysical state: Polling\n";
    EXPECT_EQ(t.substr(0, strlen(expect0)), expect0);
    EXPECT_NE(t.find("CA 'InfiniHost1'\n"), std::string::npos);
    EXPECT_NE(t.find("\tNode GUID: 0x0002c90000002000\n"), std::string::npos);
    EXPECT_NE(t.find("\t\tPort GUID: 0x0002c90000002001\n"), std::string::npos);
}
