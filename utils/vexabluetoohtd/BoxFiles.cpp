// SPDX-License-Identifier: MIT
#include "BoxFiles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int kNeverWait = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t kStatusFileMode = 0666; // less the umask
constexpr int kPlantingLimit = 5;        // how often another process may win the race for one name
constexpr std::size_t kNumberBytes = 256;
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// Owner of a file descriptor.
class Descriptor
{
public:
    explicit Descriptor(int number = -1) : mNumber(number) {}
    ~Descriptor()
    {
        if (valid()) {
            close(mNumber);
        }
    }
    Descriptor(Descriptor&& other) noexcept : mNumber(other.release()) {}
    Descriptor& operator=(Descriptor&&) = delete;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool valid() const { return mNumber >= 0; }
    int get() const { return mNumber; }
    int release() { return std::exchange(mNumber, -1); }

private:
    int mNumber;
};

Descriptor openToRead(const char* path)
{
    return Descriptor(open(path, O_RDONLY | kNeverWait));
}

int parseNumber(std::string_view text, int otherwise)
{
    const std::size_t begin = text.find_first_not_of(kWhiteSpace);
    if (begin == std::string_view::npos) {
        return otherwise;
    }
    text.remove_prefix(begin);
    const bool negative = text.front() == '-';
    if (negative || text.front() == '+') {
        text.remove_prefix(1);
    }
    using Limits = std::numeric_limits<int>;
    const std::int64_t limit = negative ? -std::int64_t{Limits::min()} : Limits::max();
    std::int64_t number = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') {
            break;
        }
        number = std::min(number * 10 + (digit - '0'), limit);
    }
    return static_cast<int>(negative ? -number : number);
}

// A file with more than one hard link may have been linked here by somebody else.
bool isOwnFile(const Descriptor& file)
{
    struct stat info {
    };
    return fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
           info.st_nlink == 1;
}

// Opens the file that the daemon has written before, or replaces anything else there with a new one.
Descriptor openStatusFile(const char* path)
{
    for (int planted = 0; planted < kPlantingLimit; ++planted) {
        Descriptor present(open(path, O_WRONLY | O_NOFOLLOW | kNeverWait));
        if (present.valid() ? isOwnFile(present) : errno == EMFILE || errno == ENFILE) {
            return present; // if no descriptor is available, nothing is replaced
        }
        unlink(path);
        Descriptor fresh(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | kNeverWait, kStatusFileMode));
        if (fresh.valid() || errno != EEXIST) {
            return fresh;
        }
    }
    return Descriptor();
}

void writeAll(const Descriptor& file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(file.get(), text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

} // namespace

namespace box_files
{

bool isReadable(const char* path)
{
    return openToRead(path).valid();
}

int readNumber(const char* path, int otherwise)
{
    const Descriptor file = openToRead(path);
    std::array<char, kNumberBytes> text{};
    const ssize_t size = file.valid() ? read(file.get(), text.data(), text.size()) : -1;
    return size < 0 ? otherwise : parseNumber({text.data(), static_cast<std::size_t>(size)}, otherwise);
}

void writeLine(const std::string& line, const std::string& path)
{
    const Descriptor file = openStatusFile(path.c_str());
    if (file.valid() && ftruncate(file.get(), 0) == 0) {
        writeAll(file, line + '\n');
    }
}

std::filebuf openRegularFile(const std::string& path)
{
    Descriptor file = openToRead(path.c_str());
    struct stat info {
    };
    if (!file.valid() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return {};
    }
    // Uses the checked descriptor rather than the path again, since the file may have been replaced.
    __gnu_cxx::stdio_filebuf<char> buffer(file.get(), std::ios::in | std::ios::binary);
    if (buffer.is_open()) {
        file.release(); // closed by the buffer
    }
    return std::move(buffer);
}

} // namespace box_files
