// velmora: long-exposure ("flowing water") pictures from bursts of NV12/NV21 frames.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "aligner.h"
#include "bt601.h"
#include "common/cpu.h"
#include "convert.h"
#include "demo_scene.h"
#include "frame_reader.h"
#include "image_writer.h"
#include "inputs.h"
#include "interrupt.h"
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
    "  longexp   fold videos, photos or raw frames into one picture\n"
    "  demo      the same on a built-in synthetic burst\n"
    "  convert   raw NV12/NV21 frames to PNG images and back\n"
    "\n"
    "options:\n"
    "  -h, --help   show this help\n"
    "  --version    show the version\n"
    "\n"
    "Run 'velmora <command> --help' for the options of a command.\n";

const char kLongexpUsage[] =
    "usage: velmora longexp [options] INPUT... -o OUT\n"
    "\n"
    "Folds the frames of the INPUTs, in order, into a running mean and writes the sharpened\n"
    "result. An INPUT is a video (any container and codec FFmpeg reads: MP4, MKV, MOV, WebM...),\n"
    "a picture (PNG or JPEG; several make a sequence) or raw frames (.yuv, .nv12, .nv21, .raw:\n"
    "one frame or several back to back, each W*H luma bytes then W*H/2 bytes of chroma pairs).\n"
    "Odd-sized videos and pictures lose their last column or row. Ctrl-C stops reading and\n"
    "writes the picture of the frames folded so far; a second Ctrl-C abandons it.\n"
    "\n"
    "options:\n"
    "  -o, --output OUT    .png, .jpg/.jpeg, .yuv (raw, input layout), .nv12 or .nv21 (raw)\n"
    "  --start N           skip the first N frames\n"
    "  --every K           then take one frame in K\n"
    "  --frames N          take at most N frames\n"
    "  --quality Q         JPEG quality, 1 to 100 (default 95)\n"
    "  --size WxH          raw frames: width and height (even, non-zero)\n"
    "  --format FMT        raw frames: nv12 (U first, the default) or nv21 (V first)\n"
    "  --align             register every frame onto the first (hand-held bursts); frames\n"
    "                      that cannot be registered are skipped, the picture is cropped\n"
    "                      to what every frame covers\n"
    "  --isa ISA           run the kernels as scalar, avx2 or neon\n"
    "  -v, --verbose       also show the library's log lines on standard output\n"
    "  -h, --help          show this help\n"
    "\n"
    "exit status: 0 done, 2 error (no file written), 128+N stopped by signal N (picture written)\n";

const char kDemoUsage[] =
    "usage: velmora demo [--shake] [--align] [-o OUT.png]\n"
    "\n"
    "Renders a built-in burst of 40 frames of 1280x720 (a river with rocks, its water\n"
    "moving from frame to frame), folds it like longexp and writes the picture.\n"
    "\n"
    "options:\n"
    "  -o, --output OUT    output file (default velmora-demo.png); .png, .jpg, .yuv, .nv12, .nv21\n"
    "  --quality Q         JPEG quality, 1 to 100 (default 95)\n"
    "  --shake             as if hand-held: the camera shakes, the sensor is noisy\n"
    "  --align             register every frame onto the first, as longexp --align\n"
    "  --isa ISA           run the kernels as scalar, avx2 or neon\n"
    "  -v, --verbose       also show the library's log lines on standard output\n"
    "  -h, --help          show this help\n";

const char kConvertUsage[] =
    "usage: velmora convert --size WxH [--format nv12|nv21] [--scale WxH] FRAME... -o OUT.png\n"
    "       velmora convert [--format nv12|nv21] [--scale WxH] IMAGE.png... -o OUT.nv12\n"
    "\n"
    "Raw frames to PNG: every frame of the FRAME files (each holds one frame or several\n"
    "back to back) becomes one PNG in full-range BT.601 colours, the inverse of the\n"
    "PNG-to-raw rule. Several frames need a numbered name, e.g. -o frame%03d.png\n"
    "(frame001.png, frame002.png, ...).\n"
    "PNG to raw: every image becomes one frame (full-range BT.601, rounded), all of them\n"
    "back to back in OUT; the images must share one size unless --scale is given.\n"
    "\n"
    "options:\n"
    "  --size WxH          frame width and height of raw input (even, non-zero)\n"
    "  --format FMT        chroma order of raw input or .yuv output: nv12 (default) or nv21\n"
    "  --scale WxH         resample every frame to WxH with the library's NV12Linear\n"
    "  -o, --output OUT    .png (numbered with %d or %03d for several frames), or\n"
    "                      .nv12, .nv21 or .yuv (raw)\n"
    "  --isa ISA           run the kernels as scalar, avx2 or neon\n"
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

// "\rvelmora: folded 12/40 frames, 31.0 fps, 1 s left" on standard error, rewritten in place at
// most ten times a second, for a terminal only.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ProgressLine(size_t total)
      : enabled_(isatty(STDERR_FILENO) == 1), start_(Clock::now()) {
    update(0, total);
  }
  ~ProgressLine() { finish(); }

  void update(size_t folded, size_t total) {
    if (!enabled_) return;
    const Clock::time_point now = Clock::now();
    const bool last = total != kUnknownFrameCount && folded >= total;
    if (open_ && !last && now - shown_ < std::chrono::milliseconds(100)) return;
    shown_ = now;
    std::string text = "\rvelmora: folded " + std::to_string(folded);
    if (total != kUnknownFrameCount) text += "/" + std::to_string(total);
    text += " frames";
    const double seconds = std::chrono::duration<double>(now - start_).count();
    if (folded > 0 && seconds > 0) {
      const double fps = folded / seconds;
      char rate[64];
      std::snprintf(rate, sizeof rate, ", %.1f fps", fps);
      text += rate;
      if (total != kUnknownFrameCount && total >= folded) {
        std::snprintf(rate, sizeof rate, ", %.0f s left", (total - folded) / fps);
        text += rate;
      }
    }
    text += "\033[K";  // clears what a longer line left
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    open_ = true;
  }
  void finish() {
    if (open_) std::fputc('\n', stderr);
    open_ = false;
  }

 private:
  const bool enabled_;
  const Clock::time_point start_;
  Clock::time_point shown_;
  bool open_ = false;
};

// A whole number from low to high, for the options that take one.
bool ParseNumber(const std::string& option, const std::string& text, size_t low, size_t high,
                 size_t* value, std::string* error) {
  size_t v = 0;
  bool digits = !text.empty() && text.size() <= 9;
  for (char c : text) digits = digits && c >= '0' && c <= '9';
  if (digits) v = std::stoul(text);
  if (!digits || v < low || v > high) {
    *error = option + " '" + text + "': expected a whole number from " + std::to_string(low) +
             " to " + std::to_string(high);
    return false;
  }
  *value = v;
  return true;
}

struct CommonOptions {
  std::string output;
  OutputKind kind = OutputKind::kPng;
  int quality = kDefaultJpegQuality;
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
    *error = common->output +
             ": unknown output extension (use .png, .jpg, .jpeg, .yuv, .nv12 or .nv21)";
    return false;
  }
  if (parsed.has("--quality")) {
    size_t quality = 0;
    if (!ParseNumber("--quality", parsed.value("--quality"), 1, 100, &quality, error)) return false;
    common->quality = int(quality);
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
  RunSummary summary;
  FrameGeometry geometry = source.geometry();
  std::optional<Aligner> aligner;
  if (common.align) aligner.emplace(geometry);
  {
    ProgressLine progress(source.frameCount());
    AllowSoftStop();  // from here a first Ctrl-C keeps the work
    const bool ok = RunLongExposure(
        source, [&progress](size_t folded, size_t total) { progress.update(folded, total); },
        &picture, &summary, &error, aligner ? &*aligner : nullptr);
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
  if (!WritePicture(*out, common.kind, picture, geometry, source.order(), &error,
                    common.quality) ||
      !out->commit(&error)) {
    return Fail(error);
  }
  if (summary.stopped) {
    const int signal = StopSignal();
    std::fprintf(stderr, "velmora: stopped by %s: wrote %s from the %zu frames folded so far\n",
                 signal == SIGINT ? "Ctrl-C" : signal == SIGTERM ? "SIGTERM" : "SIGHUP",
                 common.output.c_str(), summary.folded);
    return 128 + signal;
  }
  return 0;
}

const std::vector<KnownOption> kRunOptions = {{"-o", "--output", true},
                                              {nullptr, "--quality", true},
                                              {nullptr, "--align", false},
                                              {nullptr, "--isa", true},
                                              {"-v", "--verbose", false},
                                              {"-h", "--help", false}};

int Longexp(const std::vector<std::string>& args) {
  std::vector<KnownOption> known = kRunOptions;
  for (const char* name : {"--size", "--format", "--start", "--every", "--frames"})
    known.push_back({nullptr, name, true});
  ParsedArgs parsed;
  std::string error;
  if (!ParseArgs(args, known, "longexp", &parsed, &error)) return Fail(error);
  if (parsed.has("--help")) {
    std::fputs(kLongexpUsage, stdout);
    return 0;
  }

  InputOptions inputs;
  if (parsed.has("--size")) {
    const std::string size = parsed.value("--size");
    if (!ParseSize(size, &inputs.size, &error)) return Fail("--size '" + size + "': " + error);
    inputs.has_size = true;
  }
  if (parsed.has("--format") && !ParseChromaOrder(parsed.value("--format"), &inputs.order)) {
    return Fail("--format '" + parsed.value("--format") + "': unknown format (use nv12 or nv21)");
  }
  constexpr size_t kMost = 999999999;
  if ((parsed.has("--start") &&
       !ParseNumber("--start", parsed.value("--start"), 0, kMost, &inputs.start, &error)) ||
      (parsed.has("--every") &&
       !ParseNumber("--every", parsed.value("--every"), 1, kMost, &inputs.every, &error)) ||
      (parsed.has("--frames") &&
       !ParseNumber("--frames", parsed.value("--frames"), 1, kMost, &inputs.limit, &error))) {
    return Fail(error);
  }
  CommonOptions common;
  if (!ReadCommonOptions(parsed, &common, &error)) return Fail(error);
  if (parsed.positional.empty()) return Fail("no inputs (give one or more videos, pictures or raw frame files)");
  if (OutputIsAnInput(common.output, parsed.positional, &error)) return Fail(error);

  std::unique_ptr<FrameSource> source = OpenInputs(parsed.positional, inputs, &error);
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

// Raw frames to numbered PNGs. Every input is checked before the first file is written; each
// output appears whole or not at all.
int ConvertFramesToPng(const ParsedArgs& parsed, const CommonOptions& common,
                       const FrameGeometry* scale) {
  if (common.kind != OutputKind::kPng) {
    return Fail(common.output + ": raw frames convert to PNG (give -o NAME.png)");
  }
  if (!parsed.has("--size")) return Fail("missing --size WxH (the frame size of the raw input)");
  FrameGeometry geometry;
  std::string error;
  const std::string size = parsed.value("--size");
  if (!ParseSize(size, &geometry, &error)) return Fail("--size '" + size + "': " + error);
  ChromaOrder order = ChromaOrder::kNv12;
  if (parsed.has("--format") && !ParseChromaOrder(parsed.value("--format"), &order)) {
    return Fail("--format '" + parsed.value("--format") + "': unknown format (use nv12 or nv21)");
  }
  bool numbered = false;
  if (!ParseOutputPattern(common.output, &numbered, &error)) return Fail(error);
  std::unique_ptr<FileFrameSource> source =
      FileFrameSource::Open(parsed.positional, geometry, order, &error);
  if (source == nullptr) return Fail(error);
  if (source->frameCount() > 1 && !numbered) {
    return Fail(std::to_string(source->frameCount()) + " frames need a numbered output name, " +
                "e.g. -o frame%03d.png");
  }

  const FrameGeometry shown = scale != nullptr ? *scale : geometry;
  std::vector<uint8_t> frame(geometry.frameBytes());
  for (size_t n = 1; n <= source->frameCount(); ++n) {
    std::unique_ptr<AtomicOutput> out =
        AtomicOutput::Create(OutputPathFor(common.output, numbered, n), &error);
    if (out == nullptr || !source->next(frame.data(), &error)) return Fail(error);
    const std::vector<uint8_t> rgb =
        FrameToRgb(scale != nullptr ? ScaleFrame(frame, geometry, *scale).data() : frame.data(),
                   shown, order);
    if (!WritePng(*out, rgb.data(), shown.width, shown.height, &error) || !out->commit(&error)) {
      return Fail(error);
    }
  }
  return 0;
}

// PNG images to one raw file of frames back to back.
int ConvertPngToFrames(const ParsedArgs& parsed, const CommonOptions& common,
                       const FrameGeometry* scale) {
  if (common.kind == OutputKind::kPng) {
    return Fail("PNG input converts to raw frames (give -o NAME.nv12, .nv21 or .yuv)");
  }
  if (parsed.has("--size")) return Fail("--size is for raw input; a PNG carries its own size");
  ChromaOrder order = common.kind == OutputKind::kNv21 ? ChromaOrder::kNv21 : ChromaOrder::kNv12;
  if (parsed.has("--format")) {
    ChromaOrder asked;
    if (!ParseChromaOrder(parsed.value("--format"), &asked)) {
      return Fail("--format '" + parsed.value("--format") + "': unknown format (use nv12 or nv21)");
    }
    if (common.kind != OutputKind::kRaw && asked != order) {
      return Fail("--format " + parsed.value("--format") + " contradicts the output " +
                  common.output);
    }
    order = asked;
  }

  std::string error;
  std::unique_ptr<AtomicOutput> out = AtomicOutput::Create(common.output, &error);
  if (out == nullptr) return Fail(error);
  FrameGeometry first;
  for (const std::string& path : parsed.positional) {
    RgbImage image;
    if (!ReadPngFile(path, &image, &error)) return Fail(error);
    const FrameGeometry geometry{image.width, image.height};
    const std::string size = std::to_string(image.width) + "x" + std::to_string(image.height);
    if (image.width % 2 != 0 || image.height % 2 != 0 || image.width > kMaxSide ||
        image.height > kMaxSide) {
      return Fail(path + ": " + size + ": NV12/NV21 needs even sides of at most " +
                  std::to_string(kMaxSide));
    }
    if (first.width == 0) first = geometry;
    if (scale == nullptr && (geometry.width != first.width || geometry.height != first.height)) {
      return Fail(path + ": " + size + " differs from the first image's " +
                  std::to_string(first.width) + "x" + std::to_string(first.height) +
                  " (give --scale WxH)");
    }
    std::vector<uint8_t> frame(geometry.frameBytes());
    RgbToNv12(image.rgb.data(), size_t{image.width} * 3, geometry, frame.data(), order);
    if (scale != nullptr) frame = ScaleFrame(frame, geometry, *scale);
    if (std::fwrite(frame.data(), 1, frame.size(), out->file()) != frame.size()) {
      return Fail(common.output + ": cannot write the output file: " + std::strerror(errno));
    }
  }
  return out->commit(&error) ? 0 : Fail(error);
}

int Convert(const std::vector<std::string>& args) {
  std::vector<KnownOption> known = kRunOptions;
  known.push_back({nullptr, "--size", true});
  known.push_back({nullptr, "--format", true});
  known.push_back({nullptr, "--scale", true});
  ParsedArgs parsed;
  std::string error;
  if (!ParseArgs(args, known, "convert", &parsed, &error)) return Fail(error);
  if (parsed.has("--help")) {
    std::fputs(kConvertUsage, stdout);
    return 0;
  }
  CommonOptions common;
  if (!ReadCommonOptions(parsed, &common, &error)) return Fail(error);
  if (parsed.positional.empty()) return Fail("no input files (give raw frame files or PNG images)");
  FrameGeometry scale;
  if (parsed.has("--scale") && !ParseSize(parsed.value("--scale"), &scale, &error)) {
    return Fail("--scale '" + parsed.value("--scale") + "': " + error);
  }
  const FrameGeometry* scale_to = parsed.has("--scale") ? &scale : nullptr;

  // The inputs' kind goes by their names, like the output's: all PNG or all raw.
  size_t pngs = 0;
  for (const std::string& path : parsed.positional) {
    OutputKind kind;
    if (OutputKindForPath(path, &kind) && kind == OutputKind::kPng) ++pngs;
  }
  if (pngs != 0 && pngs != parsed.positional.size()) {
    return Fail("inputs mix PNG images and raw frames; convert them separately");
  }
  if (!common.verbose) g_stdout = SetStdoutAsideFromLibrary();
  return pngs != 0 ? ConvertPngToFrames(parsed, common, scale_to)
                   : ConvertFramesToPng(parsed, common, scale_to);
}

int Main(int argc, char** argv) {
  // The library copies every frame into a fresh allocation and frees it once folded. Kept in the
  // heap rather than mapped and unmapped each time, the same few megabytes are reused instead of
  // faulting in new pages for every frame of a long video.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
  InstallInterruptHandlers();
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
  if (command == "convert") return Convert(rest);
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
