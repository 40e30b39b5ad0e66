// velmora: long-exposure ("flowing water") pictures from bursts of NV12/NV21 frames.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "aligner.h"
#include "common/cpu.h"
#include "demo_scene.h"
#include "frame_reader.h"
#include "image_writer.h"
#include "longexp.h"
#include "velmora/flowing_water.h"

namespace velmora::tool {
namespace {

constexpr int kExitFailure = 2;

// Where the tool prints its own lines; see SetStdoutAsideFromLibrary.
std::FILE* g_stdout = stdout;

const char kToolUsage[] =
    "usage: velmora <command> [options]\n"
    "\n"
    "Averages a burst of NV12/NV21 frames into one sharpened long-exposure picture,\n"
    "the \"flowing water\" effect: moving water turns smooth, the still scene stays sharp.\n"
    "\n"
    "commands:\n"
    "  longexp   fold raw frame files into one picture\n"
    "  demo      the same on a built-in synthetic burst\n"
    "\n"
    "options:\n"
    "  -h, --help   show this help\n"
    "  --version    show the version\n"
    "\n"
    "Run 'velmora <command> --help' for the options of a command.\n";

const char kLongexpUsage[] =
    "usage: velmora longexp --size WxH [--format nv12|nv21] FRAME... -o OUT\n"
    "\n"
    "Folds every frame of the FRAME files, in order, into a running mean and writes the\n"
    "sharpened result. Each file holds one frame or several back to back; a frame is\n"
    "W*H luma bytes followed by W*H/2 bytes of interleaved chroma pairs.\n"
    "\n"
    "options:\n"
    "  --size WxH          frame width and height (even, non-zero)\n"
    "  --format FMT        nv12 (U first, the default) or nv21 (V first)\n"
    "  -o, --output OUT    .png (RGB), .yuv (raw, input layout), .nv12 or .nv21 (raw)\n"
    "  --align             register every frame onto the first (hand-held bursts); frames\n"
    "                      that cannot be registered are skipped, the picture is cropped\n"
    "                      to what every frame covers\n"
    "  --isa ISA           run the kernels as scalar, avx2 or neon\n"
    "  -v, --verbose       also show the library's log lines on standard output\n"
    "  -h, --help          show this help\n";

const char kDemoUsage[] =
    "usage: velmora demo [--shake] [--align] [-o OUT.png]\n"
    "\n"
    "Renders a built-in burst of 40 frames of 1280x720 (a river with rocks, its water\n"
    "moving from frame to frame), folds it like longexp and writes the picture.\n"
    "\n"
    "options:\n"
    "  -o, --output OUT    output file (default velmora-demo.png); .png, .yuv, .nv12 or .nv21\n"
    "  --shake             as if hand-held: the camera shakes, the sensor is noisy\n"
    "  --align             register every frame onto the first, as longexp --align\n"
    "  --isa ISA           run the kernels as scalar, avx2 or neon\n"
    "  -v, --verbose       also show the library's log lines on standard output\n"
    "  -h, --help          show this help\n";

// Every failure a user can cause ends the same way: one line on standard error, exit code 2.
int Fail(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "velmora: error: %s\n", message.c_str());
  return kExitFailure;
}

struct KnownOption {
  const char* short_name;  // may be null
  const char* long_name;
  bool takes_value;
};

struct ParsedArgs {
  std::vector<std::pair<std::string, std::string>> options;  // long name, value
  std::vector<std::string> positional;

  bool has(const std::string& name) const { return find(name) != nullptr; }
  std::string value(const std::string& name) const {
    const std::string* v = find(name);
    return v != nullptr ? *v : std::string();
  }

 private:
  const std::string* find(const std::string& name) const {
    const std::string* last = nullptr;  // a repeated option: the last one counts
    for (const auto& [key, v] : options) {
      if (key == name) last = &v;
    }
    return last;
  }
};

// Options as "-o X", "--output X" or "--output=X"; "--" ends the options.
bool ParseArgs(const std::vector<std::string>& args, const std::vector<KnownOption>& known,
               const std::string& command, ParsedArgs* parsed, std::string* error) {
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      parsed->positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    const size_t equals = arg.rfind("--", 0) == 0 ? arg.find('=') : std::string::npos;
    const std::string name = arg.substr(0, equals);
    const KnownOption* option = nullptr;
    for (const KnownOption& candidate : known) {
      if (name == candidate.long_name || (candidate.short_name && name == candidate.short_name)) {
        option = &candidate;
      }
    }
    if (option == nullptr) {
      *error = "unknown option '" + name + "' (see 'velmora " + command + " --help')";
      return false;
    }
    std::string value;
    if (equals != std::string::npos) {
      if (!option->takes_value) {
        *error = "option " + name + " takes no value";
        return false;
      }
      value = arg.substr(equals + 1);
    } else if (option->takes_value) {
      if (i + 1 == args.size()) {
        *error = "option " + name + " needs a value";
        return false;
      }
      value = args[++i];
    }
    parsed->options.emplace_back(option->long_name, value);
  }
  return true;
}

// The kernel variant --isa names, if this machine runs it.
bool SelectIsa(const std::string& name, Isa* chosen, std::string* error) {
  static const std::pair<const char*, Isa> kIsas[] = {
      {"scalar", Isa::kScalar}, {"avx2", Isa::kAvx2}, {"neon", Isa::kNeon}};
  for (const auto& [isa_name, isa] : kIsas) {
    if (name != isa_name) continue;
    if (!IsaAvailable(isa)) {
      std::string available;
      for (Isa other : AvailableIsas())
        available += std::string(available.empty() ? "" : ", ") + IsaName(other);
      *error = "--isa " + name + ": not available on this machine (available: " + available + ")";
      return false;
    }
    *chosen = isa;
    return true;
  }
  *error = "--isa '" + name + "': unknown instruction set (use scalar, avx2 or neon)";
  return false;
}

// The library logs every step with printf on standard output: useful when working on the
// library, noise for someone running the tool, whose standard output should carry the tool's
// own lines only. (Replacing the weak __android_log_write would not help: the printf comes
// first.) So unless --verbose, descriptor 1 is pointed at /dev/null for the rest of the
// process and the tool prints through a stream on a copy of the original descriptor.
std::FILE* SetStdoutAsideFromLibrary() {
  // On any failure the library's lines stay among the tool's, rather than the tool's being lost.
  std::fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  if (kept < 0) return stdout;
  std::FILE* own = fdopen(kept, "w");
  if (own == nullptr) {
    close(kept);
    return stdout;
  }
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const bool moved = null >= 0 && dup2(null, STDOUT_FILENO) >= 0;
  if (null >= 0) close(null);
  if (!moved) {
    std::fclose(own);
    return stdout;
  }
  return own;
}

// "\rvelmora: folded 12/40 frames" on standard error, kept on one line, for a terminal only.
class ProgressLine {
 public:
  explicit ProgressLine(size_t total) : enabled_(isatty(STDERR_FILENO) == 1) { update(0, total); }
  ~ProgressLine() { finish(); }

  void update(size_t folded, size_t total) {
    if (!enabled_) return;
    std::fprintf(stderr, "\rvelmora: folded %zu/%zu frames", folded, total);
    std::fflush(stderr);
    open_ = true;
  }
  void finish() {
    if (open_) std::fputc('\n', stderr);
    open_ = false;
  }

 private:
  const bool enabled_;
  bool open_ = false;
};

struct CommonOptions {
  std::string output;
  OutputKind kind = OutputKind::kPng;
  bool verbose = false;
  bool align = false;  // --align
  std::optional<Isa> isa;  // --isa, else the library's own choice
};

// Validates what both commands share; on failure *error is set.
bool ReadCommonOptions(const ParsedArgs& parsed, CommonOptions* common, std::string* error) {
  common->verbose = parsed.has("--verbose");
  common->align = parsed.has("--align");
  if (parsed.has("--output")) common->output = parsed.value("--output");
  if (common->output.empty()) {
    *error = "missing -o OUT (the output file)";
    return false;
  }
  if (!OutputKindForPath(common->output, &common->kind)) {
    *error = common->output + ": unknown output extension (use .png, .yuv, .nv12 or .nv21)";
    return false;
  }
  if (!parsed.has("--isa")) return true;
  Isa isa = Isa::kScalar;
  if (!SelectIsa(parsed.value("--isa"), &isa, error)) return false;
  common->isa = isa;
  return true;
}

// Runs the library over source and writes the picture; returns the exit code.
int Produce(FrameSource& source, const CommonOptions& common) {
  std::string error;
  // Created before any frame is read, so an unwritable destination fails at once.
  std::unique_ptr<AtomicOutput> out = AtomicOutput::Create(common.output, &error);
  if (out == nullptr) return Fail(error);

  if (!common.verbose) g_stdout = SetStdoutAsideFromLibrary();
  // Set before the library starts its worker and kept until the picture is out.
  std::optional<ScopedIsa> forced;
  if (common.isa) forced.emplace(*common.isa);
  std::vector<uint8_t> picture;
  FrameGeometry geometry = source.geometry();
  std::optional<Aligner> aligner;
  if (common.align) aligner.emplace(geometry);
  {
    ProgressLine progress(source.frameCount());
    const bool ok = RunLongExposure(
        source, [&progress](size_t folded, size_t total) { progress.update(folded, total); },
        &picture, &error, aligner ? &*aligner : nullptr);
    progress.finish();
    if (!ok) return Fail(error);
  }
  if (aligner) {
    const Rect crop = aligner->crop();
    if (crop.right - crop.left < 2 || crop.bottom - crop.top < 2) {
      return Fail("the aligned frames share no picture to crop to");
    }
    CropPicture(crop, &picture, &geometry);
    std::fprintf(g_stdout,
                 "aligned %zu frames onto the first, threw %zu; cropped to %ux%u at (%d, %d)\n",
                 aligner->aligned(), aligner->thrown(), geometry.width, geometry.height, crop.left,
                 crop.top);
    std::fflush(g_stdout);
  }
  if (!WritePicture(*out, common.kind, picture, geometry, source.order(), &error) ||
      !out->commit(&error)) {
    return Fail(error);
  }
  return 0;
}

const std::vector<KnownOption> kRunOptions = {{"-o", "--output", true},
                                              {nullptr, "--align", false},
                                              {nullptr, "--isa", true},
                                              {"-v", "--verbose", false},
                                              {"-h", "--help", false}};

int Longexp(const std::vector<std::string>& args) {
  std::vector<KnownOption> known = kRunOptions;
  known.push_back({nullptr, "--size", true});
  known.push_back({nullptr, "--format", true});
  ParsedArgs parsed;
  std::string error;
  if (!ParseArgs(args, known, "longexp", &parsed, &error)) return Fail(error);
  if (parsed.has("--help")) {
    std::fputs(kLongexpUsage, stdout);
    return 0;
  }

  FrameGeometry geometry;
  if (!parsed.has("--size")) return Fail("missing --size WxH (the frame size)");
  const std::string size = parsed.value("--size");
  if (!ParseSize(size, &geometry, &error)) return Fail("--size '" + size + "': " + error);
  ChromaOrder order = ChromaOrder::kNv12;
  if (parsed.has("--format") && !ParseChromaOrder(parsed.value("--format"), &order)) {
    return Fail("--format '" + parsed.value("--format") + "': unknown format (use nv12 or nv21)");
  }
  CommonOptions common;
  if (!ReadCommonOptions(parsed, &common, &error)) return Fail(error);
  if (parsed.positional.empty()) return Fail("no input frames (give one or more FRAME files)");

  std::unique_ptr<FileFrameSource> source =
      FileFrameSource::Open(parsed.positional, geometry, order, &error);
  if (source == nullptr) return Fail(error);
  return Produce(*source, common);
}

int Demo(const std::vector<std::string>& args) {
  ParsedArgs parsed;
  std::string error;
  std::vector<KnownOption> known = kRunOptions;
  known.push_back({nullptr, "--shake", false});
  if (!ParseArgs(args, known, "demo", &parsed, &error)) return Fail(error);
  if (parsed.has("--help")) {
    std::fputs(kDemoUsage, stdout);
    return 0;
  }
  if (!parsed.positional.empty()) {
    return Fail("demo takes no input files (unexpected '" + parsed.positional.front() + "')");
  }
  if (!parsed.has("--output")) parsed.options.emplace_back("--output", "velmora-demo.png");
  CommonOptions common;
  if (!ReadCommonOptions(parsed, &common, &error)) return Fail(error);

  DemoScene scene(parsed.has("--shake"));
  const int status = Produce(scene, common);
  if (status == 0) {
    char resolved[PATH_MAX];
    const char* where =
        realpath(common.output.c_str(), resolved) ? resolved : common.output.c_str();
    std::fprintf(g_stdout, "wrote %s\n", where);
    std::fflush(g_stdout);
  }
  return status;
}

int Main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return Fail("missing command (see 'velmora --help')");
  const std::string& command = args.front();
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (command == "-h" || command == "--help") {
    std::fputs(kToolUsage, stdout);
    return 0;
  }
  if (command == "--version") {
    flowing_water_api api{};
    flowing_water_get_API(&api);
    std::printf("velmora %s (library %s)\n", VELMORA_TOOL_VERSION, api.get_version());
    return 0;
  }
  if (command == "longexp") return Longexp(rest);
  if (command == "demo") return Demo(rest);
  if (command.size() > 1 && command[0] == '-') {
    return Fail("unknown option '" + command + "' (see 'velmora --help')");
  }
  return Fail("unknown command '" + command + "' (see 'velmora --help')");
}

}  // namespace
}  // namespace velmora::tool

int main(int argc, char** argv) {
  try {
    return velmora::tool::Main(argc, argv);
  } catch (const std::bad_alloc&) {
    return velmora::tool::Fail("out of memory");
  } catch (const std::exception& e) {
    return velmora::tool::Fail(e.what());
  }
}
