#pragma once

#include <cstdint>
#include <string>

#include <boost/property_tree/ptree.hpp>

namespace FenREL {

// The main configuration file, loaded once at start-up and read afterwards
// without a lock (by the support-dump signal handler, the platform set-up and
// the applications' constructors), and the process-wide start-up values.
class MainConfig {
public:
    // "/etc/corvid/zun/" under $FENREL_ROOT, fixed at static initialisation.
    static const std::string& ConfigDir();
    // The default main configuration file: ConfigDir() + "fenrel.xml".
    static const std::string& DefaultFile();

    static boost::property_tree::ptree& Tree();
    static const std::string& FileName();
    static void SetFileName(const std::string& fileName);

    // Reads FileName() as XML (no comments, trimmed whitespace). A standard
    // exception logs "Failed loading config file: %1", prints the operator's
    // notice on standard output and gives false; other exceptions pass on.
    static bool Load();

    static uint32_t GetInstanceId();
    static void SetInstanceId(uint32_t instanceId);
};

}  // namespace FenREL
