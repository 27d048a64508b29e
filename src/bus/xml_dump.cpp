#include "bus/xml_dump.h"

#include "base/xml_text.h"
#include "bus/xml_quiet.h"

#include <libxml/tree.h>

#include <memory>

namespace kelconf {

namespace {

struct FreeDocument {
    void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};

// For a value that is not UTF-8 xmlNewProp gives the document another encoding, and drops the
// one that it had without releasing it.
void addAttribute(xmlDoc* document, xmlNode* element, const char* name, const char* value) {
    const xmlChar* before = document->encoding;
    xmlNewProp(element, asXml(name), asXml(value));
    if (before != nullptr && before != document->encoding) {
        xmlFree(const_cast<xmlChar*>(before));
    }
}

void addElement(xmlDoc* document, xmlNode* root, const BusParameter& parameter) {
    xmlNode* element = xmlNewNode(nullptr, asXml("parameter"));
    xmlNode* text = parameter.value == nullptr ? nullptr : xmlNewText(asXml(parameter.value));
    xmlAddChild(root, element);
    if (text != nullptr) {
        xmlAddChild(element, text);
    }
    addAttribute(document, element, "name", parameter.name);
    if (parameter.prev_value != nullptr) {
        addAttribute(document, element, "prev_value", parameter.prev_value);
    }
}

} // namespace

char* dumpWithLibrary(const char* root, const std::function<void(const ParameterSink&)>& walk,
                      std::int32_t* length) {
    const QuietXml quiet;
    const std::unique_ptr<xmlDoc, FreeDocument> document{xmlNewDoc(asXml("1.0"))};
    xmlNode* top = xmlNewNode(nullptr, asXml(root));
    xmlDocSetRootElement(document.get(), top);
    walk([&](const BusParameter& parameter) {
        addElement(document.get(), top, parameter);
        return true;
    });
    xmlChar* bytes = nullptr;
    int size = 0;
    xmlDocDumpMemory(document.get(), &bytes, &size);
    *length = bytes == nullptr ? 0 : size;
    return reinterpret_cast<char*>(bytes);
}

} // namespace kelconf
