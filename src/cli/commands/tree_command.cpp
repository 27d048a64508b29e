// tree check: what the author of a parameter tree should know.

#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/input.h"
#include "cli/tree_check/tree_check.h"

namespace kelconf::cli {

namespace {

const char* wordOf(Severity severity) {
    switch (severity) {
    case Severity::kNote:
        return "note";
    case Severity::kWarning:
        return "warning";
    case Severity::kError:
        break;
    }
    return "error";
}

Ink inkOf(Severity severity) {
    return severity == Severity::kError     ? Ink::kOld
           : severity == Severity::kWarning ? Ink::kName
                                            : Ink::kFaint;
}

std::string counted(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::uint64_t countOf(const TreeReport& report, Severity severity) {
    return report.counts[static_cast<std::size_t>(severity)];
}

void printText(const Options& options, const std::string& file, const TreeReport& report) {
    const Style style = styleOf(options);
    const std::string_view end = options.entryEnd();
    const std::string shown_file = shownText(file);
    for (const Finding& finding : report.findings) {
        out(shown_file + ":" + std::to_string(finding.line) + ": ");
        out(inked(style, inkOf(finding.severity), std::string{wordOf(finding.severity)} + ":"));
        out(" ");
        out(shownText(finding.text));
        out(end);
    }
    std::string sum = shown_file + ": " + counted(report.parameters, "parameter");
    std::uint64_t all = 0;
    for (const Severity severity : {Severity::kError, Severity::kWarning, Severity::kNote}) {
        sum += ", " + counted(countOf(report, severity), wordOf(severity));
        all += countOf(report, severity);
    }
    if (all > report.findings.size()) {
        sum += ", of each the first " + std::to_string(kMostFindings) + " shown";
    }
    out(sum);
    out(end);
}

void printJson(const std::string& file, const TreeReport& report) {
    std::string object = "{";
    addMember(object, "file", jsonText(file));
    addMember(object, "parameters", std::to_string(report.parameters));
    addMember(object, "errors", std::to_string(countOf(report, Severity::kError)));
    addMember(object, "warnings", std::to_string(countOf(report, Severity::kWarning)));
    addMember(object, "notes", std::to_string(countOf(report, Severity::kNote)));
    std::string findings = "[";
    for (const Finding& finding : report.findings) {
        std::string one = "{";
        addMember(one, "line", std::to_string(finding.line));
        addMember(one, "severity", jsonText(wordOf(finding.severity)));
        addMember(one, "text", jsonText(finding.text));
        findings.append(findings.size() == 1 ? "\n" : ",\n").append(one).append("}");
    }
    addMember(object, "findings", findings.append(findings.size() > 1 ? "\n]" : "]"));
    out(object.append("}\n"));
}

} // namespace

int runTreeCheck(const Options& options) {
    const std::string& file = options.operands.front();
    std::string content;
    if (file == "-" && !readInput(file, content)) {
        return kBroken;
    }
    const TreeReport report = file == "-" ? checkTreeText(content) : checkTree(file.c_str());
    if (!report.unreadable.empty()) {
        complain(file + ": " + report.unreadable);
        return kBroken;
    }
    if (options.json) {
        printJson(file, report);
    } else {
        printText(options, file, report);
    }
    const bool clean = countOf(report, Severity::kError) + countOf(report, Severity::kWarning) == 0;
    return clean ? kDone : kDifferent;
}

} // namespace kelconf::cli
