#include "nodemap/node_map_loader.h"

#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <vector>

#include "diag/log.h"

using pelorin::diag::kError;

namespace pelorin::nodemap {

namespace {

constexpr size_t kUrlCapacity = 4096;

std::optional<uint64_t> leading_hex(const std::string &field) {
    uint64_t value = 0;
    size_t digits = 0;
    for (char c : field) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) break;
        if (digits == 16) return std::nullopt;  // beyond 64 bits
        const int digit = std::isdigit(static_cast<unsigned char>(c))
                              ? c - '0'
                              : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        value = value << 4 | static_cast<uint64_t>(digit);
        ++digits;
    }
    if (digits == 0) return std::nullopt;
    return value;
}

std::string skip_slashes(const std::string &text) {
    return text.compare(0, 3, "///") == 0 ? text.substr(3) : text;
}

bool ends_with_zip(const std::string &name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".zip") == 0;
}

void report(bool log_failures, const char *text) {
    if (log_failures) LOG_ANY(kError, "%s", text);
}

// Reads the description file that a "local:" URL names through the module's
// own register read and loads it. False when the read fails.
bool load_local(const module_port_ops &ops, const local_url &url, CNodeMapRef &map,
                bool log_failures) {
    std::vector<uint8_t> data;
    try {
        data.assign(url.length + 1, 0);
    } catch (const std::bad_alloc &) {
        report(log_failures, "New buffer error\n");
        return false;
    } catch (const std::length_error &) {
        report(log_failures, "New buffer error\n");
        return false;
    }
    size_t size = url.length;
    const GC_ERROR result = ops.read(url.address, data.data(), &size);
    if (result != GC_ERR_SUCCESS) {
        if (log_failures) LOG_ANY(kError, "Read xml error:%d\n", result);
        return false;
    }
    data[url.length] = 0;
    if (ends_with_zip(url.file_name))
        map._LoadXMLFromZIPData(data.data(), url.length);
    else
        map._LoadXMLFromString(std::string(reinterpret_cast<const char *>(data.data()), url.length));
    return true;
}

}  // namespace

bool parse_local_url(const std::string &rest, local_url &url) {
    const std::string text = skip_slashes(rest);
    const size_t first = text.find(';');
    if (first == std::string::npos) return false;
    const size_t second = text.find(';', first + 1);
    if (second == std::string::npos) return false;
    const std::optional<uint64_t> address = leading_hex(text.substr(first + 1, second - first - 1));
    const std::optional<uint64_t> length = leading_hex(text.substr(second + 1));
    if (!address || !length) return false;
    url.file_name = text.substr(0, first);
    url.address = *address;
    url.length = *length;
    return true;
}

std::shared_ptr<CNodeMapRef> LoadNodeMapFromPort(const module_port_ops &ops, IPort *port,
                                                 std::string *xml_file_name, bool log_failures) {
    std::string source;  // the URL, for the log when loading fails
    try {
        auto map = std::make_shared<CNodeMapRef>("Device");
        uint32_t count = 0;
        if (ops.url_count(&count) != GC_ERR_SUCCESS || count == 0) return nullptr;

        char text[kUrlCapacity] = {};
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        size_t size = sizeof text - 1;
        if (ops.url_info(0, URL_INFO_URL, &type, text, &size) != GC_ERR_SUCCESS) {
            report(log_failures, "Get url info error\n");
            return nullptr;
        }
        const std::string url_text(text);
        source = url_text;
        std::string file_name;
        if (url_text.compare(0, 6, "local:") == 0) {
            local_url url;
            if (!parse_local_url(url_text.substr(6), url))
                throw std::invalid_argument("the URL's address or length is not hexadecimal");
            if (!load_local(ops, url, *map, log_failures)) return nullptr;
            file_name = url.file_name;
        } else if (url_text.compare(0, 5, "file:") == 0) {
            // "file:///tmp/x.xml" names the absolute path /tmp/x.xml: only the
            // empty authority "//" is dropped.
            file_name = url_text.substr(5);
            if (file_name.compare(0, 2, "//") == 0) file_name.erase(0, 2);
            if (ends_with_zip(file_name))
                map->_LoadXMLFromZIPFile(file_name);
            else
                map->_LoadXMLFromFile(file_name);
        } else {
            report(log_failures, "Bad url\n");
            return nullptr;
        }
        if (xml_file_name != nullptr) *xml_file_name = file_name;

        char port_name[kUrlCapacity] = {};
        size = sizeof port_name - 1;
        if (ops.port_info(PORT_INFO_PORTNAME, &type, port_name, &size) != GC_ERR_SUCCESS) {
            report(log_failures, "Get PortName Error\n");
            return nullptr;
        }
        if (!map->_Connect(port, port_name)) {
            report(log_failures, "Connect Port Error\n");
            return nullptr;
        }
        return map;
    } catch (const std::exception &error) {
        std::printf("Exception:alloc node map error\n");
        std::fflush(stdout);
        LOG_ANY(pelorin::diag::kError, "node map of \"%s\" cannot be built: %s\n", source.c_str(), error.what());
        return nullptr;
    }
}

}  // namespace pelorin::nodemap
