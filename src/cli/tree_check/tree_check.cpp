#include "cli/tree_check/tree_check.h"

#include "catalog/secrets.h"
#include "catalog/value_rules.h"
#include "cli/tree_check/tree_elements.h"
#include "tree/tree_file.h"
#include "tree/tree_template.h"

#include <libxml/globals.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace kelconf::cli {

namespace {

std::string quoted(std::string_view text) {
    return std::string{"\""}.append(shortened(text)).append("\"");
}

// ---- The file -----------------------------------------------------------------------------------

void addXmlError(void* report, xmlErrorPtr error) {
    std::string text = error->message == nullptr ? "not well-formed" : error->message;
    text.erase(text.find_last_not_of(" \r\n") + 1);
    static_cast<TreeReport*>(report)->add(error->level == XML_ERR_FATAL ? Severity::kError
                                                                        : Severity::kWarning,
                                          error->line, std::move(text));
}

class XmlErrors {
  public:
    explicit XmlErrors(TreeReport& report) { xmlSetStructuredErrorFunc(&report, addXmlError); }
    ~XmlErrors() { xmlSetStructuredErrorFunc(nullptr, nullptr); }
    XmlErrors(const XmlErrors&) = delete;
    XmlErrors& operator=(const XmlErrors&) = delete;
    XmlErrors(XmlErrors&&) = delete;
    XmlErrors& operator=(XmlErrors&&) = delete;
};

std::string whyUnreadable(const char* path) {
    struct stat about {};
    if (stat(path, &about) != 0 || access(path, R_OK) != 0) {
        return std::strerror(errno);
    }
    return S_ISDIR(about.st_mode) ? std::strerror(EISDIR) : "";
}

// `parse` makes a document of it.
template <typename Parse>
XmlDoc read(TreeReport& report, Parse parse) {
    const XmlErrors collected{report};
    XmlDoc document = parse();
    if (!document && report.findings.empty()) {
        report.unreadable = "it cannot be read to its end";
    }
    return document;
}

// ---- The parameters -----------------------------------------------------------------------------

// Fewer than an xmlNode has bytes: see keyOf.
enum class About { kDuplicate, kLongName, kValue, kSecret, kLogged, kForm, kAuto, kBlanks };

// What is said of an element once, however many instances repeat it.
struct Remark {
    Severity severity;
    long line;
    std::string text;
    std::uint64_t more; // instances of which the same holds
};

std::string andMore(std::uint64_t instances) {
    return instances == 0 ? ""
                          : " (and in " + std::to_string(instances) +
                                (instances == 1 ? " more instance)" : " more instances)");
}

constexpr std::string_view kFactoryOnly = "ipcam.";

class Parameters {
  public:
    bool see(std::string_view name, const TreeElement& element, std::string_view value) {
        const auto known = lines_.try_emplace(std::string{name}, element.line);
        if (!known.second) {
            remark(element, About::kDuplicate, Severity::kError, [&] {
                return shortened(name) + " is defined in line " +
                       std::to_string(known.first->second) + " already: this one is dropped";
            });
            return true;
        }
        if (strncasecmp(known.first->first.c_str(), kFactoryOnly.data(), kFactoryOnly.size()) ==
            0) {
            first_factory_only_ = factory_only_++ == 0 ? element.line : first_factory_only_;
        }
        const bool counter = element.kind == TreeElement::Kind::kInstances;
        const bool cut = counter && name.size() == kMaxCounterName && !name.ends_with(".number");
        if (cut || name.size() > kMaxCounterName) {
            remark(element, About::kLongName, Severity::kWarning, [&] {
                return shortened(name) + " has more than 1,023 bytes" +
                       (cut ? ": the counter's name is cut there" : "");
            });
        }
        if (counter || element.texts[kType] == kRealtime) {
            return true;
        }
        if (seen_.insert(element.node).second || element.has_auto) {
            seeValue(name, element, value);
        } else {
            for (const About about :
                 {About::kValue, About::kSecret, About::kLogged, About::kForm}) {
                repeat(element, about);
            }
        }
        return true;
    }

    void report(const TreeWalkResult& walk, TreeReport& report) {
        report.parameters = lines_.size();
        if (factory_only_ > 0) {
            report.add(
                Severity::kNote, first_factory_only_,
                "names that begin with \"ipcam.\" are factory-only: the service does not know "
                "them (" +
                    std::to_string(factory_only_) + " here)");
        }
        for (Remark& remark : remarks_) {
            report.add(remark.severity, remark.line, remark.text + andMore(remark.more));
        }
        for (std::size_t i = 0; i < passed_over_.size(); ++i) {
            report.counts[i] += passed_over_[i];
        }
        if (walk.refused > 0) {
            const std::uint32_t others = walk.refused - 1;
            const std::string more = others == 0 ? ""
                                     : others == 1
                                         ? "; so is 1 more element"
                                         : "; so are " + std::to_string(others) + " more elements";
            report.add(Severity::kError, walk.refused_line,
                       shortened(walk.refused_name) + " goes over the limit of " +
                           std::to_string(kExpansionLimit >> 20U) +
                           " MiB on what a tree does not spell out: left out or not repeated" +
                           more);
        }
    }

  private:
    void seeValue(std::string_view name, const TreeElement& leaf, std::string_view value) {
        const ValueRule rule{leaf.texts[kType], leaf.texts[kRange], leaf.texts[kStep],
                             leaf.texts[kOptions]};
        if (const std::string broken = brokenRule(rule, value); !broken.empty()) {
            remark(leaf, About::kValue, Severity::kWarning,
                   [&] { return shortened(name) + ": the value " + quoted(value) + " " + broken; });
        }
        if (const std::string form = unknownForm(rule); !form.empty()) {
            remark(leaf, About::kForm, Severity::kNote, [&] {
                return shortened(name) + ": " + shortened(form) + " is not enforced by clients";
            });
        }
        if (cutWhenStored(name, value)) {
            remark(leaf, About::kSecret, Severity::kWarning,
                   [&] { return shortened(name) + ": " + kCutWhenStored; });
        }
        // As the service tells what it may log.
        if (isSecret(name, rule.type) && name.find("passwd") == std::string_view::npos) {
            remark(leaf, About::kLogged, Severity::kWarning, [&] {
                return shortened(name) + ": changes of this secret are logged in clear, unless its "
                                         "name holds \"passwd\"";
            });
        }
        if (leaf.has_auto && value.find(kAutoToken) != std::string_view::npos) {
            remark(leaf, About::kAuto, Severity::kNote,
                   [&] { return shortened(name) + ": %auto stays as it is outside an instance"; });
        }
        if (!value.empty() && (value.front() == '\n' || value.back() == '\n')) {
            remark(leaf, About::kBlanks, Severity::kNote, [&] {
                return shortened(name) + ": the line breaks around the value belong to it";
            });
        }
    }

    static std::uintptr_t keyOf(const TreeElement& element, About about) {
        return reinterpret_cast<std::uintptr_t>(element.node) + static_cast<std::uintptr_t>(about);
    }

    // The text is made for the first instance only.
    template <typename Text>
    void remark(const TreeElement& element, About about, Severity severity, const Text& text) {
        if (!said_.try_emplace(keyOf(element, about), remarks_.size()).second) {
            repeat(element, about);
        } else if (kept_[static_cast<std::size_t>(severity)]++ < kMostFindings) {
            remarks_.push_back({severity, element.line, text(), 0});
        } else {
            ++passed_over_[static_cast<std::size_t>(severity)];
            said_[keyOf(element, about)] = kPassedOver;
        }
    }

    // One more instance of which the same holds, if it is said of the first.
    void repeat(const TreeElement& element, About about) {
        const auto known = said_.find(keyOf(element, about));
        if (known != said_.end() && known->second != kPassedOver) {
            ++remarks_[known->second].more;
        }
    }

    static constexpr std::size_t kPassedOver = std::numeric_limits<std::size_t>::max();

    std::unordered_map<std::string, long> lines_; // of the first definition
    std::uint64_t factory_only_ = 0;
    long first_factory_only_ = 0;             // its line
    std::unordered_set<const xmlNode*> seen_; // leaves whose value was looked at
    std::vector<Remark> remarks_;
    std::unordered_map<std::uintptr_t, std::size_t> said_; // place in remarks_, by keyOf
    std::array<std::uint64_t, 3> kept_{};                  // by severity
    std::array<std::uint64_t, 3> passed_over_{};
};

void check(const XmlDoc& document, TreeReport& report) {
    if (document) {
        const xmlNode* root = xmlDocGetRootElement(document.get());
        checkElements(root, report);
        Parameters parameters;
        const TreeWalkResult walk = visitXmlTree(
            root, [&](std::string_view name, const TreeElement& element, std::string_view value) {
                return parameters.see(name, element, value);
            });
        parameters.report(walk, report);
    }
    std::stable_sort(report.findings.begin(), report.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
}

} // namespace

void TreeReport::add(Severity severity, long line, std::string text) {
    if (counts[static_cast<std::size_t>(severity)]++ < kMostFindings) {
        findings.push_back({line, severity, std::move(text)});
    }
}

std::string shortened(std::string_view text) {
    constexpr std::size_t kShown = 200; // bytes
    if (text.size() <= kShown) {
        return std::string{text};
    }
    std::size_t end = kShown;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end; // whole characters
    }
    return std::string{text.substr(0, end)} + "...";
}

TreeReport checkTree(const char* path) {
    TreeReport report;
    report.unreadable = whyUnreadable(path);
    if (report.unreadable.empty()) {
        check(read(report, [&] { return readTreeFile(path); }), report);
    }
    return report;
}

TreeReport checkTreeText(std::string_view text) {
    TreeReport report;
    check(read(report, [&] { return readTreeText(text); }), report);
    return report;
}

} // namespace kelconf::cli
