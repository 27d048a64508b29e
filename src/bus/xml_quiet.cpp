#include "bus/xml_quiet.h"

#include <libxml/globals.h>

namespace kelconf {

namespace {

void ignoreStructured(void* /*context*/, xmlErrorPtr /*error*/) {}

// NOLINTNEXTLINE(cert-dcl50-cpp): the signature is libxml2's.
void ignoreGeneric(void* /*context*/, const char* /*format*/, ...) {}

} // namespace

QuietXml::QuietXml()
    : structured_(xmlStructuredError), structured_context_(xmlStructuredErrorContext),
      generic_(xmlGenericError), generic_context_(xmlGenericErrorContext) {
    xmlSetStructuredErrorFunc(nullptr, ignoreStructured);
    xmlSetGenericErrorFunc(nullptr, ignoreGeneric);
}

QuietXml::~QuietXml() {
    xmlSetStructuredErrorFunc(structured_context_, structured_);
    xmlSetGenericErrorFunc(generic_context_, generic_);
}

} // namespace kelconf
