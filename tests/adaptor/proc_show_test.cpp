// Diagnostic show commands and the statistics page.
#include <unistd.h>

#include <cstdio>
#include <regex>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class ProcShow : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
    }
    static std::vector<std::string> zero_ring() {
        std::string first = "Last VAPI errors: ";
        for (int i = 0; i < 20; i++) first += "0, ";
        std::vector<std::string> lines = {first, "Last VAPI errors symbols: "};
        for (int i = 0; i < 20; i++) lines.push_back("  unknown error (0)");
        return lines;
    }
    static std::string page(const std::string &errors_line) {
        return "Mellanox adaptor:\n" + errors_line +
               "\nVAPI errors: 0 (0)\n mem errors: 0 (0)\n  num of CQ: 0 (0)\n  num of QP: 0 (0)\n"
               "  num of AH: 0 (0), MR: 0 (0), MG: 0 (0)\n    send WR: 0 (0) [0 (0)] {0 (0)}\n     acc sg: "
               "0\n"
               " receive WR: 0 (0) [0 (0)]\nvapi (s,r,p): 0, 0, 0\n  Byte - TX: 0 (0) RX: 0 (0)\n"
               "       poll: OK: 0 (0) empty: 0 (0)\n   comp err: RX: 0 (0)    TX: 0 (0)\ncomp notify: 0 "
               "(0)\n"
               " comp event: 0 (0)\nasync event: 0 (0)\n=======================================\n";
    }
};

TEST_F(ProcShow, ErrorRingAfterStartUp) {
    EXPECT_EQ(zero_ring(), command("show_err"));
}

TEST_F(ProcShow, ErrorRingNewestFirstThenCleared) {
    const void *record_fn = sym<void>("ox_mlx_record_vapi_err");
    ASSERT_NE(nullptr, record_fn);
    auto record = [&](unsigned func_ix, int stat) { adp_call_record_vapi_err(record_fn, func_ix, stat); };
    record(1, -5);
    record(4, -7);
    std::string first = "Last VAPI errors: 4, 1, ";
    for (int i = 0; i < 18; i++) first += "0, ";
    std::vector<std::string> expected = {first, "Last VAPI errors symbols: ", "  get_port_partition_tbl_indx",
                                         " (-7)", "  hca_query_indx (-5)"};
    for (int i = 0; i < 18; i++) expected.push_back("  unknown error (0)");
    expected.push_back("Empty the VAPI error logger..");
    EXPECT_EQ(expected, command("show_err 9"));
    EXPECT_EQ(zero_ring(), command("show_err"));
    EXPECT_EQ(2u, *exported<uint32_t>("current_avail_ix"));  // left as it was
}

TEST_F(ProcShow, ErrorRingNamesAndOtherArguments) {
    const void *record_fn = sym<void>("ox_mlx_record_vapi_err");
    ASSERT_NE(nullptr, record_fn);
    auto record = [&](unsigned func_ix, int stat) { adp_call_record_vapi_err(record_fn, func_ix, stat); };
    record(64, -1);
    record(61, -2);
    record(65, -3);
    record(43, -4);
    auto lines = command("show_err 0x8");  // not 9: nothing is cleared
    ASSERT_EQ(22u, lines.size());
    EXPECT_EQ("  post_send_indx (-4)", lines[2]);
    EXPECT_EQ("  unknown error (-3)", lines[3]);
    EXPECT_EQ("  unknown error (-2)", lines[4]);
    EXPECT_EQ("  tavor_free_dev_mem_indx (-1)", lines[5]);
    EXPECT_EQ(lines, command("show_err"));
    // 011 is octal 9.
    EXPECT_EQ("Empty the VAPI error logger..", command("show_err 011").back());
}

TEST_F(ProcShow, MemoryTableIsTheProcCopy) {
    std::vector<std::string> expected = {
        std::string(59, '-'),
        "ix) name                      size      slab    Number of allocations",
        " 0) ox_opened_hca_t    :        0        32         0",
        " 1) ox_gen_mr_element_t:        0        32         0",
        " 2) ox_opened_cq_t     :        0        32         0",
        " 3) tasklet_struct     :        0        32         0",
        " 4) ox_opened_qp_t     :        0        32         0",
        " 5) ox_asy_ev_element_t:        0        32         0",
        " 6) mem_gen_mem_array_p:        0        32         0",
        " 7) mem_opened_cq_array:        0        32         0",
        " 8) mem_opened_qp_array:        0        32         0",
        " 9) mem_g_com_cq_array :        0        32         0",
        "total_mem_alloc: 0, total_slab_mem_alloc: 320",
        std::string(59, '-'),
    };
    // The live table counts the generator's array; the proc copy does not.
    EXPECT_EQ(1, alloc_num("mem_g_com_cq_array_ix"));
    EXPECT_EQ(expected, command("show_mem"));
}

TEST_F(ProcShow, RegistrationInfoRefusesArguments) {
    EXPECT_EQ((std::vector<std::string>{"ERROR - to many args (args:2)"}), command("show_reg_mem now"));
}

// The whole output, line by line. The host's memory figures change from call to call and are
// matched by pattern; everything else is exact.
TEST_F(ProcShow, RegistrationInfoWithoutHca) {
    const unsigned long total_pages = (unsigned long)sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE) / 4096;
    const std::string dashes(50, '-');
    char pages_line[64];
    std::snprintf(pages_line, sizeof pages_line, "Number of pages: %8lu (calc: 34091302912)", total_pages);
    const std::vector<std::string> expected = {
        "",
        "System memory information (BUG information !!!):",
        "",
        "      Total:    Used:    Free:  Shared: Buffers:",
        "Mem:  (\\d+) (\\d+) (\\d+) (\\d+) (\\d+) ",
        "Swap: (\\d+) (\\d+) (\\d+)",
        "",
        "",
        pages_line,
        "",
        "Total Memory: " + std::to_string(total_pages * 4) + " Kb",
        dashes,
        "",
        "Adaptor MR register defines:",
        "PAGE_SIZE: 4096",
        "PAGE_OFFSET: 0000010000000000",
        "high_memory: 0000800000000000",
        "Max mr registeration: 1",
        "Offset of mem registration (from the start of RAM): 0",
        "Start of register addr: 0000010000000000",
        "MR size (MB): 133169152",
        "MR size (byte): 0",
        "Overlap size between mr: 0",
        "Num of pages in MB: 256",
        "Add to high_memory address: 0",
        "in: LINUX_VERSION_CODE - KERNEL_VERSION(2,4,9)",
        "Adaptor calculations:",
        "Num_of_byte_in_ram: 139637976727552",
        "End_addr_of_ram: 0000800000000000",
        "Num_of_byte_to_register: 139637976723456",
        dashes,
    };
    auto lines = command("show_reg_mem");
    ASSERT_EQ(expected.size(), lines.size());
    for (size_t i = 0; i < lines.size(); i++) {
        if (expected[i].find("(\\d+)") != std::string::npos)
            EXPECT_TRUE(std::regex_match(lines[i], std::regex(expected[i])))
                << "line " << i << ": " << lines[i];
        else
            EXPECT_EQ(expected[i], lines[i]) << "line " << i;
    }
}

TEST_F(ProcShow, StatisticsPageShowsChangesSinceTheLastRead) {
    EXPECT_EQ(page("     errors: 0 (0)"), read(kControl));
    auto s = stats();
    s.set("error_num", 5);
    s.set("last_error_num", 3);
    s.set("last_cq_num", 2);
    s.set("last_num_of_max_poll", 7);  // not a companion the page clears
    k::log_clear();
    std::string with_changes = page("     errors: 5 (3)");
    with_changes.replace(with_changes.find("  num of CQ: 0 (0)"), 18, "  num of CQ: 0 (2)");
    EXPECT_EQ(with_changes, read(kControl));
    auto lines = log();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ("Mellanox adaptor:", lines[0]);
    EXPECT_EQ("      errors: 5 (3)", lines[1]);
    EXPECT_TRUE(contains(lines, "  opened HCA: 0"));
    EXPECT_TRUE(contains(lines, "   num of CQ: 0 (2)"));
    EXPECT_TRUE(contains(lines, "reg async cb: 0 (0)"));
    EXPECT_EQ("=======================================", lines.back());
    EXPECT_EQ(0, s["last_error_num"]);
    EXPECT_EQ(0, s["last_cq_num"]);
    EXPECT_EQ(5, s["error_num"]);
    EXPECT_EQ(7, s["last_num_of_max_poll"]);
    EXPECT_EQ(page("     errors: 5 (0)"), read(kControl));
}

TEST_F(ProcShow, StatisticsPageServesOffsets) {
    auto read_at = reinterpret_cast<int (*)(char *, char **, long, int, int *, void *)>(
        sym<void>("print_mlx_adaptor_statistic"));
    ASSERT_NE(nullptr, read_at);
    std::string whole = page("     errors: 0 (0)");
    std::vector<char> buf(4096);
    char *start = nullptr;
    int eof = 0;
    int n = read_at(buf.data(), &start, 0, 10, &eof, nullptr);
    EXPECT_EQ(10, n);
    EXPECT_EQ(0, eof);
    EXPECT_EQ(whole.substr(0, 10), std::string(start, n));
    eof = 0;
    n = read_at(buf.data(), &start, 30, 4000, &eof, nullptr);
    EXPECT_EQ(static_cast<int>(whole.size()) - 30, n);
    EXPECT_EQ(1, eof);
    EXPECT_EQ(whole.substr(30), std::string(start, n));
}

}  // namespace
}  // namespace adaptor_test
