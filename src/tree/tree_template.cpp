#include "tree/tree_template.h"

#include "tree/element_text.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace kelconf {

namespace {

// A name up to this length is what a tree spells out; what is longer counts as expansion.
constexpr std::size_t kPlainNameLength = 256;
// Upper bound of the digits of an instance number.
constexpr std::size_t kMaxDigits = 10;

constexpr std::array<const char*, kLeafTexts> kAttributeOf = {
    nullptr, "type", "range", "step", "options", "mode", "http_access"};

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

std::uint64_t heapOfLeaf(const TreeElement& leaf, std::size_t name_length) {
    std::uint64_t bytes = kHeapOfRecord + heapOfText(name_length);
    for (const std::string& text : leaf.texts) {
        bytes += heapOfText(text.size());
    }
    // Digits may be longer than the token that they replace.
    return leaf.has_auto ? bytes + leaf.texts[kValue].size() * kMaxDigits / kAutoToken.size()
                         : bytes;
}

std::uint64_t beyondPlain(std::size_t name_length) {
    return name_length > kPlainNameLength ? name_length - kPlainNameLength : 0;
}

} // namespace

std::string_view segmentOf(const xmlNode* node) {
    return reinterpret_cast<const char*>(node->name);
}

void TreeReader::refuse(long line, std::string_view name) {
    if (result.refused++ == 0) {
        result.refused_name = name;
        result.refused_line = line;
    }
}

bool TreeReader::readType(const xmlNode* node, std::string& type) {
    type.clear();
    if (!hasAttribute(node, "type")) {
        return false;
    }
    if (!appendAttributeText(node, "type", allowance_, type)) {
        refuse(xmlGetLineNo(node), segmentOf(node));
        return false;
    }
    return true;
}

bool TreeReader::readElement(const xmlNode* node, std::string& path, Ahead ahead,
                             TreeElement& element) {
    std::string type;
    if (!readType(node, type)) {
        return false;
    }
    element.segment = segmentOf(node);
    element.node = node;
    element.line = xmlGetLineNo(node);
    path.append(1, '.').append(element.segment);
    if (type == "branch") {
        if (ahead == Ahead::kAll) {
            readRun(node->children, path, element.children);
        }
        return true;
    }
    if (type == "multiple_instance") {
        readInstances(path, element);
        return true;
    }
    return readLeaf(type, path, element);
}

bool TreeReader::readLeaf(std::string_view type, std::string_view name, TreeElement& leaf) {
    leaf.kind = TreeElement::Kind::kLeaf;
    leaf.texts[kType] = type;
    bool complete =
        type == "realtime" || appendElementText(leaf.node, allowance_, leaf.texts[kValue]);
    for (std::size_t i = kRange; i < kLeafTexts; ++i) {
        complete =
            complete && appendAttributeText(leaf.node, kAttributeOf[i], allowance_, leaf.texts[i]);
    }
    if (!complete) {
        refuse(leaf.line, name);
        return false;
    }
    leaf.has_auto = leaf.texts[kValue].find(kAutoToken) != std::string::npos;
    return true;
}

void TreeReader::readInstances(std::string& path, TreeElement& group) {
    group.kind = TreeElement::Kind::kInstances;
    if (!appendAttributeText(group.node, "number", allowance_, group.texts[kValue])) {
        refuse(group.line, path);
    }
    // An element without "number" has no instance, and a counter item with an empty value.
    group.count = std::max(parseInstanceCount(group.texts[kValue]), 0);
    readRun(group.node->children, path, group.children);
}

void TreeReader::readRun(const xmlNode* first, std::string& path, std::vector<TreeElement>& into) {
    forEachElement(first, path, Ahead::kAll,
                   [&](TreeElement& element) { into.push_back(std::move(element)); });
}

bool TreeReader::settleName(const std::string& name, long line) {
    const std::uint64_t beyond = beyondPlain(name.size());
    if (beyond > allowance_) {
        refuse(line, name);
        return false;
    }
    allowance_ -= beyond;
    return true;
}

bool TreeReader::settle(TreeElement& element, std::string& path) {
    if (element.kind == TreeElement::Kind::kLeaf) {
        return settleName(path, element.line);
    }
    allowance_ -= std::min(fit(element, path, 0).repeated, allowance_);
    return true;
}

TreeReader::Cost TreeReader::fit(TreeElement& element, std::string& path, std::size_t digits) {
    const std::size_t length = path.size();
    if (element.kind == TreeElement::Kind::kLeaf) {
        return {heapOfLeaf(element, length + digits), beyondPlain(length + digits)};
    }
    const bool group = element.kind == TreeElement::Kind::kInstances;
    Cost one;
    for (TreeElement& child : element.children) {
        path.append(1, '.').append(child.segment);
        const Cost cost = fit(child, path, digits + (group ? 1 + kMaxDigits : 0));
        path.resize(length);
        one.full = saturatingAdd(one.full, cost.full);
        one.repeated = saturatingAdd(one.repeated, cost.repeated);
    }
    return group ? fitInstances(element, one, path, digits) : one;
}

TreeReader::Cost TreeReader::fitInstances(TreeElement& group, const Cost& one,
                                          std::string_view path, std::size_t digits) {
    const std::uint64_t counter =
        kHeapOfRecord + heapOfText(path.size() + digits) + kLeafTexts * heapOfText(0);
    if (one.full == 0 || group.count == 0) {
        group.count = 0; // nothing to repeat, however often
        return {counter, 0};
    }
    const auto count = static_cast<std::uint64_t>(group.count);
    const Cost all{saturatingAdd(counter, saturatingMultiply(count, one.full)),
                   saturatingAdd(one.repeated, saturatingMultiply(count - 1, one.full))};
    if (all.repeated > allowance_) {
        refuse(group.line, path);
        group.count = 0;
        return {counter, 0};
    }
    return all;
}

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

} // namespace kelconf
