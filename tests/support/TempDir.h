#pragma once

#include <string>

namespace FenRELTest {

// A private directory for one test, removed with everything in it when the
// object goes. Use it as FENREL_ROOT to keep daemons and files apart.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return _path; }
    // Path() + "/" + relative.
    std::string File(const std::string& relative) const;
    // Writes `content` to File(relative), making the directories on the way.
    std::string Write(const std::string& relative, const std::string& content) const;
    std::string Read(const std::string& relative) const;

private:
    std::string _path;
};

}  // namespace FenRELTest
