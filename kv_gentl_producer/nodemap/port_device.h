// The Aravis device behind a node map: an ArvDevice subclass whose memory and
// register accesses go to an IPort. Private to nodemap/ (it includes Aravis);
// nothing outside this folder may include it.
#pragma once

#include <arv.h>

#include <cstddef>

#include "nodemap/iport.h"

namespace pelorin::nodemap {

// A new device (one reference, released with g_object_unref) with no port:
// its accesses fail with "no port connected" until one is set.
ArvDevice *port_device_new();

// The port the accesses go to; not owned, null to disconnect.
void port_device_set_port(ArvDevice *device, IPort *port);
IPort *port_device_port(ArvDevice *device);

// What arv_device_get_genicam and arv_device_get_genicam_xml answer. The
// genicam is not referenced (the node map owns it and drops it before the
// device); the XML is copied.
void port_device_set_genicam(ArvDevice *device, ArvGc *genicam, const char *xml, size_t size);

}  // namespace pelorin::nodemap
