// The console's upper layer (`ulp`): its session of named objects and its subcommands.
//
// `ulp` acts as an upper-layer protocol would: it finds the provider "mlx" through the verbs core
// and calls the entry points through the provider's function table (ulp_verbs.h), never around
// the module. Every object it creates gets a short name that later commands take: hca1, pd1, mr1,
// and whatever kinds later files add (cq1, qp1, ah1, ...). An omitted object argument means the
// most recent object of that kind on the most recently opened HCA.
//
// Extending it is adding a file tools/marlix/ulp_<subject>_commands.cpp that registers its
// subcommands:
//
//     static int ulp_cq(Console &c, ulp::Session &s, const std::vector<std::string> &args) {...}
//     MARLIX_ULP_SUBCOMMAND(cq, "cq", "ulp cq create ENTRIES [HCA] | ulp cq destroy [CQ]",
//                           "Create or destroy a completion queue.", ulp_cq)
//
// A subcommand gets the words after "ulp" (args[0] is the subcommand's name), prints one line on
// success and returns 0; on a failed entry point it reports through ulp::failed(), which prints
// the ox_return_t name and value and returns 1.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "console.hpp"
#include "ulp_verbs.h"

namespace marlix::console::ulp {

// One object the upper layer holds.
struct Object {
    std::string kind;                        // "hca", "pd", "mr", ...
    std::string name;                        // kind + number: "pd1"
    std::string hca;                         // the owning HCA object's name ("" for an HCA itself)
    std::string device;                      // HCA objects: the device name they were opened with
    const ulp_funcs_t *funcs = nullptr;      // HCA objects: the provider table they were opened through
    void *ptr = nullptr;                     // a pointer handle (HCA record, CQ/QP handle) or a buffer
    uint64_t handle = 0;                     // a value handle (PD, region, address handle)
    std::map<std::string, uint64_t> values;  // whatever else the kind keeps (keys, lengths)
    std::function<void(Object &)> release;   // frees host-side resources when the object is forgotten
};

class Session {
  public:
    // Adds an object and names it (kind + the kind's next number); returns it.
    Object &add(Object object);
    // The named object of `kind`, or with an empty name the most recent one of that kind on the most
    // recently opened HCA (for kind "hca": the most recently opened HCA, also found by device name).
    // Null with a message in `error` when there is none.
    Object *find(const std::string &kind, const std::string &name, std::string &error);
    // The HCA object an object belongs to (itself for an HCA).
    Object *hca_of(const Object &object);
    // Forgets an object (running its release); forgetting an HCA forgets its objects first.
    void forget(const std::string &name);
    std::vector<const Object *> all() const;  // in creation order
    void clear();

  private:
    std::vector<std::unique_ptr<Object>> objects_;  // creation order
    std::map<std::string, unsigned> counters_;
};

// The session of the running host; cleared when the host goes down.
Session &session();
void reset_session();

// The provider an upper layer uses.
inline constexpr const char *kProvider = "mlx";

// Reports a failed entry point: "ulp: WHAT: ox_return_err (1)" on err(); returns 1.
int failed(Console &c, const std::string &what, int status);
// Reports a refused command (no such object, bad number): "ulp: MESSAGE" on err(); returns 1.
int refused(Console &c, const std::string &message);
// Parses an unsigned decimal or 0x number.
bool parse_number(const std::string &text, uint64_t &value);

// ---- Subcommands --------------------------------------------------------------------------------

using SubHandler = std::function<int(Console &c, Session &s, const std::vector<std::string> &args)>;

struct Subcommand {
    std::string name;   // the word after "ulp"
    std::string usage;  // "ulp pd alloc [HCA] | ulp pd free [PD]"
    std::string help;   // one line
    SubHandler handler;
};

void add_subcommand(Subcommand subcommand);
const Subcommand *find_subcommand(const std::string &name);
std::vector<const Subcommand *> subcommands();  // sorted by name

struct SubcommandRegistrar {
    explicit SubcommandRegistrar(Subcommand subcommand) { add_subcommand(std::move(subcommand)); }
};

#define MARLIX_ULP_SUBCOMMAND(id, name, usage, help, handler)                            \
    static const ::marlix::console::ulp::SubcommandRegistrar marlix_ulp_subcommand_##id{ \
        {name, usage, help, handler}};

// Prints "usage: <the subcommand's usage>" on err() and returns 2.
int usage(Console &c, const std::string &subcommand);

}  // namespace marlix::console::ulp
