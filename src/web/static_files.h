// The files of the page, read once at the start.
//
// index.html is asked for anew each time; it names all others below a directory that bears a digest
// of them, /DIGEST/NAME, from where they may be kept for a year. Beside NAME.gz, NAME is sent
// compressed to who takes that.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kelconf::web {

struct StaticFile {
    std::string type;
    std::string plain;
    std::string compressed; // empty: there is none
    std::string tag;        // ETag
};

// The content of a file, up to 1 MiB; empty when it cannot be read.
std::string contentOf(const std::string& path);

class StaticFiles {
  public:
    // No file at all when the directory cannot be read; logged.
    explicit StaticFiles(const std::string& directory);

    // The file of a path, or null. `lasting`: it may be kept.
    [[nodiscard]] const StaticFile* find(std::string_view path, bool& lasting) const;

  private:
    std::map<std::string, StaticFile, std::less<>> files_; // by name
    std::string digest_;
};

} // namespace kelconf::web
