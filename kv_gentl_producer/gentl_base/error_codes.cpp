#include "gentl_base/error_codes.h"

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "diag/log.h"

namespace pelorin {
namespace {

// Not per thread: a failure in one thread is what any other thread reads next.
std::atomic<GC_ERROR> g_last_error{GC_ERR_SUCCESS};

// Index = -code - 1000 for 0 and -1001 ... -1023 (index 0 is success).
const char *const kGenTLTexts[] = {
    "No error",
    "Unspecified runtime error",
    "Module or resource not initialized",
    "Requested operation not implemented",
    "Requested resource is already in use",
    "Requested operation is not allowed",
    "Given handle does not support the operation",
    "ID could not be connected to a resource",
    "The function has no data to work on",
    "One of the parameter given was not valid or out of range",
    "Communication error has occurred",
    // U+2019 is handed out as its GBK bytes A1 AF.
    "An operation\xA1\xAFs timeout time expired before it could be completed",
    "An operation has been aborted before it could be completed",
    "The GenTL Consumer has not announced enough buffers",
    "Resource or information is not available at a given time in a current state",
    "A given address is out of range or invalid for internal reasons",
    "A provided buffer is too small",
    "A provided index referencing a Producer internal object is out of bounds",
    "An error occurred parsing a buffer containing chunk data",
    "A register write function was trying to write an invalid value",
    "A requested resource is exhausted",
    "The system and/or other hardware in the system (frame grabber) ran out of memory",
    "The required operation is busy",
    "The required operation cannot be executed unambiguously in given context",
};

// Index = -code - 10001 for -10001 ... -10014.
const char *const kProducerTexts[] = {
    "feature is not command",
    "feature is not integer",
    "feature is not boolean",
    "feature is not enum",
    "feature is not float",
    "feature is not string",
    "feature can not read",
    "feature can not write",
    "can not find or open this file",
    "feature can not find by genapi",
    "feature can not find",
    "feature has no access",
    "feature has exception",
    "this is not card's file",
};

constexpr const char *kUnknownText = "Unknown status code";

}  // namespace

GC_ERROR RecordLastError(GC_ERROR code) {
    if (code != GC_ERR_SUCCESS) g_last_error.store(code, std::memory_order_relaxed);
    return code;
}

GC_ERROR LastError() { return g_last_error.load(std::memory_order_relaxed); }

const char *ErrorText(GC_ERROR code) {
    if (code == GC_ERR_SUCCESS) return kGenTLTexts[0];
    if (code <= GC_ERR_ERROR && code >= GC_ERR_AMBIGUOUS) return kGenTLTexts[-code - 1000];
    if (code <= KV_ERR_NOT_COMMAND && code >= KV_ERR_NOT_CARD_FILE)
        return kProducerTexts[-code - 10001];
    return kUnknownText;
}

GC_ERROR NotImplementedYet(const char *call) {
    static std::mutex reported_lock;
    static std::set<std::string> reported;
    bool first = false;
    {
        std::lock_guard<std::mutex> guard(reported_lock);
        first = reported.insert(call).second;
    }
    if (first) LOG_ANY(diag::kWarn, "%s is not implemented yet\n", call);
    return GC_ERR_NOT_IMPLEMENTED;
}

}  // namespace pelorin
