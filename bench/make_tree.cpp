// make_tree SHAPE COUNT TREE CSV: writes a neutral tree that yields COUNT parameters, and the
// same parameters as rows for the table CONFIGDEFAULT. The rows are made here from the same
// table of leaves, not by walking the tree, so they also check what a build has stored.
//
// Shapes: "flat" spells every parameter out; "instances" spells about a tenth out and leaves
// the rest to multiple-instance elements of ten instances. Same arguments, same bytes.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

namespace {

struct Leaf {
    std::string_view name, type, range, step, options, mode, access, value;
};

// One section of a camera's tree. "%auto" stands in values only, as the format has it.
constexpr std::array<Leaf, 20> kSection = {{
    {"enable", "bool", "", "", "0,1", "rw", "rw", "1"},
    {"label", "string", "0..64", "", "", "rw", "rw", "Front & yard %auto"},
    {"brightness", "int", "0..100", "1", "", "rw", "rw", "50"},
    {"contrast", "int", "0..100", "1", "", "rw", "rw", "50"},
    {"saturation", "int", "0..100", "1", "", "rw", "rw", "55"},
    {"sharpness", "int", "0..10", "1", "", "rw", "rw", "4"},
    {"codec", "enum", "", "", "h264,h265,mjpeg", "rw", "rw", "h265"},
    {"profile", "enum", "", "", "baseline,main,high", "rw", "rw", "main"},
    {"resolution", "enum", "", "", "640x480,1280x720,1920x1080,3840x2160", "rw", "rw", "1920x1080"},
    {"bitrate_kbps", "int", "64..16384", "64", "", "rw", "rw", "4096"},
    {"frame_rate", "int", "1..60", "1", "", "rw", "rw", "25"},
    {"gop_length", "int", "1..300", "1", "", "rw", "rw", "50"},
    {"rate_control", "enum", "", "", "cbr,vbr,avbr", "rw", "rw", "vbr"},
    {"url", "string", "0..256", "", "", "rw", "r", "rtsp://0.0.0.0:554/live/%auto/main"},
    {"multicast_address", "ip", "", "", "", "rw", "rw", "239.255.0.%auto"},
    {"multicast_port", "int", "1024..65534", "2", "", "rw", "rw", "50000"},
    {"schedule", "string", "0..512", "", "", "rw", "rw", "mon-fri 07:00-19:00; sat 08:00-12:00"},
    {"password", "password", "0..64", "", "", "w", "w", ""},
    {"connected_clients", "realtime", "0..32", "", "", "r", "r", "0"},
    {"firmware_note", "string", "0..128", "", "", "r", "r", "said to be \"stable\" since 2.1"},
}};

constexpr std::array<std::string_view, 4> kTrunks = {"ipcam", "system", "network", "event"};
constexpr long kSectionsPerBranch = 10;
constexpr long kInstances = 10;
// A multiple-instance element yields its counter besides its instances.
constexpr long kPerGroup = static_cast<long>(kSection.size()) * kInstances + 1;

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to) {
    std::string result;
    for (std::size_t at = text.find(from); at != std::string_view::npos; at = text.find(from)) {
        result.append(text.substr(0, at)).append(to);
        text.remove_prefix(at + from.size());
    }
    return result.append(text);
}

std::string escaped(std::string_view text) {
    return replaceAll(replaceAll(text, "&", "&amp;"), "\"", "&quot;");
}

class Output {
  public:
    Output(const char* tree, const char* rows) : tree_(tree), rows_(rows) {}

    void line(std::string_view text) { tree_ << text << '\n'; }
    void open(const std::string& name, std::string_view type, std::string_view more = "") {
        tree_ << '<' << name << " type=\"" << type << '"' << more << ">\n";
    }
    void close(const std::string& name) { tree_ << "</" << name << ">\n"; }

    void leafElement(const Leaf& leaf) {
        tree_ << "      <" << leaf.name;
        attribute("type", leaf.type);
        attribute("range", leaf.range);
        attribute("step", leaf.step);
        attribute("options", leaf.options);
        attribute("mode", leaf.mode);
        attribute("http_access", leaf.access);
        tree_ << '>' << escaped(leaf.value) << "</" << leaf.name << ">\n";
    }

    void leafRow(const std::string& parent, const Leaf& leaf, std::string_view value) {
        row({parent + '.' + std::string(leaf.name), std::string(value), std::string(leaf.type),
             std::string(leaf.range), std::string(leaf.step), std::string(leaf.access),
             std::string(leaf.options)});
    }

    void row(const std::array<std::string, 7>& fields) {
        const char* separator = "\"";
        for (const std::string& field : fields) {
            rows_ << separator << replaceAll(field, "\"", "\"\"");
            separator = "\",\"";
        }
        rows_ << "\"\n";
    }

    bool finish() {
        tree_.close();
        rows_.close();
        return tree_.good() && rows_.good();
    }

  private:
    void attribute(std::string_view name, std::string_view value) {
        if (!value.empty()) {
            tree_ << ' ' << name << "=\"" << escaped(value) << '"';
        }
    }

    std::ofstream tree_;
    std::ofstream rows_;
};

std::string_view valueOf(const Leaf& leaf) {
    return leaf.type == "realtime" ? std::string_view{} : leaf.value;
}

// A branch of `count` leaves, in sections.
void writeBranch(Output& out, std::string_view trunk, const std::string& name, long count) {
    out.open(name, "branch");
    for (long section = 1; count > 0; ++section) {
        const std::string section_name = "section" + std::to_string(section);
        std::string parent(trunk);
        parent.append(1, '.').append(name).append(1, '.').append(section_name);
        out.open(section_name, "branch");
        for (const Leaf& leaf : kSection) {
            if (count-- > 0) {
                out.leafElement(leaf);
                out.leafRow(parent, leaf, valueOf(leaf));
            }
        }
        out.close(section_name);
    }
    out.close(name);
}

void writeGroup(Output& out, std::string_view trunk, const std::string& name) {
    const std::string number = std::to_string(kInstances);
    const std::string path = std::string(trunk) + '.' + name;
    out.open(name, "multiple_instance", " number=\"" + number + '"');
    out.row({path + ".number", number, "", "", "", "r", ""});
    for (const Leaf& leaf : kSection) {
        out.leafElement(leaf);
    }
    for (long instance = 1; instance <= kInstances; ++instance) {
        const std::string digits = std::to_string(instance);
        std::string parent = path;
        parent.append(1, '.').append(digits);
        for (const Leaf& leaf : kSection) {
            out.leafRow(parent, leaf, replaceAll(valueOf(leaf), "%auto", digits));
        }
    }
    out.close(name);
}

// The share of `total` that falls to a trunk; the first trunks take the remainder.
long shareOf(long total, std::size_t trunk) {
    const long trunks = static_cast<long>(kTrunks.size());
    return total / trunks + (static_cast<long>(trunk) < total % trunks ? 1 : 0);
}

void writeTrunk(Output& out, std::string_view trunk, long groups, long leaves) {
    out.open(std::string(trunk), "trunk");
    for (long i = 1; i <= groups; ++i) {
        writeGroup(out, trunk, "stream" + std::to_string(i));
    }
    const long per_branch = static_cast<long>(kSection.size()) * kSectionsPerBranch;
    for (long i = 1; leaves > 0; ++i, leaves -= per_branch) {
        writeBranch(out, trunk, "module" + std::to_string(i), std::min(leaves, per_branch));
    }
    out.close(std::string(trunk));
}

int usage() {
    std::fputs("usage: make_tree flat|instances COUNT TREE CSV\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return usage();
    }
    const std::string_view shape = argv[1];
    const std::string_view digits = argv[2];
    long count = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), count);
    if ((shape != "flat" && shape != "instances") || count < 1) {
        return usage();
    }
    const long groups = shape == "instances" ? count / kPerGroup : 0;
    const long leaves = count - groups * kPerGroup;
    Output out(argv[3], argv[4]);
    out.line("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<parameters>");
    for (std::size_t i = 0; i < kTrunks.size(); ++i) {
        writeTrunk(out, kTrunks[i], shareOf(groups, i), shareOf(leaves, i));
    }
    out.line("</parameters>");
    if (!out.finish()) {
        std::fputs("make_tree: cannot write the files\n", stderr);
        return 1;
    }
    return 0;
}
