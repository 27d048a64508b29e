// What is known about a parameter beside its live value. For front ends of every kind: nothing in
// catalog/ needs a terminal, the bus or a running service.
//
// The parameter trees of the firmware define the parameters; kelconf-init writes them down in
// default.db, from where they are read:
//
//   catalog.h      one parameter by its name, or all of them
//   value_rules.h  may a value be set; when not, why, in words
//   secrets.h      whose value is not for everybody's eyes, and what to show instead
//   decimal.h      the numbers in values and rules, exact
//
//   Catalog catalog;
//   if (const auto parameter = catalog.find("network.http.port")) {
//       const std::string why = brokenRule(ruleOf(*parameter), "0"); // "must be 1 to 65535"
//   }
//
// default.db has neither the tree's `mode` nor its comments.
#pragma once

#include <string>
#include <string_view>

namespace kelconf {

// The texts are those of the tree, not interpreted; empty where it has none.
struct Parameter {
    std::string name;
    std::string default_value;
    std::string type;
    std::string range; // this and the next two: value_rules.h
    std::string step;
    std::string options;
    std::string access; // from the web pages: the tree's http_access, "r" or "rw"
};

// Values of this type are states of the device.
inline constexpr const char* kRealtime = "realtime";

// True for what is no setting: realtime states, and the mark of the service that passwords are
// scrambled. These are in no diff, no export and no reset of many.
inline bool isState(std::string_view name, std::string_view type) {
    return type == kRealtime || name == "private.encrypt_campass";
}

} // namespace kelconf
