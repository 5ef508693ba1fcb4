#include "statistics_page.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <sstream>

namespace stress {
namespace {

std::string trim(const std::string &s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

std::vector<long long> numbers_in(const std::string &s) {
    std::vector<long long> out;
    for (size_t i = 0; i < s.size();) {
        const bool minus =
            s[i] == '-' && i + 1 < s.size() && std::isdigit(static_cast<unsigned char>(s[i + 1]));
        if (std::isdigit(static_cast<unsigned char>(s[i])) || minus) {
            char *end = nullptr;
            out.push_back(std::strtoll(s.c_str() + i, &end, 10));
            i = size_t(end - s.c_str());
        } else {
            ++i;
        }
    }
    return out;
}

// Lines whose numbers come in "counter (companion)" pairs, and how many pairs.
const std::map<std::string, size_t> &paired_lines() {
    static const std::map<std::string, size_t> lines = {
        {"errors", 1},    {"VAPI errors", 1}, {"mem errors", 1}, {"num of CQ", 1},   {"num of QP", 1},
        {"num of AH", 3}, {"send WR", 3},     {"receive WR", 2}, {"Byte - TX", 2},   {"poll", 2},
        {"comp err", 2},  {"comp notify", 1}, {"comp event", 1}, {"async event", 1},
    };
    return lines;
}

}  // namespace

bool parse_statistics_page(const std::string &text, StatisticsPage &page, std::string *why) {
    page = StatisticsPage{};
    page.text = text;
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line) || line != "Mellanox adaptor:") {
        if (why) *why = "the page does not start with \"Mellanox adaptor:\"";
        return false;
    }
    while (std::getline(in, line)) {
        if (line.rfind("- ", 0) == 0) {
            page.hca_lines++;
            continue;
        }
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        page.lines[trim(line.substr(0, colon))] = numbers_in(line.substr(colon + 1));
    }
    for (const auto &[label, pairs] : paired_lines()) {
        auto it = page.lines.find(label);
        if (it == page.lines.end() || it->second.size() != 2 * pairs) {
            if (why)
                *why =
                    "the page has no line \"" + label + "\" with " + std::to_string(2 * pairs) + " numbers";
            return false;
        }
    }
    if (page.lines.count("acc sg") == 0 || page.lines.at("acc sg").size() != 1) {
        if (why) *why = "the page has no \"acc sg\" line";
        return false;
    }
    return true;
}

long long StatisticsPage::counter(const std::string &label, size_t n) const {
    auto it = lines.find(label);
    if (it == lines.end() || n >= it->second.size()) {
        ADD_FAILURE() << "the statistics page has no number " << n << " on its line \"" << label << "\"";
        return -1;
    }
    return it->second[n];
}

bool StatisticsPage::companions_zero(std::string *which) const {
    for (const auto &[label, pairs] : paired_lines()) {
        const auto &numbers = lines.at(label);
        for (size_t i = 0; i < pairs; ++i)
            if (numbers[2 * i + 1] != 0) {
                if (which)
                    *which = label + " #" + std::to_string(i) + ": " + std::to_string(numbers[2 * i + 1]);
                return false;
            }
    }
    return true;
}

}  // namespace stress
