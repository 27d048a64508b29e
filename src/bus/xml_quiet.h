// Keeps libxml2 from reporting on standard error what a bus peer sent: its reports quote the
// faulty line, which may hold a password.
#pragma once

#include <libxml/xmlerror.h>

namespace kelconf {

// Silences libxml2 in the calling thread until the end of the block. The handlers are the
// thread's own: give the block no call that sets others.
class [[nodiscard]] QuietXml {
  public:
    QuietXml();
    ~QuietXml();
    QuietXml(const QuietXml&) = delete;
    QuietXml& operator=(const QuietXml&) = delete;
    QuietXml(QuietXml&&) = delete;
    QuietXml& operator=(QuietXml&&) = delete;

  private:
    xmlStructuredErrorFunc structured_;
    void* structured_context_;
    xmlGenericErrorFunc generic_;
    void* generic_context_;
};

} // namespace kelconf
