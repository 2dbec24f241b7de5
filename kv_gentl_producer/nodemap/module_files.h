// Where the library and its module description files live. The library
// finds its own directory through the GenTL path variables when the system
// opens; the description files lie in xml/cxp below it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pelorin/gentl.h"

namespace pelorin::nodemap {

// Longest library directory kept (separator included).
inline constexpr size_t kLibraryDirectoryCapacity = 1024;
inline constexpr const char *kDescriptionSubdirectory = "xml/cxp/";

inline constexpr const char *kSystemXmlFile = "Cxplink_TLSystem_1_0_1.zip";
inline constexpr const char *kInterfaceXmlFile = "Cxplink_TLInterface_1_0_1.zip";
inline constexpr const char *kDataStreamXmlFile = "Cxplink_TLDataStream_1_0_1.zip";
// Handed to a camera simulator by kv_sim_get_xml; no module of the producer
// serves it.
inline constexpr const char *kSimulatorXmlFile = "Lumora_Cxplinkl_TLSim_1_1_0.zip";

// Splits a GenTL path list at ':' and ';'. An empty text between two
// separators is kept; an empty text after the last separator is not.
std::vector<std::string> split_path_list(const std::string &list);

// Looks for the library file in the directories of GENICAM_GENTL64_PATH (or,
// when that is unset, GENICAM_GENTL64_PATH_2ND) and keeps the first
// directory that holds it as the library directory. 0, or -1 when none does.
int FindCtiDirectory();

// Reads the description file `name` whole. `buffer` null: size query.
// 0; -1 the file cannot be opened; GC_ERR_BUFFER_TOO_SMALL with the file's
// size in `size`.
int ReadModuleXmlFile(const char *name, void *buffer, size_t *size);

// The full path of description file `name`.
std::string module_xml_path(const char *name);

}  // namespace pelorin::nodemap
