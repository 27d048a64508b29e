#include "client/values.h"

#include "text/text.h"

namespace kelconf {

namespace {

void show(ValueList& list) {
    list.count = list.parameters.size();
    list.items = list.parameters.data();
}

} // namespace

std::unique_ptr<ValueList> makeValueList(ReplyDocument&& document) {
    auto list = std::make_unique<ValueList>();
    list->texts = std::move(document.texts);
    list->parameters.reserve(document.parameters.size());
    const char* texts = list->texts.data();
    for (const ReplyParameter& parameter : document.parameters) {
        list->parameters.push_back({texts + parameter.name, texts + parameter.value});
    }
    show(*list);
    return list;
}

void keepPrefix(ValueList& list, std::string_view prefix) {
    std::erase_if(list.parameters, [&](const kelbus_parameter& parameter) {
        return !std::string_view{parameter.name}.starts_with(prefix);
    });
    show(list);
}

} // namespace kelconf

void kelbus_values_free(kelbus_values* values) {
    delete static_cast<kelconf::ValueList*>(values);
}

void kelbus_free(void* value) {
    kelconf::freeText(static_cast<char*>(value));
}
