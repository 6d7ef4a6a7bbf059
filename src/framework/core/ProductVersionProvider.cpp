#include "ProductVersionProvider.h"

#include <fstream>
#include <sstream>
#include <vector>

#include <boost/algorithm/string/split.hpp>
#include <boost/lexical_cast.hpp>

#include "Logger.h"
#include "RootPath.h"

namespace FenREL {

namespace {

const char* const kVersionFile = "/opt/corvid/zun_lcp_version";
const char* const kDefaultVersion = "1.0.0.0.0.0";
constexpr size_t kMaxParts = 6;

}  // namespace

ProductVersionProvider::ProductVersionProvider()
{
    Load(RootPath(kVersionFile));
}

ProductVersionProvider::ProductVersionProvider(const std::string& file)
{
    Load(file);
}

void ProductVersionProvider::Load(const std::string& file)
{
    std::ifstream in(file);
    if (!in) {
        FLOG_VERBOSE("File %1 does not exist", file);
    } else {
        std::ostringstream content;
        content << in.rdbuf();
        if (!content.str().empty() && Parse(content.str(), _version)) {
            return;
        }
        FLOG_VERBOSE("File %1 doesn't hold a product version", file);
    }
    _version = Version();
    Parse(kDefaultVersion, _version);
}

bool ProductVersionProvider::Parse(const std::string& text, Version& out)
{
    std::string trimmed = text;
    while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == '\r' || trimmed.back() == ' ')) {
        trimmed.pop_back();
    }
    std::vector<std::string> parts;
    boost::algorithm::split(parts, trimmed, [](char c) { return c == '.'; });
    Version parsed;
    bool legal = parts.size() <= kMaxParts;
    try {
        for (size_t i = 0; legal && i < parts.size(); ++i) {
            switch (i) {
            case 0: parsed.major = boost::lexical_cast<uint32_t>(parts[i]); break;
            case 1: parsed.minor = boost::lexical_cast<uint32_t>(parts[i]); break;
            case 2: parsed.maintenance = boost::lexical_cast<uint32_t>(parts[i]); break;
            case 3: parsed.patch = boost::lexical_cast<uint32_t>(parts[i]); break;
            case 4: parsed.suffix = parts[i]; break;
            default: parsed.buildNumber = boost::lexical_cast<uint32_t>(parts[i]); break;
            }
        }
    } catch (const boost::bad_lexical_cast&) {
        legal = false;
    }
    if (!legal) {
        FLOG_ERROR("The productVersion %1 is illegal.", trimmed).AddTag("errorCode:LCP00022");
        return false;
    }
    out = parsed;
    return true;
}

}  // namespace FenREL
