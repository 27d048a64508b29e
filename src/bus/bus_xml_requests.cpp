// The parsers of bus/bus_xml.h.
#include "base/xml_text.h"
#include "bus/bus_xml.h"
#include "bus/xml_quiet.h"
#include "log/keldebug.h"
#include "service/request_lists.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

namespace kelconf {

namespace {

struct FreeXml {
    void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
    void operator()(xmlParserCtxt* parser) const noexcept { xmlFreeParserCtxt(parser); }
    void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
using Document = std::unique_ptr<xmlDoc, FreeXml>;
using Parser = std::unique_ptr<xmlParserCtxt, FreeXml>;

// Called where a document type declaration begins, before any entity is declared.
void refuseDocumentType(void* context, const xmlChar* /*name*/, const xmlChar* /*external_id*/,
                        const xmlChar* /*system_id*/) {
    auto* parser = static_cast<xmlParserCtxt*>(context);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

// Null when the bytes are no bus document.
Document parseRequest(const char* bytes, std::int32_t length) {
    if (bytes == nullptr || length <= 0 || length > kMaxRequestBytes) {
        return {};
    }
    const QuietXml quiet;
    const Parser parser{xmlNewParserCtxt()};
    if (!parser) {
        return {};
    }
    parser->sax->internalSubset = refuseDocumentType;
    return Document{xmlCtxtReadMemory(parser.get(), bytes, length, "noname.xml", nullptr, 0)};
}

bool rootIs(const xmlNode* root, const char* name) {
    return xmlStrcmp(root->name, asXml(name)) == 0;
}

void logForeignRoot(const xmlNode* root) {
    keldebug(kLogInfo, kToBoth, "it is %s\n", reinterpret_cast<const char*>(root->name));
}

// The text below a node or an attribute. Nearly always that is one text node, which needs no copy;
// `holder` keeps the copy otherwise.
class NodeText {
  public:
    explicit NodeText(const xmlNode* node) {
        const xmlNode* first = node->children;
        if (first == nullptr) {
            text_ = "";
        } else if (first->next == nullptr && first->type == XML_TEXT_NODE) {
            text_ = reinterpret_cast<const char*>(first->content);
        } else {
            holder_.reset(xmlNodeGetContent(node));
            text_ = reinterpret_cast<const char*>(holder_.get());
        }
        if (text_ == nullptr) {
            text_ = "";
        }
    }
    [[nodiscard]] const char* get() const { return text_; }

  private:
    std::unique_ptr<xmlChar, FreeXml> holder_;
    const char* text_ = nullptr;
};

// visit(name, element) for each child element of the root that has a name, in document order.
template <typename Visit>
void visitNamedChildren(const xmlNode* root, Visit visit) {
    for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) {
            continue;
        }
        const xmlAttr* name = xmlHasProp(child, asXml("name"));
        if (name != nullptr) {
            const NodeText text{reinterpret_cast<const xmlNode*>(name)};
            visit(text.get(), child);
        }
    }
}

// The root of a request of the given kind; null, with a foreign root logged, for anything else.
const xmlNode* rootOf(const Document& document, const char* kind) {
    const xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
    if (root != nullptr && !rootIs(root, kind)) {
        logForeignRoot(root);
        return nullptr;
    }
    return root;
}

std::int32_t setCodeOf(const xmlNode* root) {
    if (rootIs(root, "SET_ACTION")) {
        return kSetAction;
    }
    if (rootIs(root, "SET_ACTION_DIRECT")) {
        return kSetActionDirect;
    }
    if (rootIs(root, "SET_ACTION_NO_DB")) {
        return kSetActionNoDb;
    }
    return kNotASetRequest;
}

} // namespace

void parseGetRequestXML(const char* bytes, std::int32_t length) {
    const Document document = parseRequest(bytes, length);
    if (const xmlNode* root = rootOf(document, "GET_ACTION")) {
        visitNamedChildren(root, [](const char* name, const xmlNode* /*child*/) {
            addGetAnswerElementWithName(name);
        });
    }
}

void parseGetAllRequestXML(const char* bytes, std::int32_t length) {
    static_cast<void>(rootOf(parseRequest(bytes, length), "GET_ALL_ACTION"));
}

void parseGetGroupRequestXML(const char* bytes, std::int32_t length) {
    const Document document = parseRequest(bytes, length);
    if (const xmlNode* root = rootOf(document, "GET_GROUP_ACTION")) {
        visitNamedChildren(root, [](const char* name, const xmlNode* /*child*/) {
            addQryGroupElementWithName(name);
        });
    }
}

std::int32_t parseSetRequestXML(const char* bytes, std::int32_t length) {
    const Document document = parseRequest(bytes, length);
    const xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
    if (root == nullptr) {
        return kNotASetRequest;
    }
    const std::int32_t code = setCodeOf(root);
    if (code == kNotASetRequest) {
        logForeignRoot(root);
        return code;
    }
    visitNamedChildren(root, [](const char* name, const xmlNode* child) {
        addSetAnswerElementWithNameAndValue(name, NodeText{child}.get());
    });
    return code;
}

} // namespace kelconf
