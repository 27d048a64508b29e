// A parameter tree of any content: walked within its limits, told and listed alike.
#include "require.h"
#include "tree/tree_file.h"
#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <string>

using namespace kelconf;
using namespace kelconf::fuzz;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    quietParser();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const XmlDoc document = readTreeText(textOf(data, size));
    if (!document) {
        return 0;
    }
    const xmlNode* root = xmlDocGetRootElement(document.get());
    require(initXitemList() == 0);
    const TreeWalkResult listed = parseXmlTree(root);
    std::uint32_t count = 0;
    const TreeWalkResult told =
        visitXmlTree(root, [&](std::string_view name, const TreeElement&, std::string_view value) {
            const xitem* item = xitemAt(count++);
            require(item != nullptr && name == item->name && value == item->value);
            return true;
        });
    require(static_cast<std::uint32_t>(CheckXitemListLength()) == count);
    require(told.refused == listed.refused && told.refused_name == listed.refused_name);
    sortXitemList();
    for (std::uint32_t i = 0; i < count; ++i) {
        require(searchXitemElement(xitemAt(i)->name) != nullptr);
    }
    delXitemList();
    return 0;
}
