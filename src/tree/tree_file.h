// Reading a parameter tree file into an XML document.
#pragma once

#include <libxml/tree.h>

#include <memory>
#include <string_view>

namespace kelconf {

struct FreeXmlDoc {
    void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};
using XmlDoc = std::unique_ptr<xmlDoc, FreeXmlDoc>;

// Parses the file with libxml2's defaults, but with line numbers beyond 65,535; libxml2 reports
// what is wrong with it on standard error. Null when there is no file, when it cannot be read to
// its end, or when it is not well-formed. Only the file itself is ever opened: entities that refer
// to other files stay empty, and a compressed file is not a tree. A failure of the storage is noted
// (files/storage_fault.h); a file that is absent, closed to us or of the wrong kind, or bad XML, is
// none. `error`, unless null, receives the errno of the opening or reading that failed, else 0.
XmlDoc readTreeFile(const char* path, int* error = nullptr);

// The same for a text in memory: no file at all is opened.
XmlDoc readTreeText(std::string_view text);

} // namespace kelconf
