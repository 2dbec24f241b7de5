#include "nodemap/module_files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "diag/log.h"
#include "modules/tl_info.h"

using pelorin::diag::kError;
using pelorin::diag::kInfo;

namespace pelorin::nodemap {

std::vector<std::string> split_path_list(const std::string &list) {
    std::vector<std::string> directories;
    std::string current;
    for (char c : list) {
        if (c == ':' || c == ';') {
            directories.push_back(current);
            current.clear();
        } else {
            current.push_back(c);
        }
    }
    if (!current.empty()) directories.push_back(current);
    return directories;
}

namespace {

// The directory text with exactly one trailing separator ("" stays "" so
// that an empty entry means the current directory).
std::string with_separator(std::string directory) {
    while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
    if (!directory.empty() && directory.back() != '/') directory.push_back('/');
    return directory;
}

bool file_readable(const std::string &path) {
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

}  // namespace

int FindCtiDirectory() {
    const char *list = std::getenv("GENICAM_GENTL64_PATH");
    if (list == nullptr) {
        LOG_ANY(kError, "GENICAM_GENTL64_PATH Get NULL\n");
        list = std::getenv("GENICAM_GENTL64_PATH_2ND");
        if (list == nullptr) return -1;
    }
    for (const std::string &text : split_path_list(list)) {
        const std::string directory = with_separator(text);
        if (directory.size() + std::strlen(kLibraryFileName) >= kLibraryDirectoryCapacity) {
            LOG_ANY(kError, "gentl path entry too long (%zu characters), skipped\n", text.size());
            continue;
        }
        const std::string candidate = (directory.empty() ? std::string("./") : directory) +
                                      kLibraryFileName;
        if (!file_readable(candidate)) continue;
        set_library_directory(directory.c_str());
        LOG_ANY(kInfo, "gentl_cti_path is %s\n", directory.c_str());
        return 0;
    }
    return -1;
}

std::string module_xml_path(const char *name) {
    return std::string(library_directory()) + kDescriptionSubdirectory + name;
}

int ReadModuleXmlFile(const char *name, void *buffer, size_t *size) {
    if (name == nullptr || size == nullptr) return GC_ERR_INVALID_PARAMETER;
    std::ifstream file(module_xml_path(name), std::ios::binary | std::ios::ate);
    if (!file) return -1;
    const std::streamoff length = file.tellg();
    if (length < 0) return -1;
    if (buffer == nullptr) {
        *size = static_cast<size_t>(length);
        return 0;
    }
    if (*size < static_cast<size_t>(length)) {
        *size = static_cast<size_t>(length);
        return GC_ERR_BUFFER_TOO_SMALL;
    }
    file.seekg(0);
    if (!file.read(static_cast<char *>(buffer), length)) return -1;
    *size = static_cast<size_t>(length);
    return 0;
}

}  // namespace pelorin::nodemap
