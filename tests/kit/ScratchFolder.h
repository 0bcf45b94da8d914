// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kit
{

/// The content of a file, empty if it can't be read.
inline std::string contentOf(const std::filesystem::path& path)
{
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

/// A temporary folder, empty at first, that is removed with the object.
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "vexa-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("can't make " + pattern);
        }
        mPath = pattern;
    }
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    /// The path of a file in the folder, which needn't exist.
    std::string path(const std::string& name) const { return (mPath / name).string(); }
    std::string path() const { return mPath.string(); }

    /// Writes a file; returns its path.
    std::string write(const std::string& name, std::string_view content) const
    {
        std::ofstream file{path(name), std::ios::binary};
        file.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!file.flush()) {
            throw std::runtime_error("can't write " + path(name));
        }
        return path(name);
    }
    std::string write(const std::string& name, const std::vector<std::uint8_t>& content) const
    {
        return write(name, std::string_view{reinterpret_cast<const char*>(content.data()), content.size()});
    }

    /// The content of a file, empty if it can't be read.
    std::string read(const std::string& name) const { return contentOf(path(name)); }

private:
    std::filesystem::path mPath;
};

} // namespace kit
