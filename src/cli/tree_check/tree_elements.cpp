#include "cli/tree_check/tree_elements.h"

#include "tree/element_text.h"
#include "tree/tree_template.h"

#include <algorithm>
#include <span>

namespace kelconf::cli {

namespace {

using Words = std::span<const std::string_view>;

constexpr std::array<std::string_view, 4> kKinds{"trunk", "branch", "multiple_instance",
                                                 "realtime"};
constexpr std::array<std::string_view, 6> kOfLeaf{"type",    "range", "step",
                                                  "options", "mode",  "http_access"};
constexpr std::array<std::string_view, 2> kOfGroup{"type", "number"};

// ---- Misspelt words -----------------------------------------------------------------------------

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Letters to change, add, leave out or swap with their neighbour, letter case apart.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> before;
    std::vector<std::size_t> above;
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        before = std::move(above);
        above = row;
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const bool same = lower(a[i - 1]) == lower(b[j - 1]);
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
                lower(a[i - 2]) == lower(b[j - 1])) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
    }
    return row[b.size()];
}

// The word that was meant, or an empty text.
std::string_view meant(std::string_view word, Words words) {
    constexpr std::size_t kShort = 5; // one slip makes another word of these
    for (const std::string_view candidate : words) {
        const std::size_t slips = candidate.size() <= kShort ? 1 : 2;
        if (word.size() + slips >= candidate.size() && word.size() <= candidate.size() + slips &&
            distance(word, candidate) <= slips) {
            return candidate;
        }
    }
    return {};
}

std::string askFor(std::string_view word) {
    return word.empty() ? "" : "; is \"" + std::string{word} + "\" meant?";
}

bool isText(const xmlNode* node) {
    return (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) &&
           xmlIsBlankNode(node) == 0;
}

// ---- Elements -----------------------------------------------------------------------------------

class Elements {
  public:
    explicit Elements(TreeReport& report) : report_(report) {}

    void seeTrunks(const xmlNode* root) {
        bool any = false;
        for (const xmlNode* node = root->children; node != nullptr; node = node->next) {
            if (node->type != XML_ELEMENT_NODE) {
                continue;
            }
            path_ = segmentOf(node);
            const bool typed = reader_.readType(node, type_);
            if (typed && type_ == "trunk") {
                any = true;
                seeAttributes(node, Words{kOfGroup}.first(1));
                seeRun(node);
                continue;
            }
            add(Severity::kWarning, node,
                "is no trunk" +
                    (typed ? " but of type \"" + shortened(type_) + "\"" : std::string{}) +
                    ": ignored with all that is inside");
            if (!typed) {
                seeAttributes(node, kOfLeaf);
            }
        }
        if (!any) {
            report_.add(Severity::kError, xmlGetLineNo(root),
                        "no trunk below the root: no parameter");
        }
    }

  private:
    void add(Severity severity, const xmlNode* node, const std::string& text) {
        report_.add(severity, xmlGetLineNo(node), shortened(path_) + " " + text);
    }

    void seeRun(const xmlNode* parent) {
        const std::size_t length = path_.size();
        bool text_said = false;
        for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
            if (node->type == XML_ELEMENT_NODE) {
                path_.append(1, '.').append(segmentOf(node));
                seeElement(node);
                path_.resize(length);
            } else if (node->type == XML_ENTITY_REF_NODE) {
                add(Severity::kNote, parent, "holds an entity: elements inside it are not walked");
            } else if (isText(node) && !text_said) {
                text_said = true;
                add(Severity::kNote, node, "holds text between its elements: it does not count");
            }
        }
    }

    void seeElement(const xmlNode* node) {
        if (!reader_.readType(node, type_)) {
            add(Severity::kWarning, node, "has no \"type\": skipped with all that is inside");
            seeAttributes(node, kOfLeaf);
        } else if (type_ == "branch") {
            seeAttributes(node, Words{kOfGroup}.first(1));
            seeRun(node);
        } else if (type_ == "multiple_instance") {
            seeAttributes(node, kOfGroup);
            seeNumber(node);
            seeRun(node);
        } else {
            seeLeaf(node);
        }
    }

    void seeLeaf(const xmlNode* node) {
        if (const auto kind = meant(type_, kKinds); !kind.empty() && type_ != "realtime") {
            add(Severity::kWarning, node,
                "is an ordinary parameter of type \"" + type_ + "\"" +
                    (type_ == kind ? std::string{} : askFor(kind)));
        }
        for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
            if (child->type == XML_ELEMENT_NODE) {
                add(Severity::kWarning, child,
                    "holds elements, but is a parameter: their text is part of its value");
                break;
            }
        }
        seeAttributes(node, kOfLeaf);
    }

    void seeAttributes(const xmlNode* node, Words known) {
        for (const xmlAttr* attribute = node->properties; attribute != nullptr;
             attribute = attribute->next) {
            const std::string_view name = reinterpret_cast<const char*>(attribute->name);
            if (attribute->ns != nullptr ||
                std::find(known.begin(), known.end(), name) != known.end()) {
                continue;
            }
            const std::string_view other = meant(name, known);
            add(other.empty() ? Severity::kNote : Severity::kWarning, node,
                "has an attribute \"" + shortened(name) + "\", which is not read" + askFor(other));
        }
    }

    void seeNumber(const xmlNode* node) {
        if (!hasAttribute(node, "number")) {
            add(Severity::kError, node, "has no \"number\": no instance");
            return;
        }
        std::string text;
        std::uint64_t allowance = kExpansionLimit;
        if (!appendAttributeText(node, "number", allowance, text)) {
            return; // over the limit, which the walk reports
        }
        const std::int32_t count = parseInstanceCount(text);
        if (count >= 0 && text == std::to_string(count)) {
            return;
        }
        const std::string quoted = "has number=\"" + shortened(text) + "\": ";
        if (count <= 0) {
            add(Severity::kError, node, quoted + "no instance");
        } else {
            add(Severity::kWarning, node,
                quoted + "taken as " + std::to_string(count) + ", the counter keeps the text");
        }
    }

    TreeReport& report_;
    TreeReader reader_;
    std::string path_; // full name of the element at hand, but for instance numbers
    std::string type_;
};

} // namespace

void checkElements(const xmlNode* root, TreeReport& report) {
    if (root != nullptr) {
        Elements{report}.seeTrunks(root);
    }
}

} // namespace kelconf::cli
