// SPDX-License-Identifier: MIT
// vexafw: inspects and creates firmware images for the remote.
#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "Delivery.h"
#include "Firmware.h"
#include "OtaFormat.h"

namespace
{

enum ExitStatus {
    Exit_eGood = 0,
    Exit_eInexact = 1, ///< verify: the daemon would send something else, or nothing
    Exit_eFailed = 2,  ///< error in the command line or in a file
};

constexpr unsigned kMostWords = 65535;
constexpr double kSecondsPerBlock = 0.013;

/// An error that the user can fix; its text is shown as it is.
class UserError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct PackOptions {
    std::string payload;
    std::string image;
    unsigned offset = 0;
    unsigned signature = 0;
    unsigned version = 0;
    unsigned checksum = 0;
    unsigned length = 0;
    unsigned otaFlag = 0;
    unsigned reserved = 0;
    bool lengthGiven = false;
    bool pad = false;
    bool force = false;
};

using Bytes = std::vector<std::uint8_t>;

Bytes readFile(const std::string& path)
{
    if (std::filesystem::is_directory(path)) {
        throw UserError{path + " is a folder"};
    }
    std::ifstream file{path, std::ios::binary};
    if (!file) {
        throw UserError{"can't open " + path + ": " + std::strerror(errno)};
    }
    Bytes bytes;
    char piece[4096];
    while (file.read(piece, sizeof piece), file.gcount() > 0) {
        bytes.insert(bytes.end(), piece, piece + file.gcount());
    }
    if (file.bad()) {
        throw UserError{"can't read " + path + ": " + std::strerror(errno)};
    }
    return bytes;
}

/// Opens an image as the daemon does. On failure, which the daemon doesn't explain, finds out the reason.
std::unique_ptr<Firmware> openImage(const std::string& path)
{
    auto firmware = Firmware::createWithLocation(path);
    if (!firmware) {
        if (std::filesystem::is_other(path)) {
            throw UserError{path + " isn't a regular file, so the daemon doesn't accept it"};
        }
        const auto size = readFile(path).size();
        throw UserError{path + " has " + std::to_string(size) + (size == 1 ? " byte" : " bytes") +
                        ", but the header of an image alone has " + std::to_string(ota_format::kHeaderBytes)};
    }
    return firmware;
}

void printWarnings(const Delivery& delivery)
{
    for (const auto& warning : delivery.warnings()) {
        std::printf("  warning     %s\n", warning.c_str());
    }
}

void printImage(const std::string& path, const Firmware::Header& header, const Delivery& delivery)
{
    std::printf("%s\n", path.c_str());
    std::printf("  offset      0x%04x\n", header.offset);
    std::printf("  signature   0x%04x\n", header.signature);
    std::printf("  version     0x%04x\n", header.version);
    std::printf("  checksum    0x%04x\n", header.checksum);
    std::printf("  length      %u words, %zu bytes\n", header.length, delivery.announced);
    std::printf("  ota_flag    0x%02x\n", header.ota_flag);
    std::printf("  reserved    0x%02x\n", header.reserved);
    std::printf("  payload     %zu bytes in the file\n", delivery.present);
    std::printf("  transfer    %zu bytes in %zu blocks, at least %.1f s\n", delivery.sent, delivery.blocks,
                static_cast<double>(delivery.blocks) * kSecondsPerBlock);
    printWarnings(delivery);
}

int info(const std::string& path)
{
    const auto firmware = openImage(path);
    printImage(path, firmware->header(), Delivery::of(*firmware));
    return Exit_eGood;
}

int verify(const std::string& path)
{
    const auto firmware = openImage(path);
    const Delivery delivery = Delivery::of(*firmware);
    std::printf("%s: %s\n", path.c_str(),
                delivery.isExact() ? "the daemon sends exactly what the header says"
                                   : "the daemon doesn't send what the header says");
    printWarnings(delivery);
    return delivery.isExact() ? Exit_eGood : Exit_eInexact;
}

Bytes readPayload(const PackOptions& options)
{
    Bytes payload = readFile(options.payload);
    const std::size_t odd = payload.size() % ota_format::kWordBytes;
    if (odd != 0 && options.pad) {
        payload.resize(payload.size() + ota_format::kWordBytes - odd);
    } else if (odd != 0 && !options.lengthGiven) {
        throw UserError{options.payload + " has " + std::to_string(payload.size()) +
                        " bytes, not a multiple of 4: use --pad to append zeros"};
    }
    if (payload.size() > kMostWords * ota_format::kWordBytes && !options.lengthGiven) {
        throw UserError{options.payload + " has " + std::to_string(payload.size()) +
                        " bytes, but an image carries at most " +
                        std::to_string(kMostWords * ota_format::kWordBytes)};
    }
    return payload;
}

Bytes makeImage(const PackOptions& options, const Bytes& payload)
{
    const unsigned length =
        options.lengthGiven ? options.length : static_cast<unsigned>(payload.size() / ota_format::kWordBytes);
    Bytes image;
    for (const unsigned field :
         {options.offset, options.signature, options.version, options.checksum, length}) {
        image.push_back(static_cast<std::uint8_t>(field & 0xff));
        image.push_back(static_cast<std::uint8_t>(field >> 8));
    }
    image.push_back(static_cast<std::uint8_t>(options.otaFlag));
    image.push_back(static_cast<std::uint8_t>(options.reserved));
    image.insert(image.end(), payload.begin(), payload.end());
    return image;
}

/// Creates an empty file with a unique name beside `path`, with the usual permissions of a new file.
std::string makeFileBeside(const std::string& path)
{
    std::string name = path + ".XXXXXX";
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0) {
        throw UserError{"can't write " + path + ": " + std::strerror(errno)};
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(descriptor, 0666 & ~mask);
    close(descriptor);
    return name;
}

/// Writes the whole file or nothing: an existing file stays until the new one is complete.
void writeFile(const std::string& path, const Bytes& bytes)
{
    const std::string part = makeFileBeside(path);
    std::ofstream file{part, std::ios::binary | std::ios::trunc};
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    const bool written = file.good();
    if (!written || std::rename(part.c_str(), path.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        std::remove(part.c_str());
        throw UserError{"can't write " + path + ": " + reason};
    }
}

int pack(const PackOptions& options)
{
    std::error_code missing; // a missing file is reported below
    if (std::filesystem::equivalent(options.payload, options.image, missing)) {
        throw UserError{options.image + " is the payload itself: choose another file for the image"};
    }
    if (!options.force && std::filesystem::exists(options.image)) {
        throw UserError{options.image + " exists: use --force to replace it"};
    }
    writeFile(options.image, makeImage(options, readPayload(options)));
    return info(options.image);
}

/// Accepts only whole numbers up to `largest`. CLI11's own check would call 08 out of range.
CLI::Validator numberUpTo(unsigned largest)
{
    const auto check = [largest](const std::string& text) {
        const bool digits = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) != 0;
        char* end = nullptr;
        errno = 0;
        const unsigned long value = digits ? std::strtoul(text.c_str(), &end, 0) : 0;
        return digits && *end == '\0' && errno == 0 && value <= largest
                   ? std::string{}
                   : text + " isn't a number from 0 to " + std::to_string(largest) +
                         " (decimal, hexadecimal with 0x, or octal with a leading 0)";
    };
    return CLI::Validator{check, "in [0 - " + std::to_string(largest) + "]"};
}

void addField(CLI::App& command, const std::string& name, unsigned& value, unsigned largest,
              const std::string& description, bool required = false)
{
    auto* option = command.add_option(name, value, description);
    option->check(numberUpTo(largest))->required(required);
    if (!required) {
        option->capture_default_str();
    }
}

CLI::App& addPack(CLI::App& app, PackOptions& options)
{
    CLI::App& command = *app.add_subcommand("pack", "Create an image from a header and a payload");
    command.add_option("PAYLOAD", options.payload, "File with the payload")->required();
    command.add_option("IMAGE", options.image, "File to write")->required();
    addField(command, "--signature", options.signature, 0xffff,
             "Signature, sent with most commands of an update", true);
    addField(command, "--version", options.version, 0xffff, "Version, compared with the remote's", true);
    addField(command, "--offset", options.offset, 0xffff, "Passed on to the remote");
    addField(command, "--checksum", options.checksum, 0xffff, "Passed on to the remote; not computed");
    addField(command, "--ota-flag", options.otaFlag, 0xff, "Passed on to the remote");
    addField(command, "--reserved", options.reserved, 0xff, "Passed on to the remote");
    command
        .add_option_function<unsigned>(
            "--length",
            [&options](const unsigned& words) {
                options.length = words;
                options.lengthGiven = true;
            },
            "Words to announce, whatever the payload holds (default: its size)")
        ->check(numberUpTo(kMostWords));
    command.add_flag("--pad", options.pad, "Append zeros to a payload whose size isn't a multiple of 4");
    command.add_flag("--force", options.force, "Replace IMAGE if it exists");
    command.footer("Numbers are decimal, hexadecimal with 0x, or octal with a leading 0.");
    return command;
}

int run(int argc, char** argv)
{
    CLI::App app{"Inspects and creates firmware images for the remote control.", "vexafw"};
    app.set_version_flag("--version", "vexafw " VEXA_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status:\n"
               "  0  success\n"
               "  1  verify: the daemon wouldn't send exactly what the header says\n"
               "  2  error in the command line or in a file");

    std::string image;
    CLI::App& infoCommand =
        *app.add_subcommand("info", "Show an image's header and what the daemon would send");
    infoCommand.add_option("IMAGE", image, "Image file")->required();
    CLI::App& verifyCommand =
        *app.add_subcommand("verify", "Check whether the daemon would send exactly what the header says");
    verifyCommand.add_option("IMAGE", image, "Image file")->required();
    PackOptions options;
    addPack(app, options);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) { // the user asked for help
            return app.exit(error);
        }
        const bool commandless = app.get_subcommands().empty();
        throw UserError{(commandless ? "a command is required: info, verify or pack" : error.what()) +
                        std::string{"\nSee vexafw --help."}};
    }
    return infoCommand.parsed() ? info(image) : verifyCommand.parsed() ? verify(image) : pack(options);
}

} // namespace

int main(int argc, char** argv)
{
    // The image reader logs as in the daemon; here the user can enable that with this variable.
    setenv("VEXA_LOG_LEVEL", "ERROR", 0);
    try {
        const int status = run(argc, argv);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout.flush()) {
            throw UserError{std::string{"can't write to standard output: "} + std::strerror(errno)};
        }
        return status;
    } catch (const UserError& error) {
        std::cerr << "vexafw: " << error.what() << "\n";
    } catch (const std::exception& error) {
        std::cerr << "vexafw: unexpected: " << error.what() << "\n";
    }
    return Exit_eFailed;
}
