// The control file's statistics page read back into numbers: each counter line by its label (the
// text before its first colon, trimmed), with every number on the line in order, counter then
// companion ("send WR" holds post_s_num, its companion, inline_send_num, ...).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace stress {

struct StatisticsPage {
    std::string text;
    int hca_lines = 0;  // "- N) MLX handle: ..." lines, one per open HCA
    std::map<std::string, std::vector<long long>> lines;

    // The n-th number of the line `label` as the 32-bit counter the page printed with %d; -1 and
    // a failed check when the page lacks it.
    long long counter(const std::string &label, size_t n = 0) const;
    // Every companion "(%d)" of the page is 0.
    bool companions_zero(std::string *which) const;
};

// Parses a page; false (with the reason) when it does not have the page's shape.
bool parse_statistics_page(const std::string &text, StatisticsPage &page, std::string *why);

}  // namespace stress
