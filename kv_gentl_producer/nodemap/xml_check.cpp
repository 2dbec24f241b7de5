#include "nodemap/xml_check.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <climits>
#include <memory>
#include <string>

#include "nodemap/genapi_error.h"

namespace pelorin::nodemap {

void check_well_formed(const char *xml, size_t size) {
    if (size > static_cast<size_t>(INT_MAX)) throw genapi_error("description larger than 2 GiB");
    std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> context(xmlNewParserCtxt(),
                                                                          xmlFreeParserCtxt);
    if (!context) throw genapi_error("no memory for the XML parser");
    // No network, no output of its own; entities are left unexpanded.
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    xmlDocPtr document =
        xmlCtxtReadMemory(context.get(), xml, static_cast<int>(size), nullptr, nullptr, options);
    const bool well_formed = document != nullptr && context->wellFormed != 0;
    if (document != nullptr) xmlFreeDoc(document);
    if (well_formed) return;

    std::string why = "the description is not well-formed XML";
    if (const xmlError *error = xmlCtxtGetLastError(context.get());
        error != nullptr && error->message != nullptr) {
        std::string message = error->message;
        while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
            message.pop_back();
        why += " (line " + std::to_string(error->line) + ": " + message + ")";
    }
    throw genapi_error(why);
}

}  // namespace pelorin::nodemap
