// Shared pieces of the zqavs subcommands: options, exit codes, image files.
#ifndef ZQAVS_TOOL_COMMON_H
#define ZQAVS_TOOL_COMMON_H

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace zqavs {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct ToolResult {
    int code = kExitSuccess;
};

struct CheckOptions {
    std::string dir;
    int cameras = 0;
    std::string overlay;
};

void addCheckCommand(CLI::App& app, CheckOptions& options, ToolResult& result);
int runCheck(const CheckOptions& options);

// 8-bit RGB images. PNG or JPEG in; PNG out.
bool readImage(const std::string& path, std::vector<unsigned char>& rgb, int* width, int* height);
bool writePng(const std::string& path, const unsigned char* rgb, int width, int height);

}  // namespace zqavs

#endif  // ZQAVS_TOOL_COMMON_H
