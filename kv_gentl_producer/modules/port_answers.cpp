#include "modules/port_answers.h"

#include <cstdio>

#include "diag/log.h"
#include "gentl_base/copy_info.h"
#include "gentl_base/producer_version.h"
#include "nodemap/module_files.h"

namespace pelorin {

GC_ERROR AnswerLocalUrlInfo(const char *xml_file, const char *address_text, URL_INFO_CMD iInfoCmd,
                            INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    switch (iInfoCmd) {
    case URL_INFO_URL: {
        size_t file_size = 0;
        if (nodemap::ReadModuleXmlFile(xml_file, nullptr, &file_size) != 0)
            return GC_ERR_NOT_AVAILABLE;
        char url[256];
        std::snprintf(url, sizeof url, "local:%s;%s;%zx", xml_file, address_text, file_size);
        return CopyInfoString(url, piType, pBuffer, piSize);
    }
    case URL_INFO_SCHEMA_VER_MAJOR:
    case URL_INFO_SCHEMA_VER_MINOR:
    case URL_INFO_FILE_VER_MAJOR:
    case URL_INFO_FILE_VER_MINOR:
    case URL_INFO_FILE_VER_SUBMINOR:
        return CopyInfoNumber<int32_t>(INFO_DATATYPE_INT32, 1, piType, pBuffer, piSize);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR AnswerPortInfo(const port_identity &port, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                        void *pBuffer, size_t *piSize) {
    auto text = [&](const char *value) { return CopyInfoString(value, piType, pBuffer, piSize); };
    auto flag = [&](bool value) {
        return CopyInfoNumber<bool8_t>(INFO_DATATYPE_BOOL8, value ? 1 : 0, piType, pBuffer, piSize);
    };
    switch (iInfoCmd) {
    case PORT_INFO_ID: return text(port.id);
    case PORT_INFO_VENDOR: return text(port.vendor);
    case PORT_INFO_MODEL: return text(port.model);
    case PORT_INFO_TLTYPE: return text(port.tl_type);
    case PORT_INFO_MODULE: return text(port.module);
    case PORT_INFO_LITTLE_ENDIAN:
    case PORT_INFO_ACCESS_READ:
    case PORT_INFO_ACCESS_WRITE: return flag(true);
    case PORT_INFO_BIG_ENDIAN:
    case PORT_INFO_ACCESS_NA:
    case PORT_INFO_ACCESS_NI: return flag(false);
    case PORT_INFO_VERSION: return text(kProducerVersion);
    case PORT_INFO_PORTNAME: return text(port.port_name);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}

GC_ERROR ReadDescriptionRegister(const char *xml_file, const char *module, void *pBuffer,
                                 size_t *piSize) {
    const int result = nodemap::ReadModuleXmlFile(xml_file, pBuffer, piSize);
    if (result == -1) {
        LOG_ANY(diag::kError, "%s description file %s cannot be opened\n", module,
                nodemap::module_xml_path(xml_file).c_str());
        return GC_ERR_NOT_AVAILABLE;
    }
    return result;
}

}  // namespace pelorin
