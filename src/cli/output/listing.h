// Prints parameters and differences, in each of the forms: aligned for people on a terminal,
// NAME=VALUE for scripts, ended by zero bytes, JSON.
#pragma once

#include "cli/options.h"

#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

// How this run prints.
struct Style {
    bool people = false; // on a terminal, and neither JSON nor zero bytes: aligned and escaped
    bool colour = false;
};
Style styleOf(const Options& options);

// What a text is, where colours tell. Empty texts stay empty.
enum class Ink { kName, kValue, kStars, kOld, kNew, kFaint };
std::string inked(const Style& style, Ink ink, std::string_view text);

// Texts live elsewhere.
struct Row {
    std::string_view name;
    std::string_view value;
    bool known = true; // printed in JSON only, as null, when not
};
void printRows(const Options& options, const std::vector<Row>& rows);

// One value as it is and as it would be.
struct Difference {
    std::string_view name;
    std::string_view old_value;
    std::string_view new_value;
};
// "-NAME=OLD" and "+NAME=NEW"; in JSON under the given keys.
void printDifferences(const Options& options, const std::vector<Difference>& differences,
                      const char* old_key, const char* new_key);

// An array of JSON objects, one a line.
class JsonArray {
  public:
    JsonArray();
    ~JsonArray();
    JsonArray(const JsonArray&) = delete;
    JsonArray& operator=(const JsonArray&) = delete;
    JsonArray(JsonArray&&) = delete;
    JsonArray& operator=(JsonArray&&) = delete;
    void add(std::string_view object);

  private:
    bool first_ = true;
};

// "KEY":TEXT with a comma in front unless `object` is just "{".
void addMember(std::string& object, const char* key, std::string_view json);

} // namespace kelconf::cli
