#pragma once

#include <string>

namespace k52test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction,
// so that test processes running side by side never share files.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "k52test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }

    // The path of `name` inside the directory.
    std::string file(const std::string& name) const;

    // Writes `contents` to `name` inside the directory (creating parent folders) and returns
    // its path.
    std::string writeFile(const std::string& name, const std::string& contents) const;

private:
    std::string path_;
};

} // namespace k52test
