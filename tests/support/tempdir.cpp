#include "support/tempdir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace k52test {

TempDir::TempDir(const std::string& prefix)
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr)
        throw std::runtime_error("mkdtemp(" + pattern + ") failed: " + std::strerror(errno));
    path_ = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string TempDir::writeFile(const std::string& name, const std::string& contents) const
{
    std::filesystem::path target = file(name);
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out << contents;
    out.close();
    if (!out)
        throw std::runtime_error("Unable to write " + target.string());
    return target.string();
}

} // namespace k52test
