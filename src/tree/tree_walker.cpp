#include "tree/tree_walker.h"

#include "text/text.h"
#include "tree/element_text.h"
#include "tree/xitem.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <vector>

namespace kelconf {

namespace {

constexpr std::string_view kAutoToken = "%auto";
// The counter item's name is cut to this many bytes; other names have no limit.
constexpr std::size_t kMaxCounterName = 1023;
// A name up to this length is what a tree spells out; what is longer counts as expansion.
constexpr std::size_t kPlainNameLength = 256;
// Upper bound of the digits of an instance number.
constexpr std::size_t kMaxDigits = 10;

// The texts of a leaf, in the order of the item's fields after the name.
enum LeafText : std::size_t { kValue, kType, kRange, kStep, kOptions, kMode, kHttpAccess };
constexpr std::size_t kLeafTexts = 7;
constexpr std::array<const char*, kLeafTexts> kAttributeOf = {
    nullptr, "type", "range", "step", "options", "mode", "http_access"};

// An element of a tree, read once. The root of a walk's template is a branch without a name.
struct TreeElement {
    enum class Kind { kBranch, kInstances, kLeaf } kind = Kind::kBranch;
    std::string_view segment; // libxml2's, lives as long as the document
    long line = 0;
    std::array<std::string, kLeafTexts> texts; // a leaf's; texts[kValue] is the "number" of
                                               // a multiple-instance element
    bool has_auto = false;                     // the value holds the token
    std::int32_t count = 0;                    // instances to make
    std::vector<TreeElement> children;
};

std::uint64_t saturatingMultiply(std::uint64_t a, std::uint64_t b) {
    std::uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max()
                                                  : product;
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

// What a text of `length` bytes takes on the heap: its terminator, the allocator's own word,
// in steps of 16 bytes and at least 32.
std::uint64_t heapOfText(std::uint64_t length) {
    constexpr std::uint64_t kLeast = 32;
    return std::max(kLeast, (length + 1 + 8 + 15) / 16 * 16);
}

// What an item takes besides its texts: the record, its list element, its place in the index.
constexpr std::uint64_t kHeapOfRecord = 128;

std::string_view segmentOf(const xmlNode* node) {
    return reinterpret_cast<const char*>(node->name);
}

class Walk {
  public:
    TreeWalkResult result;

    void walkTrunks(const xmlNode* root) {
        std::string type;
        for (const xmlNode* node = root->children; node != nullptr; node = node->next) {
            if (readType(node, type) && type == "trunk") {
                walkRun(std::string(segmentOf(node)), node->children);
            }
        }
    }

    // A run outside any instance goes from the document straight into the list.
    void walkRun(std::string path, const xmlNode* first) {
        const std::size_t parent = path.size();
        std::string type;
        for (const xmlNode* node = first; node != nullptr; node = node->next) {
            if (!readType(node, type)) {
                continue;
            }
            path.append(1, '.').append(segmentOf(node));
            if (type == "branch") {
                walkRun(path, node->children);
            } else if (type == "multiple_instance") {
                walkInstances(path, node);
            } else {
                walkLeaf(path, node, type);
            }
            path.resize(parent);
        }
    }

    void expand(std::string path, const xmlNode* first, std::int32_t count) {
        TreeElement group;
        group.kind = TreeElement::Kind::kInstances;
        group.count = std::max(count, 0);
        readRun(first, path, group.children);
        settle(group, path);
        emitInstances(group, path);
    }

    void emitRunAs(std::string path, const xmlNode* first, std::int32_t instance) {
        TreeElement group;
        readRun(first, path, group.children);
        fit(group, path.size(), path);
        emitRun(group.children, path, instance);
    }

  private:
    std::uint64_t allowance = kExpansionLimit;

    // False for whatever is no element with a "type": it is skipped with its subtree.
    bool readType(const xmlNode* node, std::string& type) {
        type.clear();
        if (!hasAttribute(node, "type")) {
            return false;
        }
        if (!appendAttributeText(node, "type", allowance, type)) {
            refuse(xmlGetLineNo(node), segmentOf(node));
            return false;
        }
        return true;
    }

    void refuse(long line, std::string_view name) {
        if (result.refused++ == 0) {
            result.refused_name = name;
            result.refused_line = line;
        }
    }

    void walkLeaf(const std::string& name, const xmlNode* node, std::string_view type) {
        TreeElement leaf;
        if (!readLeaf(node, type, name, leaf)) {
            return;
        }
        const std::uint64_t beyond =
            name.size() > kPlainNameLength ? name.size() - kPlainNameLength : 0;
        if (beyond > allowance) {
            refuse(leaf.line, name);
            return;
        }
        allowance -= beyond;
        addItem(name, leaf, leaf.texts[kValue]);
    }

    void walkInstances(std::string& path, const xmlNode* node) {
        TreeElement group;
        readInstances(node, path, group);
        addCounter(path, group);
        settle(group, path);
        emitInstances(group, path);
    }

    // ---- Reading: each attribute once, however often the element is repeated ----

    bool readLeaf(const xmlNode* node, std::string_view type, std::string_view name,
                  TreeElement& leaf) {
        leaf.kind = TreeElement::Kind::kLeaf;
        leaf.segment = segmentOf(node);
        leaf.line = xmlGetLineNo(node);
        leaf.texts[kType] = type;
        bool complete =
            type == "realtime" || appendElementText(node, allowance, leaf.texts[kValue]);
        for (std::size_t i = kRange; i < kLeafTexts; ++i) {
            complete =
                complete && appendAttributeText(node, kAttributeOf[i], allowance, leaf.texts[i]);
        }
        if (!complete) {
            refuse(leaf.line, name);
            return false;
        }
        leaf.has_auto = leaf.texts[kValue].find(kAutoToken) != std::string::npos;
        return true;
    }

    void readInstances(const xmlNode* node, std::string& path, TreeElement& group) {
        group.kind = TreeElement::Kind::kInstances;
        group.segment = segmentOf(node);
        group.line = xmlGetLineNo(node);
        if (!appendAttributeText(node, "number", allowance, group.texts[kValue])) {
            refuse(group.line, path);
        }
        // An element without "number" has no instance, and a counter item with an empty value.
        group.count = std::max(parseInstanceCount(group.texts[kValue]), 0);
        readRun(node->children, path, group.children);
    }

    void readRun(const xmlNode* first, std::string& path, std::vector<TreeElement>& into) {
        const std::size_t parent = path.size();
        std::string type;
        for (const xmlNode* node = first; node != nullptr; node = node->next) {
            if (!readType(node, type)) {
                continue;
            }
            path.append(1, '.').append(segmentOf(node));
            TreeElement element;
            bool usable = true;
            if (type == "branch") {
                element.segment = segmentOf(node);
                readRun(node->children, path, element.children);
            } else if (type == "multiple_instance") {
                readInstances(node, path, element);
            } else {
                usable = readLeaf(node, type, path, element);
            }
            if (usable) {
                into.push_back(std::move(element));
            }
            path.resize(parent);
        }
    }

    // ---- The limit ----

    // Memory of one element, in full and as far as it is repetition: the first instance of a
    // group is spelled out by the tree, the others are not.
    struct Cost {
        std::uint64_t full = 0;
        std::uint64_t repeated = 0;
    };

    // The cost of `element` below a name of `prefix` bytes. A group whose repetition alone
    // goes over what is left is cut to no instance and reported.
    Cost fit(TreeElement& element, std::uint64_t prefix, std::string_view name) {
        if (element.kind == TreeElement::Kind::kLeaf) {
            return {heapOfLeaf(element, prefix),
                    prefix > kPlainNameLength ? prefix - kPlainNameLength : 0};
        }
        const bool group = element.kind == TreeElement::Kind::kInstances;
        const std::uint64_t inner = prefix + (group ? 1 + kMaxDigits : 0);
        Cost one;
        for (TreeElement& child : element.children) {
            const std::string child_name = std::string(name).append(1, '.').append(child.segment);
            const Cost cost = fit(child, inner + 1 + child.segment.size(), child_name);
            one.full = saturatingAdd(one.full, cost.full);
            one.repeated = saturatingAdd(one.repeated, cost.repeated);
        }
        return group ? fitInstances(element, one, prefix, name) : one;
    }

    Cost fitInstances(TreeElement& group, const Cost& one, std::uint64_t prefix,
                      std::string_view name) {
        const std::uint64_t counter = kHeapOfRecord + heapOfText(prefix) + 7 * heapOfText(0);
        if (one.full == 0 || group.count == 0) {
            group.count = 0; // nothing to repeat, however often
            return {counter, 0};
        }
        const auto count = static_cast<std::uint64_t>(group.count);
        const Cost all{saturatingAdd(counter, saturatingMultiply(count, one.full)),
                       saturatingAdd(one.repeated, saturatingMultiply(count - 1, one.full))};
        if (all.repeated > allowance) {
            refuse(group.line, name);
            group.count = 0;
            return {counter, 0};
        }
        return all;
    }

    static std::uint64_t heapOfLeaf(const TreeElement& leaf, std::uint64_t name_length) {
        std::uint64_t bytes = kHeapOfRecord + heapOfText(name_length);
        for (const std::string& text : leaf.texts) {
            bytes += heapOfText(text.size());
        }
        // Digits may be longer than the token that they replace.
        return leaf.has_auto ? bytes + leaf.texts[kValue].size() * kMaxDigits / kAutoToken.size()
                             : bytes;
    }

    void settle(TreeElement& group, const std::string& path) {
        allowance -= std::min(fit(group, path.size(), path).repeated, allowance);
    }

    // ---- Writing items ----

    void emitInstances(const TreeElement& group, std::string& path) {
        const std::size_t parent = path.size();
        for (std::int32_t i = 1; i <= group.count && !result.out_of_memory; ++i) {
            path.append(1, '.').append(std::to_string(i));
            emitRun(group.children, path, i);
            path.resize(parent);
        }
    }

    void emitRun(const std::vector<TreeElement>& run, std::string& path, std::int32_t instance) {
        const std::size_t parent = path.size();
        for (const TreeElement& element : run) {
            path.append(1, '.').append(element.segment);
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
            path.resize(parent);
        }
    }

    void emitLeaf(const TreeElement& leaf, std::string_view name, std::int32_t instance) {
        if (!leaf.has_auto) {
            addItem(name, leaf, leaf.texts[kValue]);
            return;
        }
        const OwnedText value{replaceAutoToken(leaf.texts[kValue], std::to_string(instance))};
        if (!value) {
            result.out_of_memory = true;
            return;
        }
        addItem(name, leaf, value.get());
    }

    void addItem(std::string_view name, const TreeElement& leaf, std::string_view value) {
        append({newText(name), newText(value), newText(leaf.texts[kType]),
                newText(leaf.texts[kRange]), newText(leaf.texts[kStep]),
                newText(leaf.texts[kOptions]), newText(leaf.texts[kMode]),
                newText(leaf.texts[kHttpAccess]), 0});
    }

    void addCounter(std::string_view group_name, const TreeElement& group) {
        const std::string name = std::string(group_name).append(".number");
        append({newText(std::string_view(name).substr(0, kMaxCounterName)),
                newText(group.texts[kValue]), newText({}), newText({}), newText({}), newText({}),
                newText("r"), newText("r"), 0});
    }

    void append(xitem item) {
        const bool whole = item.name != nullptr && item.value != nullptr && item.type != nullptr &&
                           item.range != nullptr && item.step != nullptr &&
                           item.options != nullptr && item.mode != nullptr &&
                           item.http_access != nullptr;
        if (!whole || addXitemElement(&item) != 1) {
            freeXitemTexts(item);
            result.out_of_memory = true;
        }
    }
};

} // namespace

std::int32_t parseInstanceCount(std::string_view text) {
    constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::int32_t magnitude = 0;
    const bool digits = !text.empty() && text.front() >= '0' && text.front() <= '9';
    if (digits &&
        std::from_chars(text.data(), text.data() + text.size(), magnitude).ec != std::errc{}) {
        magnitude = std::numeric_limits<std::int32_t>::max();
    }
    return negative ? -magnitude : magnitude;
}

TreeWalkResult parseXmlTree(const xmlNode* root) {
    Walk walk;
    if (root != nullptr) {
        walk.walkTrunks(root);
    }
    return walk.result;
}

TreeWalkResult parseXmlNode(std::string_view parent, const xmlNode* first) {
    Walk walk;
    walk.walkRun(std::string(parent), first);
    return walk.result;
}

TreeWalkResult parseXmlInstanceNode(std::string_view parent, const xmlNode* first,
                                    std::int32_t instance) {
    Walk walk;
    walk.emitRunAs(std::string(parent), first, instance);
    return walk.result;
}

TreeWalkResult expandMultipleInstance(std::string_view name, const xmlNode* first,
                                      std::int32_t count) {
    Walk walk;
    walk.expand(std::string(name), first, count);
    return walk.result;
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
