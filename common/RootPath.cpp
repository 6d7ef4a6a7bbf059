#include "RootPath.h"

#include <cstdlib>

namespace FenREL {

std::string RootPath(const std::string& absolutePath)
{
    const char* root = getenv("FENREL_ROOT");
    if (root == nullptr || root[0] == '\0') {
        return absolutePath;
    }
    std::string prefix(root);
    while (!prefix.empty() && prefix.back() == '/') {
        prefix.pop_back();
    }
    return prefix + absolutePath;
}

}  // namespace FenREL
