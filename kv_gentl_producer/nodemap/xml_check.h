// Well-formedness of a description before Aravis builds it. Aravis's parser
// reports syntax errors to the log and carries on, so a truncated file (a
// short read from a port, say) would load with nodes missing; libxml2 is
// asked first, in strict mode.
#pragma once

#include <cstddef>

namespace pelorin::nodemap {

// Throws genapi_error, with the parser's message and line, when `xml` is not
// well-formed XML.
void check_well_formed(const char *xml, size_t size);

}  // namespace pelorin::nodemap
