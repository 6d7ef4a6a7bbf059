#include "MainConfigXml.h"

namespace FenRELTest {

std::string MainConfigXml::ToXml() const
{
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config>\n";
    xml += "  <log><level>" + std::to_string(logLevel) +
           "</level><outputToConsole>true</outputToConsole></log>\n";
    xml += "  <fenrel>\n";
    xml += "    <workGroup><ioThreads>" + ioThreads + "</ioThreads><workThreads>" + workThreads +
           "</workThreads></workGroup>\n";
    if (withApps) {
        xml += "    <apps>\n";
        for (const AppEntry& app : apps) {
            xml += "      <app><name>" + app.name + "</name>";
            if (!app.enabled.empty()) {
                xml += "<enabled>" + app.enabled + "</enabled>";
            }
            if (app.hasConfig) {
                xml += "<config>" + app.config + "</config>";
            }
            xml += "</app>\n";
        }
        xml += "    </apps>\n";
    }
    if (withSupport) {
        xml += "    <support/>\n";
    }
    xml += "    <configManager>" + configManager + "</configManager>\n";
    xml += "  </fenrel>\n</config>\n";
    return xml;
}

}  // namespace FenRELTest
