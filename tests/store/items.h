// Items of a tree text as plain rows, for tests that compare whole lists.
#pragma once

#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <libxml/parser.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::test {

struct Row {
    std::string name, value, type, range, step, options, mode, http_access;
    bool operator==(const Row&) const = default;
};

inline void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name << " = \"" << row.value << "\" type=" << row.type << " range=" << row.range
         << " step=" << row.step << " options=" << row.options << " mode=" << row.mode
         << " http_access=" << row.http_access;
}

inline std::vector<Row> rowsOfList() {
    std::vector<Row> rows;
    for (std::uint32_t i = 0; i < simlist_size(&xitem_list); ++i) {
        const xitem& item = *xitemAt(i);
        rows.push_back({item.name, item.value, item.type, item.range, item.step, item.options,
                        item.mode, item.http_access});
    }
    return rows;
}

struct Document {
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc;
    explicit Document(std::string_view xml)
        : doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "tree.xml", nullptr, 0),
              xmlFreeDoc) {}
    [[nodiscard]] const xmlNode* root() const { return xmlDocGetRootElement(doc.get()); }
};

struct Walked {
    std::vector<Row> rows;
    TreeWalkResult result;
};

inline Walked walk(std::string_view xml) {
    const Document document(xml);
    initXitemList();
    Walked walked;
    walked.result = parseXmlTree(document.root());
    walked.rows = rowsOfList();
    delXitemList();
    return walked;
}

} // namespace kelconf::test
