/*
 * Producer API of pelorin_cxp.cti: feature access by name on any module's
 * node map, settings files, log control, event callbacks and simulator hooks.
 *
 * Every function takes a GenTL module handle (system, interface, device,
 * remote-device port or data-stream handle) as its first argument, unless
 * stated otherwise, and returns a GC_ERROR: 0, a GenTL code (-1001 ... -1023)
 * or one of the producer's own codes below. Usable from C and C++.
 */
#ifndef PELORIN_KV_API_H
#define PELORIN_KV_API_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#include "gentl.h"

#ifdef __cplusplus
#include <string>
#include <vector>
extern "C" {
#endif

#define KV_API GC_IMPORT_EXPORT GC_ERROR

/* Producer result codes, below GC_ERR_CUSTOM_ID. */
enum KV_ERROR_LIST {
    KV_ERR_NOT_COMMAND = -10001,
    KV_ERR_NOT_INTEGER = -10002,
    KV_ERR_NOT_BOOLEAN = -10003,
    KV_ERR_NOT_ENUM = -10004,
    KV_ERR_NOT_FLOAT = -10005,
    KV_ERR_NOT_STRING = -10006,
    KV_ERR_NOT_READABLE = -10007,
    KV_ERR_NOT_WRITABLE = -10008,
    KV_ERR_FILE_OPEN = -10009,
    KV_ERR_NODE_NOT_FOUND = -10010,
    KV_ERR_FEATURE_NOT_FOUND = -10011,
    KV_ERR_NO_ACCESS = -10012,
    KV_ERR_EXCEPTION = -10013,
    KV_ERR_NOT_CARD_FILE = -10014
};

/* Log levels and message languages of kv_init_log / kv_set_language. */
enum KV_LOG_LEVEL { KV_LOG_DEBUG = 1, KV_LOG_INFO = 2, KV_LOG_WARN = 3, KV_LOG_ERROR = 4,
                    KV_LOG_ALL = 99 };
enum KV_LANGUAGE { KV_LANGUAGE_ENGLISH = 0, KV_LANGUAGE_CHINESE = 1, KV_LANGUAGE_BOTH = 4096 };

/* GenApi access modes and interface types as reported by the feature API. */
enum KV_ACCESS_MODE { KV_ACCESS_NI = 0, KV_ACCESS_NA = 1, KV_ACCESS_WO = 2, KV_ACCESS_RO = 3,
                      KV_ACCESS_RW = 4 };
enum KV_INTERFACE_TYPE { KV_IINTEGER = 2, KV_IBOOLEAN = 3, KV_ICOMMAND = 4, KV_IFLOAT = 5,
                         KV_ISTRING = 6, KV_IREGISTER = 7, KV_ICATEGORY = 8,
                         KV_IENUMERATION = 9 };

#pragma pack(push, 1)
typedef struct kv_feature_entry {
    const char *name;
    uint32_t interface_type;
    uint32_t access_mode;
} kv_feature_entry;

typedef struct kv_node_entry {
    const char *name;
    uint32_t interface_type;
    uint8_t flag;
} kv_node_entry;

typedef struct kv_node_info {
    uint32_t interface_type;
    uint32_t access_mode;
    union {
        int64_t i;
        double f;
        struct {
            uint32_t longest_name_size;
            uint32_t entry_count;
        } e;
    } minimum;
    union { int64_t i; double f; } maximum;
    union { int64_t i; double f; } increment;
    union { int64_t i; double f; } value;
    uint32_t visibility;
} kv_node_info;

typedef struct kv_enum_entry {
    char *text;
    uint32_t text_size;
    int64_t value;
} kv_enum_entry;

typedef struct kv_xml_info {
    const char *description;
    const char *file_name;
} kv_xml_info;

/* One record of kv_genapi_load_ini: 520 bytes. */
typedef struct kv_settings_record {
    char key[256];
    uint32_t type; /* 2 integer, 5 float, 6 string */
    union {
        int64_t i;
        double f;
        char s[256];
    } value;
    int32_t result;
} kv_settings_record;
#pragma pack(pop)

typedef void (*kv_node_callback)(void *node);
typedef void (*kv_event_callback)(void *context, void *data);

/* Feature access by name (node map chosen by the handle's level). */
KV_API kv_genapi_call_command(void *handle, const char *name);
KV_API kv_genapi_set_string(void *handle, const char *name, const char *text);
KV_API kv_genapi_get_string(void *handle, const char *name, char *buffer, uint64_t *size);
KV_API kv_genapi_set_integer(void *handle, const char *name, int64_t value);
KV_API kv_genapi_get_integer(void *handle, const char *name, int64_t *value);
KV_API kv_genapi_set_float(void *handle, const char *name, double value);
KV_API kv_genapi_get_float(void *handle, const char *name, double *value);
KV_API kv_genapi_set_register(void *handle, const char *name, const void *buffer,
                              uint64_t size);
KV_API kv_genapi_get_register(void *handle, const char *name, void *buffer, uint64_t *size);
KV_API kv_get_access(void *handle, const char *name, uint32_t *access_mode);
KV_API kv_get_integer_info(void *handle, const char *name, int64_t *value, int64_t *minimum,
                           int64_t *maximum, int64_t *increment);
KV_API kv_get_float_info(void *handle, const char *name, double *value, double *minimum,
                         double *maximum, double *increment);
#ifdef __cplusplus
/* Needs the caller to share the library's C++ runtime (string objects). */
KV_API kv_get_enum_info(void *handle, const char *name, std::string *current,
                        std::vector<std::string> *entries);
#else
KV_API kv_get_enum_info(void *handle, const char *name, void *current, void *entries);
#endif
KV_API kv_get_features(void *handle, kv_feature_entry **entries, uint64_t *count);
KV_API kv_get_xml_info(void *handle, kv_xml_info *info);
KV_API kv_get_xml(void *handle, uint32_t url_index, void *buffer, uint64_t *size);
KV_API kv_node_register(void *handle, const char *name, kv_node_callback callback,
                        void **node);
KV_API kv_get_nodes(void *handle, const char *category, kv_node_entry **entries,
                    uint64_t *count);
KV_API kv_get_node_info(void *handle, const char *name, kv_node_info *info);
KV_API kv_get_enum_array(void *handle, const char *name, kv_enum_entry *current,
                         kv_enum_entry **entries, uint32_t *count);
KV_API kv_get_node_state(void *handle, const char *name, uint8_t state[2]);

/* Settings files. */
KV_API kv_genapi_save_ini(void *handle, const wchar_t *path);
KV_API kv_genapi_load_ini(void *handle, const wchar_t *path, kv_settings_record **records,
                          uint32_t *count);

/* Log control (no handle). */
KV_API kv_init_log(const char *path, uint32_t level);
KV_API kv_uninit_log(void);
KV_API kv_set_language(uint32_t language);

/* Event callbacks. */
KV_API kv_register_event_cb(void *handle, int32_t type, kv_event_callback callback,
                            void *context);

/* Simulator hooks. */
KV_API kv_sim_register_handle(void *handle, uint64_t *sim_handle);
KV_API kv_sim_unregister_handle(uint64_t sim_handle);
KV_API kv_sim_get_xml(uint64_t sim_handle, uint32_t which, void *buffer, uint64_t *size);
KV_API kv_sim_find(uint64_t sim_handle, const char *name, uint64_t *module_handle);

#ifdef __cplusplus
}
#endif

#endif /* PELORIN_KV_API_H */
