// The velmora tool run as a user runs it, for the tests: a subprocess on files in a temporary
// directory, and the pieces to make and check its inputs and outputs.
#ifndef VELMORA_TESTS_CLI_CLI_HARNESS_H
#define VELMORA_TESTS_CLI_CLI_HARNESS_H

#include <gtest/gtest.h>
#include <png.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"
#include "velmora/filters.h"

namespace clitest {

namespace fs = std::filesystem;

using testutil::ReadFile;
using testutil::TempDir;
using testutil::WriteFile;

// The command line that runs the tool; call it before forking.
inline std::vector<std::string> ToolCommand(const std::vector<std::string>& args) {
  // Under LeakSanitizer (with the library's deliberate leaks suppressed) the list of suppressions
  // used would be printed on standard error, which the tests read as the tool's own.
  static const bool quiet = [] {
    if (const char* lsan = std::getenv("LSAN_OPTIONS")) {
      setenv("LSAN_OPTIONS", (std::string(lsan) + ":print_suppressions=0").c_str(), 1);
    }
    return true;
  }();
  (void)quiet;

  std::vector<std::string> command;
#ifdef VELMORA_TOOL_LAUNCHER
  const std::string launcher = VELMORA_TOOL_LAUNCHER;
  for (size_t start = 0; start <= launcher.size();) {
    const size_t bar = std::min(launcher.find('|', start), launcher.size());
    command.push_back(launcher.substr(start, bar - start));
    start = bar + 1;
  }
#endif
  command.push_back(VELMORA_TOOL_PATH);
  command.insert(command.end(), args.begin(), args.end());
  return command;
}

// Replaces the current (child) process with the command; never returns.
[[noreturn]] inline void Exec(std::vector<std::string> command, const std::string& cwd) {
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  if (chdir(cwd.c_str()) == 0) execv(argv[0], argv.data());
  _exit(127);
}

// The exit code, or 128 + the signal that ended the process (so a crash shows as a failure).
inline int ExitCode(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline std::string ReadAll(std::FILE* file) {
  std::rewind(file);
  std::string text;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text.append(buffer, n);
  std::fclose(file);
  return text;
}

struct RunResult {
  int exit_code;
  std::string out;
  std::string err;
};

// Runs the tool in cwd with standard output and error captured (neither is a terminal).
inline RunResult RunTool(const std::vector<std::string>& args, const std::string& cwd) {
  const std::vector<std::string> command = ToolCommand(args);
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    Exec(command, cwd);
  }
  const int code = ExitCode(pid);
  return {code, ReadAll(out), ReadAll(err)};
}

inline size_t FrameBytes(int width, int height) { return size_t(width) * height * 3 / 2; }

inline std::vector<uint8_t> RandomFrame(int width, int height, std::mt19937* random) {
  std::vector<uint8_t> frame(FrameBytes(width, height));
  for (uint8_t& byte : frame) byte = static_cast<uint8_t>((*random)() & 0xff);
  return frame;
}

// A plain double running mean in arrival order, truncated to bytes, then the library's sharpen
// with the pipeline's threshold and amount.
inline std::vector<uint8_t> ReferenceLongExposure(
    const std::vector<std::vector<uint8_t>>& frames, int width, int height) {
  std::vector<double> mean(FrameBytes(width, height), 0.0);
  for (size_t n = 0; n < frames.size(); ++n) {
    const double count = static_cast<double>(n);
    for (size_t i = 0; i < mean.size(); ++i) {
      mean[i] = (mean[i] * count) / (count + 1.0) + frames[n][i] / (count + 1.0);
    }
  }
  std::vector<uint8_t> picture(mean.size());
  for (size_t i = 0; i < mean.size(); ++i)
    picture[i] = static_cast<uint8_t>(static_cast<int>(mean[i]));
  uint8_t* y = picture.data();
  uint8_t* uv = picture.data() + size_t(width) * height;
  sharpenFilter(y, uv, y, uv, width, height, 2, 1.0f);
  return picture;
}

inline std::vector<uint8_t> SwapChroma(std::vector<uint8_t> frame, int width, int height) {
  for (size_t i = size_t(width) * height; i + 1 < frame.size(); i += 2)
    std::swap(frame[i], frame[i + 1]);
  return frame;
}

struct Png {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgb;
};

// Decodes with libpng's own reader; false if the file is not a valid PNG.
inline bool ReadPng(const std::string& path, Png* png) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
  image.format = PNG_FORMAT_RGB;
  png->rgb.resize(PNG_IMAGE_SIZE(image));
  png->width = image.width;
  png->height = image.height;
  const bool ok = png_image_finish_read(&image, nullptr, png->rgb.data(), 0, nullptr) != 0;
  png_image_free(&image);
  return ok;
}

inline bool WritePng(const std::string& path, uint32_t width, uint32_t height,
                     const std::vector<uint8_t>& rgb) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = width;
  image.height = height;
  image.format = PNG_FORMAT_RGB;
  return png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) != 0;
}

inline size_t CountLines(const std::string& text) {
  return std::count(text.begin(), text.end(), '\n');
}

}  // namespace clitest

#endif  // VELMORA_TESTS_CLI_CLI_HARNESS_H
