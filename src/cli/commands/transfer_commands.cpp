// export, import and edit.

#include "base/fd.h"
#include "cli/commands/commands.h"
#include "cli/output/output.h"
#include "cli/session/changes.h"
#include "cli/session/input.h"
#include "cli/session/transfer.h"
#include "paths.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kelconf::cli {

namespace {

std::string counted(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " parameter" : " parameters");
}

// What differs, checked, or why not, said with the word for what is then not done.
int prepare(const Bus& bus, const Options& options, const std::vector<std::string>& files,
            std::vector<Change>& changes, const char* nothing) {
    int status = readSettings(files, changes);
    status = status != kDone ? status : compareWithLive(bus, changes);
    if (status == kDone && !allAllowed(changes, options.force)) {
        status = kUsage;
    }
    if (status != kDone) {
        complain(nothing);
    }
    return status;
}

int apply(const Bus& bus, const Options& options, const std::vector<Change>& changes,
          const char* doing) {
    const int status = applyChanges(bus, changes, kindOf(options), doing);
    if (status == kDone && onTerminal(STDOUT_FILENO)) {
        out(std::to_string(changes.size()) +
            (changes.size() == 1 ? " value set\n" : " values set\n"));
    }
    return status;
}

// ---- edit -----------------------------------------------------------------------------------

// A file of its own that only its user can read; kept when `keep` is said.
class Draft {
  public:
    explicit Draft(const std::string& text) {
        const char* place = std::getenv("TMPDIR");
        path_ = std::string{place == nullptr || *place == '\0' ? paths::kTemporary : place} +
                "/kelctl-edit.XXXXXX";
        const Fd file{mkstemp(path_.data())};
        made_ = file && writeAll(file.get(), text.data(), text.size());
        if (!made_) {
            complain(path_ + ": " + std::strerror(errno));
        }
    }
    ~Draft() {
        if (!kept_) {
            unlink(path_.c_str());
        }
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    Draft(Draft&&) = delete;
    Draft& operator=(Draft&&) = delete;

    explicit operator bool() const { return made_; }
    [[nodiscard]] const std::string& path() const { return path_; }
    void keep() {
        kept_ = true;
        complain("what was edited is kept in " + path_ + "; kelctl import takes it");
    }

  private:
    std::string path_;
    bool made_ = false;
    bool kept_ = false;
};

// True when the editor says that it is done. Its name may have options, so a shell reads it.
bool runEditor(const std::string& path) {
    const char* visual = std::getenv("VISUAL");
    const char* editor = visual != nullptr ? visual : std::getenv("EDITOR");
    const std::string command = std::string{editor == nullptr ? "vi" : editor} + " \"$0\"";
    const pid_t child = fork();
    if (child == 0) {
        execl(paths::kShell, "sh", "-c", command.c_str(), path.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0;
}

int applyDraft(const Options& options, const Draft& draft, bool& keep) {
    Bus bus;
    std::vector<Change> changes;
    int status = openBus(options, bus);
    status = status != kDone ? status
                             : prepare(bus, options, {draft.path()}, changes, "nothing was set");
    if (status != kDone || changes.empty()) {
        keep = status != kDone;
        return status;
    }
    showChanges(options, changes);
    if (!flushOutput()) {
        return kBroken;
    }
    if (!options.yes && !confirmed("Set " + counted(changes.size()) + "?")) {
        complain("nothing was set");
        keep = true;
        return kDifferent;
    }
    status = apply(bus, options, changes, "edit");
    keep = status != kDone;
    return status;
}

} // namespace

int runExport(const Options& options) {
    if (options.null_ended) {
        complain("export has a form of its own; list takes --null");
        return kUsage;
    }
    std::string text;
    const int status = exportText(options, text);
    if (status == kDone || status == kDifferent) { // without an answer not even the header
        out(text);
        out(options.json ? "\n}\n" : "");
    }
    return status;
}

int runImport(const Options& options) {
    Bus bus;
    std::vector<Change> changes;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    if (int status = prepare(bus, options, options.operands, changes, "nothing was imported");
        status != kDone) {
        return status;
    }
    if (options.dry_run) {
        showChanges(options, changes);
        return kDone;
    }
    return apply(bus, options, changes, "import");
}

int runEdit(const Options& options) {
    if (!options.yes && !onTerminal(STDIN_FILENO)) {
        complain("edit asks before it sets, and there is no terminal to answer; --yes says yes");
        return kUsage;
    }
    Options text_form = options; // whatever the preview is to look like
    text_form.json = false;
    std::string text;
    if (int status = exportText(text_form, text); status != kDone) {
        return status;
    }
    Draft draft{text};
    std::string edited;
    if (!draft || !flushOutput()) {
        return kBroken;
    }
    if (!runEditor(draft.path())) {
        complain("the editor failed; nothing was set");
        return kBroken;
    }
    if (!readInput(draft.path(), edited)) {
        return kBroken;
    }
    if (edited == text) {
        complain("nothing was changed");
        return kDone;
    }
    bool keep = false;
    const int status = applyDraft(options, draft, keep);
    if (keep) {
        draft.keep();
    }
    return status;
}

} // namespace kelconf::cli
