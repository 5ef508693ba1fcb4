// `ulp`: the console's upper layer. This file holds the command itself, which hands the words to
// a subcommand, and the subcommands about the session (help, list); the subjects have their own
// files (ulp_hca_commands.cpp, ulp_pd_commands.cpp, ulp_mr_commands.cpp, ...).
#include <ostream>

#include "ulp_session.hpp"

namespace marlix::console {
namespace {

int cmd_ulp(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 2) return c.usage();
    const ulp::Subcommand *sub = ulp::find_subcommand(args[1]);
    if (!sub) {
        c.err() << "ulp: " << args[1] << ": no such subcommand (ulp help lists them)\n";
        return 2;
    }
    return sub->handler(c, ulp::session(), std::vector<std::string>(args.begin() + 1, args.end()));
}

int ulp_help(Console &c, ulp::Session &, const std::vector<std::string> &args) {
    if (args.size() != 1) return ulp::usage(c, "help");
    for (const ulp::Subcommand *sub : ulp::subcommands())
        c.out() << sub->usage << "\n    " << sub->help << "\n";
    return 0;
}

// One line per object: "hca1: InfiniHost0", "pd1 on hca1"; the generic PD that ulp connect uses
// is marked "(generic)".
int ulp_list(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() != 1) return ulp::usage(c, "list");
    for (const ulp::Object *o : s.all()) {
        c.out() << o->name;
        if (o->kind == "hca")
            c.out() << ": " << o->device;
        else
            c.out() << " on " << o->hca;
        if (o->values.count("generic")) c.out() << " (generic)";
        c.out() << "\n";
    }
    return 0;
}

}  // namespace

MARLIX_CONSOLE_COMMAND(
    ulp, "ulp", "ulp SUBCOMMAND [ARGS...] (ulp help lists them)",
    "Act as an upper layer: open HCAs and make PDs, regions, ... through the provider \"mlx\".", cmd_ulp)
MARLIX_ULP_SUBCOMMAND(help, "help", "ulp help", "List the ulp subcommands.", ulp_help)
MARLIX_ULP_SUBCOMMAND(list, "list", "ulp list", "List the objects the upper layer holds, oldest first.",
                      ulp_list)

}  // namespace marlix::console
