#pragma once

#include <string>
#include <vector>

namespace FenRELTest {

// Writes the daemon's main configuration file for a test.
struct MainConfigXml {
    struct AppEntry {
        std::string name;
        // "" leaves <enabled> out.
        std::string enabled = "true";
        // Inner XML of <config>; absent when `hasConfig` is false.
        std::string config;
        bool hasConfig = true;
    };

    int logLevel = 5;
    std::string ioThreads = "2";
    // Two I/O threads and the data-path link's two loops leave four for work items.
    std::string workThreads = "8";
    bool withApps = true;
    std::vector<AppEntry> apps;
    bool withSupport = false;
    // Inner XML of <configManager>.
    std::string configManager;

    std::string ToXml() const;
};

}  // namespace FenRELTest
