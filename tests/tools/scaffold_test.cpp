#include "run_tool.h"
#include <gtest/gtest.h>
TEST(ToolsScaffold, InfoHelpRuns) { EXPECT_EQ(run_tool(PELORIN_INFO_TOOL, {"--help"}).exit_code, 0); }
