#include "web/static_files.h"

#include "base/fd.h"
#include "log/keldebug.h"

#include <dirent.h>
#include <fcntl.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace kelconf::web {

namespace {

constexpr std::size_t kMostOfPageFile = std::size_t{1} << 20; // of one file
constexpr const char* kIndex = "index.html";

constexpr std::array<std::array<const char*, 2>, 7> kTypes{
    {{".html", "text/html; charset=utf-8"},
     {".css", "text/css; charset=utf-8"},
     {".js", "text/javascript; charset=utf-8"},
     {".json", "application/json"},
     {".svg", "image/svg+xml"},
     {".txt", "text/plain; charset=utf-8"},
     {".png", "image/png"}}};

// Null for a file that is not served.
const char* typeOf(std::string_view name) {
    for (const auto& [ending, type] : kTypes) {
        if (name.ends_with(ending)) {
            return type;
        }
    }
    return nullptr;
}

std::string digestOf(const std::string& content) {
    constexpr const char* kDigits = "0123456789abcdef";
    constexpr std::size_t kShown = 8; // bytes
    std::array<unsigned char, 32> digest{};
    gnutls_hash_fast(GNUTLS_DIG_SHA256, content.data(), content.size(), digest.data());
    std::string text;
    for (std::size_t i = 0; i < kShown; ++i) {
        text += kDigits[digest[i] >> 4U];
        text += kDigits[digest[i] & 0xFU];
    }
    return text;
}

// Puts the directory before each file that the page's head names.
std::string withDirectory(std::string html, const std::string& directory) {
    for (const std::string_view attribute : {"href=\"", "src=\""}) {
        for (std::size_t at = html.find(attribute); at != std::string::npos;
             at = html.find(attribute, at + 1)) {
            html.insert(at + attribute.size(), directory);
        }
    }
    return html;
}

} // namespace

std::string contentOf(const std::string& path) {
    std::string content;
    const Fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::array<char, 16384> part{};
    for (ssize_t got = 1; file && got > 0 && content.size() < kMostOfPageFile;) {
        got = readSome(file.get(), part.data(), part.size());
        content.append(part.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return content;
}

StaticFiles::StaticFiles(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing{opendir(directory.c_str()), closedir};
    if (!listing) {
        keldebug(kLogWarning, kToBoth, "no page: %s: %s\n", directory.c_str(),
                 std::strerror(errno));
        return;
    }
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (const char* type = typeOf(name); type != nullptr && name.front() != '.') {
            std::string path = directory;
            path.append("/").append(name);
            StaticFile file{type, contentOf(path), contentOf(path + ".gz"), ""};
            file.tag = '"' + digestOf(file.plain) + '"';
            files_.emplace(name, std::move(file));
        }
    }
    std::string all;
    for (const auto& [name, file] : files_) {
        all += name + file.tag;
    }
    digest_ = digestOf(all);
    if (const auto index = files_.find(kIndex); index != files_.end()) {
        index->second.plain =
            withDirectory(index->second.plain, std::string{"/"}.append(digest_) += '/');
        index->second.compressed.clear(); // was of the file as it lies there
        index->second.tag = '"' + digest_ + '"';
    }
}

const StaticFile* StaticFiles::find(std::string_view path, bool& lasting) const {
    path.remove_prefix(path.starts_with('/') ? 1 : 0);
    lasting =
        path.size() > digest_.size() && path.starts_with(digest_) && path[digest_.size()] == '/';
    path.remove_prefix(lasting ? digest_.size() + 1 : 0);
    const auto found = files_.find(path.empty() ? std::string_view{kIndex} : path);
    return found == files_.end() ? nullptr : &found->second;
}

} // namespace kelconf::web
