// User sets of the interface and device modules: a module's node-map
// features saved to and loaded from settings files in the user-set
// directory beside the library.
#pragma once

#include <string>

class CNodeMapRef;

namespace pelorin::user_sets {

// Applies the settings file at `path` to `map`: the loader's result, or
// GC_ERR_NOT_AVAILABLE when there is no node map.
int load(CNodeMapRef *map, const std::string &path);

// Saves the writable features of `map` to `path`, creating `directory`
// when missing. The user-set controls themselves (features whose names
// begin with "UserSet") are left out, so loading a set never changes which
// set is selected or which one is loaded at open.
int save(CNodeMapRef *map, const std::string &directory, const std::string &path);

}  // namespace pelorin::user_sets
