// Process-wide set-up of the GenICam engine (Aravis over GLib), done once,
// from any thread, before the first node map is built:
//  - GLib log messages of Aravis and GLib go to the producer log at debug
//    level instead of standard error (Aravis's own debug output is left
//    off);
//  - Aravis stays loaded for the life of the process. Aravis registers
//    GObject types, and GObject never forgets a type: were Aravis unloaded
//    with the producer and loaded again, it could not register them anew.
#pragma once

namespace pelorin::nodemap {

void ensure_aravis_runtime();

}  // namespace pelorin::nodemap
