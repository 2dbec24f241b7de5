// pelorin-info as a user runs it: its JSON describes the emulated card's
// cameras and their features, a --set shows in the same run, and every kind
// of mistake ends with a message on stderr and its exit code.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"

namespace {

using Json = nlohmann::json;

// The tool finds the build tree's producer beside itself; the profile picks
// the emulated cards (none: the built-in card with two cameras).
ToolRun run_info(const std::vector<std::string> &args, const std::string &profile = "") {
    return run_tool(PELORIN_INFO_TOOL, args,
                    {"GENICAM_GENTL64_PATH=",
                     "PELORIN_CXP_EMULATION=" +
                         (profile.empty() ? "" : std::string(PELORIN_PROFILE_DIR) + "/" + profile)});
}

Json parse(const ToolRun &run) {
    Json document = Json::parse(run.out, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << "stdout is not JSON:\n" << run.out.substr(0, 500);
    return document;
}

// A feature anywhere in a tree of categories.
std::optional<Json> find_feature(const Json &tree, const std::string &name) {
    for (const Json &node : tree) {
        if (node.value("name", "") == name) return node;
        if (node.contains("children"))
            if (auto found = find_feature(node["children"], name)) return found;
    }
    return std::nullopt;
}

TEST(InfoTool, JsonListsTheTwoCamerasOfTheDefaultCardWithTheLogOnStderr) {
    // Without --quiet the producer still logs, on stderr, so stdout stays JSON.
    const ToolRun run = run_info({"--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_NE(run.err.find("[INFO]"), std::string::npos) << "the producer's log went missing";
    const Json doc = parse(run);
    ASSERT_EQ(doc["interfaces"].size(), 1u);
    EXPECT_EQ(doc["system"]["info"]["gentl_ver_major"], 1);
    int cameras = 0;
    for (const Json &device : doc["interfaces"][0]["devices"]) {
        if (!device["camera"].get<bool>()) continue;
        ++cameras;
        EXPECT_EQ(device["info"]["vendor"], "Orvane");
        EXPECT_EQ(device["info"]["model"], "Lyra 25M CXP-12");
        EXPECT_TRUE(device["opened"].get<bool>());
        ASSERT_EQ(device["streams"].size(), 1u);
        EXPECT_EQ(device["streams"][0]["info"]["payload_size"], 5120 * 5120);
    }
    EXPECT_EQ(cameras, 2);
}

TEST(InfoTool, CameraFeaturesShowASettingMadeInTheSameRun) {
    const ToolRun run = run_info({"--features", "remote", "--set", "Width=1024", "--json", "--quiet"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const Json doc = parse(run);
    EXPECT_FALSE(doc["system"].contains("features")) << "only the camera's features were asked for";
    const Json &devices = doc["interfaces"][0]["devices"];
    const std::optional<Json> width = find_feature(devices[0]["remote_features"], "Width");
    ASSERT_TRUE(width);
    EXPECT_EQ((*width)["type"], "integer");
    EXPECT_EQ((*width)["access"], "RW");
    EXPECT_EQ((*width)["value"], 1024);
    EXPECT_EQ(find_feature(devices[1]["remote_features"], "Width").value()["value"], 5120)
        << "--set changes the first camera only";
    const std::optional<Json> format = find_feature(devices[0]["remote_features"], "PixelFormat");
    ASSERT_TRUE(format);
    EXPECT_EQ((*format)["type"], "enumeration");
    EXPECT_EQ((*format)["value"], "Mono8");
    EXPECT_NE(std::find((*format)["entries"].begin(), (*format)["entries"].end(), "Mono10p"),
              (*format)["entries"].end());
    EXPECT_EQ(doc["settings"][0]["now"], "1024");

    const ToolRun text = run_info({"--features", "remote", "--set", "Width=1024", "--device", "1", "-q"});
    ASSERT_EQ(text.exit_code, 0) << text.err;
    EXPECT_NE(text.out.find("Set remote:Width=1024 on device1, now 1024"), std::string::npos) << text.out;
    // The row of Width: name, type, access and value in columns.
    std::istringstream lines(text.out);
    bool width_row = false;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name, type, access, value;
        words >> name >> type >> access >> value;
        width_row |= name == "Width" && type == "integer" && access == "RW" && value == "1024";
    }
    EXPECT_TRUE(width_row) << text.out;
}

TEST(InfoTool, BadInputEndsWithAMessageAndItsExitCode) {
    struct Case {
        std::vector<std::string> args;
        std::string profile;
        int exit_code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, "", 2, "unknown option --bogus"},
        {{"--set"}, "", 2, "--set needs a value"},
        {{"--features", "lens"}, "", 2, "unknown module 'lens'"},
        {{"--device", "0", "--set", "Width"}, "", 2, "give a value"},
        {{"/nonexistent/pelorin_cxp.cti"}, "", 3, "no such file"},
        {{PELORIN_PROFILE_DIR "/README.md"}, "", 3, "cannot load"},
        {{}, "no_card.json", 3, "did not start"},
        {{"--device", "2"}, "", 4, "no camera 2"},
        {{"--device", "0", "--set", "Gain=2"}, "", 5, "no such feature"},
        {{"--device", "0", "--set", "Width=wide"}, "", 5, "not an integer"},
        {{"--device", "0", "--set", "Width=99999"}, "", 5, "out of range"},
        {{"--device", "0", "--set", "PixelFormat=Mono99"}, "", 5, "no such entry"},
    };
    for (const Case &c : cases) {
        std::string shown;
        for (const std::string &arg : c.args) shown += arg + " ";
        SCOPED_TRACE(shown + c.profile);
        std::vector<std::string> args = c.args;
        args.push_back("--quiet");
        const ToolRun run = run_info(args, c.profile);
        EXPECT_EQ(run.signal, 0);
        EXPECT_EQ(run.exit_code, c.exit_code);
        EXPECT_NE(run.err.find("pelorin-info: "), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "") << "nothing printed before the failure";
    }
}

}  // namespace
