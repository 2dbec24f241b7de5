#include "features/settings_buffers.h"

#include <map>
#include <memory>
#include <mutex>
#include <new>

namespace pelorin::features {
namespace {

struct Table {
    std::mutex mutex;
    std::map<const void *, std::unique_ptr<kv_settings_record[]>> buffers;
};

Table &table() {
    static Table *instance = new Table;
    return *instance;
}

}  // namespace

kv_settings_record *SettingsBufferFor(const void *handle) {
    Table &t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    auto &slot = t.buffers[handle];
    if (!slot) slot.reset(new (std::nothrow) kv_settings_record[kSettingsRecordsPerLoad]());
    if (!slot) t.buffers.erase(handle);
    auto it = t.buffers.find(handle);
    return it == t.buffers.end() ? nullptr : it->second.get();
}

void ReleaseSettingsBuffer(const void *handle) {
    Table &t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    t.buffers.erase(handle);
}

void ReleaseSettingsBuffers() {
    Table &t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    t.buffers.clear();
}

size_t SettingsBufferCount() {
    Table &t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    return t.buffers.size();
}

}  // namespace pelorin::features
