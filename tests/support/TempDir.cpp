#include "TempDir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

namespace FenRELTest {

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/fenrel-test-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    _path = pattern;
}

TempDir::~TempDir()
{
    boost::system::error_code ignored;
    boost::filesystem::remove_all(_path, ignored);
}

std::string TempDir::File(const std::string& relative) const
{
    return _path + "/" + relative;
}

std::string TempDir::Write(const std::string& relative, const std::string& content) const
{
    const std::string path = File(relative);
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
}

std::string TempDir::Read(const std::string& relative) const
{
    std::ifstream in(File(relative), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace FenRELTest
