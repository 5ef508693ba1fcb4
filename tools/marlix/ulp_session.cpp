// The ulp session's named objects and the subcommand registry.
#include "ulp_session.hpp"

#include <algorithm>
#include <charconv>
#include <ostream>

namespace marlix::console::ulp {

Object &Session::add(Object object) {
    object.name = object.kind + std::to_string(++counters_[object.kind]);
    objects_.push_back(std::make_unique<Object>(std::move(object)));
    return *objects_.back();
}

Object *Session::find(const std::string &kind, const std::string &name, std::string &error) {
    if (!name.empty()) {
        for (auto &o : objects_)
            if (o->kind == kind && o->name == name) return o.get();
        // An HCA can also be named by its device: the most recent open of it.
        if (kind == "hca")
            for (auto it = objects_.rbegin(); it != objects_.rend(); ++it)
                if ((*it)->kind == "hca" && (*it)->device == name) return it->get();
        error = "no " + kind + " named " + name;
        return nullptr;
    }
    Object *hca = nullptr;
    for (auto it = objects_.rbegin(); it != objects_.rend() && !hca; ++it)
        if ((*it)->kind == "hca") hca = it->get();
    if (!hca) {
        error = "no HCA is open";
        return nullptr;
    }
    if (kind == "hca") return hca;
    for (auto it = objects_.rbegin(); it != objects_.rend(); ++it)
        if ((*it)->kind == kind && (*it)->hca == hca->name) return it->get();
    error = "no " + kind + " on " + hca->name;
    return nullptr;
}

Object *Session::hca_of(const Object &object) {
    if (object.kind == "hca") return const_cast<Object *>(&object);
    std::string error;
    return find("hca", object.hca, error);
}

void Session::forget(const std::string &name) {
    // An HCA's objects go first, newest first.
    for (size_t i = objects_.size(); i-- > 0;) {
        if (objects_[i]->hca != name) continue;
        if (objects_[i]->release) objects_[i]->release(*objects_[i]);
        objects_.erase(objects_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    auto it = std::find_if(objects_.begin(), objects_.end(), [&](const auto &o) { return o->name == name; });
    if (it == objects_.end()) return;
    if ((*it)->release) (*it)->release(**it);
    objects_.erase(it);
}

std::vector<const Object *> Session::all() const {
    std::vector<const Object *> out;
    for (const auto &o : objects_) out.push_back(o.get());
    return out;
}

void Session::clear() {
    // Buffers go back; the HCAs themselves went down with the host.
    for (auto it = objects_.rbegin(); it != objects_.rend(); ++it)
        if ((*it)->release) (*it)->release(**it);
    objects_.clear();
    counters_.clear();
}

Session &session() {
    static Session s;
    return s;
}

void reset_session() {
    session().clear();
}

int failed(Console &c, const std::string &what, int status) {
    c.err() << "ulp: " << what << ": " << ulp_status_name(status) << " (" << status << ")\n";
    return 1;
}

int refused(Console &c, const std::string &message) {
    c.err() << "ulp: " << message << "\n";
    return 1;
}

bool parse_number(const std::string &text, uint64_t &value) {
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty()) return false;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    return ec == std::errc() && end == digits.data() + digits.size();
}

namespace {
std::map<std::string, Subcommand> &registry() {
    static std::map<std::string, Subcommand> r;
    return r;
}
}  // namespace

void add_subcommand(Subcommand subcommand) {
    std::string name = subcommand.name;
    registry()[name] = std::move(subcommand);
}

const Subcommand *find_subcommand(const std::string &name) {
    auto it = registry().find(name);
    return it == registry().end() ? nullptr : &it->second;
}

std::vector<const Subcommand *> subcommands() {
    std::vector<const Subcommand *> out;
    for (const auto &[name, sub] : registry()) out.push_back(&sub);
    return out;
}

int usage(Console &c, const std::string &subcommand) {
    const Subcommand *sub = find_subcommand(subcommand);
    c.err() << "usage: " << (sub ? sub->usage : "ulp SUBCOMMAND [ARGS...]") << "\n";
    return 2;
}

}  // namespace marlix::console::ulp
