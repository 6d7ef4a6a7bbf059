#pragma once

#include <cstdint>
#include <string>

namespace FenREL {

// The agent's own product version, read from "/opt/corvid/zun_lcp_version":
// a dotted text of up to six fields, four numbers, a suffix and a build number
// ("1.2.3.4.beta.56"). Without a usable file it is "1.0.0.0.0.0".
class ProductVersionProvider {
public:
    struct Version {
        uint32_t major = 0;
        uint32_t minor = 0;
        uint32_t maintenance = 0;
        uint32_t patch = 0;
        std::string suffix;
        uint32_t buildNumber = 0;
    };

    // Reads the file under $FENREL_ROOT.
    ProductVersionProvider();
    // Reads `file` (a test's own).
    explicit ProductVersionProvider(const std::string& file);
    virtual ~ProductVersionProvider() = default;

    const Version& GetVersion() const { return _version; }

    // Fills `out` from a dotted text; an illegal text logs and gives false.
    static bool Parse(const std::string& text, Version& out);

private:
    void Load(const std::string& file);

    Version _version;
};

}  // namespace FenREL
