// "effects --plugins": the LV2 plug-ins on the search path, with their URIs.
#include "cli/CliTestSupport.h"
#include "dsp/plugins/PluginEffect.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::CliResult;

CliResult cliWithPath(const std::string& lv2Path, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"LV2_PATH=" + lv2Path, HARLUNE_CLI_PATH});
    const auto result = Subprocess::run("/usr/bin/env", std::move(arguments));
    return {result.status, std::string(result.stdoutData.begin(), result.stdoutData.end()),
            result.stderrText};
}

TEST(PluginsCommand, ListsThePluginsOfTheSearchPath) {
    const testing::TempDir folder;
    std::filesystem::create_directories(folder / "echo.lv2");
    std::ofstream(folder / "echo.lv2/manifest.ttl")
        << "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n@prefix doap: <http://usefulinc.com/ns/doap#> .\n"
           "<urn:harlune:test:echo> a lv2:Plugin ; lv2:binary <echo.so> ; doap:name \"Test Echo\" ;\n"
           " lv2:port [ a lv2:InputPort, lv2:AudioPort ; lv2:index 0 ; lv2:symbol \"in\" ; lv2:name \"In\" ] "
           ",\n"
           " [ a lv2:OutputPort, lv2:AudioPort ; lv2:index 1 ; lv2:symbol \"out\" ; lv2:name \"Out\" ] .\n";

    const CliResult listed = cliWithPath(folder.path().string(), {"effects", "--plugins"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "Test Echo  urn:harlune:test:echo\n");

    const testing::TempDir empty;
    const CliResult none = cliWithPath(empty.path().string(), {"effects", "--plugins"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_NE(none.err.find("no LV2 effect plug-ins found"), std::string::npos) << none.err;
}

TEST(PluginsCommand, ListsTheInstalledAmplifier) {
    const auto installed = PluginEffect::installedPlugins();
    if (std::ranges::find(installed, std::string("http://plugin.org.uk/swh-plugins/amp"),
                          &PluginDescriptor::id) == installed.end())
        GTEST_SKIP() << "swh-lv2 is not installed";
    const CliResult listed = testing::cli({"effects", "--plugins"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("Simple amplifier"), std::string::npos);
    EXPECT_NE(listed.out.find(" http://plugin.org.uk/swh-plugins/amp\n"), std::string::npos);
}

} // namespace
} // namespace harlune
