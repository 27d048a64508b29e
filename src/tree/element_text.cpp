#include "tree/element_text.h"

#include "base/xml_text.h"

#include <libxml/entities.h>

#include <cstring>
#include <string_view>

namespace kelconf {

namespace {

std::string_view viewOfXml(const xmlChar* text) {
    return text == nullptr ? std::string_view{}
                           : std::string_view{reinterpret_cast<const char*>(text)};
}

struct Collector {
    std::uint64_t& allowance;
    std::string& text;
    int entity_depth = 0;

    bool charge(std::uint64_t amount) {
        if (entity_depth == 0) {
            return true;
        }
        if (amount > allowance) {
            allowance = 0;
            return false;
        }
        allowance -= amount;
        return true;
    }

    bool addNode(const xmlNode* node) {
        if (!charge(1)) {
            return false;
        }
        switch (node->type) {
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE: {
            const std::string_view piece = viewOfXml(node->content);
            if (!charge(piece.size())) {
                return false;
            }
            text.append(piece);
            return true;
        }
        case XML_ELEMENT_NODE:
            return addRun(node->children);
        case XML_ENTITY_REF_NODE:
            return addEntity(xmlGetDocEntity(node->doc, node->name));
        default:
            return true;
        }
    }

    bool addRun(const xmlNode* first) {
        for (const xmlNode* node = first; node != nullptr; node = node->next) {
            if (!addNode(node)) {
                return false;
            }
        }
        return true;
    }

    // Only an entity whose replacement stands in the document itself has children here: the
    // parser is told to load nothing from outside. Entities inside entities end: the parser takes
    // no document in which they go round, or deeper than 40.
    bool addEntity(const xmlEntity* entity) {
        if (entity == nullptr || entity->etype != XML_INTERNAL_GENERAL_ENTITY) {
            return true;
        }
        ++entity_depth;
        const bool complete = addRun(entity->children);
        --entity_depth;
        return complete;
    }
};

const xmlAttr* findAttribute(const xmlNode* element, const char* name) {
    if (element == nullptr || element->type != XML_ELEMENT_NODE) {
        return nullptr;
    }
    return xmlHasProp(element, asXml(name));
}

} // namespace

bool appendElementText(const xmlNode* element, std::uint64_t& allowance, std::string& text) {
    return element == nullptr || Collector{allowance, text}.addRun(element->children);
}

bool appendAttributeText(const xmlNode* element, const char* name, std::uint64_t& allowance,
                         std::string& text) {
    const xmlAttr* attribute = findAttribute(element, name);
    if (attribute == nullptr) {
        return true;
    }
    if (attribute->type == XML_ATTRIBUTE_DECL) {
        text.append(viewOfXml(reinterpret_cast<const xmlAttribute*>(attribute)->defaultValue));
        return true;
    }
    return Collector{allowance, text}.addRun(attribute->children);
}

bool hasAttribute(const xmlNode* element, const char* name) {
    return findAttribute(element, name) != nullptr;
}

} // namespace kelconf
