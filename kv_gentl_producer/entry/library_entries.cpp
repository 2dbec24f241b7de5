// Library-level exports: initialisation, shutdown, library info, last error.
#include <cstring>

#include "card/card_identity.h"
#include "diag/crash_handler.h"
#include "diag/instance_guard.h"
#include "entry/entry_body.h"
#include "features/settings_buffers.h"
#include "modules/tl_info.h"

using namespace pelorin;
using namespace pelorin::entry;

GC_API GCInitLib(void) {
    return guarded("GCInitLib", []() -> GC_ERROR {
        LockScope scope(kOpenOrClose);
        LibraryState &lib = library();
        // Neither refusal below is recorded: they leave every state unchanged.
        if (library_initialised()) return GC_ERR_RESOURCE_IN_USE;
        if (!AcquireInstanceMutex()) return GC_ERR_RESOURCE_IN_USE;

        GC_ERROR result = GC_ERR_SUCCESS;
        if (!card_enumerate()) {
            result = GC_ERR_ERROR;
            // Give the guard back so that the consumer can retry in this
            // process (for example after plugging in a card).
            ReleaseInstanceMutex();
        } else {
            lib.LibInitialized.store(1, std::memory_order_release);
        }
        InstallCrashHandler();
        return RecordLastError(result);
    });
}

GC_API GCCloseLib(void) {
    return guarded("GCCloseLib", []() -> GC_ERROR {
        LockScope scope(kOpenOrClose);
        library().LibInitialized.store(0, std::memory_order_release);
        ReleaseInstanceMutex();
        features::ReleaseSettingsBuffers();
        return RecordLastError(GC_ERR_SUCCESS);
    });
}

GC_API GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    // OpenCloseLock as well: the path is rewritten here and read by system
    // register reads, which hold OpenCloseLock.
    return guarded("GCGetInfo", [&]() -> GC_ERROR {
        LockScope scope(kApi | kOpenClose);
        if (!library_initialised()) return RecordLastError(GC_ERR_NOT_INITIALIZED);
        static_read_tl_info();
        return RecordLastError(AnswerTlInfo(iInfoCmd, piType, pBuffer, piSize));
    });
}

GC_API GCGetLastError(GC_ERROR *piErrorCode, char *sErrText, size_t *piSize) {
    // No lock, nothing recorded: the last error is one word read as it is.
    if (!library_initialised()) return GC_ERR_NOT_INITIALIZED;
    if (piErrorCode == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    const GC_ERROR code = LastError();
    const char *text = ErrorText(code);
    const size_t size = std::strlen(text) + 1;
    if (sErrText == nullptr) {
        *piSize = size;
        return GC_ERR_SUCCESS;
    }
    if (size > *piSize) return GC_ERR_BUFFER_TOO_SMALL;
    *piErrorCode = code;
    std::memcpy(sErrText, text, size);
    *piSize = size;
    return GC_ERR_SUCCESS;
}
