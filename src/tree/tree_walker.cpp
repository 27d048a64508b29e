#include "tree/tree_walker.h"

#include "text/text.h"
#include "tree/element_text.h"
#include "tree/tree_template.h"
#include "tree/xitem.h"

#include <algorithm>
#include <vector>

namespace kelconf {

namespace {

bool appendCopies(xitem item) {
    const bool whole = item.name != nullptr && item.value != nullptr && item.type != nullptr &&
                       item.range != nullptr && item.step != nullptr && item.options != nullptr &&
                       item.mode != nullptr && item.http_access != nullptr;
    if (!whole || addXitemElement(&item) != 1) {
        freeXitemTexts(item);
        return false;
    }
    return true;
}

bool appendItem(std::string_view name, const TreeElement& element, std::string_view value) {
    if (element.kind == TreeElement::Kind::kInstances) {
        return appendCopies({newText(name), newText(value), newText({}), newText({}), newText({}),
                             newText({}), newText("r"), newText("r"), 0});
    }
    return appendCopies({newText(name), newText(value), newText(element.texts[kType]),
                         newText(element.texts[kRange]), newText(element.texts[kStep]),
                         newText(element.texts[kOptions]), newText(element.texts[kMode]),
                         newText(element.texts[kHttpAccess]), 0});
}

class Walk {
  public:
    explicit Walk(const ItemVisitor& visit) : visit_(visit) {}

    [[nodiscard]] const TreeWalkResult& result() const { return reader_.result; }

    void walkTrunks(const xmlNode* root) {
        std::string type;
        for (const xmlNode* node = root->children; node != nullptr; node = node->next) {
            if (reader_.readType(node, type) && type == "trunk") {
                std::string path(segmentOf(node));
                walkRun(path, node->children);
            }
        }
    }

    // A run outside any instance goes from the document straight to the visitor: of a branch
    // nothing is read ahead. All levels share one path: long names, deeply nested, would else take
    // many times their length.
    void walkRun(std::string& path, const xmlNode* first) {
        reader_.forEachElement(first, path, TreeReader::Ahead::kNot, [&](TreeElement& element) {
            if (element.kind == TreeElement::Kind::kBranch) {
                walkRun(path, element.node->children);
            } else if (reader_.settle(element, path)) {
                emit(element, path, kNoInstance);
            }
        });
    }

    void expand(std::string path, const xmlNode* first, std::int32_t count) {
        TreeElement group;
        group.kind = TreeElement::Kind::kInstances;
        group.count = std::max(count, 0);
        reader_.readRun(first, path, group.children);
        reader_.settle(group, path);
        emitInstances(group, path);
    }

    void emitRunAs(std::string path, const xmlNode* first, std::int32_t instance) {
        TreeElement run;
        reader_.readRun(first, path, run.children);
        reader_.settle(run, path);
        emitRun(run.children, path, instance);
    }

  private:
    static constexpr std::int32_t kNoInstance = 0; // "%auto" stays as it is

    void emit(const TreeElement& element, std::string& path, std::int32_t instance) {
        switch (element.kind) {
        case TreeElement::Kind::kBranch:
            emitRun(element.children, path, instance);
            break;
        case TreeElement::Kind::kInstances:
            addCounter(path, element);
            emitInstances(element, path);
            break;
        case TreeElement::Kind::kLeaf:
            emitLeaf(element, path, instance);
            break;
        }
    }

    void emitRun(const std::vector<TreeElement>& run, std::string& path, std::int32_t instance) {
        const std::size_t parent = path.size();
        for (const TreeElement& element : run) {
            path.append(1, '.').append(element.segment);
            emit(element, path, instance);
            path.resize(parent);
        }
    }

    void emitInstances(const TreeElement& group, std::string& path) {
        const std::size_t parent = path.size();
        for (std::int32_t i = 1; i <= group.count && !reader_.result.out_of_memory; ++i) {
            path.append(1, '.').append(std::to_string(i));
            emitRun(group.children, path, i);
            path.resize(parent);
        }
    }

    void emitLeaf(const TreeElement& leaf, std::string_view name, std::int32_t instance) {
        if (!leaf.has_auto || instance == kNoInstance) {
            addItem(name, leaf, leaf.texts[kValue]);
            return;
        }
        const OwnedText value{replaceAutoToken(leaf.texts[kValue], std::to_string(instance))};
        if (!value) {
            reader_.result.out_of_memory = true;
            return;
        }
        addItem(name, leaf, value.get());
    }

    void addItem(std::string_view name, const TreeElement& element, std::string_view value) {
        if (!visit_(name, element, value)) {
            reader_.result.out_of_memory = true;
        }
    }

    void addCounter(std::string_view group_name, const TreeElement& group) {
        const std::string name = std::string(group_name).append(".number");
        addItem(std::string_view(name).substr(0, kMaxCounterName), group, group.texts[kValue]);
    }

    const ItemVisitor& visit_;
    TreeReader reader_;
};

} // namespace

TreeWalkResult parseXmlTree(const xmlNode* root) {
    return visitXmlTree(root, appendItem);
}

TreeWalkResult visitXmlTree(const xmlNode* root, const ItemVisitor& visit) {
    Walk walk{visit};
    if (root != nullptr) {
        walk.walkTrunks(root);
    }
    return walk.result();
}

TreeWalkResult parseXmlNode(std::string_view parent, const xmlNode* first) {
    const ItemVisitor append = appendItem;
    Walk walk{append};
    std::string path(parent);
    walk.walkRun(path, first);
    return walk.result();
}

TreeWalkResult parseXmlInstanceNode(std::string_view parent, const xmlNode* first,
                                    std::int32_t instance) {
    const ItemVisitor append = appendItem;
    Walk walk{append};
    walk.emitRunAs(std::string(parent), first, instance);
    return walk.result();
}

TreeWalkResult expandMultipleInstance(std::string_view name, const xmlNode* first,
                                      std::int32_t count) {
    const ItemVisitor append = appendItem;
    Walk walk{append};
    walk.expand(std::string(name), first, count);
    return walk.result();
}

char* replaceAutoToken(std::string_view text, std::string_view replacement) {
    std::size_t tokens = 0;
    for (std::size_t at = text.find(kAutoToken); at != std::string_view::npos;
         at = text.find(kAutoToken, at + kAutoToken.size())) {
        ++tokens;
    }
    const std::size_t length =
        text.size() - tokens * kAutoToken.size() + tokens * replacement.size();
    char* result = newTextBuffer(length);
    if (result == nullptr) {
        return nullptr;
    }
    char* out = result;
    std::size_t from = 0;
    for (std::size_t i = 0; i < tokens; ++i) {
        const std::size_t at = text.find(kAutoToken, from);
        out = std::copy(text.begin() + static_cast<std::ptrdiff_t>(from),
                        text.begin() + static_cast<std::ptrdiff_t>(at), out);
        out = std::copy(replacement.begin(), replacement.end(), out);
        from = at + kAutoToken.size();
    }
    std::copy(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), out);
    return result;
}

char* sxmlGetProp(const xmlNode* element, const char* name) {
    std::uint64_t allowance = kExpansionLimit;
    std::string text;
    return appendAttributeText(element, name, allowance, text) ? newText(text) : newText({});
}

char* sxmlNodeGetContent(const xmlNode* element) {
    std::uint64_t allowance = kExpansionLimit;
    std::string text;
    return appendElementText(element, allowance, text) ? newText(text) : newText({});
}

} // namespace kelconf
