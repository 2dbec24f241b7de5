#include "card/cxp_data_stream.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace {

struct live_streams {
    std::mutex mutex;
    std::vector<const cxp_data_stream *> objects;
};

live_streams &registry() {
    static live_streams instance;
    return instance;
}

}  // namespace

cxp_data_stream::cxp_data_stream(card_context *owner)
    : context(owner), words{0, 255, 4096, 3072, 4096, 4096, 4096, 0} {
    live_streams &live = registry();
    std::lock_guard lock(live.mutex);
    live.objects.push_back(this);
}

cxp_data_stream::~cxp_data_stream() {
    live_streams &live = registry();
    std::lock_guard lock(live.mutex);
    live.objects.erase(std::remove(live.objects.begin(), live.objects.end(), this),
                       live.objects.end());
}

size_t cxp_data_stream::live_count() {
    live_streams &live = registry();
    std::lock_guard lock(live.mutex);
    return live.objects.size();
}
