#include "modules/tl_info.h"

#include <cstring>
#include <mutex>
#include <string>

#include "gentl_base/copy_info.h"

namespace pelorin {
namespace {

TlInfo g_tl_info{};
char g_library_directory[1024] = {};

void copy_text(char *field, size_t capacity, const char *text) {
    std::strncpy(field, text, capacity - 1);
    field[capacity - 1] = '\0';
}

}  // namespace

TlInfo &tl_info() { return g_tl_info; }

const char *library_directory() { return g_library_directory; }

void set_library_directory(const char *directory) {
    copy_text(g_library_directory, sizeof g_library_directory, directory ? directory : "");
}

GC_ERROR static_read_tl_info() {
    TlInfo &info = g_tl_info;
    std::memset(info.path, 0, sizeof info.path);
    const size_t dir_length = std::strlen(g_library_directory);
    if (dir_length + std::strlen(kLibraryFileName) + 1 > sizeof info.path) return GC_ERR_NOT_AVAILABLE;
    std::memcpy(info.path, g_library_directory, dir_length);
    std::strcpy(info.path + dir_length, kLibraryFileName);

    copy_text(info.id, sizeof info.id, "Orvane CXP");
    copy_text(info.vendor, sizeof info.vendor, "Orvane");
    copy_text(info.model, sizeof info.model, "CXP");
    copy_text(info.version, sizeof info.version, kProducerVersion);
    copy_text(info.tlType, sizeof info.tlType, "CXP");
    copy_text(info.name, sizeof info.name, kLibraryFileName);
    copy_text(info.displayName, sizeof info.displayName, "Orvane CXP");
    info.charEncoding = TL_CHAR_ENCODING_ASCII;
    info.gentlMajor = 1;
    info.gentlMinor = 5;
    return GC_ERR_SUCCESS;
}

GC_ERROR AnswerTlInfo(TL_INFO_CMD command, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    const TlInfo &info = g_tl_info;
    switch (command) {
    case TL_INFO_ID: return CopyInfoString(info.id, piType, pBuffer, piSize);
    case TL_INFO_VENDOR: return CopyInfoString(info.vendor, piType, pBuffer, piSize);
    case TL_INFO_MODEL: return CopyInfoString(info.model, piType, pBuffer, piSize);
    case TL_INFO_VERSION: return CopyInfoString(info.version, piType, pBuffer, piSize);
    case TL_INFO_TLTYPE: return CopyInfoString(info.tlType, piType, pBuffer, piSize);
    case TL_INFO_NAME: return CopyInfoString(info.name, piType, pBuffer, piSize);
    case TL_INFO_PATHNAME: return CopyInfoString(info.path, piType, pBuffer, piSize);
    case TL_INFO_DISPLAYNAME: return CopyInfoString(info.displayName, piType, pBuffer, piSize);
    case TL_INFO_CHAR_ENCODING:
        return CopyInfoNumber(INFO_DATATYPE_INT32, info.charEncoding, piType, pBuffer, piSize);
    case TL_INFO_GENTL_VER_MAJOR:
        return CopyInfoNumber(INFO_DATATYPE_UINT32, info.gentlMajor, piType, pBuffer, piSize);
    case TL_INFO_GENTL_VER_MINOR:
        return CopyInfoNumber(INFO_DATATYPE_UINT32, info.gentlMinor, piType, pBuffer, piSize);
    default:
        return GC_ERR_NOT_AVAILABLE;
    }
}

}  // namespace pelorin
