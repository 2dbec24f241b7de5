// The built-in description file of the emulated camera
// (emulator/camera_xml/Orvane_Lyra25M.xml), compiled in by the build.
#pragma once

#include <string_view>

namespace pelorin::emu {

std::string_view builtin_camera_description();

}  // namespace pelorin::emu
