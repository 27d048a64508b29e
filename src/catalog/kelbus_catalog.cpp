// The calls of kelbus_catalog.h.
#include "kelbus_catalog.h"

#include "catalog/catalog.h"
#include "catalog/secrets.h"
#include "catalog/value_rules.h"

#include <exception>
#include <memory>
#include <optional>
#include <string>

struct kelbus_catalog {
    std::unique_ptr<kelconf::Catalog> defaults; // null until default.db was found sound
    kelconf::Parameter found;                   // what was found last
    std::string message;
};

namespace kelconf {

namespace {

kelbus_error fail(kelbus_catalog& catalog, kelbus_error error, std::string message) {
    catalog.message = std::move(message);
    return error;
}

kelbus_error openDefaults(kelbus_catalog& catalog) {
    if (catalog.defaults) {
        return KELBUS_OK;
    }
    if (!catalogSound()) {
        return fail(catalog, KELBUS_NO_CATALOG,
                    "the factory defaults are missing, damaged or not open to you");
    }
    auto opened = std::make_unique<Catalog>();
    if (!*opened) {
        return fail(catalog, KELBUS_NO_CATALOG, opened->problem());
    }
    catalog.defaults = std::move(opened);
    return KELBUS_OK;
}

kelbus_error find(kelbus_catalog& catalog, const char* name) {
    if (name == nullptr) {
        return fail(catalog, KELBUS_BAD_ARGUMENT, "the name is null");
    }
    const kelbus_error error = openDefaults(catalog);
    if (error != KELBUS_OK) {
        return error;
    }
    std::optional<Parameter> parameter = catalog.defaults->find(name);
    if (!parameter) {
        const std::string problem = catalog.defaults->problem();
        if (!problem.empty()) {
            catalog.defaults.reset();
            return fail(catalog, KELBUS_NO_CATALOG, problem);
        }
        return fail(catalog, KELBUS_UNKNOWN_NAME,
                    std::string{"the factory knows no name \""} + name + "\"");
    }
    catalog.found = std::move(*parameter);
    return KELBUS_OK;
}

kelbus_definition definitionOf(const Parameter& parameter) {
    return {parameter.name.c_str(),
            parameter.default_value.c_str(),
            parameter.type.c_str(),
            parameter.range.c_str(),
            parameter.step.c_str(),
            parameter.options.c_str(),
            parameter.access.c_str(),
            isSecret(parameter.name, parameter.type),
            isState(parameter.name, parameter.type)};
}

// Runs the body of a public call. Exceptions end here.
template <typename Body>
kelbus_error guarded(kelbus_catalog* catalog, Body body) {
    if (catalog == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    try {
        catalog->message.clear();
        return body(*catalog);
    } catch (const std::exception&) {
        return KELBUS_NO_MEMORY;
    }
}

} // namespace

} // namespace kelconf

using namespace kelconf; // NOLINT(google-build-using-namespace): the calls below are its border

kelbus_error kelbus_catalog_open(kelbus_catalog** catalog) {
    if (catalog == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *catalog = new (std::nothrow) kelbus_catalog;
    return *catalog != nullptr ? KELBUS_OK : KELBUS_NO_MEMORY;
}

void kelbus_catalog_close(kelbus_catalog* catalog) {
    delete catalog;
}

const char* kelbus_catalog_message(const kelbus_catalog* catalog) {
    return catalog == nullptr ? "bad argument" : catalog->message.c_str();
}

kelbus_error kelbus_catalog_find(kelbus_catalog* catalog, const char* name,
                                 kelbus_definition* definition) {
    return guarded(catalog, [&](kelbus_catalog& open) {
        if (definition == nullptr) {
            return fail(open, KELBUS_BAD_ARGUMENT, "the place of the definition is null");
        }
        const kelbus_error error = find(open, name);
        *definition = error == KELBUS_OK ? definitionOf(open.found) : kelbus_definition{};
        return error;
    });
}

kelbus_error kelbus_catalog_check(kelbus_catalog* catalog, const char* name, const char* value) {
    return guarded(catalog, [&](kelbus_catalog& open) {
        if (value == nullptr) {
            return fail(open, KELBUS_BAD_ARGUMENT, "the value is null");
        }
        const kelbus_error error = find(open, name);
        const std::string broken =
            error == KELBUS_OK ? brokenRule(ruleOf(open.found), value) : std::string{};
        if (!broken.empty()) {
            return fail(open, KELBUS_BAD_ARGUMENT, std::string{"\""} + name + "\": " + broken);
        }
        return error;
    });
}
