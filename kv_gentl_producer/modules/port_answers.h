// Answers that every module port gives the same way: the one URL of its
// description file, the port information items, and register 0 (the zipped
// description file itself).
#pragma once

#include <cstddef>

#include "pelorin/gentl.h"

namespace pelorin {

// URL_INFO_URL: "local:<xml_file>;<address_text>;<size in hex>" (the file's
// size in the description directory; GC_ERR_NOT_AVAILABLE when it is
// missing). The version items: INT32 1. Other items: GC_ERR_NOT_IMPLEMENTED.
GC_ERROR AnswerLocalUrlInfo(const char *xml_file, const char *address_text, URL_INFO_CMD iInfoCmd,
                            INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);

// What a port says about itself; the rest (little-endian, readable and
// writable, version 1.1.4.11) is the same for every module port.
struct port_identity {
    const char *id;
    const char *vendor;
    const char *model;
    const char *tl_type;
    const char *module;
    const char *port_name;
};

// PORT_INFO_ID ... PORT_INFO_PORTNAME; GC_ERR_NOT_IMPLEMENTED for others.
GC_ERROR AnswerPortInfo(const port_identity &port, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                        void *pBuffer, size_t *piSize);

// Register 0 of a module: the description file `xml_file` whole (a null
// buffer asks for its size). GC_ERR_NOT_AVAILABLE, with a log line naming
// `module`, when the file cannot be opened.
GC_ERROR ReadDescriptionRegister(const char *xml_file, const char *module, void *pBuffer,
                                 size_t *piSize);

}  // namespace pelorin
