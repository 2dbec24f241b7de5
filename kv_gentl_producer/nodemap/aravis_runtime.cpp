#include "nodemap/aravis_runtime.h"

#include <arv.h>
#include <dlfcn.h>
#include <libxml/parser.h>

#include <array>

#include "diag/log.h"

namespace pelorin::nodemap {

namespace {

// Domains routed to our log: Aravis's own (its DOM parser logs as "XML", its
// checks with no domain) and GLib's, which report misuse inside Aravis. A
// consumer that uses GLib itself will find its messages in these domains in
// our log too.
constexpr std::array<const char *, 6> kDomains = {"Aravis", "XML", nullptr,
                                                  "GLib", "GLib-GObject", "GLib-GIO"};

const char *level_name(GLogLevelFlags level) {
    if ((level & G_LOG_LEVEL_ERROR) != 0) return "error";
    if ((level & G_LOG_LEVEL_CRITICAL) != 0) return "critical";
    if ((level & G_LOG_LEVEL_WARNING) != 0) return "warning";
    if ((level & G_LOG_LEVEL_MESSAGE) != 0) return "message";
    if ((level & G_LOG_LEVEL_INFO) != 0) return "info";
    return "debug";
}

void route_to_log(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer) {
    LOG_ANY(pelorin::diag::kDebug, "[%s %s] %s\n", domain != nullptr ? domain : "-",
            level_name(level), message != nullptr ? message : "");
}

// Owns the log handlers. A static object: its destructor runs when the
// producer is unloaded (or the process ends) and takes the handlers away
// before their code goes.
class runtime {
public:
    runtime() {
        const auto levels = static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK | G_LOG_FLAG_FATAL |
                                                        G_LOG_FLAG_RECURSION);
        for (size_t i = 0; i < kDomains.size(); ++i)
            handlers_[i] = g_log_set_handler(kDomains[i], levels, route_to_log, nullptr);
        pin_aravis();
        // libxml2 wants this once before parsers run on several threads.
        xmlInitParser();
    }
    ~runtime() {
        for (size_t i = 0; i < kDomains.size(); ++i)
            if (handlers_[i] != 0) g_log_remove_handler(kDomains[i], handlers_[i]);
    }

    runtime(const runtime &) = delete;
    runtime &operator=(const runtime &) = delete;

private:
    static void pin_aravis() {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void *>(&arv_gc_new), &info) == 0 ||
            info.dli_fname == nullptr)
            return;
        // Never closed: the handle is the pin.
        if (dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) == nullptr)
            LOG_ANY(pelorin::diag::kDebug, "node map: cannot pin %s\n", info.dli_fname);
    }

    std::array<guint, kDomains.size()> handlers_{};
};

}  // namespace

void ensure_aravis_runtime() {
    // Constructed once, thread-safely, on first use.
    static runtime instance;
}

}  // namespace pelorin::nodemap
