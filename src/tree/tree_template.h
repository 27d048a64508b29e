// An element of a parameter tree, read once however often it is repeated, and the limit on
// what repetition may cost.
#pragma once

#include "tree/tree_walker.h"

#include <libxml/tree.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

inline constexpr std::string_view kAutoToken = "%auto";
// The counter item's name is cut to this many bytes; other names have no limit.
inline constexpr std::size_t kMaxCounterName = 1023;

// The texts of a leaf, in the order of the item's fields after the name.
enum LeafText : std::size_t { kValue, kType, kRange, kStep, kOptions, kMode, kHttpAccess };
inline constexpr std::size_t kLeafTexts = 7;

// A run of siblings that stands alone is the children of a branch without a name.
struct TreeElement {
    enum class Kind { kBranch, kInstances, kLeaf } kind = Kind::kBranch;
    std::string_view segment;      // libxml2's, lives as long as the document
    const xmlNode* node = nullptr; // null: a run that stands alone
    long line = 0;
    std::array<std::string, kLeafTexts> texts; // a leaf's; texts[kValue] is the "number" of
                                               // a multiple-instance element
    bool has_auto = false;                     // the value holds the token
    std::int32_t count = 0;                    // instances to make
    std::vector<TreeElement> children;
};

// Reads elements of one walk and keeps its account against the limit. What it refuses goes into
// `result`. The document must outlive the elements read.
class TreeReader {
  public:
    TreeWalkResult result;

    // False for whatever is no element with a "type": it is skipped with its subtree.
    bool readType(const xmlNode* node, std::string& type);

    // Whether what is inside a branch is read with it. Inside a multiple-instance element it is.
    enum class Ahead { kNot, kAll };
    // Reads the run of siblings from `first` on, `path` being the full name of the parent, and
    // hands out each element while `path` is that element's own name. A leaf whose texts go over
    // the limit is left out.
    template <typename Take>
    void forEachElement(const xmlNode* first, std::string& path, Ahead ahead, Take take) {
        const std::size_t parent = path.size();
        for (const xmlNode* node = first; node != nullptr; node = node->next) {
            TreeElement element;
            if (readElement(node, path, ahead, element)) {
                take(element);
            }
            path.resize(parent);
        }
    }
    // The same, with all that is inside, into a list.
    void readRun(const xmlNode* first, std::string& path, std::vector<TreeElement>& into);

    // Charges what a leaf or group outside any instance takes beyond what the tree spells out. A
    // group whose repetition alone goes over what is left, here or further inside, is cut to no
    // instance and reported. False when a leaf is to be left out for its name.
    bool settle(TreeElement& element, std::string& path);

  private:
    // Memory of one element, in full and as far as it is repetition: the first instance of a
    // group is spelled out by the tree, the others are not.
    struct Cost {
        std::uint64_t full = 0;
        std::uint64_t repeated = 0;
    };

    // Appends the element's own part to `path`.
    bool readElement(const xmlNode* node, std::string& path, Ahead ahead, TreeElement& element);
    bool readLeaf(std::string_view type, std::string_view name, TreeElement& leaf);
    void readInstances(std::string& path, TreeElement& group);
    bool settleName(const std::string& name, long line);

    // `digits`: bytes that the instance numbers add to the name in `path`.
    Cost fit(TreeElement& element, std::string& path, std::size_t digits);
    Cost fitInstances(TreeElement& group, const Cost& one, std::string_view path,
                      std::size_t digits);
    void refuse(long line, std::string_view name);

    std::uint64_t allowance_ = kExpansionLimit;
};

// The element's name as libxml2 holds it.
std::string_view segmentOf(const xmlNode* node);

// A "number" as a count: leading white space and a sign are allowed, the text is read up to
// the first character that is no digit; without digits 0. Values beyond 32 bits saturate.
std::int32_t parseInstanceCount(std::string_view text);

} // namespace kelconf
